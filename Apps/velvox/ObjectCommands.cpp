// velvox me, user, track and the lists (tracks, favorites, followers,
// followings, users, dashboard, favoriters, comments): reading through the store.

#include "StoreCommands.h"

#include <cstdio>

namespace velvox::app::store {

namespace {

// A single fetch through the store, saying when the answer came from the
// identity map of an earlier run.
template<typename T, typename Fetch>
int showSingle(Session& session, const StoreCommand& command, const std::string& what, Fetch fetch)
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
        return session.fail(command.name.c_str(), failure.get(), what);
    showObject(session, *fetched);
    return ExitSuccess;
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

} // namespace

int showSingleObject(Session& session, const StoreCommand& command)
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
    if (int code = needArguments(command, 1, name == "user" ? "user ID [--refresh]" : "track ID [--refresh]"))
        return code;
    auto identifier = text(command.arguments[0]);
    if (name == "user") {
        // A user known only from the short record inside tracks and
        // comments is fetched in full.
        auto cached = store.cachedResource<VXUser>(identifier.ptr());
        StoreCommand userCommand = command;
        userCommand.refresh = command.refresh || (cached && !cached->hasFullUserRepresentation());
        return showSingle<VXUser>(session, userCommand, userNamed(command.arguments[0]), [&](bool refresh, auto block) { return store.userForIdentifier(identifier.ptr(), refresh, block); });
    }
    // The signed-in account decides which tracks are unplayed.
    if (store.meUserIdentifier() == nullptr) {
        int code = ExitSuccess;
        if (!session.signIn(code))
            return code;
    }
    return showSingle<VXTrack>(session, command, trackNamed(command.arguments[0]), [&](bool refresh, auto block) { return store.trackForIdentifier(identifier.ptr(), refresh, block); });
}

int showList(Session& session, const StoreCommand& command)
{
    const auto& name = command.name;
    int code = ExitSuccess;
    auto collection = collectionFor(session, command, code);
    if (!collection)
        return code ? code : ExitUsage;
    if (name == "tracks" || name == "favorites" || name == "dashboard") {
        // Unplayed marks belong to the signed-in account.
        if (!session.signIn(code))
            return code;
    }
    // A list of a track or user that is not there: named, not just "not found".
    std::string owner = !command.arguments.empty() ? trackNamed(command.arguments[0])
        : !command.userIdentifier.empty()          ? userNamed(command.userIdentifier)
                                                   : std::string();
    if (int failed = session.loadCollection(name.c_str(), *collection, owner))
        return failed;
    showItems(session, collection->items());
    if (collection->hasMoreItems() && !session.options().all && !session.options().quiet && !session.options().json)
        fprintf(stderr, "(more: --all loads every page)\n");
    return ExitSuccess;
}

} // namespace velvox::app::store
