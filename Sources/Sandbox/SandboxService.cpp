#include "SandboxService.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <set>
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace velvox::sandbox {

namespace {

using Clock = std::chrono::steady_clock;

// A 1×1 PNG: every avatar, artwork and waveform the sandbox serves.
const unsigned char pngBytes[] = { 0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48, 0x44, 0x52, 0x00, 0x00,
    0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00, 0x00, 0x1F, 0x15, 0xC4, 0x89, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54,
    0x78, 0x9C, 0x63, 0x60, 0x60, 0xF8, 0x0F, 0x00, 0x01, 0x04, 0x01, 0x00, 0x5F, 0xE5, 0xC3, 0x4B, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E,
    0x44, 0xAE, 0x42, 0x60, 0x82 };

std::string lowercase(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string timestampNow()
{
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    char text[40];
    strftime(text, sizeof(text), "%Y/%m/%d %H:%M:%S +0000", &utc);
    return text;
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

// What a form field or multipart part costs beside its bytes (its node and
// strings), counted against the body limit: a body of empty fields must not
// grow into many times its size.
constexpr size_t fieldOverheadBytes = 128;

// Adds the fields of an application/x-www-form-urlencoded body to `params`;
// answers false, having added only some, when their cost passes `budget`.
bool parseForm(std::string_view body, httplib::Params& params, size_t budget)
{
    auto decode = [](std::string_view text) {
        std::string spaced(text);
        std::replace(spaced.begin(), spaced.end(), '+', ' ');
        return percentDecode(spaced);
    };
    while (!body.empty()) {
        size_t ampersand = body.find('&');
        std::string_view field = body.substr(0, ampersand);
        body = ampersand == std::string_view::npos ? std::string_view() : body.substr(ampersand + 1);
        if (field.empty())
            continue;
        if (budget < fieldOverheadBytes)
            return false;
        budget -= fieldOverheadBytes;
        size_t equals = field.find('=');
        params.emplace(decode(field.substr(0, equals)), equals == std::string_view::npos ? std::string() : decode(field.substr(equals + 1)));
    }
    return true;
}

// The latency a fault really waits: faults made in code may hold any double.
double effectiveLatency(double seconds)
{
    if (!(seconds > 0))
        return 0;
    return std::min(seconds, Fault::maximumLatencySeconds);
}

// Shuts down the sockets of this process whose local end is 127.0.0.1:port
// and whose peer is at `peerPort` (any port when 0): the connections the
// server accepted (a client of the same process has its own port at its end).
void shutDownConnections(int port, int peerPort = 0)
{
    DIR* descriptors = opendir("/proc/self/fd");
    if (!descriptors)
        return;
    while (dirent* entry = readdir(descriptors)) {
        char* end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (!end || *end || fd < 0 || fd == dirfd(descriptors))
            continue;
        sockaddr_in local {}, peer {};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer);
        if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &localLength) != 0 || local.sin_family != AF_INET)
            continue;
        if (ntohs(local.sin_port) != port || getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            continue;
        if (peerPort && ntohs(peer.sin_port) != peerPort)
            continue;
        shutdown(static_cast<int>(fd), SHUT_RDWR);
    }
    closedir(descriptors);
}

// Whether the request has a body the server has not read.
bool carriesBody(const httplib::Request& request)
{
    return request.has_header("Transfer-Encoding") || std::strtoull(request.get_header_value("Content-Length").c_str(), nullptr, 10) > 0;
}

// Sends the answer, then closes the connection: what is left of an unread
// body must not be taken for the next request. The server keeps a connection
// whatever the answer's headers say, but not when a content provider fails,
// so the body goes out through one that fails once it has written it.
void closeAfterAnswer(httplib::Response& response)
{
    if (response.body.empty())
        return;
    auto body = std::make_shared<std::string>(std::move(response.body));
    response.body.clear();
    std::string type = response.get_header_value("Content-Type");
    response.headers.erase("Content-Type");
    response.set_header("Connection", "close");
    response.set_content_provider(body->size(), type, [body](size_t offset, size_t, httplib::DataSink& sink) {
        if (!offset)
            sink.write(body->data(), body->size());
        return false;
    });
}

// The numeric group of a route's pattern.
int64_t requestIdentifier(const httplib::Request& request, size_t group = 1)
{
    return std::stoll(request.matches[group].str());
}

} // namespace

struct SandboxService::Impl {
    Options options;
    httplib::Server server;
    std::thread thread;
    int port { 0 };
    std::atomic<bool> stopping { false };

    mutable std::mutex mutex;
    std::condition_variable stopped;
    int64_t me { 0 };
    std::map<int64_t, Ref<MutableDictionary>> users;
    std::map<int64_t, Ref<MutableDictionary>> tracks;
    std::vector<Ref<MutableDictionary>> comments;
    std::set<std::pair<int64_t, int64_t>> follows;   // (follower, followed)
    std::set<std::pair<int64_t, int64_t>> favorites; // (user, track)
    std::vector<Ref<Dictionary>> activities;
    std::map<int64_t, Clock::time_point> uploads;
    int64_t nextTrackIdentifier { 90000 };
    int64_t nextCommentIdentifier { 900000 };
    std::vector<Fault> faults;
    std::map<std::string, int> requestCounts;
    size_t countedTargetBytes { 0 };
    int totalRequests { 0 };
    int heldRequests { 0 };

    bool loadCatalogue(std::string* error);
    void countRequest(const httplib::Request&);
    void installRoutes();
    void installAccounting();
    void installMeRoutes();
    void installSocialRoutes();
    void installActivityRoutes();
    void installUserRoutes();
    void installTrackRoutes();
    void installImageRoutes();

    // Lists are identifiers; only the records on the page asked for are built (under the lock).
    std::vector<int64_t> tracksOf(int64_t user) const;
    std::vector<int64_t> favoritesOf(int64_t user) const;
    // The users who follow `user` (followers), or whom `user` follows.
    std::vector<int64_t> relatedUsers(bool followers, int64_t user) const;
    std::function<Ref<Dictionary>(int64_t)> trackBuilder() const;
    std::function<Ref<Dictionary>(int64_t)> userBuilder() const;

    // Records (under the lock).
    Ref<Dictionary> shortUser(int64_t identifier) const;
    Ref<Dictionary> fullUser(int64_t identifier) const;
    Ref<Dictionary> fullTrack(int64_t identifier) const;
    Ref<Dictionary> commentRecord(const Dictionary& comment) const;
    Ref<Dictionary> activityRecord(const Dictionary& activity) const;

    // Answers.
    void sendJSON(httplib::Response&, Object* value, int status = 200) const;
    void sendError(httplib::Response&, int status, std::string_view message) const;
    // A page of records built only for the items on it.
    void sendPage(const httplib::Request&, httplib::Response&, const std::vector<int64_t>& identifiers,
        const std::function<Ref<Dictionary>(int64_t)>& build) const;
    bool authorized(const httplib::Request&) const;

    // Routes whose requests may carry a body (POST, PUT, DELETE). The body is
    // read here rather than by the server, which bounds only bodies sent with
    // a length: whether it comes with one or in chunks, past
    // options.maximumUploadBytes the request is answered 413 and its
    // connection closed. The handler sees the request with its body, files and
    // form fields filled in.
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    enum class BodyMethod { Post, Put, Patch, Delete };
    void bodyRoute(BodyMethod, const std::string& pattern, Handler);
    // Reads the body of `request` into `into`; answers false, with the answer
    // in `response`, when it cannot be read or is too large.
    bool readBody(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader&, httplib::Request& into) const;

    // Applies a fault, if one matches; answers whether the request is answered by it.
    bool applyFault(const httplib::Request&, httplib::Response&);
};

SandboxService::SandboxService(Options options)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->options = std::move(options);
}

SandboxService::~SandboxService()
{
    stop();
}

namespace {

// What is wrong with a catalogue, or nothing (see docs/sandbox.md for the format).
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

} // namespace

bool SandboxService::Impl::loadCatalogue(std::string* error)
{
    std::string path = options.cataloguePath;
    if (path.empty())
        path = Bundle::mainBundle().pathForResource("sandbox/catalogue", "json").value_or("");
    auto data = Data::createWithContentsOfFile(path);
    if (!data) {
        if (error)
            *error = "cannot read the catalogue " + (path.empty() ? std::string("Resources/sandbox/catalogue.json") : path);
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
        playlist->setObject(Array::create({ fullTrack(trackIdentifier).ptr() }), "tracks");
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

// MARK: Answers

void SandboxService::Impl::sendJSON(httplib::Response& response, Object* value, int status) const
{
    auto text = jc_encode(value, JCSerializeOptionNone, JCEncodeAsString, nullptr);
    std::string body = text ? downcast<String>(text.get())->str() : std::string("null");
    // URLs of the catalogue point at the sandbox itself.
    fillBase(body, "http://127.0.0.1:" + std::to_string(port));
    response.status = status;
    response.set_content(body, "application/json; charset=utf-8");
}

void SandboxService::Impl::sendError(httplib::Response& response, int status, std::string_view message) const
{
    auto error = Dictionary::create({ { "error_message", String::create(message).ptr() } });
    sendJSON(response, Dictionary::create({ { "errors", Array::create({ error.ptr() }).ptr() } }).ptr(), status);
}

void SandboxService::Impl::sendPage(const httplib::Request& request, httplib::Response& response, const std::vector<int64_t>& identifiers,
    const std::function<Ref<Dictionary>(int64_t)>& build) const
{
    size_t limit = 50, offset = 0;
    if (request.has_param("limit"))
        limit = std::clamp<long>(std::atol(request.get_param_value("limit").c_str()), 0, 200);
    if (request.has_param("offset"))
        offset = std::max<long>(0, std::atol(request.get_param_value("offset").c_str()));
    auto page = MutableArray::create();
    for (size_t i = offset; i < identifiers.size() && i < offset + limit; ++i)
        page->addObject(build(identifiers[i]).ptr());
    sendJSON(response, page.ptr());
}

bool SandboxService::Impl::authorized(const httplib::Request& request) const
{
    if (request.get_header_value("Authorization") == "OAuth " + options.token)
        return true;
    return request.has_param("oauth_token") && request.get_param_value("oauth_token") == options.token;
}

void SandboxService::Impl::bodyRoute(BodyMethod method, const std::string& pattern, Handler handler)
{
    auto route = [this, handler = std::move(handler)](const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader) {
        httplib::Request filled = request;
        if (readBody(request, response, reader, filled))
            handler(filled, response);
    };
    switch (method) {
    case BodyMethod::Post:
        server.Post(pattern, std::move(route));
        break;
    case BodyMethod::Put:
        server.Put(pattern, std::move(route));
        break;
    case BodyMethod::Patch:
        server.Patch(pattern, std::move(route));
        break;
    case BodyMethod::Delete:
        server.Delete(pattern, std::move(route));
        break;
    }
}

bool SandboxService::Impl::readBody(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader,
    httplib::Request& into) const
{
    if (!carriesBody(request))
        return true;
    const size_t limit = options.maximumUploadBytes;
    size_t taken = 0;
    bool tooLarge = false;
    auto take = [&](size_t bytes) {
        if (bytes > limit - taken) {
            tooLarge = true;
            return false;
        }
        taken += bytes;
        return true;
    };
    bool read = false;
    if (request.is_multipart_form_data()) {
        httplib::MultipartFormDataMap::iterator part = into.files.end();
        read = reader(
            [&](const httplib::MultipartFormData& header) {
                if (!take(fieldOverheadBytes + header.name.size() + header.filename.size() + header.content_type.size()))
                    return false;
                part = into.files.emplace(header.name, header);
                return true;
            },
            [&](const char* data, size_t length) {
                if (part == into.files.end() || !take(length))
                    return false;
                part->second.content.append(data, length);
                return true;
            });
    } else {
        read = reader([&](const char* data, size_t length) {
            if (!take(length))
                return false;
            into.body.append(data, length);
            return true;
        });
        if (read && request.get_header_value("Content-Type").starts_with("application/x-www-form-urlencoded")
            && !parseForm(into.body, into.params, limit - taken))
            tooLarge = true;
    }
    if (read && !tooLarge)
        return true;
    // A body declared too large is refused by the server's reader with 413 before
    // any of it is taken; one that grows too large in chunks is cut here.
    if (tooLarge || response.status == 413)
        sendError(response, 413, "413 - Request Entity Too Large");
    else
        sendError(response, 400, "400 - Bad Request");
    closeAfterAnswer(response);
    return false;
}

bool SandboxService::Impl::applyFault(const httplib::Request& request, httplib::Response& response)
{
    Fault fault;
    {
        std::lock_guard lock(mutex);
        auto it = std::find_if(faults.begin(), faults.end(), [&](auto& candidate) { return request.path.starts_with(candidate.pathPrefix); });
        if (it == faults.end())
            return false;
        fault = *it;
        if (it->count > 0 && --it->count == 0)
            faults.erase(it);
    }
    switch (fault.kind) {
    case Fault::Kind::Latency: {
        std::unique_lock lock(mutex);
        stopped.wait_for(lock, std::chrono::duration<double>(effectiveLatency(fault.seconds)), [&] { return stopping.load(); });
        return false;
    }
    case Fault::Kind::Status:
        sendError(response, fault.status, std::to_string(fault.status) + " - Sandbox fault");
        return true;
    case Fault::Kind::NotJSON:
        response.status = 200;
        response.set_content("<html><body>Service temporarily unavailable</body></html>", "text/html");
        return true;
    case Fault::Kind::CutOff: {
        auto body = std::make_shared<std::string>(R"([{"id":1,"title":"a record that never ends","description":"0123456789"}])");
        response.set_content_provider(body->size(), "application/json", [body](size_t offset, size_t, httplib::DataSink& sink) {
            if (offset)
                return false; // the rest never comes
            sink.write(body->data(), body->size() / 2);
            return true;
        });
        return true;
    }
    case Fault::Kind::Drop:
        response.set_chunked_content_provider("application/json", [](size_t, httplib::DataSink&) { return false; });
        return true;
    case Fault::Kind::NoAnswer: {
        std::unique_lock lock(mutex);
        if (heldRequests >= maximumHeldRequests) {
            // Every held request keeps a worker: past the bound, the client
            // still gets no answer, but the worker is free at once.
            lock.unlock();
            shutDownConnections(port, request.remote_port);
            response.status = 503;
            return true;
        }
        ++heldRequests;
        stopped.wait(lock, [&] { return stopping.load(); });
        --heldRequests;
        response.status = 503;
        return true;
    }
    }
    return false;
}

// MARK: Routes

void SandboxService::Impl::installRoutes()
{
    installAccounting();
    installMeRoutes();
    installSocialRoutes();
    installActivityRoutes();
    installUserRoutes();
    installTrackRoutes();
    installImageRoutes();
    // Where no route takes a body, none is read: the answer closes the connection instead.
    auto nowhere = [this](const httplib::Request&, httplib::Response& response, const httplib::ContentReader&) {
        sendError(response, 404, "404 - Not Found");
        closeAfterAnswer(response);
    };
    server.Post(".*", nowhere).Put(".*", nowhere).Patch(".*", nowhere).Delete(".*", nowhere);
    server.set_error_handler([this](const httplib::Request&, httplib::Response& response) {
        // An answer that closes its connection has its body in a content provider already.
        if (response.status == 404 && response.body.empty() && !response.has_header("Connection"))
            sendError(response, 404, "404 - Not Found");
    });
    server.set_exception_handler([this](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
        sendError(response, 500, "500 - Internal Server Error");
    });
}

void SandboxService::Impl::countRequest(const httplib::Request& request)
{
    std::string target = request.method + " " + request.path;
    bool first = true;
    for (auto& [name, value] : request.params) {
        if (request.method == "GET" || request.method == "DELETE") {
            target += (first ? "?" : "&") + name + "=" + value;
            first = false;
        }
    }
    std::lock_guard lock(mutex);
    ++totalRequests;
    if (auto it = requestCounts.find(target); it != requestCounts.end())
        ++it->second;
    else if (requestCounts.size() < maximumCountedTargets && countedTargetBytes + target.size() <= maximumCountedTargetBytes) {
        countedTargetBytes += target.size();
        requestCounts.emplace(std::move(target), 1);
    }
}

// Counts every request, logs it, checks the token and applies the fault modes.
void SandboxService::Impl::installAccounting()
{
    server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        countRequest(request);
        // Answered here, a request's body is never read.
        auto answered = [&] {
            if (carriesBody(request))
                closeAfterAnswer(response);
            return httplib::Server::HandlerResponse::Handled;
        };
        // The server would read a body of this method itself, without a bound.
        if (request.method == "PRI") {
            sendError(response, 405, "405 - Method Not Allowed");
            return answered();
        }
        if (options.logRequests)
            VXLog("velvox-sandbox: %s %s", request.method, request.path);
        if (!request.path.starts_with("/images/") && !authorized(request)) {
            sendError(response, 401, "401 - Unauthorized");
            return answered();
        }
        if (applyFault(request, response))
            return answered();
        return httplib::Server::HandlerResponse::Unhandled;
    });
}

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

// The signed-in account and its lists.
void SandboxService::Impl::installMeRoutes()
{
    server.Get("/me", [this](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendJSON(response, fullUser(me).ptr());
    });
    server.Get("/me/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, tracksOf(me), trackBuilder());
    });
    server.Get("/me/favorites", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, favoritesOf(me), trackBuilder());
    });
    server.Get("/me/followers", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, relatedUsers(true, me), userBuilder());
    });
    server.Get("/me/followings", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        sendPage(request, response, relatedUsers(false, me), userBuilder());
    });

    // Follow checks: the user's record when the relation holds, else 404.
}

// Follow and favorite checks and changes.
void SandboxService::Impl::installSocialRoutes()
{
    server.Get(R"(/me/(followings|followers)/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request, 2);
        bool followings = request.matches[1] == "followings";
        bool holds = followings ? follows.count({ me, other }) : follows.count({ other, me });
        if (!holds || !users.count(other))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullUser(other).ptr());
    });
    bodyRoute(BodyMethod::Put, R"(/me/followings/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request);
        if (!users.count(other))
            return sendError(response, 404, "404 - Not Found");
        bool added = follows.emplace(me, other).second;
        sendJSON(response, fullUser(other).ptr(), added ? 201 : 200);
    });
    bodyRoute(BodyMethod::Delete, R"(/me/followings/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t other = requestIdentifier(request);
        if (!follows.erase({ me, other }))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, Dictionary::create({ { "status", String::create("200 - OK").ptr() } }).ptr());
    });
    bodyRoute(BodyMethod::Put, R"(/me/favorites/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        bool added = favorites.emplace(me, track).second;
        sendJSON(response, Dictionary::create({ { "status", String::create(added ? "201 - Created" : "200 - OK").ptr() } }).ptr(), added ? 201 : 200);
    });
    bodyRoute(BodyMethod::Delete, R"(/me/favorites/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        if (!favorites.erase({ me, requestIdentifier(request) }))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, Dictionary::create({ { "status", String::create("200 - OK").ptr() } }).ptr());
    });

    // Activity feeds: cursor paging; "exclusive" holds what was shared with the user.
}

// The cursor-paged dashboard.
void SandboxService::Impl::installActivityRoutes()
{
    server.Get(R"(/me/activities/tracks(/exclusive)?)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        bool exclusive = request.matches[1].length() > 0;
        std::vector<Ref<Dictionary>> feed;
        for (auto& activity : activities) {
            if (!exclusive || textOf(*activity, "type").ends_with("-sharing"))
                feed.push_back(activity);
        }
        size_t start = 0;
        if (request.has_param("cursor")) {
            std::string cursor = request.get_param_value("cursor");
            if (!cursor.starts_with("c") || cursor.size() < 2)
                return sendError(response, 400, "400 - Bad cursor");
            start = std::strtoull(cursor.c_str() + 1, nullptr, 10);
        }
        size_t pageSize = static_cast<size_t>(std::max(1, options.activityPageSize));
        auto collection = MutableArray::create();
        for (size_t i = start; i < feed.size() && i < start + pageSize; ++i)
            collection->addObject(activityRecord(*feed[i]));
        auto answer = MutableDictionary::create();
        answer->setObject(collection, "collection");
        if (start + pageSize < feed.size())
            answer->setObject(String::format("{base}%s?cursor=c%zu", request.path, start + pageSize), "next_href");
        sendJSON(response, answer.ptr());
    });
}

// Users, their lists, and the user search.
void SandboxService::Impl::installUserRoutes()
{
    server.Get(R"(/users/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t user = requestIdentifier(request);
        if (!users.count(user))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullUser(user).ptr());
    });
    server.Get(R"(/users/(\d+)/(tracks|favorites|followers|followings|connections))",
        [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(mutex);
            int64_t user = requestIdentifier(request);
            if (!users.count(user))
                return sendError(response, 404, "404 - Not Found");
            std::string list = request.matches[2];
            if (list == "tracks") {
                // A "q" narrows a user's tracks to those whose title holds it.
                auto items = tracksOf(user);
                if (request.has_param("q")) {
                    std::string query = lowercase(request.get_param_value("q"));
                    std::erase_if(items, [&](int64_t track) { return lowercase(textOf(*tracks.at(track), "title")).find(query) == std::string::npos; });
                }
                return sendPage(request, response, items, trackBuilder());
            }
            if (list == "favorites")
                return sendPage(request, response, favoritesOf(user), trackBuilder());
            if (list == "followers")
                return sendPage(request, response, relatedUsers(true, user), userBuilder());
            if (list == "followings")
                return sendPage(request, response, relatedUsers(false, user), userBuilder());
            sendPage(request, response, std::vector<int64_t> {}, userBuilder());
        });
    server.Get("/users", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        std::string query = lowercase(request.get_param_value("q"));
        std::vector<int64_t> matches;
        for (auto& [identifier, user] : users) {
            if (lowercase(textOf(*user, "username")).find(query) != std::string::npos || lowercase(textOf(*user, "full_name")).find(query) != std::string::npos)
                matches.push_back(identifier);
        }
        sendPage(request, response, matches, userBuilder());
    });
}

// Tracks, their comments and favoriters, the track search and uploads.
void SandboxService::Impl::installTrackRoutes()
{
    server.Get("/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        std::string query = lowercase(request.get_param_value("q"));
        std::vector<int64_t> matches;
        for (auto& [identifier, track] : tracks) {
            if (textOf(*track, "sharing") == "private")
                continue;
            for (auto key : { "title", "tag_list", "genre" }) {
                if (lowercase(textOf(*track, key)).find(query) != std::string::npos) {
                    matches.push_back(identifier);
                    break;
                }
            }
        }
        sendPage(request, response, matches, trackBuilder());
    });
    server.Get(R"(/tracks/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        sendJSON(response, fullTrack(track).ptr());
    });
    server.Get(R"(/tracks/(\d+)/comments)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        std::vector<int64_t> indices;
        for (size_t i = 0; i < comments.size(); ++i) {
            if (integerOf(*comments[i], "track_id") == track)
                indices.push_back(static_cast<int64_t>(i));
        }
        sendPage(request, response, indices, [this](int64_t index) { return commentRecord(*comments[index]); });
    });
    server.Get(R"(/tracks/(\d+)/favoriters)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        std::vector<int64_t> favoriters;
        for (auto& [user, favorite] : favorites) {
            if (favorite == track && users.count(user))
                favoriters.push_back(user);
        }
        sendPage(request, response, favoriters, userBuilder());
    });
    bodyRoute(BodyMethod::Post, R"(/tracks/(\d+)/comments)", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        int64_t track = requestIdentifier(request);
        if (!tracks.count(track))
            return sendError(response, 404, "404 - Not Found");
        std::string body = request.has_param("comment[body]") ? request.get_param_value("comment[body]")
            : request.has_file("comment[body]")                ? request.get_file_value("comment[body]").content
                                                               : std::string();
        if (body.empty())
            return sendError(response, 422, "422 - comment[body] is required");
        auto comment = MutableDictionary::create();
        int64_t commentIdentifier = nextCommentIdentifier++;
        comment->setObject(Number::withInteger(commentIdentifier), "id");
        comment->setObject(String::create("comment"), "kind");
        comment->setObject(String::create(timestampNow()), "created_at");
        comment->setObject(Number::withInteger(track), "track_id");
        comment->setObject(Number::withInteger(me), "user_id");
        if (request.has_param("comment[timestamp]"))
            comment->setObject(Number::withInteger(std::atoll(request.get_param_value("comment[timestamp]").c_str())), "timestamp");
        else
            comment->setObject(&Null::null(), "timestamp");
        comment->setObject(String::create(body), "body");
        comment->setObject(String::format("{base}/comments/%lld", static_cast<long long>(commentIdentifier)), "uri");
        comments.push_back(comment);
        sendJSON(response, commentRecord(*comment).ptr(), 201);
    });

    // Uploads: a multipart (or form) POST makes a track that is "storing" for a while.
    bodyRoute(BodyMethod::Post, "/tracks", [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        auto field = [&](const std::string& name) -> std::string {
            if (request.has_file(name))
                return request.get_file_value(name).content;
            return request.has_param(name) ? request.get_param_value(name) : std::string();
        };
        std::string title = field("track[title]");
        if (title.empty())
            return sendError(response, 422, "422 - track[title] is required");
        int64_t trackIdentifier = nextTrackIdentifier++;
        auto track = MutableDictionary::create();
        track->setObject(Number::withInteger(trackIdentifier), "id");
        track->setObject(String::create("track"), "kind");
        track->setObject(String::create(timestampNow()), "created_at");
        track->setObject(Number::withInteger(me), "user_id");
        track->setObject(Number::withInteger(0), "duration");
        track->setObject(&Number::trueValue(), "commentable");
        track->setObject(String::create("storing"), "state");
        std::string sharing = field("track[sharing]");
        track->setObject(String::create(sharing.empty() ? "public" : sharing), "sharing");
        track->setObject(String::create(field("track[tag_list]")), "tag_list");
        track->setObject(String::create(field("track[description]")), "description");
        track->setObject(String::create(title), "title");
        track->setObject(String::create(lowercase(title)), "permalink");
        std::string asset = field("track[asset_data]");
        track->setObject(Number::withInteger(static_cast<int64_t>(asset.size())), "original_content_size");
        track->setObject(String::format("{base}/tracks/%lld", static_cast<long long>(trackIdentifier)), "uri");
        track->setObject(String::format("{base}/tracks/%lld/stream", static_cast<long long>(trackIdentifier)), "stream_url");
        track->setObject(String::format("{base}/images/waveforms/%lld.png", static_cast<long long>(trackIdentifier)), "waveform_url");
        track->setObject(Number::withInteger(0), "playback_count");
        tracks.emplace(trackIdentifier, track);
        uploads.emplace(trackIdentifier, Clock::now());
        sendJSON(response, fullTrack(trackIdentifier).ptr(), 201);
    });

    // Images, the "-t300x300" variants included, need no token.
}

// Images, which need no token.
void SandboxService::Impl::installImageRoutes()
{
    server.Get(R"(/images/(avatars|artworks|waveforms)/([A-Za-z0-9_.-]+)\.png)", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(reinterpret_cast<const char*>(pngBytes), sizeof(pngBytes)), "image/png");
    });
}

// MARK: Life cycle

bool SandboxService::start(std::string* error)
{
    auto& impl = *m_impl;
    {
        std::lock_guard lock(impl.mutex);
        if (impl.users.empty() && !impl.loadCatalogue(error))
            return false;
    }
    impl.installRoutes();
    // Headers and body go out in separate writes: without this, Nagle's
    // algorithm holds the body back for a delayed acknowledgement (40 ms).
    impl.server.set_tcp_nodelay(true);
    // Idle kept-alive connections hold a worker until they time out, and stop()
    // waits for the workers: keep that wait short.
    impl.server.set_keep_alive_timeout(1);
    // A client that sends slowly gives up its worker after a short wait per
    // read, and there are workers to spare for the others.
    impl.server.set_read_timeout(2, 0);
    impl.server.set_write_timeout(5, 0);
    impl.server.new_task_queue = [] { return new httplib::ThreadPool(32); };
    // Uploads are read into memory: bounded.
    impl.server.set_payload_max_length(impl.options.maximumUploadBytes);
    // No SO_REUSEPORT: a port in use is refused, not shared with another listener.
    impl.server.set_socket_options([](int socket) {
        int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    impl.port = impl.options.port ? (impl.server.bind_to_port("127.0.0.1", impl.options.port) ? impl.options.port : -1)
                                  : impl.server.bind_to_any_port("127.0.0.1");
    if (impl.port <= 0) {
        if (error)
            *error = "cannot listen on 127.0.0.1:" + std::to_string(impl.options.port) + " (is the port in use?)";
        return false;
    }
    impl.stopping = false;
    impl.thread = std::thread([&impl] { impl.server.listen_after_bind(); });
    // The socket is bound already; connections queue until the loop runs.
    while (!impl.server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

void SandboxService::stop()
{
    auto& impl = *m_impl;
    if (!impl.thread.joinable())
        return;
    {
        std::lock_guard lock(impl.mutex);
        impl.stopping = true;
    }
    impl.stopped.notify_all();
    impl.server.stop();
    // Workers finish the request they are reading before they look at the
    // stop; a client that sends slowly (or not at all) would hold stop() for as
    // long as it likes. Cut the server's side of every open connection instead.
    shutDownConnections(impl.port);
    impl.thread.join();
}

std::string SandboxService::baseURL() const
{
    return "http://127.0.0.1:" + std::to_string(m_impl->port);
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

int SandboxService::port() const
{
    return m_impl->port;
}

const std::string& SandboxService::token() const
{
    return m_impl->options.token;
}

int64_t SandboxService::meUserIdentifier() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->me;
}

void SandboxService::addFault(Fault fault)
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->faults.push_back(std::move(fault));
}

void SandboxService::clearFaults()
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->faults.clear();
}

int SandboxService::requestCount(const std::string& methodAndPath) const
{
    std::lock_guard lock(m_impl->mutex);
    auto it = m_impl->requestCounts.find(methodAndPath);
    return it == m_impl->requestCounts.end() ? 0 : it->second;
}

int SandboxService::totalRequestCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->totalRequests;
}

size_t SandboxService::countedTargetCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->requestCounts.size();
}

void SandboxService::resetRequestCounts()
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->requestCounts.clear();
    m_impl->countedTargetBytes = 0;
    m_impl->totalRequests = 0;
}

int SandboxService::heldRequestCount() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->heldRequests;
}

bool parseFault(std::string_view text, Fault& fault, std::string* problem)
{
    auto fail = [&](std::string reason) {
        if (problem)
            *problem = std::move(reason);
        return false;
    };
    size_t equals = text.rfind('=');
    if (equals == std::string_view::npos || !equals || text[0] != '/')
        return fail("a fault is PATH=MODE, with PATH starting with /");
    fault = Fault {};
    fault.pathPrefix = std::string(text.substr(0, equals));
    std::string_view mode = text.substr(equals + 1);
    std::string_view argument;
    if (size_t colon = mode.find(':'); colon != std::string_view::npos) {
        argument = mode.substr(colon + 1);
        mode = mode.substr(0, colon);
    }
    auto number = [&](double& out) {
        std::string digits(argument);
        char* end = nullptr;
        out = strtod(digits.c_str(), &end);
        return !digits.empty() && end && !*end && out >= 0;
    };
    double value = 0;
    if (mode == "latency") {
        // strtod takes "inf", "nan" and 1e308, none of which a clock can wait.
        if (!number(value) || !std::isfinite(value))
            return fail("latency:SECONDS needs a finite number of seconds, 0 or more, not \"" + std::string(argument) + "\"");
        fault.kind = Fault::Kind::Latency;
        fault.seconds = std::min(value, Fault::maximumLatencySeconds);
    } else if (mode == "status" && number(value) && value >= 100 && value <= 599)
        fault.kind = Fault::Kind::Status, fault.status = static_cast<int>(value);
    else if (mode == "not-json" && argument.empty())
        fault.kind = Fault::Kind::NotJSON;
    else if (mode == "cut-off" && argument.empty())
        fault.kind = Fault::Kind::CutOff;
    else if (mode == "drop" && argument.empty())
        fault.kind = Fault::Kind::Drop;
    else if (mode == "no-answer" && argument.empty())
        fault.kind = Fault::Kind::NoAnswer;
    else
        return fail("unknown fault mode " + std::string(text.substr(equals + 1))
            + " (latency:SECONDS, status:CODE, not-json, cut-off, drop or no-answer)");
    return true;
}

} // namespace velvox::sandbox
