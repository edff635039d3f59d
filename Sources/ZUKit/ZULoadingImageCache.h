#pragma once

// Images of tracks and users, loaded over HTTP and kept in two tiers: memory
// (bounded in bytes, least recently used first out) and disk (under the
// per-user cache folder, bounded in bytes, written atomically, read back after
// a restart without a request).
//
// cachedImageForURL answers at once with an image that is in memory or on
// disk, and then calls no block. Otherwise it answers null and starts a load
// (one HTTP request per URL however many callers wait) whose end calls each
// waiting block once, on the run loop's thread, in the order the callers
// came, with the image or with an error:
// - transport failures (refused connection, time-out...) keep their error;
// - an answer outside 2xx is an error in ZULoadingImageCacheErrorDomain whose
//   code is the HTTP status;
// - a body that is not an image (PNG, JPEG, GIF, WebP, BMP, TIFF) is an error
//   with code ZULoadingImageCacheErrorNotAnImage; a URL that is not http or
//   https one with code ZULoadingImageCacheErrorUnsupportedURL.
// Nothing is cached on failure. A disk entry that is corrupt or truncated is
// removed and fetched again, never handed out.
//
// forceReload skips both tiers and asks the server again, with the validators
// it sent before (If-None-Match from ETag, If-Modified-Since from
// Last-Modified); a 304 keeps the bytes already held.
//
// Image requests carry no credentials: image hosts are not the API, and the
// API's token never goes to them. Everything runs on one thread, the run
// loop's; destroying the cache cancels its loads without calling their blocks.

#include <Platform/Image.h>
#include <Platform/Subscription.h>
#include <Platform/URL.h>
#include <Platform/Values.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace velvox {

inline constexpr std::string_view ZULoadingImageCacheErrorDomain = "ZULoadingImageCacheErrorDomain";
// Codes of ZULoadingImageCacheErrorDomain besides HTTP statuses.
enum : int64_t {
    ZULoadingImageCacheErrorNotAnImage = 1,
    ZULoadingImageCacheErrorUnsupportedURL = 2,
};

class ZULoadingImageCache {
public:
    using Block = std::function<void(Image* image, Error* error)>;

    struct Configuration {
        size_t memoryCapacity { 64u * 1024 * 1024 };
        size_t diskCapacity { 256u * 1024 * 1024 };
        // The folder of the disk tier; empty: defaultDiskPath().
        std::string diskPath;
        bool usesDisk { true };
        // The largest image body accepted; a larger one fails the load.
        size_t maximumImageSize { 32u * 1024 * 1024 };
        double timeout { 30 };
    };

    // What a host can show or log.
    struct Statistics {
        uint64_t memoryHits { 0 };
        uint64_t memoryMisses { 0 };
        uint64_t diskHits { 0 };
        uint64_t diskMisses { 0 };
        uint64_t requestsSent { 0 };
        uint64_t notModified { 0 };
        uint64_t failures { 0 };
        uint64_t corruptDiskEntries { 0 };
        size_t memoryBytes { 0 };
        size_t memoryImageCount { 0 };
        size_t diskBytes { 0 };
        size_t diskImageCount { 0 };
    };

    // The cache of the program, with the default configuration.
    static ZULoadingImageCache& sharedLoadingImageCache();
    static std::unique_ptr<ZULoadingImageCache> create(Configuration);
    // $XDG_CACHE_HOME (when absolute), else ~/.cache, then "Velvox/Images".
    static std::string defaultDiskPath();

    ~ZULoadingImageCache();
    ZULoadingImageCache(const ZULoadingImageCache&) = delete;
    ZULoadingImageCache& operator=(const ZULoadingImageCache&) = delete;

    // See above. When `subscription` is given, destroying it before the load
    // ends drops this caller's block (and the request, when no caller is left).
    RefPtr<Image> cachedImageForURL(URL* url, bool forceReload, Block block, Subscription* subscription = nullptr);

    void setMemoryCapacity(size_t bytes);
    void setDiskCapacity(size_t bytes);
    size_t memoryCapacity() const;
    size_t diskCapacity() const;
    const std::string& diskPath() const;

    // Empties the memory tier (a host under memory pressure); the disk stays.
    void removeAllImagesFromMemory();
    // Empties both tiers.
    void removeAllImages();

    Statistics statistics() const;

    struct State;

private:
    explicit ZULoadingImageCache(Configuration);
    std::shared_ptr<State> m_state;
};

} // namespace velvox
