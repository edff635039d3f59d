// The velvox commands that work through the store, as a desktop client does.

#include "Commands.h"
#include "Session.h"

#include <VelvoxAPI/VXVelvoxAPI.h>
#include <VelvoxKit/VXActivity.h>
#include <Views/VXViewRenderer.h>

#include <cstdio>
#include <filesystem>

namespace velvox::app {

namespace {

Ref<String> text(const std::string& value) { return String::create(value); }

std::string str(String* value) { return value ? value->str() : ""; }

std::vector<std::string> userRow(VXUser& user)
{
    return { str(user.resourceIdentifier()), str(user.username()), str(user.fullName()), str(user.city()),
        std::to_string(user.trackCount()), std::to_string(user.followersCount()) };
}
const std::vector<std::string> userHeading { "ID", "USERNAME", "NAME", "CITY", "TRACKS", "FOLLOWERS" };

std::vector<std::string> trackRow(VXResourceController& store, VXTrack& track)
{
    auto owner = store.cachedResource<VXUser>(track.userIdentifier());
    bool unplayed = store.meUserIdentifier() && track.resourceIdentifier() && track.isUnplayed();
    return { unplayed ? "•" : " ", str(track.resourceIdentifier()), str(track.title()), owner ? str(owner->username()) : str(track.userIdentifier()),
        durationText(track.duration()), std::to_string(track.playbackCount()), relativeDate(track.createdAt()) };
}
const std::vector<std::string> trackHeading { " ", "ID", "TITLE", "USER", "LENGTH", "PLAYS", "CREATED" };

std::vector<std::string> commentRow(VXComment& comment)
{
    auto author = VXResourceController::sharedResourceController().cachedResource<VXUser>(comment.userIdentifier());
    std::string body = str(comment.body());
    for (auto& c : body) {
        if (c == '\n' || c == '\r' || c == '\t')
            c = ' ';
    }
    return { str(comment.resourceIdentifier()), author ? str(author->username()) : str(comment.userIdentifier()),
        comment.isTimedComment() && comment.timestamp() > 0 ? durationText(comment.timestamp()) : "", relativeDate(comment.createdAt()), body };
}
const std::vector<std::string> commentHeading { "ID", "USER", "AT", "WHEN", "COMMENT" };

std::vector<std::string> activityRow(VXActivity& activity)
{
    static const char* const types[] = { "?", "track", "shared", "?", "playlist", "?", "?", "?", "shared playlist" };
    int32_t type = activity.type();
    auto* track = activity.track();
    std::string note = activity.sharingNote() ? str(activity.sharingNote()->text()) : "";
    return { type >= 0 && type <= 8 ? types[type] : "?", relativeDate(activity.createdAt()), track ? str(track->resourceIdentifier()) : "",
        track ? str(track->title()) : "", note };
}
const std::vector<std::string> activityHeading { "TYPE", "WHEN", "TRACK", "TITLE", "NOTE" };

// Shows one model object: its record for scripts, a few lines for people.
void showObject(Session& session, ZUObject& object, const std::string& note = {})
{
    if (session.options().json) {
        auto record = jsonRecord(object);
        session.print(jsonText(record));
        return;
    }
    auto& store = session.store();
    std::vector<std::vector<std::string>> rows;
    if (auto* user = dynamicDowncast<VXUser>(&object)) {
        rows = { userHeading, userRow(*user) };
    } else if (auto* track = dynamicDowncast<VXTrack>(&object)) {
        rows = { trackHeading, trackRow(store, *track) };
    } else if (auto* comment = dynamicDowncast<VXComment>(&object)) {
        rows = { commentHeading, commentRow(*comment) };
    }
    session.print(columns(rows));
    if (!note.empty() && !session.options().quiet)
        fprintf(stderr, "%s\n", note.c_str());
}

// Shows the items of a list: a table for people, an array of records for scripts.
void showItems(Session& session, Array& items)
{
    if (session.options().json) {
        auto records = MutableArray::create();
        for (auto* item : items) {
            if (auto* object = dynamicDowncast<ZUObject>(item))
                records->addObject(jsonRecord(*object));
        }
        session.print(jsonText(records));
        return;
    }
    std::vector<std::vector<std::string>> rows;
    for (auto* item : items) {
        if (auto* track = dynamicDowncast<VXTrack>(item)) {
            if (rows.empty())
                rows.push_back(trackHeading);
            rows.push_back(trackRow(session.store(), *track));
        } else if (auto* user = dynamicDowncast<VXUser>(item)) {
            if (rows.empty())
                rows.push_back(userHeading);
            rows.push_back(userRow(*user));
        } else if (auto* comment = dynamicDowncast<VXComment>(item)) {
            if (rows.empty())
                rows.push_back(commentHeading);
            rows.push_back(commentRow(*comment));
        } else if (auto* activity = dynamicDowncast<VXActivity>(item)) {
            if (rows.empty())
                rows.push_back(activityHeading);
            rows.push_back(activityRow(*activity));
        }
    }
    if (rows.empty()) {
        session.print("(nothing)\n");
        return;
    }
    session.print(columns(rows));
}

int needArguments(const StoreCommand& command, size_t count, const char* usage)
{
    if (command.arguments.size() == count)
        return ExitSuccess;
    fprintf(stderr, "velvox %s: usage: velvox %s\n", command.name.c_str(), usage);
    return ExitUsage;
}

// A single fetch through the store, saying when the answer came from the
// identity map of an earlier run.
template<typename T, typename Fetch>
int showSingle(Session& session, const StoreCommand& command, Fetch fetch)
{
    RefPtr<T> fetched;
    RefPtr<Error> failure;
    bool done = false;
    auto cached = fetch(command.refresh, [&](T* object, Error* error) {
        fetched = object;
        failure = error;
        done = true;
    });
    if (cached && !command.refresh) {
        showObject(session, *cached, "(from the identity map of an earlier run; --refresh asks the service)");
        return ExitSuccess;
    }
    if (!session.waitFor([&] { return done; }))
        return session.fail(command.name.c_str(), session.noAnswer().ptr());
    if (!fetched)
        return session.fail(command.name.c_str(), failure.get());
    showObject(session, *fetched);
    return ExitSuccess;
}

RefPtr<VXTrack> fetchTrack(Session& session, const std::string& identifier, int& code, bool refresh = false)
{
    RefPtr<VXTrack> track;
    RefPtr<Error> failure;
    bool done = false;
    auto cached = session.store().trackForIdentifier(text(identifier).ptr(), refresh, [&](VXTrack* fetched, Error* error) {
        track = fetched;
        failure = error;
        done = true;
    });
    if (cached && !refresh)
        return cached;
    if (!session.waitFor([&] { return done; }) || !track)
        code = session.fail("track", failure.get());
    return track;
}

RefPtr<VXUser> fetchUser(Session& session, const std::string& identifier, int& code)
{
    RefPtr<VXUser> user;
    RefPtr<Error> failure;
    bool done = false;
    session.store().userForIdentifier(text(identifier).ptr(), true, [&](VXUser* fetched, Error* error) {
        user = fetched;
        failure = error;
        done = true;
    });
    if (!session.waitFor([&] { return done; }) || !user)
        code = session.fail("user", failure.get());
    return user;
}

// The list a command names, through the store's factories.
RefPtr<VXRemoteCollectionController> collectionFor(Session& session, const StoreCommand& command, int& code)
{
    auto& store = session.store();
    RefPtr<String> user = command.userIdentifier.empty() ? nullptr : RefPtr<String>(text(command.userIdentifier));
    RefPtr<String> search = command.search.empty() ? nullptr : RefPtr<String>(text(command.search));
    const auto& name = command.name;
    auto argument = [&]() -> RefPtr<String> {
        if (command.arguments.size() != 1) {
            fprintf(stderr, "velvox %s: usage: velvox %s TRACK\n", name.c_str(), name.c_str());
            code = ExitUsage;
            return nullptr;
        }
        return text(command.arguments[0]);
    };
    if (name == "tracks") {
        if (user && search)
            return store.tracksForUserIdentifier(user.get(), search.get(), nullptr);
        if (user)
            return store.tracksForUserIdentifier(user.get());
        if (search)
            return store.tracksForSearchQuery(search.get(), nullptr);
        return store.meUserTracks();
    }
    if (name == "favorites")
        return user ? store.favoritesForUserIdentifier(user.get()) : store.favoriteTracks();
    if (name == "followers")
        return user ? store.usersFollowingUserForIdentifier(user.get()) : store.usersFollowingMe();
    if (name == "followings")
        return user ? store.usersFollowedByUserForIdentifier(user.get()) : store.usersFollowedByMe();
    if (name == "users") {
        if (!search) {
            fprintf(stderr, "velvox users: usage: velvox users --search QUERY\n");
            code = ExitUsage;
            return nullptr;
        }
        return store.usersForSearchQuery(search.get());
    }
    if (name == "dashboard")
        return command.exclusive ? store.exclusiveActivities() : store.incomingActivities();
    if (name == "favoriters") {
        auto track = argument();
        return track ? RefPtr<VXRemoteCollectionController>(store.favoritersForTrackIdentifier(track.get())) : nullptr;
    }
    if (name == "comments") {
        auto track = argument();
        return track ? RefPtr<VXRemoteCollectionController>(store.commentsForTrackIdentifier(track.get())) : nullptr;
    }
    return nullptr;
}

// An upload's progress, when standard error is a terminal.
class ProgressBar {
public:
    explicit ProgressBar(bool show)
        : m_show(show)
    {
    }
    ~ProgressBar() { end(); }
    // The API controller's progress is total ÷ sent, falling toward 1.
    void update(float quotient)
    {
        if (!m_show || !(quotient >= 1))
            return;
        int percent = static_cast<int>(100 / quotient);
        int filled = percent / 4;
        fprintf(stderr, "\rUploading [%s%s] %3d%%", std::string(filled, '#').c_str(), std::string(25 - filled, ' ').c_str(), percent);
        m_drawn = true;
    }
    void end()
    {
        if (m_drawn)
            fputc('\n', stderr);
        m_drawn = false;
    }

private:
    bool m_show;
    bool m_drawn { false };
};

const char* stateName(int32_t state)
{
    static const char* const names[] = { "unknown", "storing", "stored", "finished", "failed" };
    return state >= 0 && state <= 4 ? names[state] : "unknown";
}

int upload(Session& session, const StoreCommand& command)
{
    if (int code = needArguments(command, 1, "upload FILE --title TITLE [--description TEXT] [--sharing public|private] [--wait]"))
        return code;
    std::error_code ignored;
    auto path = std::filesystem::absolute(command.arguments[0], ignored).string();
    if (!FileManager::defaultManager().fileExistsAtPath(path)) {
        fprintf(stderr, "velvox upload: no such file: %s\n", command.arguments[0].c_str());
        return ExitFailure;
    }
    if (auto problem = unsendableFileProblem(path); !problem.empty()) {
        fprintf(stderr, "velvox upload: cannot send %s\n", problem.c_str());
        return ExitFailure;
    }
    if (command.title.empty()) {
        fprintf(stderr, "velvox upload: a title is needed (--title)\n");
        return ExitUsage;
    }
    auto fields = MutableDictionary::create();
    fields->setObject(text(command.title), "track[title]");
    if (!command.description.empty())
        fields->setObject(text(command.description), "track[description]");
    if (!command.sharing.empty())
        fields->setObject(text(command.sharing), "track[sharing]");
    fields->setObject(URL::create("file://" + percentEncodePath(path)).get(), "track[asset_data]");

    ProgressBar bar(isatty(STDERR_FILENO) && !session.options().quiet && !session.options().json);
    RefPtr<Dictionary> answer;
    RefPtr<Error> failure;
    bool done = false;
    session.store().postTrackWithTrackDictionary(fields.ptr(), [&bar](VXTrack*, float progress) { bar.update(progress); },
        [&](Object* json, Error* error) {
            answer = dynamicDowncast<Dictionary>(json);
            failure = error;
            done = true;
        });
    bool answered = session.waitFor([&] { return done; }, 600);
    bar.end();
    if (!answered || !answer)
        return session.fail("upload", failure.get());
    auto identifier = answer->objectForKey("id") ? answer->objectForKey("id")->description() : text("");
    auto track = session.store().cachedResource<VXTrack>(identifier.ptr());
    if (!track)
        return session.fail("upload", nullptr);
    if (!command.wait) {
        showObject(session, *track);
        return ExitSuccess;
    }
    // Followed through the store's polling until the service is done with it.
    if (!session.options().quiet)
        fprintf(stderr, "Uploaded track %s, %s; waiting for the service to process it...\n", identifier->utf8(), stateName(track->state()));
    auto observation = track->addObserver("state", [&session, &track](ZUObject&, const String&) {
        if (!session.options().quiet)
            fprintf(stderr, "state: %s\n", stateName(track->state()));
    });
    int code = ExitSuccess;
    fetchTrack(session, identifier->str(), code, true);
    if (code)
        return code;
    if (!session.waitFor([&] { return track->state() == VXTrackStateFinished || track->state() == VXTrackStateFailed; }, 600)) {
        fprintf(stderr, "velvox upload: the service is still processing track %s\n", identifier->utf8());
        return ExitService;
    }
    showObject(session, *track);
    return track->state() == VXTrackStateFinished ? ExitSuccess : ExitService;
}

// Whether a failed request may be asked again: no answer at all, "too many
// requests", or a failure of the service itself.
bool worthRetrying(Error* error)
{
    if (!error)
        return false;
    if (error->domain()->isEqualToString(URLErrorDomain))
        return true;
    return error->domain()->isEqualToString(VXVelvoxAPIErrorDomain) && (error->code() == 429 || error->code() >= 500);
}

// Whether the signed-in user follows the user: 1 or 0, or -1 with the
// failure. A check that fails for a passing reason is asked again twice, a
// second and then two apart; then it is given up.
int32_t followState(Session& session, String* identifier, RefPtr<Error>& failure)
{
    static constexpr double pauses[] = { 1, 2 };
    for (size_t attempt = 0;; ++attempt) {
        RefPtr<Number> result;
        bool done = false;
        session.store().meIsFollowingUserForIdentifier(identifier, [&](Number* answer, Error* error) {
            result = answer;
            failure = error;
            done = true;
        });
        if (!session.waitFor([&] { return done; })) {
            failure = session.noAnswer();
            return -1;
        }
        int32_t state = result ? result->intValue() : -1;
        if (state != -1 || attempt == std::size(pauses) || !worthRetrying(failure.get()))
            return state;
        session.waitFor([] { return false; }, pauses[attempt]);
    }
}

int follow(Session& session, const StoreCommand& command, bool following)
{
    if (int code = needArguments(command, 1, following ? "follow USER" : "unfollow USER"))
        return code;
    int code = ExitSuccess;
    if (!session.signIn(code))
        return code;
    auto user = fetchUser(session, command.arguments[0], code);
    if (!user)
        return code;
    RefPtr<Error> failure;
    int32_t state = followState(session, user->resourceIdentifier(), failure);
    if (state == -1)
        return session.fail(command.name.c_str(), failure.get());
    if (state != (following ? 1 : 0)) {
        bool done = false;
        auto changed = [&](Object*, Error* error) {
            failure = error;
            done = true;
        };
        if (following)
            session.store().startFollowingUserForIdentifier(user->resourceIdentifier(), changed);
        else
            session.store().stopFollowingByUserForIdentifier(user->resourceIdentifier(), changed);
        if (!session.waitFor([&] { return done; }))
            return session.fail(command.name.c_str(), session.noAnswer().ptr());
        if (failure)
            return session.fail(command.name.c_str(), failure.get());
    }
    session.print(std::string(following ? "following " : "not following ") + printable(str(user->username())) + "\n");
    return ExitSuccess;
}

int favorite(Session& session, const StoreCommand& command, bool on)
{
    if (int code = needArguments(command, 1, on ? "favorite TRACK" : "unfavorite TRACK"))
        return code;
    RefPtr<Error> failure;
    bool done = false;
    auto answer = [&](VXAPIController*, Object*, Error* error) {
        failure = error;
        done = true;
    };
    auto identifier = text(command.arguments[0]);
    if (on)
        session.store().apiController()->favoriteTrackIdentifer(identifier.ptr(), answer);
    else
        session.store().apiController()->unfavoriteTrackIdentifer(identifier.ptr(), answer);
    if (!session.waitFor([&] { return done; }) || failure)
        return session.fail(command.name.c_str(), failure.get());
    session.print(std::string(on ? "favorited " : "unfavorited ") + command.arguments[0] + "\n");
    return ExitSuccess;
}

int comment(Session& session, const StoreCommand& command)
{
    if (int code = needArguments(command, 2, "comment TRACK TEXT [--at SECONDS]"))
        return code;
    RefPtr<VXComment> posted;
    RefPtr<Error> failure;
    bool done = false;
    auto block = [&](VXComment* comment, Error* error) {
        posted = comment;
        failure = error;
        done = true;
    };
    auto track = text(command.arguments[0]), body = text(command.arguments[1]);
    if (command.at >= 0)
        session.store().postCommentWithTrackIdentifier(track.ptr(), body.ptr(), command.at, block);
    else
        session.store().postCommentWithTrackIdentifier(track.ptr(), body.ptr(), block);
    if (!session.waitFor([&] { return done; }) || !posted)
        return session.fail("comment", failure.get());
    showObject(session, *posted);
    return ExitSuccess;
}

int play(Session& session, const StoreCommand& command)
{
    if (int code = needArguments(command, 1, "play TRACK"))
        return code;
    int code = ExitSuccess;
    if (!session.signIn(code))
        return code;
    auto track = fetchTrack(session, command.arguments[0], code);
    if (!track)
        return code;
    bool wasUnplayed = track->isUnplayed();
    track->setUnplayed(false);
    session.print(std::string(wasUnplayed ? "played " : "played again ") + printable(str(track->title())) + "\n");
    return ExitSuccess;
}

int history(Session& session)
{
    int code = ExitSuccess;
    auto me = session.signIn(code);
    if (!me)
        return code;
    auto* played = session.store().playedTrackIdentifiers();
    std::vector<std::string> identifiers;
    if (played) {
        for (auto* identifier : *played)
            identifiers.push_back(identifier->description()->str());
    }
    std::sort(identifiers.begin(), identifiers.end());
    if (session.options().json) {
        auto list = MutableArray::create();
        for (auto& identifier : identifiers)
            list->addObject(text(identifier));
        session.print(jsonText(list));
        return ExitSuccess;
    }
    std::vector<std::vector<std::string>> rows { { "ID", "TITLE" } };
    for (auto& identifier : identifiers) {
        auto track = session.store().cachedResource<VXTrack>(text(identifier).ptr());
        rows.push_back({ identifier, track ? str(track->title()) : "" });
    }
    session.print(identifiers.empty() ? "No tracks played yet by " + printable(str(me->username())) + ".\n" : columns(rows));
    return ExitSuccess;
}

int view(Session& session, const StoreCommand& command)
{
    if (command.arguments.empty()) {
        fprintf(stderr, "velvox view: usage: velvox view dashboard | track ID | user ID | comments ID [-o FILE]\n");
        return ExitUsage;
    }
    const std::string& kind = command.arguments[0];
    bool needsIdentifier = kind == "track" || kind == "user" || kind == "comments";
    if (kind != "dashboard" && !needsIdentifier) {
        fprintf(stderr, "velvox view: no view named %s (dashboard, track, user, comments)\n", kind.c_str());
        return ExitUsage;
    }
    if (needsIdentifier != (command.arguments.size() == 2)) {
        fprintf(stderr, "velvox view: usage: velvox view %s%s [-o FILE]\n", kind.c_str(), needsIdentifier ? " ID" : "");
        return ExitUsage;
    }
    int code = ExitSuccess;
    auto me = session.signIn(code);
    if (!me)
        return code;
    auto& store = session.store();
    auto variables = MutableDictionary::create();
    variables->setObject(me, "me");
    std::string page = kind;
    if (kind == "dashboard") {
        auto feed = store.incomingActivities();
        if (int code = session.loadCollection("view", feed))
            return code;
        variables->setObject(&feed->items(), "activities");
    } else if (kind == "track" || kind == "comments") {
        auto track = fetchTrack(session, command.arguments[1], code, true);
        if (!track)
            return code;
        // The comments' path needs the track's id, and its owner needs one too.
        if (!track->resourceIdentifier()) {
            fprintf(stderr, "velvox view: the service's answer (track %s) has no \"id\"\n", command.arguments[1].c_str());
            return ExitService;
        }
        if (track->userIdentifier()) {
            track->user();
            session.waitFor([&] { return track->user().get() != nullptr; }, 10);
        }
        auto comments = store.commentsForTrackIdentifier(track->resourceIdentifier());
        if (int code = session.loadCollection("view", comments))
            return code;
        variables->setObject(track, "track");
        variables->setObject(&comments->items(), "comments");
    } else {
        auto user = fetchUser(session, command.arguments[1], code);
        if (!user)
            return code;
        auto tracks = store.tracksForUserIdentifier(user->resourceIdentifier());
        if (int code = session.loadCollection("view", tracks))
            return code;
        variables->setObject(user, "user");
        variables->setObject(&tracks->items(), "tracks");
    }
    RefPtr<Error> error;
    auto html = VXViewRenderer::renderPage(page, variables.ptr(), &error);
    if (!html) {
        fprintf(stderr, "velvox view: %s\n", error ? error->localizedDescription()->utf8() : "the view could not be rendered");
        return ExitFailure;
    }
    if (command.output.empty() || command.output == "-") {
        session.print(html->str());
        return ExitSuccess;
    }
    if (!FileManager::writeFileAtomically(command.output, html->view())) {
        fprintf(stderr, "velvox view: cannot write %s\n", command.output.c_str());
        return ExitFailure;
    }
    if (!session.options().quiet)
        fprintf(stderr, "Wrote %s\n", command.output.c_str());
    return ExitSuccess;
}

int runCommand(Session& session, const StoreCommand& command)
{
    auto& store = session.store();
    const auto& name = command.name;
    if (name == "me") {
        int code = ExitSuccess;
        auto me = session.signIn(code);
        if (me)
            showObject(session, *me);
        return code;
    }
    if (name == "user" || name == "track") {
        if (int code = needArguments(command, 1, name == "user" ? "user ID [--refresh]" : "track ID [--refresh]"))
            return code;
        auto identifier = text(command.arguments[0]);
        if (name == "user") {
            // A user known only from the short record inside tracks and
            // comments is fetched in full.
            auto cached = store.cachedResource<VXUser>(identifier.ptr());
            StoreCommand userCommand = command;
            userCommand.refresh = command.refresh || (cached && !cached->hasFullUserRepresentation());
            return showSingle<VXUser>(session, userCommand, [&](bool refresh, auto block) { return store.userForIdentifier(identifier.ptr(), refresh, block); });
        }
        // The signed-in account decides which tracks are unplayed.
        if (store.meUserIdentifier() == nullptr) {
            int code = ExitSuccess;
            if (!session.signIn(code))
                return code;
        }
        return showSingle<VXTrack>(session, command, [&](bool refresh, auto block) { return store.trackForIdentifier(identifier.ptr(), refresh, block); });
    }
    if (name == "follow" || name == "unfollow")
        return follow(session, command, name == "follow");
    if (name == "favorite" || name == "unfavorite")
        return favorite(session, command, name == "favorite");
    if (name == "comment")
        return comment(session, command);
    if (name == "upload")
        return upload(session, command);
    if (name == "play")
        return play(session, command);
    if (name == "history")
        return history(session);
    if (name == "view")
        return view(session, command);

    // The lists.
    int code = ExitSuccess;
    auto collection = collectionFor(session, command, code);
    if (!collection)
        return code ? code : ExitUsage;
    if (name == "tracks" || name == "favorites" || name == "dashboard") {
        // Unplayed marks belong to the signed-in account.
        if (!session.signIn(code))
            return code;
    }
    if (int failed = session.loadCollection(name.c_str(), *collection))
        return failed;
    showItems(session, collection->items());
    if (collection->hasMoreItems() && !session.options().all && !session.options().quiet && !session.options().json)
        fprintf(stderr, "(more: --all loads every page)\n");
    return ExitSuccess;
}

} // namespace

int runStoreCommand(Session& session, const StoreCommand& command)
{
    int code = runCommand(session, command);
    // What was loaded is shown; the list's cut makes the run fail all the same.
    return code == ExitSuccess && session.listWasCut() ? ExitService : code;
}

} // namespace velvox::app
