// velvox view: a page of the host's HTML views, rendered from what the
// store fetches; with --all, that page and the views it leads to, written
// into one folder and linked to each other.

#include "StoreCommands.h"

#include <VelvoxKit/VXComment.h>
#include <Views/VXDashboardFeed.h>
#include <Views/VXViewFilters.h>
#include <Views/VXViewRenderer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <set>
#include <sys/stat.h>

namespace velvox::app::store {

namespace {

// The most views one `view --all` writes; the links of the last ones lead to
// the records' pages on the service instead.
constexpr size_t maximumViews = 60;

struct Page {
    std::string kind;       // dashboard, track, user, comments
    std::string identifier; // empty for the dashboard
    RefPtr<MutableDictionary> variables;
    // The records its links lead to (tracks and users), for --all.
    std::vector<Ref<Object>> leads;

    std::string file() const { return kind == "dashboard" ? "dashboard.html" : kind + "-" + identifier + ".html"; }
};

void addLead(Page& page, Object* record)
{
    if (record)
        page.leads.emplace_back(*record);
}

// Loads what the page shows; an exit code other than ExitSuccess when it cannot.
int loadPage(Session& session, const StoreCommand& command, Page& page, VXUser& me)
{
    auto& store = session.store();
    page.variables = MutableDictionary::create();
    page.variables->setObject(&me, "me");
    int code = ExitSuccess;
    if (page.kind == "dashboard") {
        auto feed = VXDashboardFeed::create();
        if (int code = session.loadCollection("view", feed))
            return code;
        page.variables->setObject(&feed->items(), "activities");
        for (auto* item : feed->items()) {
            auto* card = downcast<Dictionary>(item);
            if (auto* track = card->objectForKey<VXTrack>("track")) {
                addLead(page, track);
                addLead(page, track->user().get());
            }
            if (auto* playlist = card->objectForKey<Dictionary>("playlist")) {
                addLead(page, playlist->objectForKey("user"));
                for (auto* track : *playlist->objectForKey<Array>("tracks"))
                    addLead(page, track);
            }
        }
    } else if (page.kind == "track" || page.kind == "comments") {
        auto track = fetchTrack(session, command, page.identifier, code, true);
        if (!track)
            return code;
        // The comments' path needs the track's id, and its owner needs one too.
        if (!track->resourceIdentifier()) {
            fprintf(stderr, "velvox view: the service's answer (track %s) has no \"id\"\n", page.identifier.c_str());
            return ExitService;
        }
        if (track->userIdentifier()) {
            track->user();
            session.waitFor([&] { return track->user().get() != nullptr; }, 10);
        }
        auto comments = store.commentsForTrackIdentifier(track->resourceIdentifier());
        if (int code = session.loadCollection("view", comments))
            return code;
        page.variables->setObject(track, "track");
        page.variables->setObject(&comments->items(), "comments");
        addLead(page, track->user().get());
        for (auto* item : comments->items())
            addLead(page, downcast<VXComment>(item)->user().get());
    } else {
        auto user = fetchUser(session, command, page.identifier, code);
        if (!user)
            return code;
        auto tracks = store.tracksForUserIdentifier(user->resourceIdentifier());
        if (int code = session.loadCollection("view", tracks))
            return code;
        page.variables->setObject(user, "user");
        page.variables->setObject(&tracks->items(), "tracks");
        // A user's tracks are linked when their views are written anyway, not followed.
    }
    return ExitSuccess;
}

// The page of a record a link leads to, as `Page` names it.
bool pageOf(Object& record, Page& page)
{
    std::string file = views::viewFileName(&record);
    if (file.empty())
        return false;
    size_t dash = file.find('-');
    page.kind = file.substr(0, dash);
    page.identifier = file.substr(dash + 1, file.size() - dash - 1 - 5);
    return true;
}

int writePage(Session& session, const std::string& path, const std::string& html)
{
    if (path.empty() || path == "-") {
        session.print(html);
        return ExitSuccess;
    }
    if (std::string problem; !writeUserFile(path, html, problem)) {
        fprintf(stderr, "velvox view: cannot write %s: %s\n", path.c_str(), problem.c_str());
        return ExitFailure;
    }
    return ExitSuccess;
}

int render(const Page& page, const std::set<std::string>* pages, std::string& html)
{
    RefPtr<Error> error;
    auto rendered = VXViewRenderer::renderPage(page.kind, page.variables.get(), pages, &error);
    if (!rendered) {
        fprintf(stderr, "velvox view: %s\n", error ? error->localizedDescription()->utf8() : "the view could not be rendered");
        return ExitFailure;
    }
    html = rendered->str();
    return ExitSuccess;
}

// The folder for --all: made when its parent exists.
bool makeFolder(const std::string& folder, std::string& problem)
{
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode))
            return true;
        problem = folder + " is not a folder";
        return false;
    }
    if (::mkdir(folder.c_str(), 0777) != 0) {
        problem = "cannot make the folder " + folder + ": " + strerror(errno);
        return false;
    }
    return true;
}

// --all: the page asked for and, breadth first, the views its links lead
// to, up to maximumViews, each into the folder; links between them are
// relative, links beyond them go to the service's pages.
int writeFolder(Session& session, const StoreCommand& command, Page first, VXUser& me)
{
    std::string folder = command.output;
    if (std::string problem; !makeFolder(folder, problem)) {
        fprintf(stderr, "velvox view: %s\n", problem.c_str());
        return ExitFailure;
    }
    std::deque<Page> queue { std::move(first) };
    std::set<std::string> planned { queue.front().file() };
    std::vector<Page> loaded;
    while (!queue.empty()) {
        Page page = std::move(queue.front());
        queue.pop_front();
        if (int code = loadPage(session, command, page, me)) {
            // The first page decides; a later one that fails is left out, and its links go to the service.
            if (loaded.empty())
                return code;
            planned.erase(page.file());
            continue;
        }
        for (auto& lead : page.leads) {
            Page next;
            if (planned.size() < maximumViews && pageOf(lead, next) && planned.insert(next.file()).second)
                queue.push_back(std::move(next));
        }
        page.leads.clear();
        loaded.push_back(std::move(page));
    }
    for (auto& page : loaded) {
        std::string html;
        if (int code = render(page, &planned, html))
            return code;
        if (int code = writePage(session, folder + "/" + page.file(), html))
            return code;
    }
    if (!session.options().quiet)
        fprintf(stderr, "Wrote %zu views into %s (start with %s)\n", loaded.size(), folder.c_str(), loaded.front().file().c_str());
    return ExitSuccess;
}

} // namespace

int view(Session& session, const StoreCommand& command)
{
    if (command.arguments.empty()) {
        fprintf(stderr, "velvox view: usage: velvox view dashboard | track ID | user ID | comments ID [-o FILE] [--all -o FOLDER]\n");
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
    bool folder = session.options().all;
    if (folder && (command.output.empty() || command.output == "-")) {
        fprintf(stderr, "velvox view: --all writes the views into a folder: velvox view %s --all -o FOLDER\n", kind.c_str());
        return ExitUsage;
    }
    int code = ExitSuccess;
    auto me = session.signIn(code);
    if (!me)
        return code;
    Page page { kind, needsIdentifier ? command.arguments[1] : std::string(), nullptr, {} };
    if (folder)
        return writeFolder(session, command, std::move(page), *me);
    if (int code = loadPage(session, command, page, *me))
        return code;
    std::string html;
    if (int code = render(page, nullptr, html))
        return code;
    if (int code = writePage(session, command.output, html))
        return code;
    if (!command.output.empty() && command.output != "-" && !session.options().quiet)
        fprintf(stderr, "Wrote %s\n", command.output.c_str());
    return ExitSuccess;
}

} // namespace velvox::app::store
