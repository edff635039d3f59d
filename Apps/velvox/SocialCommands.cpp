// velvox follow, unfollow, favorite, unfavorite and comment: the changes a
// listener makes to the service.

#include "StoreCommands.h"

#include <VelvoxAPI/VXVelvoxAPI.h>

#include <cstdio>

namespace velvox::app::store {

namespace {

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
    // These spaced checks are the retries: the client's own would multiply
    // them. A request keeps the policy it was made with.
    auto* client = session.store().apiController()->api();
    for (size_t attempt = 0;; ++attempt) {
        RefPtr<Number> result;
        bool done = false;
        auto policy = client->retryPolicy();
        client->setRetryPolicy({});
        session.store().meIsFollowingUserForIdentifier(identifier, [&](Number* answer, Error* error) {
            result = answer;
            failure = error;
            done = true;
        });
        client->setRetryPolicy(policy);
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

// Sends a change through the store's journal without the client's own
// retries (the journal keeps it when the service cannot be reached), and
// waits for its first answer.
RefPtr<Error> change(Session& session, const std::function<void(VXResourceStore::ResultBlock)>& send)
{
    auto* client = session.store().apiController()->api();
    auto policy = client->retryPolicy();
    client->setRetryPolicy({});
    RefPtr<Error> failure;
    bool done = false;
    send([&](Object*, Error* error) {
        failure = error;
        done = true;
    });
    client->setRetryPolicy(policy);
    if (!session.waitFor([&] { return done; }))
        return session.noAnswer();
    return failure;
}

// A follow or unfollow while the service cannot be reached: kept for later.
int keepFollow(Session& session, const StoreCommand& command, bool following)
{
    auto identifier = text(command.arguments[0]);
    auto failure = change(session, [&](VXResourceStore::ResultBlock answer) {
        if (following)
            session.store().startFollowingUserForIdentifier(identifier.ptr(), std::move(answer));
        else
            session.store().stopFollowingByUserForIdentifier(identifier.ptr(), std::move(answer));
    });
    auto record = Dictionary::create({ { "id", jsonIdentifier(command.arguments[0]).ptr() }, { "following", Number::withBool(following).ptr() } });
    if (Session::isKept(failure.get()))
        return session.kept(command.name + " " + command.arguments[0], record.ptr());
    if (failure)
        return session.fail(command.name.c_str(), failure.get(), "the user " + command.arguments[0]);
    // The service came back meanwhile.
    if (session.options().json)
        session.print(jsonText(record));
    else
        session.print(std::string(following ? "following " : "not following ") + command.arguments[0] + "\n");
    return ExitSuccess;
}

} // namespace

int follow(Session& session, const StoreCommand& command, bool following)
{
    if (int code = needArguments(command, 1, following ? "follow USER" : "unfollow USER"))
        return code;
    int code = ExitSuccess;
    bool unreachable = false;
    if (!session.signIn(code, &unreachable))
        return unreachable ? keepFollow(session, command, following) : code;
    auto user = fetchUser(session, command, command.arguments[0], code);
    if (!user)
        return code;
    RefPtr<Error> failure;
    int32_t state = followState(session, user->resourceIdentifier(), failure);
    if (state == -1)
        return session.fail(command.name.c_str(), failure.get());
    bool changes = state != (following ? 1 : 0);
    if (changes) {
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
    if (session.options().json) {
        auto record = Dictionary::create({ { "id", jsonIdentifier(command.arguments[0]).ptr() },
            { "username", user->username() ? user->username() : text("").ptr() }, { "following", Number::withBool(following).ptr() },
            { "changed", Number::withBool(changes).ptr() } });
        session.print(jsonText(record));
        return ExitSuccess;
    }
    session.print(std::string(following ? "following " : "not following ") + printable(str(user->username())) + (changes ? "" : " (already)") + "\n");
    return ExitSuccess;
}

int favorite(Session& session, const StoreCommand& command, bool on)
{
    if (int code = needArguments(command, 1, on ? "favorite TRACK" : "unfavorite TRACK"))
        return code;
    auto identifier = text(command.arguments[0]);
    auto failure = change(session, [&](VXResourceStore::ResultBlock answer) {
        if (on)
            session.store().favoriteTrackForIdentifier(identifier.ptr(), std::move(answer));
        else
            session.store().unfavoriteTrackForIdentifier(identifier.ptr(), std::move(answer));
    });
    if (Session::isKept(failure.get()))
        return session.kept(command.name + " " + command.arguments[0],
            Dictionary::create({ { "id", jsonIdentifier(command.arguments[0]).ptr() }, { "favorite", Number::withBool(on).ptr() } }).ptr());
    bool changed = !failure;
    RefPtr<VXTrack> track;
    if (failure) {
        // A 404 to unfavorite is the service's "no such favorite": when the
        // track is there, it simply was no favorite, as a second unfollow is
        // simply not following.
        if (on || failure->code() != 404 || !failure->domain()->isEqualToString(VXVelvoxAPIErrorDomain))
            return session.fail(command.name.c_str(), failure.get(), trackNamed(command.arguments[0]));
        int code = ExitSuccess;
        track = fetchTrack(session, command, command.arguments[0], code, true);
        if (!track)
            return code;
    }
    if (session.options().json) {
        auto record = Dictionary::create({ { "id", jsonIdentifier(command.arguments[0]).ptr() }, { "favorite", Number::withBool(on).ptr() },
            { "changed", Number::withBool(changed).ptr() } });
        session.print(jsonText(record));
        return ExitSuccess;
    }
    if (!changed)
        session.print("not a favorite: " + command.arguments[0] + (track->title() ? " " + printable(str(track->title())) : "") + " (nothing to change)\n");
    else
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
    if (!session.waitFor([&] { return done; }))
        return session.fail("comment", session.noAnswer().ptr());
    if (Session::isKept(failure.get()))
        return session.kept("comment on " + command.arguments[0],
            Dictionary::create({ { "track_id", jsonIdentifier(command.arguments[0]).ptr() }, { "body", body.ptr() } }).ptr());
    if (!posted)
        return session.fail("comment", failure.get(), trackNamed(command.arguments[0]));
    showObject(session, *posted);
    return ExitSuccess;
}

} // namespace velvox::app::store
