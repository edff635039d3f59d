// velvox's HTML views as people open them: comments at clock times, in
// order and on the waveform; links between the views written into one
// folder and to the service's pages; dashboard cards that say who and
// whether it was played; and screenshots that show real pictures.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXComment.h>
#include <VelvoxKit/VXResourceController.h>
#include <VelvoxKit/VXTrack.h>
#include <VelvoxKit/VXUser.h>
#include <Views/VXViewFilters.h>

#include <Browser.h>
#include <PNGImage.h>
#include <TestServer.h>

#include "VelvoxClient.h"

#include <cmath>
#include <filesystem>
#include <regex>
#include <set>

using namespace velvox;
using test::PNGImage;
using test::VelvoxClient;

namespace {

std::string fileText(const std::string& path)
{
    auto bytes = Data::createWithContentsOfFile(path);
    return bytes ? std::string(bytes->view()) : std::string();
}

size_t occurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

std::vector<std::string> matches(const std::string& text, const std::string& pattern, int group = 1)
{
    std::vector<std::string> found;
    std::regex expression(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        found.push_back((*at)[group]);
    return found;
}

// The card of the dashboard's activity `index` (up to the next card).
std::string card(const std::string& html, int index)
{
    size_t start = html.find("id=\"activity-" + std::to_string(index) + "\"");
    if (start == std::string::npos)
        return {};
    size_t end = html.find("id=\"activity-" + std::to_string(index + 1) + "\"", start);
    return html.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// velvox against a sandbox of the test's own, which keeps what one run posts for the next.
class ViewsOfAService : public VelvoxClient {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(service.start(&error)) << error;
    }
    test::Outcome velvoxOn(const std::string& arguments, bool withErrors = true)
    {
        return velvox("--base-url " + service.baseURL() + " --token " + service.token() + " " + arguments, withErrors);
    }
    std::string page(const std::string& name) { return fileText(folder.path() + "/" + name); }

    sandbox::SandboxService service { sandbox::SandboxService::Options {} };
};

} // namespace

TEST(ViewFilters, ClockTimesPercentagesAndWebLinks)
{
    struct Clock {
        double seconds;
        const char* text;
    } clocks[] = { { 0, "0:00" }, { 7.05, "0:07" }, { 61.5, "1:01" }, { 425.942, "7:05" }, { 3600, "1:00:00" }, { 36000 * 999.9, "9999:00:00" },
        { 36000000, "" }, { -1, "" }, { std::nan(""), "" }, { 1e308, "" } };
    for (auto& c : clocks)
        EXPECT_EQ(views::clockText(c.seconds), c.text) << c.seconds;

    struct Percent {
        double part, whole;
        const char* text;
    } percents[] = { { 425.942, 458.032, "92.99" }, { 0, 10, "0.00" }, { 10, 10, "100.00" }, { 11, 10, "" }, { -1, 10, "" }, { 1, 0, "" }, { 1, -5, "" }, { 1, 1e-300, "" } };
    for (auto& c : percents) {
        auto arguments = Array::create({ Number::withDouble(c.whole).ptr() });
        auto result = views::applyHostFilter("percent_of", arguments.ptr(), Number::withDouble(c.part).ptr(), nullptr);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->description()->str(), c.text) << c.part << " of " << c.whole;
    }

    struct Link {
        const char* address;
        const char* link;
    } links[] = { { "http://127.0.0.1/people/a", "http://127.0.0.1/people/a" }, { "HTTPS://x.invalid/p", "https://x.invalid/p" }, { "javascript:alert(1)", "" },
        { "JavaScript://x/%0Aalert(1)", "" }, { "//x.invalid/p", "" }, { "data:text/html,<script>", "" }, { "people/a", "" }, { "http://", "" } };
    for (auto& c : links)
        EXPECT_EQ(views::webAddress(c.address), c.link) << c.address;
}

TEST(ViewFilters, ViewFilesAreMadeOnlyFromPlainIdentifiers)
{
    VXResourceController::registerValueTransformers();
    auto track = [](Object* identifier) { return VXTrack::create(Dictionary::create({ { "id", identifier } }).ptr()); };
    EXPECT_EQ(views::viewFileName(track(Number::withInteger(20005).ptr()).ptr()), "track-20005.html"); // the control
    EXPECT_EQ(views::viewFileName(track(Number::withInteger(20005).ptr()).ptr(), "comments"), "comments-20005.html");
    auto user = VXUser::create(Dictionary::create({ { "id", Number::withInteger(1003).ptr() } }).ptr());
    EXPECT_EQ(views::viewFileName(user.ptr()), "user-1003.html");
    for (auto hostile : { "../../etc/passwd", "a/b", "x y", "a\"onclick=\"x", "", "%2e%2e" })
        EXPECT_EQ(views::viewFileName(track(String::create(hostile).ptr()).ptr()), "") << hostile;
    EXPECT_EQ(views::viewFileName(track(String::create(std::string(65, '7')).ptr()).ptr()), "");
    EXPECT_EQ(views::viewFileName(String::create("20005").ptr()), "");

    // Written beside known files, a link outside them goes to the record's page on the service, if any.
    std::set<std::string> pages { "track-20005.html" };
    auto linked = track(Number::withInteger(20005).ptr());
    auto other = VXTrack::create(Dictionary::create({ { "id", Number::withInteger(20006).ptr() }, { "permalink_url", String::create("http://127.0.0.1/a/b").ptr() } }).ptr());
    auto hostile = VXTrack::create(Dictionary::create({ { "id", Number::withInteger(20007).ptr() }, { "permalink_url", String::create("javascript:alert(1)").ptr() } }).ptr());
    auto link = [&pages](Object* record) { return views::applyHostFilter("view_file", nullptr, record, &pages)->description()->str(); };
    EXPECT_EQ(link(linked.ptr()), "track-20005.html");
    EXPECT_EQ(link(other.ptr()), "http://127.0.0.1/a/b");
    EXPECT_EQ(link(hostile.ptr()), "");
}

TEST_F(ViewsOfAService, CommentsReadAsClockTimesInOrderAndStandOnTheWaveform)
{
    // Track 20001 lasts 458.032 s. Posted out of order, with one past its end.
    ASSERT_EQ(velvoxOn("comment 20001 late-one --at 425.942", false).status, 0);
    ASSERT_EQ(velvoxOn("comment 20001 untimed-one", false).status, 0);
    ASSERT_EQ(velvoxOn("comment 20001 early-one --at 61.5", false).status, 0);
    ASSERT_EQ(velvoxOn("comment 20001 beyond-one --at 9000", false).status, 0);
    auto view = velvoxOn("view track 20001 -o track.html");
    ASSERT_EQ(view.status, 0) << view.output;
    auto html = page("track.html");
    std::string dom = test::chromium() ? test::domOf(folder.path() + "/track.html") : html;
    ASSERT_NE(dom.find("<html"), std::string::npos) << dom.substr(0, 400);

    EXPECT_NE(dom.find("at 7:05"), std::string::npos);
    EXPECT_NE(dom.find("at 1:01"), std::string::npos);
    EXPECT_EQ(dom.find("425.942"), std::string::npos);
    EXPECT_EQ(dom.find(" s</span>"), std::string::npos);
    // By place, then those without one.
    size_t early = dom.find("early-one"), late = dom.find("late-one"), beyond = dom.find("beyond-one"), untimed = dom.find("untimed-one");
    ASSERT_NE(untimed, std::string::npos);
    EXPECT_LT(early, late);
    EXPECT_LT(late, beyond);
    EXPECT_LT(beyond, untimed);
    // Every comment placed in the track has its marker on the waveform, at its share of the length, leading to it.
    EXPECT_NE(dom.find("left: 92.99%"), std::string::npos);
    EXPECT_NE(dom.find("left: 13.43%"), std::string::npos);
    auto comments = velvoxOn("--json comments 20001 --all", false);
    size_t placed = 0;
    for (auto& timestamp : matches(comments.output, R"("timestamp": ([0-9.]+))"))
        placed += std::stod(timestamp) > 0 && std::stod(timestamp) <= 458032;
    EXPECT_GE(placed, 2u);
    auto markers = matches(dom, R"re(class="marker" href="#(comment-\d+)")re");
    EXPECT_EQ(markers.size(), placed) << dom;
    for (auto& target : markers)
        EXPECT_NE(dom.find("id=\"" + target + "\""), std::string::npos) << target;
    // The one past the end is listed with its time but has no marker.
    EXPECT_NE(dom.find("at 2:30:00"), std::string::npos);
    EXPECT_EQ(dom.find("left: 1964"), std::string::npos);

    // The comments' own view is in the same order.
    ASSERT_EQ(velvoxOn("view comments 20001 -o comments.html").status, 0);
    auto list = page("comments.html");
    EXPECT_LT(list.find("early-one"), list.find("late-one"));
    EXPECT_LT(list.find("late-one"), list.find("untimed-one"));
}

TEST_F(ViewsOfAService, ViewsWrittenIntoAFolderLinkEachOtherAndTheServicesPages)
{
    EXPECT_EQ(velvoxOn("view dashboard --all", false).status, 2); // a folder is needed
    auto all = velvoxOn("view dashboard --all -o site");
    ASSERT_EQ(all.status, 0) << all.output;
    std::string site = folder.path() + "/site";
    std::set<std::string> files;
    for (auto& entry : std::filesystem::directory_iterator(site))
        files.insert(entry.path().filename().string());
    ASSERT_TRUE(files.count("dashboard.html"));
    EXPECT_GE(files.size(), 10u);
    EXPECT_LE(files.size(), 60u);
    EXPECT_NE(all.output.find("Wrote " + std::to_string(files.size()) + " views into site"), std::string::npos) << all.output;

    size_t relative = 0, onService = 0, authors = 0;
    for (auto& file : files) {
        EXPECT_TRUE(std::regex_match(file, std::regex(R"((dashboard|(track|user)-\d+)\.html)"))) << file;
        auto html = fileText(site + "/" + file);
        for (auto& link : matches(html, R"re(<a [^>]*href="([^"]*)")re")) {
            if (link.starts_with("#comment-")) {
                EXPECT_NE(html.find("id=\"" + link.substr(1) + "\""), std::string::npos) << file << ": " << link;
            } else if (link.starts_with("http://")) {
                EXPECT_TRUE(link.starts_with(service.baseURL() + "/")) << file << ": " << link;
                ++onService;
            } else {
                EXPECT_TRUE(files.count(link)) << file << " links to " << link << ", which was not written";
                ++relative;
            }
        }
        authors += occurrences(html, "class=\"author\" href=\"user-");
    }
    EXPECT_GT(relative, 50u);
    EXPECT_GT(onService, 10u); // "on Velvox", and the views beyond the folder's bound
    EXPECT_GT(authors, 0u);
    auto dashboard = fileText(site + "/dashboard.html");
    EXPECT_NE(dashboard.find("<a class=\"user\" href=\"user-"), std::string::npos);
    EXPECT_NE(dashboard.find("<h2 class=\"title\"><a href=\"track-"), std::string::npos);

    // One view alone links the files it would have beside it.
    ASSERT_EQ(velvoxOn("view user 1003 -o user.html").status, 0);
    auto user = page("user.html");
    EXPECT_GE(matches(user, R"re(<h3 class="title"><a href="(track-\d+\.html)")re").size(), 1u);
    EXPECT_NE(user.find("class=\"permalink\" href=\"" + service.baseURL() + "/people/"), std::string::npos);
}

TEST_F(VelvoxClient, DashboardCardsSayWhoAndWhetherItWasPlayed)
{
    ASSERT_EQ(velvox("view dashboard -o before.html").status, 0);
    auto before = fileText(folder.path() + "/before.html");
    ASSERT_NE(card(before, 0).find("Home Velvet"), std::string::npos); // track 20000
    EXPECT_NE(card(before, 0).find("<strong class=\"new\">new</strong>"), std::string::npos);

    ASSERT_EQ(velvox("play 20000").status, 0);
    ASSERT_EQ(velvox("view dashboard -o after.html").status, 0);
    auto after = fileText(folder.path() + "/after.html");
    EXPECT_EQ(card(after, 0).find("new"), std::string::npos) << card(after, 0);
    EXPECT_NE(card(after, 0).find("<span class=\"played\">played</span>"), std::string::npos);
    EXPECT_NE(card(after, 1).find("<strong class=\"new\">new</strong>"), std::string::npos); // 20007, not played

    // Who: every track's card names its uploader or sharer, linked; playlists name their owner and list their tracks.
    size_t cards = occurrences(after, "class=\"card activity\""), tracks = 0, playlists = 0;
    ASSERT_GE(cards, 8u);
    for (size_t i = 0; i < cards; ++i) {
        auto text = card(after, static_cast<int>(i));
        if (text.find("playlist-title") != std::string::npos) {
            ++playlists;
            EXPECT_NE(text.find("Sandbox playlist"), std::string::npos) << text;
            EXPECT_TRUE(std::regex_search(text, std::regex(R"(playlist (shared|updated) by <a class="user" href="user-\d+\.html">)"))) << text;
            EXPECT_TRUE(std::regex_search(text, std::regex(R"(\d+ tracks?</p>)"))) << text;
            EXPECT_GE(occurrences(text, "<li><a href=\"track-"), 1u) << text;
        } else {
            ++tracks;
            EXPECT_TRUE(std::regex_search(text, std::regex(R"((uploaded|shared) by <a class="user" href="user-\d+\.html">\w+</a>)"))) << text;
        }
    }
    EXPECT_GT(tracks, 0u);
    EXPECT_GT(playlists, 0u);
    EXPECT_EQ(after.find("A playlist was"), std::string::npos);
}

TEST_F(VelvoxClient, ScreenshotsShowTheViewsWithRealPictures)
{
    if (!test::chromium())
        GTEST_SKIP() << "Chromium is not installed (scripts/setup.sh installs it)";
    std::string views = folder.path() + "/views", shot = folder.path() + "/overview.png";
    auto script = test::run("VELVOX=" VELVOX_PROGRAM " VELVOX_VIEWS_FOLDER='" + views + "' timeout -k 5 120 " VELVOX_SOURCE_DIR "/scripts/screenshot.sh '" + shot + "'");
    ASSERT_EQ(script.status, 0) << script.output;
    auto overview = PNGImage::decode(fileText(shot));
    ASSERT_EQ(overview.problem, "");
    EXPECT_EQ(overview.width, 1296);
    EXPECT_EQ(overview.height, 622);
    EXPECT_GT(overview.distinctColours(), 100u); // pictures, not empty boxes
    EXPECT_LT(overview.largestColourShare(), 0.8);

    // The picture in the README is one the script made: same size, small.
    auto readme = fileText(VELVOX_SOURCE_DIR "/docs/velvox-views.png");
    EXPECT_LT(readme.size(), 200u * 1024);
    auto shown = PNGImage::decode(readme);
    ASSERT_EQ(shown.problem, "");
    EXPECT_EQ(shown.width, overview.width);
    EXPECT_EQ(shown.height, overview.height);
    EXPECT_NE(fileText(VELVOX_SOURCE_DIR "/README.md").find("docs/velvox-views.png"), std::string::npos);

    // Each view on its own: a screenshot that is no blank page, and the texts it must hold.
    std::string track, user;
    for (auto& entry : std::filesystem::directory_iterator(views)) {
        std::string name = entry.path().filename().string();
        if (track.empty() && name.starts_with("track-") && fileText(entry.path().string()).find("class=\"marker\"") != std::string::npos)
            track = name;
        if (user.empty() && name.starts_with("user-"))
            user = name;
    }
    ASSERT_FALSE(track.empty());
    ASSERT_FALSE(user.empty());
    struct View {
        std::string file;
        std::vector<std::string> texts;
    } cases[] = {
        { "dashboard.html", { "Dashboard of ines_stone0", "class=\"played\"", "Sandbox playlist", "uploaded by <a" } },
        { track, { "class=\"marker\"", "class=\"waveform\"", "class=\"author\" href=\"user-", " at " } },
        { user, { "class=\"avatar\"", "<h2>Tracks</h2>", "class=\"permalink\"" } },
    };
    for (auto& view : cases) {
        std::string image = folder.path() + "/" + view.file + ".png";
        test::runChromium("--hide-scrollbars --virtual-time-budget=2000 --window-size=900,1200 --screenshot='" + image + "' 'file://" + views + "/" + view.file + "'");
        auto shot = PNGImage::decode(fileText(image));
        ASSERT_EQ(shot.problem, "") << view.file;
        EXPECT_EQ(shot.width, 900) << view.file;
        EXPECT_EQ(shot.height, 1200) << view.file;
        EXPECT_GT(shot.distinctColours(), 50u) << view.file;
        EXPECT_LT(shot.largestColourShare(), 0.95) << view.file;
        auto dom = test::domOf(views + "/" + view.file);
        for (auto& text : view.texts)
            EXPECT_NE(dom.find(text), std::string::npos) << view.file << ": " << text;
        // Every picture came inline, as a real PNG of the sandbox's.
        for (auto& source : matches(dom, R"re(<img [^>]*src="data:image/png;base64,([^"]{0,40}))re"))
            EXPECT_FALSE(source.empty()) << view.file;
    }
}

TEST_F(VelvoxClient, HostilePlaylistRecordsMakeCardsWithWhatIsUsable)
{
    // A feed whose playlists hold values of the wrong types, too many tracks, a
    // hostile page address; the first playlist is the control.
    std::string track = R"json({"id": %ID%, "title": "Listed %ID%", "user_id": 5, "user": {"id": 5, "username": "owner5"}, "duration": 61000})json";
    auto tracks = [&track](int from, int count) {
        std::string list;
        for (int i = 0; i < count; ++i)
            list += (i ? ", " : "") + std::regex_replace(track, std::regex("%ID%"), std::to_string(from + i));
        return "[" + list + "]";
    };
    std::string feed = R"json({"collection": [
        {"type": "playlist", "created_at": "2013/08/20 09:28:53 +0000", "origin": {"id": 1, "kind": "playlist", "title": "Control list",
            "permalink_url": "http://127.0.0.1:9/lists/1", "user": {"id": 5, "username": "owner5"}, "tracks": )json"
        + tracks(100, 2) + R"json(}},
        {"type": "playlist-sharing", "created_at": "2013/08/19 09:28:53 +0000", "origin": {"sharing_note": {"text": "look", "created_at": "2013/08/19 09:28:53 +0000"},
            "playlist": {"id": 2, "title": 42, "permalink_url": "javascript:alert(1)", "user": {"username": "no id"}, "tracks": )json"
        + tracks(200, 5000) + R"json(}}},
        {"type": "playlist", "created_at": "2013/08/18 09:28:53 +0000", "origin": {"id": 3, "title": "Odd", "user": "someone", "tracks": {"not": "a list"}}},
        {"type": "playlist", "created_at": "2013/08/17 09:28:53 +0000", "origin": {"id": 4, "title": "Mixed", "tracks": [1, "two", null, {"no": "id"}, )json"
        + std::regex_replace(track, std::regex("%ID%"), "300") + R"json(]}}
    ]})json";
    test::TestServer server;
    server.routes().Get("/me", [](const httplib::Request&, httplib::Response& response) { response.set_content(R"({"id": 1, "username": "me"})", "application/json"); });
    server.routes().Get("/me/activities/tracks", [&feed](const httplib::Request&, httplib::Response& response) { response.set_content(feed, "application/json"); });
    std::string base = server.start();

    auto view = velvox("--base-url " + base + " --token t view dashboard -o dashboard.html");
    ASSERT_EQ(view.status, 0) << view.output;
    auto html = fileText(folder.path() + "/dashboard.html");
    auto control = card(html, 0), wrongTypes = card(html, 1), notAList = card(html, 2), mixed = card(html, 3);
    EXPECT_NE(control.find("<a href=\"http://127.0.0.1:9/lists/1\">Control list</a>"), std::string::npos) << control;
    EXPECT_NE(control.find("by <a class=\"user\" href=\"user-5.html\">owner5</a>"), std::string::npos) << control;
    EXPECT_NE(control.find("2 tracks"), std::string::npos) << control;
    EXPECT_EQ(occurrences(control, "<li>"), 2u);
    // Five of five thousand tracks, counted; no title, no owner, no link from what was not one.
    EXPECT_NE(wrongTypes.find("5000 tracks"), std::string::npos) << wrongTypes.substr(0, 600);
    EXPECT_EQ(occurrences(wrongTypes, "<li>"), 5u);
    EXPECT_EQ(wrongTypes.find("javascript:"), std::string::npos);
    EXPECT_EQ(wrongTypes.find("no id"), std::string::npos);
    EXPECT_NE(wrongTypes.find("<p class=\"note\">look</p>"), std::string::npos);
    EXPECT_NE(notAList.find("Odd"), std::string::npos);
    EXPECT_NE(notAList.find("no tracks"), std::string::npos);
    EXPECT_EQ(occurrences(mixed, "<li>"), 1u) << mixed;
    EXPECT_NE(mixed.find("Listed 300"), std::string::npos);
}
