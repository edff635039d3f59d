#include "ZULoadingImageCache.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <list>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

namespace velvox {

namespace {

constexpr std::string_view diskMagic = "VXIMG1\n";
constexpr std::string_view diskSuffix = ".img";
// Room for the header lines of a disk entry beyond its body.
constexpr size_t diskHeaderAllowance = 64 * 1024;

uint64_t fnv1a64(std::string_view bytes)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

std::string hex64(uint64_t value)
{
    char buffer[17];
    snprintf(buffer, sizeof(buffer), "%016" PRIx64, value);
    return buffer;
}

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

// Lookups by std::string_view in maps keyed by std::string, without a copy.
struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

bool isOneLine(std::string_view text)
{
    return text.find_first_of("\r\n") == std::string_view::npos;
}

std::string headerValue(URLResponse& response, std::string_view name)
{
    auto* value = response.headers().objectForKey<String>(name);
    return value ? value->str() : std::string();
}

// Disk entries age by the system's clock, as their files' times do (not by a
// run loop's clock, which tests may have stopped).
double fileTimeNow()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

struct ZULoadingImageCache::State : std::enable_shared_from_this<State> {
    Configuration configuration;
    Statistics statistics;

    // Memory tier: most recently used first.
    struct MemoryEntry {
        std::string url;
        Ref<Image> image;
        std::string etag;
        std::string lastModified;
    };
    std::list<MemoryEntry> memoryOrder;
    std::unordered_map<std::string, std::list<MemoryEntry>::iterator, TextHash, std::equal_to<>> memoryByURL;
    size_t memoryBytes { 0 };

    // Disk tier index, read from the folder at first use.
    struct DiskEntry {
        size_t size;
        double lastUse;
    };
    std::unordered_map<std::string, DiskEntry> diskByFile;
    size_t diskBytes { 0 };
    bool diskIndexed { false };

    // Loads in flight, one per URL.
    struct Waiter {
        uint64_t identifier;
        Block block;
    };
    struct Load {
        RefPtr<URLTask> task;
        std::vector<Waiter> waiters;
        bool conditional { false };
    };
    std::unordered_map<std::string, Load> loads;
    uint64_t nextWaiter { 1 };

    // Memory.
    MemoryEntry* memoryEntry(std::string_view url, bool touch)
    {
        auto it = memoryByURL.find(url);
        if (it == memoryByURL.end())
            return nullptr;
        if (touch)
            memoryOrder.splice(memoryOrder.begin(), memoryOrder, it->second);
        return &*it->second;
    }
    void storeInMemory(const std::string& url, Image& image, std::string etag, std::string lastModified)
    {
        removeFromMemory(url);
        size_t bytes = image.data().length();
        if (bytes > configuration.memoryCapacity)
            return;
        memoryOrder.push_front(MemoryEntry { url, image, std::move(etag), std::move(lastModified) });
        memoryByURL.emplace(url, memoryOrder.begin());
        memoryBytes += bytes;
        trimMemory();
    }
    void removeFromMemory(const std::string& url)
    {
        auto it = memoryByURL.find(url);
        if (it == memoryByURL.end())
            return;
        memoryBytes -= it->second->image->data().length();
        memoryOrder.erase(it->second);
        memoryByURL.erase(it);
    }
    void trimMemory()
    {
        while (memoryBytes > configuration.memoryCapacity && !memoryOrder.empty())
            removeFromMemory(memoryOrder.back().url);
    }

    // Disk.
    static std::string fileNameForURL(std::string_view url) { return hex64(fnv1a64(url)) + std::string(diskSuffix); }
    std::string pathOfFile(const std::string& file) const { return stringByAppendingPathComponent(configuration.diskPath, file); }

    void indexDisk()
    {
        if (diskIndexed)
            return;
        diskIndexed = true;
        DIR* folder = opendir(configuration.diskPath.c_str());
        if (!folder)
            return;
        while (auto* item = readdir(folder)) {
            std::string_view name = item->d_name;
            if (name.size() != 16 + diskSuffix.size() || !name.ends_with(diskSuffix))
                continue;
            struct stat info {};
            if (stat(pathOfFile(std::string(name)).c_str(), &info) != 0 || !S_ISREG(info.st_mode))
                continue;
            double lastUse = static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
            diskByFile[std::string(name)] = DiskEntry { static_cast<size_t>(info.st_size), lastUse };
            diskBytes += static_cast<size_t>(info.st_size);
        }
        closedir(folder);
    }
    void forgetDiskFile(const std::string& file, bool remove)
    {
        auto it = diskByFile.find(file);
        if (it != diskByFile.end()) {
            diskBytes -= it->second.size;
            diskByFile.erase(it);
        }
        if (remove)
            ::unlink(pathOfFile(file).c_str());
    }

    struct DiskRead {
        RefPtr<Image> image;
        std::string etag;
        std::string lastModified;
    };
    // The entry of a URL, checked whole; a damaged one is removed.
    std::optional<DiskRead> readFromDisk(const std::string& url)
    {
        if (!configuration.usesDisk)
            return std::nullopt;
        indexDisk();
        std::string file = fileNameForURL(url);
        auto indexed = diskByFile.find(file);
        if (indexed == diskByFile.end())
            return std::nullopt;
        auto damaged = [&] {
            ++statistics.corruptDiskEntries;
            forgetDiskFile(file, true);
            return std::nullopt;
        };
        if (indexed->second.size > configuration.maximumImageSize + diskHeaderAllowance)
            return damaged();
        auto contents = Data::createWithContentsOfFile(pathOfFile(file));
        if (!contents)
            return damaged();
        std::string_view rest = contents->view();
        auto line = [&rest]() -> std::optional<std::string_view> {
            size_t end = rest.find('\n');
            if (end == std::string_view::npos)
                return std::nullopt;
            auto text = rest.substr(0, end);
            rest.remove_prefix(end + 1);
            return text;
        };
        if (!rest.starts_with(diskMagic))
            return damaged();
        rest.remove_prefix(diskMagic.size());
        auto storedURL = line();
        auto etag = line();
        auto lastModified = line();
        auto length = line();
        auto checksum = line();
        if (!checksum)
            return damaged();
        if (*storedURL != url)
            return std::nullopt; // another URL with the same file name: a miss, not damage
        char* end = nullptr;
        std::string lengthText(*length);
        unsigned long long bodyLength = strtoull(lengthText.c_str(), &end, 10);
        if (lengthText.empty() || *end || bodyLength != rest.size() || hex64(fnv1a64(rest)) != *checksum)
            return damaged();
        auto bytes = Data::create(rest);
        auto image = Image::create(bytes);
        if (!image)
            return damaged();
        // The file's time is its last use, so that the order survives a restart.
        indexed->second.lastUse = fileTimeNow();
        utimensat(AT_FDCWD, pathOfFile(file).c_str(), nullptr, 0);
        return DiskRead { image, std::string(*etag), std::string(*lastModified) };
    }
    void writeToDisk(const std::string& url, Image& image, const std::string& etag, const std::string& lastModified)
    {
        if (!configuration.usesDisk || !isOneLine(url) || !isOneLine(etag) || !isOneLine(lastModified))
            return;
        auto body = image.data().view();
        if (body.size() + diskHeaderAllowance > configuration.diskCapacity)
            return;
        indexDisk();
        if (!FileManager::defaultManager().createDirectoryAtPath(configuration.diskPath, true, nullptr, 0700))
            return;
        std::string contents;
        contents.reserve(body.size() + url.size() + 128);
        contents.append(diskMagic);
        for (auto* field : { &url, &etag, &lastModified }) {
            contents.append(*field);
            contents.push_back('\n');
        }
        contents.append(std::to_string(body.size()));
        contents.push_back('\n');
        contents.append(hex64(fnv1a64(body)));
        contents.push_back('\n');
        contents.append(body);
        std::string file = fileNameForURL(url);
        if (!FileManager::writeFileAtomically(pathOfFile(file), contents))
            return;
        forgetDiskFile(file, false);
        diskByFile[file] = DiskEntry { contents.size(), fileTimeNow() };
        diskBytes += contents.size();
        trimDisk();
    }
    void trimDisk()
    {
        if (diskBytes <= configuration.diskCapacity)
            return;
        // Down to nine tenths, so that the sort is not paid at every write.
        size_t goal = configuration.diskCapacity / 10 * 9;
        std::vector<std::pair<double, std::string>> byAge;
        byAge.reserve(diskByFile.size());
        for (auto& [file, entry] : diskByFile)
            byAge.emplace_back(entry.lastUse, file);
        std::sort(byAge.begin(), byAge.end());
        for (auto& [lastUse, file] : byAge) {
            if (diskBytes <= goal)
                break;
            forgetDiskFile(file, true);
        }
    }

    // Loading.
    void startLoad(const std::string& url, bool forceReload, Waiter&& waiter);
    void finishLoad(const std::string& url, URLResponse* response, Error* error);
    void deliver(std::vector<Waiter>&& waiters, Image* image, Error* error);
    void cancelWaiter(const std::string& url, uint64_t identifier);
};

void ZULoadingImageCache::State::startLoad(const std::string& url, bool forceReload, Waiter&& waiter)
{
    auto existing = loads.find(url);
    if (existing != loads.end()) {
        existing->second.waiters.push_back(std::move(waiter));
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
        if (auto* entry = memoryEntry(url, false)) {
            etag = entry->etag;
            lastModified = entry->lastModified;
        } else if (auto stored = readFromDisk(url)) {
            etag = stored->etag;
            lastModified = stored->lastModified;
        }
        if (!etag.empty())
            request.headers.emplace_back("If-None-Match", etag);
        if (!lastModified.empty())
            request.headers.emplace_back("If-Modified-Since", lastModified);
        conditional = !etag.empty() || !lastModified.empty();
    }
    auto& load = loads[url];
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
    auto it = loads.find(url);
    if (it == loads.end())
        return;
    Load load = std::move(it->second);
    loads.erase(it);

    if (error) {
        ++statistics.failures;
        deliver(std::move(load.waiters), nullptr, error);
        return;
    }
    long status = response->statusCode();
    if (status == 304) {
        ++statistics.notModified;
        RefPtr<Image> image;
        if (auto* entry = memoryEntry(url, true)) {
            image = entry->image.ptr();
        } else if (auto stored = readFromDisk(url)) {
            image = stored->image;
            storeInMemory(url, *image, stored->etag, stored->lastModified);
        }
        if (image) {
            deliver(std::move(load.waiters), image.get(), nullptr);
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
        deliver(std::move(load.waiters), nullptr, failure.ptr());
        return;
    }
    auto image = Image::create(response->body());
    if (!image) {
        ++statistics.failures;
        auto failure = Error::create(ZULoadingImageCacheErrorDomain, ZULoadingImageCacheErrorNotAnImage,
            "The answer is not an image of a known kind.");
        deliver(std::move(load.waiters), nullptr, failure.ptr());
        return;
    }
    std::string etag = headerValue(*response, "etag");
    std::string lastModified = headerValue(*response, "last-modified");
    storeInMemory(url, *image, etag, lastModified);
    if (headerValue(*response, "cache-control").find("no-store") == std::string::npos)
        writeToDisk(url, *image, etag, lastModified);
    deliver(std::move(load.waiters), image.get(), nullptr);
}

void ZULoadingImageCache::State::deliver(std::vector<Waiter>&& waiters, Image* image, Error* error)
{
    RefPtr<Image> protectedImage = image;
    RefPtr<Error> protectedError = error;
    for (size_t i = 0; i < waiters.size(); ++i) {
        try {
            waiters[i].block(image, error);
        } catch (...) {
            // The run loop's rule: the exception leaves this turn, and the
            // callers not served yet are served on the next one.
            for (size_t j = i + 1; j < waiters.size(); ++j) {
                RunLoop::current().post([block = std::move(waiters[j].block), protectedImage, protectedError] {
                    block(protectedImage.get(), protectedError.get());
                });
            }
            throw;
        }
    }
}

void ZULoadingImageCache::State::cancelWaiter(const std::string& url, uint64_t identifier)
{
    auto it = loads.find(url);
    if (it == loads.end())
        return;
    auto& waiters = it->second.waiters;
    std::erase_if(waiters, [identifier](const Waiter& waiter) { return waiter.identifier == identifier; });
    if (waiters.empty()) {
        if (it->second.task)
            it->second.task->cancel();
        loads.erase(it);
    }
}

ZULoadingImageCache::ZULoadingImageCache(Configuration configuration)
    : m_state(std::make_shared<State>())
{
    if (configuration.diskPath.empty())
        configuration.diskPath = defaultDiskPath();
    m_state->configuration = std::move(configuration);
}

ZULoadingImageCache::~ZULoadingImageCache()
{
    for (auto& [url, load] : m_state->loads) {
        if (load.task)
            load.task->cancel();
    }
    m_state->loads.clear();
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
    std::string base;
    if (const char* cacheHome = getenv("XDG_CACHE_HOME"); cacheHome && cacheHome[0] == '/')
        base = cacheHome;
    else
        base = stringByExpandingTildeInPath("~/.cache");
    return stringByAppendingPathComponent(stringByAppendingPathComponent(base, "Velvox"), "Images");
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
        if (auto* entry = state.memoryEntry(url->absoluteString()->view(), true)) {
            ++state.statistics.memoryHits;
            return entry->image.ptr();
        }
        ++state.statistics.memoryMisses;
    }
    std::string key = url->absoluteString()->str();
    if (!forceReload) {
        if (auto stored = state.readFromDisk(key)) {
            ++state.statistics.diskHits;
            state.storeInMemory(key, *stored->image, std::move(stored->etag), std::move(stored->lastModified));
            return stored->image;
        }
        if (state.configuration.usesDisk)
            ++state.statistics.diskMisses;
    }
    uint64_t identifier = state.nextWaiter++;
    state.startLoad(key, forceReload, State::Waiter { identifier, block ? std::move(block) : Block([](Image*, Error*) { }) });
    if (subscription) {
        std::weak_ptr<State> weakState = m_state;
        *subscription = Subscription([weakState, key, identifier] {
            if (auto state = weakState.lock())
                state->cancelWaiter(key, identifier);
        });
    }
    return nullptr;
}

void ZULoadingImageCache::setMemoryCapacity(size_t bytes)
{
    m_state->configuration.memoryCapacity = bytes;
    m_state->trimMemory();
}

void ZULoadingImageCache::setDiskCapacity(size_t bytes)
{
    m_state->configuration.diskCapacity = bytes;
    m_state->indexDisk();
    m_state->trimDisk();
}

size_t ZULoadingImageCache::memoryCapacity() const { return m_state->configuration.memoryCapacity; }
size_t ZULoadingImageCache::diskCapacity() const { return m_state->configuration.diskCapacity; }
const std::string& ZULoadingImageCache::diskPath() const { return m_state->configuration.diskPath; }

void ZULoadingImageCache::removeAllImagesFromMemory()
{
    m_state->memoryOrder.clear();
    m_state->memoryByURL.clear();
    m_state->memoryBytes = 0;
}

void ZULoadingImageCache::removeAllImages()
{
    removeAllImagesFromMemory();
    m_state->indexDisk();
    std::vector<std::string> files;
    for (auto& [file, entry] : m_state->diskByFile)
        files.push_back(file);
    for (auto& file : files)
        m_state->forgetDiskFile(file, true);
}

ZULoadingImageCache::Statistics ZULoadingImageCache::statistics() const
{
    auto& state = *m_state;
    state.indexDisk();
    Statistics statistics = state.statistics;
    statistics.memoryBytes = state.memoryBytes;
    statistics.memoryImageCount = state.memoryByURL.size();
    statistics.diskBytes = state.diskBytes;
    statistics.diskImageCount = state.diskByFile.size();
    return statistics;
}

} // namespace velvox
