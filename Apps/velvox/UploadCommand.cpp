// velvox upload: a file sent as a new track (its progress drawn by the client), and with
// --wait followed until the service has processed it.

#include "Commands.h"
#include "StoreCommands.h"

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace velvox::app::store {

namespace {

const char* stateName(int32_t state)
{
    static const char* const names[] = { "unknown", "storing", "stored", "finished", "failed" };
    return state >= 0 && state <= 4 ? names[state] : "unknown";
}

} // namespace

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

    // The client draws the progress on a terminal (see ObservedAPI).
    RefPtr<Dictionary> answer;
    RefPtr<Error> failure;
    bool done = false;
    session.store().postTrackWithTrackDictionary(
        fields.ptr(), {},
        [&](Object* json, Error* error) {
            answer = dynamicDowncast<Dictionary>(json);
            failure = error;
            done = true;
        });
    bool answered = session.waitFor([&] { return done; }, std::max(600.0, session.options().timeout));
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
    fetchTrack(session, command, identifier->str(), code, true);
    if (code)
        return code;
    if (!session.waitFor([&] { return track->state() == VXTrackStateFinished || track->state() == VXTrackStateFailed; }, 600)) {
        fprintf(stderr, "velvox upload: the service is still processing track %s\n", identifier->utf8());
        return ExitService;
    }
    showObject(session, *track);
    return track->state() == VXTrackStateFinished ? ExitSuccess : ExitService;
}

} // namespace velvox::app::store
