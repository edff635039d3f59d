// The catalogue: loading and checking it, and the records and lists the
// routes build from it (under the lock). The shape of the service's answers
// lives here, apart from the paths that ask for them.

#include "SandboxServiceImpl.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <algorithm>
#include <cctype>

namespace velvox::sandbox {

namespace detail {

std::string lowercase(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// The catalogue's URLs hold "{base}" where the service's address goes. One
// pass into a new text: replacing in place moves the rest of a page for each
// of its hundreds of URLs.
void fillBase(std::string& text, std::string_view base)
{
    constexpr std::string_view placeholder = "{base}";
    size_t at = text.find(placeholder);
    if (at == std::string::npos)
        return;
    std::string filled;
    filled.reserve(text.size() + text.size() / 8);
    size_t copied = 0;
    for (; at != std::string::npos; at = text.find(placeholder, copied)) {
        filled.append(text, copied, at - copied);
        filled.append(base);
        copied = at + placeholder.size();
    }
    filled.append(text, copied);
    text = std::move(filled);
}

int64_t integerOf(const Dictionary& record, std::string_view key)
{
    auto* number = record.objectForKey<Number>(key);
    return number ? number->integerValue() : 0;
}

std::string textOf(const Dictionary& record, std::string_view key)
{
    auto* string = record.objectForKey<String>(key);
    return string ? string->str() : std::string();
}

} // namespace detail

using namespace detail;

namespace {

// What is wrong with a catalogue, or nothing (see docs/api-layer.md for the format).
std::string catalogueProblem(const Dictionary& root)
{
    if (!is<Number>(root.objectForKey("me")))
        return "\"me\" must be the number of a user";
    for (auto key : { "users", "tracks", "comments", "activities" }) {
        auto* list = root.objectForKey<Array>(key);
        if (!list)
            return format("\"%s\" must be an array of objects", key);
        for (auto* record : *list) {
            auto* dictionary = dynamicDowncast<Dictionary>(record);
            if (!dictionary)
                return format("every entry of \"%s\" must be an object", key);
            if (std::string_view(key) != "activities" && !is<Number>(dictionary->objectForKey("id")))
                return format("every entry of \"%s\" needs a numeric \"id\"", key);
        }
    }
    for (auto key : { "follows", "favorites" }) {
        auto* list = root.objectForKey<Array>(key);
        if (!list)
            return format("\"%s\" must be an array of pairs", key);
        for (auto* pair : *list) {
            auto* entry = dynamicDowncast<Array>(pair);
            if (!entry || entry->count() != 2 || !is<Number>(entry->objectAtIndex(0)) || !is<Number>(entry->objectAtIndex(1)))
                return format("every entry of \"%s\" must be a pair of numbers", key);
        }
    }
    int64_t me = downcast<Number>(root.objectForKey("me"))->integerValue();
    for (auto* user : *root.objectForKey<Array>("users")) {
        if (downcast<Number>(downcast<Dictionary>(user)->objectForKey("id"))->integerValue() == me)
            return {};
    }
    return "\"me\" names no user of \"users\"";
}

// No shipped catalogue in the resources: most likely a statically linked
// program outside VelvoxKit's prefix, which has to say where the resources are.
std::string missingCatalogueMessage()
{
    return "cannot read the catalogue Resources/sandbox/catalogue.json: the resource folder "
        + Bundle::mainBundle().resourcePath()
        + " has none. A program that does not live in VelvoxKit's prefix names the folder"
          " (VelvoxKit_RESOURCE_DIR in CMake, pkg-config's resourcedir) with"
          " velvox::Bundle::mainBundle().setResourcePath(...) or $VELVOX_RESOURCES";
}

} // namespace

bool SandboxService::Impl::loadCatalogue(std::string* error)
{
    std::string path = options.cataloguePath;
    if (path.empty())
        path = Bundle::mainBundle().pathForResource("sandbox/catalogue", "json").value_or("");
    auto data = Data::createWithContentsOfFile(path);
    if (!data) {
        if (error)
            *error = path.empty() ? missingCatalogueMessage() : "cannot read the catalogue " + path;
        return false;
    }
    RefPtr<Error> parseError;
    auto catalogue = mutableObjectFromJSONDataWithParseOptions(*data, JCParseOptionStrict, &parseError);
    auto* root = dynamicDowncast<Dictionary>(catalogue.get());
    if (!root) {
        if (error)
            *error = "the catalogue is not a JSON object: " + (parseError ? parseError->localizedDescription()->str() : std::string());
        return false;
    }
    if (auto problem = catalogueProblem(*root); !problem.empty()) {
        if (error)
            *error = "the catalogue " + path + " is not usable: " + problem;
        return false;
    }
    me = integerOf(*root, "me");
    for (auto* user : *root->objectForKey<Array>("users"))
        users.emplace(integerOf(*downcast<Dictionary>(user), "id"), *downcast<MutableDictionary>(user));
    for (auto* track : *root->objectForKey<Array>("tracks"))
        tracks.emplace(integerOf(*downcast<Dictionary>(track), "id"), *downcast<MutableDictionary>(track));
    for (auto* comment : *root->objectForKey<Array>("comments"))
        comments.emplace_back(*downcast<MutableDictionary>(comment));
    for (auto* pair : *root->objectForKey<Array>("follows")) {
        auto* entry = downcast<Array>(pair);
        follows.emplace(downcast<Number>(entry->objectAtIndex(0))->integerValue(), downcast<Number>(entry->objectAtIndex(1))->integerValue());
    }
    for (auto* pair : *root->objectForKey<Array>("favorites")) {
        auto* entry = downcast<Array>(pair);
        favorites.emplace(downcast<Number>(entry->objectAtIndex(0))->integerValue(), downcast<Number>(entry->objectAtIndex(1))->integerValue());
    }
    for (auto* activity : *root->objectForKey<Array>("activities"))
        activities.emplace_back(*downcast<Dictionary>(activity));
    return true;
}

RefPtr<Dictionary> SandboxService::catalogueTrackRecord(size_t index, std::string_view baseURL)
{
    auto path = Bundle::mainBundle().pathForResource("sandbox/catalogue", "json");
    auto data = path ? Data::createWithContentsOfFile(*path) : nullptr;
    if (!data)
        return nullptr;
    std::string text(data->view());
    fillBase(text, baseURL);
    auto catalogue = objectFromJSONString(*String::create(text));
    auto* root = dynamicDowncast<Dictionary>(catalogue.get());
    auto* tracks = root ? root->objectForKey<Array>("tracks") : nullptr;
    if (!tracks || index >= tracks->count())
        return nullptr;
    return dynamicDowncast<Dictionary>(tracks->objectAtIndex(index));
}

// MARK: Records

Ref<Dictionary> SandboxService::Impl::shortUser(int64_t identifier) const
{
    auto record = MutableDictionary::create();
    auto it = users.find(identifier);
    if (it == users.end())
        return record->copy();
    for (auto key : { "id", "kind", "username", "permalink", "uri", "permalink_url", "avatar_url" }) {
        if (auto* value = it->second->objectForKey(key))
            record->setObject(value, key);
    }
    return record->copy();
}

Ref<Dictionary> SandboxService::Impl::fullUser(int64_t identifier) const
{
    auto record = users.at(identifier)->mutableCopy();
    int64_t followers = 0, followings = 0, trackCount = 0, favoriteCount = 0;
    for (auto& [follower, followed] : follows) {
        followers += followed == identifier;
        followings += follower == identifier;
    }
    for (auto& [trackIdentifier, track] : tracks)
        trackCount += integerOf(*track, "user_id") == identifier;
    for (auto& [user, track] : favorites)
        favoriteCount += user == identifier;
    record->setObject(Number::withInteger(followers), "followers_count");
    record->setObject(Number::withInteger(followings), "followings_count");
    record->setObject(Number::withInteger(trackCount), "track_count");
    record->setObject(Number::withInteger(favoriteCount), "public_favorites_count");
    return record->copy();
}

Ref<Dictionary> SandboxService::Impl::fullTrack(int64_t identifier) const
{
    auto record = tracks.at(identifier)->mutableCopy();
    if (auto upload = uploads.find(identifier); upload != uploads.end()) {
        double age = std::chrono::duration<double>(Clock::now() - upload->second).count();
        record->setObject(String::create(age >= options.processingSeconds ? "finished" : "storing"), "state");
    }
    int64_t favoriters = 0, commentCount = 0;
    for (auto& [user, track] : favorites)
        favoriters += track == identifier;
    for (auto& comment : comments)
        commentCount += integerOf(*comment, "track_id") == identifier;
    record->setObject(Number::withInteger(favoriters), "favoritings_count");
    record->setObject(Number::withInteger(commentCount), "comment_count");
    record->setObject(Number::withBool(favorites.count({ me, identifier })), "user_favorite");
    record->setObject(shortUser(integerOf(*record, "user_id")), "user");
    return record->copy();
}

Ref<Dictionary> SandboxService::Impl::commentRecord(const Dictionary& comment) const
{
    auto record = comment.mutableCopy();
    record->setObject(shortUser(integerOf(comment, "user_id")), "user");
    return record->copy();
}

Ref<Dictionary> SandboxService::Impl::activityRecord(const Dictionary& activity) const
{
    auto record = MutableDictionary::create();
    for (auto key : { "type", "created_at", "tags" })
        record->setObject(activity.objectForKey(key), key);
    std::string type = textOf(activity, "type");
    int64_t trackIdentifier = integerOf(activity, "track_id");
    auto* note = activity.objectForKey("sharing_note");
    if (type == "track")
        record->setObject(fullTrack(trackIdentifier), "origin");
    else if (type == "track-sharing") {
        auto origin = MutableDictionary::create();
        origin->setObject(fullTrack(trackIdentifier), "track");
        origin->setObject(note, "sharing_note");
        record->setObject(origin, "origin");
    } else {
        // Playlists: a small record of their own.
        auto playlist = MutableDictionary::create();
        playlist->setObject(Number::withInteger(70000 + trackIdentifier), "id");
        playlist->setObject(String::create("playlist"), "kind");
        playlist->setObject(String::create("Sandbox playlist"), "title");
        playlist->setObject(String::format("{base}/playlists/%lld", static_cast<long long>(70000 + trackIdentifier)), "permalink_url");
        // The playlist of the track's owner: the track and the owner's next ones, up to three.
        auto owned = tracksOf(integerOf(*tracks.at(trackIdentifier), "user_id"));
        auto playlistTracks = MutableArray::create();
        playlistTracks->addObject(fullTrack(trackIdentifier));
        for (auto owner : owned) {
            if (playlistTracks->count() < 3 && owner != trackIdentifier)
                playlistTracks->addObject(fullTrack(owner));
        }
        playlist->setObject(playlistTracks, "tracks");
        playlist->setObject(shortUser(integerOf(*tracks.at(trackIdentifier), "user_id")), "user");
        if (type == "playlist-sharing") {
            auto origin = MutableDictionary::create();
            origin->setObject(playlist, "playlist");
            origin->setObject(note, "sharing_note");
            record->setObject(origin, "origin");
        } else
            record->setObject(playlist, "origin");
    }
    return record->copy();
}

// MARK: Lists

std::vector<int64_t> SandboxService::Impl::tracksOf(int64_t user) const
{
    std::vector<int64_t> identifiers;
    for (auto it = tracks.rbegin(); it != tracks.rend(); ++it) {
        if (integerOf(*it->second, "user_id") == user)
            identifiers.push_back(it->first);
    }
    return identifiers;
}

std::vector<int64_t> SandboxService::Impl::favoritesOf(int64_t user) const
{
    std::vector<int64_t> identifiers;
    for (auto& [owner, track] : favorites) {
        if (owner == user && tracks.count(track))
            identifiers.push_back(track);
    }
    return identifiers;
}

std::vector<int64_t> SandboxService::Impl::relatedUsers(bool followers, int64_t user) const
{
    std::vector<int64_t> identifiers;
    for (auto& [follower, followed] : follows) {
        int64_t self = followers ? followed : follower;
        int64_t other = followers ? follower : followed;
        if (self == user && users.count(other))
            identifiers.push_back(other);
    }
    return identifiers;
}

std::function<Ref<Dictionary>(int64_t)> SandboxService::Impl::trackBuilder() const
{
    return [this](int64_t identifier) { return fullTrack(identifier); };
}

std::function<Ref<Dictionary>(int64_t)> SandboxService::Impl::userBuilder() const
{
    return [this](int64_t identifier) { return fullUser(identifier); };
}

} // namespace velvox::sandbox
