// Costs of the application kit's services that views hit often: an image
// cache hit in memory and a coalesced notification post, beside a plain
// std::unordered_map lookup and a plain synchronous post as floors.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <ZUKit/ZUCoalescedNotification.h>
#include <ZUKit/ZULoadingImageCache.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <benchmark/benchmark.h>

#include <filesystem>
#include <unordered_map>

using namespace velvox;

namespace {

constexpr int imageCount = 500;

// 500 avatar images of the sandbox, loaded once into a cache's memory tier.
struct WarmImages {
    WarmImages()
        : service(sandbox::SandboxService::Options {})
    {
        service.start();
        auto folder = std::filesystem::temp_directory_path() / "velvox-bench-images";
        std::filesystem::remove_all(folder);
        ZULoadingImageCache::Configuration configuration;
        configuration.diskPath = folder.string();
        cache = ZULoadingImageCache::create(configuration);
        int loaded = 0;
        for (int i = 0; i < imageCount; ++i) {
            urls.push_back(*URL::create(service.baseURL() + "/images/avatars/" + std::to_string(1000 + i) + ".png"));
            cache->cachedImageForURL(urls.back().ptr(), false, [&loaded](Image* image, Error*) {
                loaded += image ? 1 : 0;
            });
        }
        RunLoop::current().runUntil([&] { return loaded == imageCount; }, 30);
        for (auto& url : urls)
            floor.emplace(url->absoluteString()->str(), cache->cachedImageForURL(url.ptr(), false, {}));
    }
    sandbox::SandboxService service;
    std::unique_ptr<ZULoadingImageCache> cache;
    std::vector<Ref<URL>> urls;
    std::unordered_map<std::string, RefPtr<Image>> floor;
};

WarmImages& warmImages()
{
    static WarmImages* images = new WarmImages;
    return *images;
}

void ImageCacheMemoryHit(benchmark::State& state)
{
    auto& images = warmImages();
    size_t i = 0;
    for (auto _ : state) {
        auto image = images.cache->cachedImageForURL(images.urls[i++ % imageCount].ptr(), false, {});
        benchmark::DoNotOptimize(image.get());
    }
    if (images.cache->statistics().memoryImageCount != imageCount)
        state.SkipWithError("the images are not all in memory");
}
BENCHMARK(ImageCacheMemoryHit);

// The floor: the same URLs' texts looked up in a plain map.
void UnorderedMapLookup(benchmark::State& state)
{
    auto& images = warmImages();
    size_t i = 0;
    for (auto _ : state) {
        auto it = images.floor.find(images.urls[i++ % imageCount]->absoluteString()->str());
        benchmark::DoNotOptimize(it->second.get());
    }
}
BENCHMARK(UnorderedMapLookup);

// One model object changed ten times in a turn: ten coalesced posts, one delivery.
void CoalescedPostTenTimesThenDeliver(benchmark::State& state)
{
    auto object = String::create("track");
    int delivered = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver("BenchChanged", nullptr, [&](Notification&) { ++delivered; });
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i)
            zu_postCoalenscedNotificationName("BenchChanged", object.ptr());
        RunLoop::current().runUntilIdle();
    }
    state.counters["deliveries"] = benchmark::Counter(delivered, benchmark::Counter::kAvgIterations);
}
BENCHMARK(CoalescedPostTenTimesThenDeliver);

// One repeated post that merges with a pending one (the run loop's turn, which
// delivers, is paid once per thousand posts).
void CoalescedPostMerged(benchmark::State& state)
{
    auto object = String::create("track");
    auto observer = NotificationCenter::defaultCenter().addObserver("BenchChanged", nullptr, [](Notification&) {});
    int64_t posts = 0;
    for (auto _ : state) {
        zu_postCoalenscedNotificationName("BenchChanged", object.ptr());
        if (++posts % 1000 == 0)
            RunLoop::current().runUntilIdle();
    }
    RunLoop::current().runUntilIdle();
}
BENCHMARK(CoalescedPostMerged);

// The floor: ten plain synchronous posts, each delivered.
void PlainPostTenTimes(benchmark::State& state)
{
    auto object = String::create("track");
    int delivered = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver("BenchChanged", nullptr, [&](Notification&) { ++delivered; });
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i)
            NotificationCenter::defaultCenter().postNotification("BenchChanged", object.ptr());
    }
    state.counters["deliveries"] = benchmark::Counter(delivered, benchmark::Counter::kAvgIterations);
}
BENCHMARK(PlainPostTenTimes);

// A relative date as the "past_date" filter makes it: a new formatter per call.
void PastDateWithANewFormatter(benchmark::State& state)
{
    auto date = Date::create(Date::now()->timeIntervalSince1970() - 3 * 86400);
    for (auto _ : state) {
        auto text = ZUPastDateFormatter::create()->stringForObjectValue(date.ptr());
        benchmark::DoNotOptimize(text.get());
    }
}
BENCHMARK(PastDateWithANewFormatter);

} // namespace

BENCHMARK_MAIN();
