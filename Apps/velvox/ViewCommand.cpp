// velvox view: a page of the host's HTML views, rendered from what the
// store fetches.

#include "StoreCommands.h"

#include <Views/VXViewRenderer.h>

#include <cstdio>

namespace velvox::app::store {

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
        auto track = fetchTrack(session, command, command.arguments[1], code, true);
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
        auto user = fetchUser(session, command, command.arguments[1], code);
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
    if (std::string problem; !writeUserFile(command.output, html->view(), problem)) {
        fprintf(stderr, "velvox view: cannot write %s: %s\n", command.output.c_str(), problem.c_str());
        return ExitFailure;
    }
    if (!session.options().quiet)
        fprintf(stderr, "Wrote %s\n", command.output.c_str());
    return ExitSuccess;
}

} // namespace velvox::app::store
