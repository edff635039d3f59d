// The velvox program as a person runs it: every store command on the embedded
// sandbox, state kept across runs in one data folder, the failure kinds and
// their exit codes, a view in a real browser, and the demo.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>

#include <Browser.h>
#include <TestServer.h>

#include "VelvoxClient.h"

#include <filesystem>

using namespace velvox;
using test::VelvoxClient;

TEST_F(VelvoxClient, ReadsThroughTheStore)
{
    auto me = velvox("me");
    EXPECT_EQ(me.status, 0) << me.output;
    EXPECT_TRUE(contains(me, "USERNAME")) << me.output;
    EXPECT_TRUE(contains(me, "ines_stone0")) << me.output;

    auto user = velvox("user 1004");
    EXPECT_EQ(user.status, 0);
    EXPECT_TRUE(contains(user, "oskar_lights4")) << user.output;

    auto first = velvox("track 20005");
    EXPECT_EQ(first.status, 0) << first.output;
    EXPECT_FALSE(contains(first, "identity map of an earlier run"));
    auto second = velvox("track 20005");
    EXPECT_TRUE(contains(second, "identity map of an earlier run")) << second.output;
    auto refreshed = velvox("track 20005 --refresh");
    EXPECT_FALSE(contains(refreshed, "identity map of an earlier run"));

    auto tracks = velvox("tracks --user 1003 --all", false);
    EXPECT_EQ(tracks.status, 0);
    EXPECT_EQ(std::count(tracks.output.begin(), tracks.output.end(), '\n'), 11) << tracks.output; // heading and 10 tracks
    auto search = velvox("users --search ines", false);
    EXPECT_TRUE(contains(search, "ines_stone0")) << search.output;
    auto dashboard = velvox("dashboard", false);
    EXPECT_TRUE(contains(dashboard, "TYPE")) << dashboard.output;
    auto comments = velvox("comments 20005", false);
    EXPECT_EQ(comments.status, 0);
    EXPECT_TRUE(contains(comments, "COMMENT")) << comments.output;
    auto followers = velvox("followers --user 1003", false);
    EXPECT_EQ(followers.status, 0);
    auto favoriters = velvox("favoriters 20005", false);
    EXPECT_EQ(favoriters.status, 0);

    // Scripts get the models' records.
    auto json = velvox("--json track 20005 --refresh", false);
    EXPECT_EQ(json.status, 0);
    EXPECT_TRUE(contains(json, "\"id\": 20005")) << json.output;
    EXPECT_TRUE(contains(json, "\"state\": ")) << json.output;

    auto info = velvox("info", false);
    EXPECT_TRUE(contains(info, "VXTrack")) << info.output;
    // The answers of the runs above are kept to be revalidated.
    EXPECT_TRUE(contains(info, "answers kept for revalidation: ")) << info.output;
    EXPECT_FALSE(contains(info, "answers kept for revalidation: 0,")) << info.output;
}

TEST_F(VelvoxClient, ChangesAndTheHistoryAcrossRuns)
{
    EXPECT_EQ(velvox("follow 1011").status, 0);
    EXPECT_EQ(velvox("unfollow 1011").status, 0);
    EXPECT_EQ(velvox("favorite 20042").status, 0);
    // Each run's embedded sandbox starts afresh: unfavorite one of the catalogue's favorites.
    auto favorites = velvox("--json favorites", false);
    size_t at = favorites.output.find("\"id\": ");
    ASSERT_NE(at, std::string::npos) << favorites.output;
    std::string favorite = favorites.output.substr(at + 6, favorites.output.find_first_of(",\n", at) - at - 6);
    EXPECT_EQ(velvox("unfavorite " + favorite).status, 0) << favorite;
    EXPECT_EQ(velvox("unfavorite 20042").status, 0); // not a favorite in a fresh sandbox: nothing to change
    auto comment = velvox("comment 20005 'nice drop' --at 61.5");
    EXPECT_EQ(comment.status, 0) << comment.output;
    EXPECT_TRUE(contains(comment, "1.01")) << comment.output;

    // A play in one run shows in the next run's history and unplayed marks.
    auto before = velvox("track 20003 --refresh", false);
    EXPECT_TRUE(contains(before, "•")) << before.output;
    auto play = velvox("play 20003");
    EXPECT_EQ(play.status, 0) << play.output;
    auto history = velvox("history", false);
    EXPECT_TRUE(contains(history, "20003")) << history.output;
    auto after = velvox("track 20003 --refresh", false);
    EXPECT_FALSE(contains(after, "•")) << after.output;

    auto upload = velvox("upload " VELVOX_SOURCE_DIR "/Resources/samples/demo.wav --title 'Waited for' --wait");
    EXPECT_EQ(upload.status, 0) << upload.output;
    EXPECT_TRUE(contains(upload, "state: finished")) << upload.output;
    EXPECT_TRUE(contains(upload, "Waited for")) << upload.output;
    // A title with a terminal escape sequence is shown as text.
    auto hostile = velvox("upload " VELVOX_SOURCE_DIR "/Resources/samples/demo.wav --title \"$(printf 'Clear\\033[2J')\"", false);
    EXPECT_EQ(hostile.status, 0) << hostile.output;
    EXPECT_EQ(hostile.output.find('\x1b'), std::string::npos) << hostile.output;
    EXPECT_TRUE(contains(hostile, "Clear\\x1b[2J")) << hostile.output;
    EXPECT_EQ(velvox("upload /no/such/file --title x").status, 1);
    EXPECT_EQ(velvox("upload " VELVOX_SOURCE_DIR "/Resources/samples/demo.wav").status, 2);
}

TEST_F(VelvoxClient, FailureKindsHaveTheirExitCodes)
{
    EXPECT_EQ(velvox("user 99999").status, 3);
    EXPECT_EQ(velvox("track").status, 2);
    EXPECT_EQ(velvox("tracks --nonsense").status, 2);
    auto refused = velvox("--base-url http://127.0.0.1:" + std::to_string(test::refusingLoopbackPort()) + " --token t me");
    EXPECT_EQ(refused.status, 5);
    EXPECT_TRUE(contains(refused, "network failure")) << refused.output;

    sandbox::SandboxService service({});
    ASSERT_TRUE(service.start());
    auto unauthorised = velvox("--base-url " + service.baseURL() + " --token wrong me");
    EXPECT_EQ(unauthorised.status, 4);
    EXPECT_TRUE(contains(unauthorised, "--token")) << unauthorised.output;
    auto fromEnvironment = test::run("XDG_DATA_HOME='" + folder.path() + "/data' VELVOX_BASE_URL=" + service.baseURL() + " VELVOX_TOKEN="
        + service.token() + " " VELVOX_PROGRAM " me");
    EXPECT_EQ(fromEnvironment.status, 0) << fromEnvironment.output;

    sandbox::Fault fault;
    std::string problem;
    ASSERT_TRUE(sandbox::parseFault("/users=status:503", fault, &problem));
    service.addFault(fault);
    auto failing = velvox("--base-url " + service.baseURL() + " --token " + service.token() + " user 1004");
    EXPECT_EQ(failing.status, 6);
    EXPECT_TRUE(contains(failing, "the service failed")) << failing.output;

    // A failure that passes is asked again: the command succeeds.
    service.clearFaults();
    fault.count = 1;
    service.addFault(fault);
    service.resetRequestCounts();
    auto passing = velvox("--base-url " + service.baseURL() + " --token " + service.token() + " user 1004");
    EXPECT_EQ(passing.status, 0) << passing.output;
    EXPECT_EQ(service.requestCount("GET /users/1004"), 2);

    // A service that answers a list with something that is not one: a
    // service error that says so, and the archives are saved.
    service.clearFaults();
    ASSERT_TRUE(sandbox::parseFault("/tracks=not-json", fault, &problem));
    service.addFault(fault);
    std::string archive = folder.path() + "/data/Velvox/services/" + serviceFolder(service.baseURL()) + "/Velvox/ressources.archive";
    std::filesystem::remove(archive);
    auto broken = velvox("--base-url " + service.baseURL() + " --token " + service.token() + " tracks --search x");
    EXPECT_EQ(broken.status, 6) << broken.output;
    EXPECT_TRUE(contains(broken, "could not be read (NSInternalInconsistencyException: unexpected result)")) << broken.output;
    EXPECT_TRUE(std::filesystem::exists(archive));
    // The library's own folder stays the library's: velvox keeps each service apart.
    EXPECT_FALSE(std::filesystem::exists(folder.path() + "/data/Velvox/ressources.archive"));

    // A write error on standard output is a failure.
    EXPECT_EQ(velvox("me > /dev/full").status, 1);
}

TEST_F(VelvoxClient, WritesViewsABrowserShowsAndRunsTheDemo)
{
    auto view = velvox("view track 20005 -o track.html");
    EXPECT_EQ(view.status, 0) << view.output;
    std::string page = folder.path() + "/track.html";
    auto html = Data::createWithContentsOfFile(page);
    ASSERT_TRUE(html);
    EXPECT_EQ(html->view().find("zu-image"), std::string_view::npos);
    EXPECT_NE(html->view().find("<h1 class=\"title\">"), std::string_view::npos);
    if (test::chromium()) {
        auto dom = test::domOf(page);
        EXPECT_NE(dom.find("class=\"title\""), std::string::npos) << dom.substr(0, 400);
        EXPECT_NE(dom.find("src=\"data:image/png;base64,"), std::string::npos);
    }
    EXPECT_EQ(velvox("view nothing").status, 2);

    auto demo = velvox("demo");
    EXPECT_EQ(demo.status, 0) << demo.output;
    std::string dashboard = folder.path() + "/data/Velvox/services/demo/Velvox/velvox-dashboard.html";
    for (std::string step : std::vector<std::string> { "Signed in as ines_stone0", "Page 2:", "After following", "Comment ", "State: finished", "Unplayed before: yes",
             "Unplayed after: no", "Wrote " + dashboard })
        EXPECT_TRUE(contains(demo, step)) << step << "\n"
                                          << demo.output;
    // The page goes into the current folder only when asked.
    EXPECT_TRUE(std::filesystem::exists(dashboard));
    EXPECT_FALSE(std::filesystem::exists(folder.path() + "/velvox-dashboard.html"));
    // A second tour tells the same story: its fresh upload is not "already played".
    auto again = velvox("demo -o velvox-dashboard.html");
    EXPECT_EQ(again.status, 0) << again.output;
    EXPECT_TRUE(contains(again, "Unplayed before: yes")) << again.output;
    EXPECT_TRUE(std::filesystem::exists(folder.path() + "/velvox-dashboard.html"));
}
