// The velvox commands that work through the store, as a desktop client does:
// the helpers they share, and the dispatch to each command family's file.

#include "StoreCommands.h"

#include <VelvoxKit/VXActivity.h>

#include <cstdio>

namespace velvox::app {

namespace store {

Ref<String> text(const std::string& value) { return String::create(value); }

std::string str(String* value) { return value ? value->str() : ""; }

namespace {

std::vector<std::string> userRow(VXUser& user)
{
    return { str(user.resourceIdentifier()), str(user.username()), str(user.fullName()), str(user.city()),
        grouped(user.trackCount()), grouped(user.followersCount()) };
}
const std::vector<std::string> userHeading { "ID", "USERNAME", "NAME", "CITY", "TRACKS", "FOLLOWERS" };

std::vector<std::string> trackRow(VXResourceController& store, VXTrack& track)
{
    auto owner = store.cachedResource<VXUser>(track.userIdentifier());
    bool unplayed = store.meUserIdentifier() && track.resourceIdentifier() && track.isUnplayed();
    return { unplayed ? "•" : " ", str(track.resourceIdentifier()), str(track.title()), owner ? str(owner->username()) : str(track.userIdentifier()),
        durationText(track.duration()), grouped(track.playbackCount()), relativeDate(track.createdAt()) };
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

} // namespace

void showObject(Session& session, ZUObject& object, const std::string& note)
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
    session.print(columns(rows, terminalWidth()));
    if (!note.empty() && !session.options().quiet)
        fprintf(stderr, "%s\n", note.c_str());
}

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
    session.print(columns(rows, terminalWidth()));
}

int needArguments(const StoreCommand& command, size_t count, const char* usage)
{
    if (command.arguments.size() == count)
        return ExitSuccess;
    fprintf(stderr, "velvox %s: usage: velvox %s\n", command.name.c_str(), usage);
    return ExitUsage;
}

std::string trackNamed(const std::string& identifier) { return "the track " + identifier; }

std::string userNamed(const std::string& identifier) { return "the user " + identifier; }

RefPtr<VXTrack> fetchTrack(Session& session, const StoreCommand& command, const std::string& identifier, int& code, bool refresh)
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
        code = session.fail(command.name.c_str(), failure.get(), trackNamed(identifier));
    return track;
}

RefPtr<VXUser> fetchUser(Session& session, const StoreCommand& command, const std::string& identifier, int& code)
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
        code = session.fail(command.name.c_str(), failure.get(), userNamed(identifier));
    return user;
}

} // namespace store

namespace {

using namespace store;

int runCommand(Session& session, const StoreCommand& command)
{
    const auto& name = command.name;
    if (name == "me" || name == "user" || name == "track")
        return showSingleObject(session, command);
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
    return showList(session, command);
}

} // namespace

int runStoreCommand(Session& session, const StoreCommand& command)
{
    int code = runCommand(session, command);
    // What was loaded is shown; the list's cut makes the run fail all the same.
    return code == ExitSuccess && session.listWasCut() ? ExitService : code;
}

} // namespace velvox::app
