// The loading image cache against real servers on loopback: a test server whose
// answers each test chooses, and the sandbox's image paths.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <ZUKit/ZULoadingImageCache.h>

#include <TestServer.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <mutex>

using namespace velvox;
using velvox::test::TemporaryFolder;
using velvox::test::TestServer;

namespace {

// A 1x1 PNG, and another image of the same size that differs.
const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0\x1f\x15\xc4\x89\0\0\0\rIDATx\x9c"
                      "c``\xf8\x0f\0\x01\x04\x01\0_\xe5\xc3K\0\0\0\0IEND\xae"
                      "B`\x82",
    67);
const std::string gif("GIF89a\x01\0\x01\0\x80\0\0\xff\xff\xff\0\0\0!\xf9\x04\x01\0\0\0\0,\0\0\0\0\x01\0\x01\0\0\x02\x02"
                      "D\x01\0;",
    42);

struct Answer {
    int calls { 0 };
    RefPtr<Image> image;
    RefPtr<Error> error;
    ZULoadingImageCache::Block block()
    {
        return [this](Image* answered, Error* failed) {
            ++calls;
            image = answered;
            error = failed;
        };
    }
};

// Image routes that count their requests and remember what they were sent.
class ImageServer {
public:
    ImageServer()
    {
        auto& routes = m_server.routes();
        routes.Get(R"(/images/(\w+)\.png)", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            std::string etag = "\"v1-" + request.matches[1].str() + "\"";
            if (request.get_header_value("If-None-Match") == etag) {
                response.status = 304;
                return;
            }
            response.set_header("ETag", etag);
            response.set_header("Last-Modified", "Mon, 02 Nov 2026 10:00:00 GMT");
            response.set_content(png, "image/png");
        });
        routes.Get("/other.gif", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.set_content(gif, "image/gif");
        });
        routes.Get("/text", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.set_content("<html>not an image</html>", "text/html");
        });
        routes.Get("/missing.png", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.status = 404;
            response.set_content(png, "image/png"); // an image body does not make a 404 a success
        });
        routes.Get("/large.png", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.set_content(png + std::string(4096, '\0'), "image/png");
        });
        routes.Get("/slow.png", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            response.set_content(png, "image/png");
        });
        m_server.start();
    }
    std::string url(std::string_view path) const { return m_server.baseURL() + std::string(path); }
    int requests() const { return m_requests; }
    std::vector<std::string> headersSeen(const std::string& name)
    {
        std::lock_guard lock(m_mutex);
        std::vector<std::string> values;
        for (auto& headers : m_headers) {
            auto it = headers.find(name);
            values.push_back(it == headers.end() ? "" : it->second);
        }
        return values;
    }

private:
    void record(const httplib::Request& request)
    {
        ++m_requests;
        std::lock_guard lock(m_mutex);
        m_headers.push_back({ request.headers.begin(), request.headers.end() });
    }
    TestServer m_server;
    std::atomic<int> m_requests { 0 };
    std::mutex m_mutex;
    std::vector<std::map<std::string, std::string>> m_headers;
};

class LoadingImageCache : public testing::Test {
protected:
    std::unique_ptr<ZULoadingImageCache> makeCache(size_t memory = 1 << 20, size_t disk = 1 << 20)
    {
        ZULoadingImageCache::Configuration configuration;
        configuration.memoryCapacity = memory;
        configuration.diskCapacity = disk;
        configuration.diskPath = folder.path() + "/Images";
        configuration.timeout = 0.5;
        return ZULoadingImageCache::create(configuration);
    }
    static Ref<URL> url(const std::string& text) { return *URL::create(text); }
    static bool wait(std::initializer_list<Answer*> answers)
    {
        return RunLoop::current().runUntil([&] {
            return std::all_of(answers.begin(), answers.end(), [](Answer* answer) { return answer->calls > 0; });
        },
            10);
    }

    TemporaryFolder folder;
    ImageServer server;
};

} // namespace

TEST_F(LoadingImageCache, OneRequestForManyCallersThenMemoryHitsWithoutTheBlock)
{
    auto cache = makeCache();
    auto address = url(server.url("/images/a.png"));
    std::vector<Answer> answers(100);
    for (auto& answer : answers)
        EXPECT_FALSE(cache->cachedImageForURL(address.ptr(), false, answer.block()));
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return answers.back().calls > 0; }, 10));
    RunLoop::current().runUntilIdle();
    for (auto& answer : answers) {
        EXPECT_EQ(answer.calls, 1);
        ASSERT_TRUE(answer.image);
        EXPECT_EQ(answer.image.get(), answers.front().image.get());
        EXPECT_FALSE(answer.error);
    }
    EXPECT_EQ(answers.front().image->mediaType(), "image/png");
    EXPECT_EQ(server.requests(), 1);

    Answer later;
    auto image = cache->cachedImageForURL(address.ptr(), false, later.block());
    EXPECT_EQ(image.get(), answers.front().image.get());
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(later.calls, 0);
    EXPECT_EQ(server.requests(), 1);

    // Image hosts are not the API: no credentials go to them.
    EXPECT_EQ(server.headersSeen("Authorization"), std::vector<std::string> { "" });
    auto statistics = cache->statistics();
    EXPECT_EQ(statistics.requestsSent, 1u);
    EXPECT_EQ(statistics.memoryHits, 1u);
    EXPECT_EQ(statistics.memoryImageCount, 1u);
    EXPECT_EQ(statistics.memoryBytes, png.size());
    EXPECT_EQ(statistics.diskImageCount, 1u);
}

TEST_F(LoadingImageCache, DiskTierServesAfterARestartAndDropsDamagedEntries)
{
    auto address = url(server.url("/images/b.png"));
    {
        auto cache = makeCache();
        Answer answer;
        cache->cachedImageForURL(address.ptr(), false, answer.block());
        ASSERT_TRUE(wait({ &answer }));
        ASSERT_TRUE(answer.image);
    }
    {
        // A new process: nothing in memory, the disk answers at once.
        auto cache = makeCache();
        Answer answer;
        auto image = cache->cachedImageForURL(address.ptr(), false, answer.block());
        ASSERT_TRUE(image);
        EXPECT_EQ(image->data().view(), png);
        EXPECT_EQ(cache->statistics().diskHits, 1u);
        EXPECT_EQ(server.requests(), 1);
    }
    // Every kind of damage: cut short, a flipped byte, a stranger's file.
    std::vector<std::string> files;
    for (auto& entry : std::filesystem::directory_iterator(folder.path() + "/Images"))
        files.push_back(entry.path().string());
    ASSERT_EQ(files.size(), 1u);
    std::string original;
    {
        std::ifstream in(files[0], std::ios::binary);
        original.assign(std::istreambuf_iterator<char>(in), {});
    }
    const std::string damaged[] = {
        original.substr(0, original.size() - 10),
        original.substr(0, original.size() - 1) + char(original.back() ^ 1),
        "VXIMG1\nnot a header",
        "",
    };
    int expectedRequests = 1;
    for (auto& contents : damaged) {
        {
            std::ofstream out(files[0], std::ios::binary | std::ios::trunc);
            out << contents;
        }
        auto cache = makeCache();
        Answer answer;
        EXPECT_FALSE(cache->cachedImageForURL(address.ptr(), false, answer.block())) << contents.size();
        ASSERT_TRUE(wait({ &answer }));
        ASSERT_TRUE(answer.image);
        EXPECT_EQ(answer.image->data().view(), png);
        EXPECT_EQ(server.requests(), ++expectedRequests);
        EXPECT_EQ(cache->statistics().corruptDiskEntries, 1u);
    }
}

TEST_F(LoadingImageCache, TiersEvictTheLeastRecentlyUsedByBytes)
{
    // Room for two images in memory.
    auto cache = makeCache(2 * png.size() + 10, 1 << 20);
    auto a = url(server.url("/images/a.png")), b = url(server.url("/images/b.png")), c = url(server.url("/images/c.png"));
    for (auto* address : { a.ptr(), b.ptr() }) {
        Answer answer;
        cache->cachedImageForURL(address, false, answer.block());
        ASSERT_TRUE(wait({ &answer }));
    }
    EXPECT_TRUE(cache->cachedImageForURL(a.ptr(), false, {})); // a is now the most recent
    Answer answer;
    cache->cachedImageForURL(c.ptr(), false, answer.block());
    ASSERT_TRUE(wait({ &answer }));
    auto statistics = cache->statistics();
    EXPECT_EQ(statistics.memoryImageCount, 2u);
    EXPECT_LE(statistics.memoryBytes, 2 * png.size() + 10);
    cache->removeAllImagesFromMemory();
    // b went from memory but is still on disk.
    EXPECT_TRUE(cache->cachedImageForURL(b.ptr(), false, {}));
    EXPECT_EQ(cache->statistics().diskHits, 1u);

    // The disk tier, shrunk to about one entry, keeps the most recently used.
    size_t entrySize = cache->statistics().diskBytes / 3;
    cache->setDiskCapacity(entrySize + entrySize / 2);
    statistics = cache->statistics();
    EXPECT_EQ(statistics.diskImageCount, 1u);
    EXPECT_LE(statistics.diskBytes, entrySize + entrySize / 2);
    cache->setMemoryCapacity(0);
    EXPECT_EQ(cache->statistics().memoryImageCount, 0u);
    EXPECT_EQ(server.requests(), 3);
}

TEST_F(LoadingImageCache, ForceReloadRevalidatesAndA304KeepsTheBytes)
{
    auto cache = makeCache();
    auto address = url(server.url("/images/d.png"));
    Answer first;
    cache->cachedImageForURL(address.ptr(), false, first.block());
    ASSERT_TRUE(wait({ &first }));

    Answer again;
    EXPECT_FALSE(cache->cachedImageForURL(address.ptr(), true, again.block()));
    ASSERT_TRUE(wait({ &again }));
    ASSERT_TRUE(again.image);
    EXPECT_EQ(again.image->data().view(), png);
    EXPECT_EQ(server.requests(), 2);
    auto sent = server.headersSeen("If-None-Match");
    EXPECT_EQ(sent, (std::vector<std::string> { "", "\"v1-d\"" }));
    EXPECT_EQ(server.headersSeen("If-Modified-Since").back(), "Mon, 02 Nov 2026 10:00:00 GMT");
    EXPECT_EQ(cache->statistics().notModified, 1u);

    // After a restart the validators come from the disk entry.
    auto restarted = makeCache();
    Answer third;
    restarted->cachedImageForURL(address.ptr(), true, third.block());
    ASSERT_TRUE(wait({ &third }));
    EXPECT_TRUE(third.image);
    EXPECT_EQ(server.headersSeen("If-None-Match").back(), "\"v1-d\"");
}

TEST_F(LoadingImageCache, EveryFailureCallsEachWaitingBlockOnceAndCachesNothing)
{
    int refusedPort = test::refusingLoopbackPort();
    const struct {
        std::string url;
        std::string domain;
        int64_t code; // 0: any
    } cases[] = {
        { server.url("/missing.png"), std::string(ZULoadingImageCacheErrorDomain), 404 },
        { server.url("/text"), std::string(ZULoadingImageCacheErrorDomain), ZULoadingImageCacheErrorNotAnImage },
        { server.url("/slow.png"), std::string(URLErrorDomain), 0 },
        { "http://127.0.0.1:" + std::to_string(refusedPort) + "/x.png", std::string(URLErrorDomain), 0 },
        { "file:///etc/passwd", std::string(ZULoadingImageCacheErrorDomain), ZULoadingImageCacheErrorUnsupportedURL },
    };
    for (auto& c : cases) {
        auto cache = makeCache();
        auto address = url(c.url);
        Answer one, two;
        EXPECT_FALSE(cache->cachedImageForURL(address.ptr(), false, one.block()));
        EXPECT_FALSE(cache->cachedImageForURL(address.ptr(), false, two.block()));
        ASSERT_TRUE(wait({ &one, &two })) << c.url;
        RunLoop::current().runUntilIdle();
        for (auto* answer : { &one, &two }) {
            EXPECT_EQ(answer->calls, 1) << c.url;
            EXPECT_FALSE(answer->image) << c.url;
            ASSERT_TRUE(answer->error) << c.url;
            EXPECT_EQ(answer->error->domain()->view(), c.domain) << c.url;
            if (c.code) {
                EXPECT_EQ(answer->error->code(), c.code) << c.url;
            }
        }
        auto statistics = cache->statistics();
        EXPECT_EQ(statistics.memoryImageCount, 0u) << c.url;
        EXPECT_EQ(statistics.diskImageCount, 0u) << c.url;
    }

    // A body over the bound ends the load too.
    ZULoadingImageCache::Configuration small;
    small.diskPath = folder.path() + "/Small";
    small.maximumImageSize = 1024;
    auto cache = ZULoadingImageCache::create(small);
    Answer large;
    cache->cachedImageForURL(url(server.url("/large.png")).ptr(), false, large.block());
    ASSERT_TRUE(wait({ &large }));
    EXPECT_FALSE(large.image);
    EXPECT_TRUE(large.error);
}

TEST_F(LoadingImageCache, ACancelledCallerIsNotCalledAndTheLastOneStopsTheRequest)
{
    auto cache = makeCache();
    auto address = url(server.url("/other.gif"));
    Answer kept, dropped;
    Subscription keptToken, droppedToken;
    cache->cachedImageForURL(address.ptr(), false, kept.block(), &keptToken);
    cache->cachedImageForURL(address.ptr(), false, dropped.block(), &droppedToken);
    droppedToken.cancel();
    ASSERT_TRUE(wait({ &kept }));
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(kept.calls, 1);
    EXPECT_EQ(dropped.calls, 0);
    EXPECT_EQ(kept.image->mediaType(), "image/gif");

    // Cancelled by an earlier caller's block, during the same delivery.
    auto third = url(server.url("/other.gif?third"));
    Subscription laterToken;
    int earlierCalls = 0, laterCalls = 0;
    cache->cachedImageForURL(third.ptr(), false, [&](Image*, Error*) {
        ++earlierCalls;
        laterToken.cancel();
    });
    cache->cachedImageForURL(third.ptr(), false, [&](Image*, Error*) { ++laterCalls; }, &laterToken);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return earlierCalls == 1; }, 10));
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(laterCalls, 0);

    Answer alone;
    {
        Subscription token;
        cache->cachedImageForURL(url(server.url("/slow.png")).ptr(), false, alone.block(), &token);
    }
    EXPECT_EQ(URLLoader::current().runningTaskCount(), 0u);
    RunLoop::current().runFor(0.1);
    EXPECT_EQ(alone.calls, 0);

    // The error for a URL that is never loaded is stopped the same way.
    Answer refused;
    {
        Subscription token;
        cache->cachedImageForURL(url("file:///etc/hostname").ptr(), false, refused.block(), &token);
    }
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(refused.calls, 0);
}

TEST_F(LoadingImageCache, LoadsTheSandboxsImages)
{
    sandbox::SandboxService service({});
    ASSERT_TRUE(service.start());
    auto cache = makeCache();
    Answer avatar, artwork;
    cache->cachedImageForURL(url(service.baseURL() + "/images/avatars/1003.png").ptr(), false, avatar.block());
    cache->cachedImageForURL(url(service.baseURL() + "/images/artworks/5001-t300x300.png").ptr(), false, artwork.block());
    ASSERT_TRUE(wait({ &avatar, &artwork }));
    ASSERT_TRUE(avatar.image);
    ASSERT_TRUE(artwork.image);
    EXPECT_EQ(avatar.image->mediaType(), "image/png");
    EXPECT_EQ(service.totalRequestCount(), 2);
}

TEST(LoadingImageCacheFolder, FollowsTheUsersCacheFolder)
{
    const char* saved = getenv("XDG_CACHE_HOME");
    std::string savedValue = saved ? saved : "";
    setenv("XDG_CACHE_HOME", "/tmp/cache-home", 1);
    EXPECT_EQ(ZULoadingImageCache::defaultDiskPath(), "/tmp/cache-home/Velvox/Images");
    setenv("XDG_CACHE_HOME", "relative/is/ignored", 1);
    EXPECT_EQ(ZULoadingImageCache::defaultDiskPath(), stringByExpandingTildeInPath("~/.cache/Velvox/Images"));
    if (saved)
        setenv("XDG_CACHE_HOME", savedValue.c_str(), 1);
    else
        unsetenv("XDG_CACHE_HOME");
}
