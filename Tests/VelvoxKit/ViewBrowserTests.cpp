// The host's views rendered from the sandbox and loaded in a real browser
// (headless Chromium): the expected titles, images and comments are in its
// DOM, and nothing from a hostile entry became an element.

#include <Platform/Platform.h>
#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXResourceController.h>
#include <Views/VXDashboardFeed.h>
#include <Views/VXViewRenderer.h>

#include <Browser.h>
#include <StoreFixture.h>

#include <filesystem>

using namespace velvox;
using velvox::test::chromium;
using velvox::test::domOf;
using Operation = ZURemoteCollectionReloadOperationType;

namespace {

// Kept in the build tree for people to look at; never in the sources.
std::string artifactFolder()
{
    std::string folder = VELVOX_TEST_ARTIFACTS;
    std::filesystem::create_directories(folder);
    return folder;
}

void screenshot(const std::string& file, const std::string& image)
{
    test::runChromium("--hide-scrollbars --window-size=900,1200 --screenshot='" + image + "' 'file://" + file + "'");
}

size_t occurrences(const std::string& text, std::string_view what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

class ViewsInABrowser : public test::SandboxStoreFixture {
protected:
    void SetUp() override
    {
        if (!chromium())
            GTEST_SKIP() << "Chromium is not installed (scripts/setup.sh installs it)";
        SandboxStoreFixture::SetUp();
    }
    bool load(VXRemoteCollectionController& collection)
    {
        collection.loadMoreItemsForReloadOperationType(Operation::Reload, false);
        return waitFor([&] { return !collection.isLoadingItems(); });
    }
    std::string write(const String& page, const std::string& name)
    {
        std::string path = artifactFolder() + "/" + name;
        FileManager::writeFileAtomically(path, page.view());
        return path;
    }
};

} // namespace

TEST_F(ViewsInABrowser, TheDashboardShowsItsActivitiesWithTheirImages)
{
    RefPtr<VXUser> me;
    store->meUserForceRefresh(true, [&](VXUser* user, Error*) { me = user; });
    ASSERT_TRUE(waitFor([&] { return me.get() != nullptr; }));
    auto feed = store->incomingActivities();
    ASSERT_TRUE(load(feed));
    ASSERT_GT(feed->items().count(), 0u);
    auto variables = Dictionary::create({ { "activities", VXDashboardFeed::cards(feed->items()).ptr() }, { "me", me.get() } });
    RefPtr<Error> error;
    auto page = VXViewRenderer::renderPage("dashboard", variables.ptr(), &error);
    ASSERT_TRUE(page) << error->localizedDescription()->str();
    EXPECT_EQ(page->view().find("zu-image"), std::string_view::npos); // every image inlined
    auto file = write(*page, "dashboard.html");

    auto dom = domOf(file);
    ASSERT_NE(dom.find("<html"), std::string::npos) << dom.substr(0, 500);
    EXPECT_NE(dom.find("Dashboard of " + me->username()->str()), std::string::npos);
    size_t cards = occurrences(dom, "class=\"card activity\"");
    EXPECT_EQ(cards, feed->items().count());
    for (auto* item : feed->items()) {
        auto* activity = downcast<VXActivity>(item);
        if (activity->track()) {
            EXPECT_NE(dom.find(activity->track()->title()->str()), std::string::npos) << activity->track()->title()->str();
        }
    }
    EXPECT_GE(occurrences(dom, "src=\"data:image/png;base64,"), 2u); // the logo and the artworks
    screenshot(file, artifactFolder() + "/dashboard.png");
    EXPECT_TRUE(std::filesystem::exists(artifactFolder() + "/dashboard.png"));
}

TEST_F(ViewsInABrowser, AHostileTitleAndCommentStayText)
{
    // A track whose title and comment carry markup that would run if it became elements.
    const std::string hostileTitle = "<img src=x onerror=\"document.title='pwned'\">Evil";
    const std::string hostileComment = "first line\n<script>document.title='pwned'</script><b onclick=x>bold?</b>";
    auto upload = Dictionary::create({ { "track[title]", String::create(hostileTitle).ptr() },
        { "track[description]", String::create("about\n<iframe src=x></iframe>").ptr() },
        { "track[asset_data]", Data::create(std::string(1000, 'a')).ptr() } });
    RefPtr<Dictionary> created;
    store->postTrackWithTrackDictionary(upload.ptr(), nullptr, [&](Object* json, Error*) { created = dynamicDowncast<Dictionary>(json); });
    ASSERT_TRUE(waitFor([&] { return created.get() != nullptr; }, 20));
    auto identifier = created->objectForKey("id")->description();
    RefPtr<VXComment> comment;
    store->postCommentWithTrackIdentifier(identifier.ptr(), String::create(hostileComment).ptr(), 12.5, [&](VXComment* posted, Error*) { comment = posted; });
    ASSERT_TRUE(waitFor([&] { return comment.get() != nullptr; }));
    RefPtr<VXTrack> track;
    store->trackForIdentifier(identifier.ptr(), true, [&](VXTrack* fetched, Error*) { track = fetched; });
    ASSERT_TRUE(waitFor([&] { return track.get() != nullptr; }));
    auto comments = store->commentsForTrackIdentifier(identifier.ptr());
    ASSERT_TRUE(load(comments));
    track->user(); // the owner, for the byline
    waitFor([&] { return track->user().get() != nullptr; }, 5);

    auto variables = Dictionary::create({ { "track", track.get() }, { "comments", &comments->items() } });
    RefPtr<Error> error;
    auto page = VXViewRenderer::renderPage("track", variables.ptr(), &error);
    ASSERT_TRUE(page) << error->localizedDescription()->str();
    auto file = write(*page, "track-hostile.html");

    auto dom = domOf(file);
    ASSERT_NE(dom.find("<html"), std::string::npos);
    EXPECT_NE(dom.find("<title>&lt;img src=x onerror=\"document.title='pwned'\"&gt;Evil</title>"), std::string::npos) << dom.substr(0, 800);
    EXPECT_EQ(dom.find("pwned</title>"), std::string::npos);
    EXPECT_EQ(dom.find("<img src=\"x\""), std::string::npos);
    EXPECT_EQ(dom.find("<script>document"), std::string::npos);
    EXPECT_EQ(dom.find("<iframe"), std::string::npos);
    EXPECT_EQ(dom.find("<b onclick"), std::string::npos);
    EXPECT_NE(dom.find("first line<br>&lt;script&gt;document.title='pwned'&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(dom.find("at 0:12"), std::string::npos);
    EXPECT_NE(dom.find("class=\"waveform\""), std::string::npos);
    screenshot(file, artifactFolder() + "/track-hostile.png");
}
