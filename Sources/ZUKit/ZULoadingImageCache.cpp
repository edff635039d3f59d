#include "ZULoadingImageCache.h"

#include "ZUImageDiskCache.h"
#include "ZUImageLoads.h"
#include "ZUImageMemoryCache.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace velvox {

namespace {

// Whether a URL's text names http or https, without parsing it again.
bool isWebURL(std::string_view text)
{
    size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return false;
    std::string scheme;
    for (char c : text.substr(0, colon))
        scheme.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return scheme == "http" || scheme == "https";
}

} // namespace

// The two tiers and the loads in flight, which the loads' ends reach through
// a weak reference (a load may end after the cache went).
struct ZULoadingImageCache::State : std::enable_shared_from_this<State> {
    explicit State(Configuration configuration)
        : configuration(configuration)
        , memory(configuration.memoryCapacity)
        , disk(configuration.diskPath, configuration.diskCapacity, configuration.maximumImageSize, configuration.usesDisk)
    {
    }

    // The loads' limits; the tiers keep their own capacities.
    Configuration configuration;
    Statistics statistics;
    ZUImageMemoryCache memory;
    ZUImageDiskCache disk;
    ZUImageLoads loads;

    void startLoad(const std::string& url, bool forceReload, ZUImageLoads::Waiter&& waiter);
    void finishLoad(const std::string& url, URLResponse* response, Error* error);
};

void ZULoadingImageCache::State::startLoad(const std::string& url, bool forceReload, ZUImageLoads::Waiter&& waiter)
{
    if (auto* existing = loads.find(url)) {
        existing->waiters.push_back(std::move(waiter));
        return;
    }
    URLRequest request;
    request.url = url;
    request.headers.emplace_back("Accept", "image/*");
    request.timeout = configuration.timeout;
    request.connectTimeout = std::min(configuration.timeout, 10.0);
    request.maximumBodySize = configuration.maximumImageSize;
    bool conditional = false;
    if (forceReload) {
        std::string etag, lastModified;
        if (auto* entry = memory.find(url, false)) {
            etag = entry->etag;
            lastModified = entry->lastModified;
        } else if (auto stored = disk.read(url)) {
            etag = stored->etag;
            lastModified = stored->lastModified;
        }
        if (!etag.empty())
            request.headers.emplace_back("If-None-Match", etag);
        if (!lastModified.empty())
            request.headers.emplace_back("If-Modified-Since", lastModified);
        conditional = !etag.empty() || !lastModified.empty();
    }
    auto& load = loads.add(url);
    load.conditional = conditional;
    load.waiters.push_back(std::move(waiter));
    ++statistics.requestsSent;
    std::weak_ptr<State> weakState = weak_from_this();
    URLTaskCallbacks callbacks;
    callbacks.didComplete = [weakState, url](URLResponse* response, Error* error) {
        if (auto state = weakState.lock())
            state->finishLoad(url, response, error);
    };
    load.task = URLLoader::current().start(request, std::move(callbacks));
}

void ZULoadingImageCache::State::finishLoad(const std::string& url, URLResponse* response, Error* error)
{
    auto taken = loads.take(url);
    if (!taken)
        return;
    auto& load = *taken;

    if (error) {
        ++statistics.failures;
        ZUImageLoads::deliver(std::move(load.waiters), nullptr, error);
        return;
    }
    long status = response->statusCode();
    if (status == 304) {
        ++statistics.notModified;
        RefPtr<Image> image;
        if (auto* entry = memory.find(url, true)) {
            image = entry->image.ptr();
        } else if (auto stored = disk.read(url)) {
            image = stored->image;
            memory.store(url, *image, stored->etag, stored->lastModified);
        }
        if (image) {
            ZUImageLoads::deliver(std::move(load.waiters), image.get(), nullptr);
            return;
        }
        if (load.conditional) {
            // The bytes went meanwhile: ask again without validators.
            auto waiters = std::move(load.waiters);
            for (auto& waiter : waiters)
                startLoad(url, false, std::move(waiter));
            return;
        }
    }
    if (status < 200 || status > 299) {
        ++statistics.failures;
        auto failure = Error::create(ZULoadingImageCacheErrorDomain, status,
            String::format("The image server answered with status %ld.", status)->view());
        ZUImageLoads::deliver(std::move(load.waiters), nullptr, failure.ptr());
        return;
    }
    auto image = Image::create(response->body());
    if (!image) {
        ++statistics.failures;
        auto failure = Error::create(ZULoadingImageCacheErrorDomain, ZULoadingImageCacheErrorNotAnImage,
            "The answer is not an image of a known kind.");
        ZUImageLoads::deliver(std::move(load.waiters), nullptr, failure.ptr());
        return;
    }
    std::string etag = response->headerValue("etag");
    std::string lastModified = response->headerValue("last-modified");
    memory.store(url, *image, etag, lastModified);
    if (response->headerValue("cache-control").find("no-store") == std::string::npos)
        disk.write(url, *image, etag, lastModified);
    ZUImageLoads::deliver(std::move(load.waiters), image.get(), nullptr);
}

namespace {

ZULoadingImageCache::Configuration withDiskPath(ZULoadingImageCache::Configuration configuration)
{
    if (configuration.diskPath.empty())
        configuration.diskPath = ZULoadingImageCache::defaultDiskPath();
    return configuration;
}

} // namespace

ZULoadingImageCache::ZULoadingImageCache(Configuration configuration)
    : m_state(std::make_shared<State>(withDiskPath(std::move(configuration))))
{
}

ZULoadingImageCache::~ZULoadingImageCache()
{
    m_state->loads.cancelAll();
}

ZULoadingImageCache& ZULoadingImageCache::sharedLoadingImageCache()
{
    static ZULoadingImageCache* cache = new ZULoadingImageCache(Configuration {});
    return *cache;
}

std::unique_ptr<ZULoadingImageCache> ZULoadingImageCache::create(Configuration configuration)
{
    return std::unique_ptr<ZULoadingImageCache>(new ZULoadingImageCache(std::move(configuration)));
}

std::string ZULoadingImageCache::defaultDiskPath()
{
    return stringByAppendingPathComponent(stringByAppendingPathComponent(userCacheDirectory(), "Velvox"), "Images");
}

RefPtr<Image> ZULoadingImageCache::cachedImageForURL(URL* url, bool forceReload, Block block, Subscription* subscription)
{
    auto& state = *m_state;
    if (!url || !isWebURL(url->absoluteString()->view())) {
        ++state.statistics.failures;
        auto failure = Error::create(ZULoadingImageCacheErrorDomain, ZULoadingImageCacheErrorUnsupportedURL,
            String::format("Images are loaded over http and https only, not from %@.", url ? url->absoluteString() : nullptr)->view());
        if (block) {
            // Delivered on the next turn, like any load's end, unless the
            // caller's subscription (or the cache) goes first.
            auto pending = std::make_shared<Block>(std::move(block));
            std::weak_ptr<State> weakState = m_state;
            RunLoop::current().post([weakState, pending, failure] {
                if (weakState.lock() && *pending)
                    (*pending)(nullptr, failure.ptr());
            });
            if (subscription)
                *subscription = Subscription([pending] { *pending = nullptr; });
        }
        return nullptr;
    }
    if (!forceReload) {
        if (auto* entry = state.memory.find(url->absoluteString()->view(), true)) {
            ++state.statistics.memoryHits;
            return entry->image.ptr();
        }
        ++state.statistics.memoryMisses;
    }
    std::string key = url->absoluteString()->str();
    if (!forceReload) {
        if (auto stored = state.disk.read(key)) {
            ++state.statistics.diskHits;
            state.memory.store(key, *stored->image, std::move(stored->etag), std::move(stored->lastModified));
            return stored->image;
        }
        if (state.disk.enabled())
            ++state.statistics.diskMisses;
    }
    uint64_t identifier = state.loads.nextIdentifier();
    auto slot = std::make_shared<Block>(block ? std::move(block) : Block([](Image*, Error*) {}));
    state.startLoad(key, forceReload, ZUImageLoads::Waiter { identifier, slot });
    if (subscription) {
        std::weak_ptr<State> weakState = m_state;
        std::weak_ptr<Block> weakSlot = slot;
        *subscription = Subscription([weakState, weakSlot, key, identifier] {
            if (auto cancelled = weakSlot.lock())
                *cancelled = nullptr;
            if (auto state = weakState.lock())
                state->loads.cancelWaiter(key, identifier);
        });
    }
    return nullptr;
}

void ZULoadingImageCache::setMemoryCapacity(size_t bytes)
{
    m_state->memory.setCapacity(bytes);
}

void ZULoadingImageCache::setDiskCapacity(size_t bytes)
{
    m_state->disk.setCapacity(bytes);
}

size_t ZULoadingImageCache::memoryCapacity() const { return m_state->memory.capacity(); }
size_t ZULoadingImageCache::diskCapacity() const { return m_state->disk.capacity(); }
const std::string& ZULoadingImageCache::diskPath() const { return m_state->disk.path(); }

void ZULoadingImageCache::removeAllImagesFromMemory()
{
    m_state->memory.removeAll();
}

void ZULoadingImageCache::removeAllImages()
{
    removeAllImagesFromMemory();
    m_state->disk.removeAll();
}

ZULoadingImageCache::Statistics ZULoadingImageCache::statistics() const
{
    auto& state = *m_state;
    Statistics statistics = state.statistics;
    statistics.corruptDiskEntries = state.disk.corruptEntries();
    statistics.memoryBytes = state.memory.bytes();
    statistics.memoryImageCount = state.memory.count();
    statistics.diskBytes = state.disk.bytes();
    statistics.diskImageCount = state.disk.count();
    return statistics;
}

} // namespace velvox
