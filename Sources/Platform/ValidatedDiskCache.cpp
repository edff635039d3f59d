#include "ValidatedDiskCache.h"

#include "Data.h"
#include "FileManager.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace velvox {

namespace {

// Room for the header lines of a disk entry beyond its body.
constexpr size_t diskHeaderAllowance = 64 * 1024;

std::string hex64(uint64_t value)
{
    char buffer[17];
    snprintf(buffer, sizeof(buffer), "%016" PRIx64, value);
    return buffer;
}

bool isOneLine(std::string_view text)
{
    return text.find_first_of("\r\n") == std::string_view::npos;
}

// Disk entries age by the system's clock, as their files' times do (not by a
// run loop's clock, which tests may have stopped).
double fileTimeNow()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

uint64_t ValidatedDiskCache::digest(std::string_view bytes)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

std::string ValidatedDiskCache::fileNameForKey(std::string_view key) const
{
    return hex64(ValidatedDiskCache::digest(key)) + m_format.suffix;
}

ValidatedDiskCache::ValidatedDiskCache(Format format, std::string path, size_t capacity, size_t maximumBodySize, bool enabled)
    : m_format(std::move(format))
    , m_path(std::move(path))
    , m_capacity(capacity)
    , m_maximumBodySize(maximumBodySize)
    , m_enabled(enabled)
{
}

std::string ValidatedDiskCache::pathOfFile(const std::string& file) const
{
    return stringByAppendingPathComponent(m_path, file);
}

void ValidatedDiskCache::index()
{
    if (m_indexed)
        return;
    m_indexed = true;
    DIR* folder = opendir(m_path.c_str());
    if (!folder)
        return;
    while (auto* item = readdir(folder)) {
        std::string_view name = item->d_name;
        if (name.size() != 16 + m_format.suffix.size() || !name.ends_with(m_format.suffix))
            continue;
        struct stat info { };
        if (stat(pathOfFile(std::string(name)).c_str(), &info) != 0 || !S_ISREG(info.st_mode))
            continue;
        double lastUse = static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
        m_byFile[std::string(name)] = IndexEntry { static_cast<size_t>(info.st_size), lastUse };
        m_bytes += static_cast<size_t>(info.st_size);
    }
    closedir(folder);
}

void ValidatedDiskCache::forget(const std::string& file, bool remove)
{
    auto it = m_byFile.find(file);
    if (it != m_byFile.end()) {
        m_bytes -= it->second.size;
        m_byFile.erase(it);
    }
    forgetRemembered(file);
    if (remove)
        ::unlink(pathOfFile(file).c_str());
}

std::optional<ValidatedDiskCache::Entry> ValidatedDiskCache::read(const std::string& url)
{
    if (!m_enabled)
        return std::nullopt;
    index();
    std::string file = fileNameForKey(url);
    auto indexed = m_byFile.find(file);
    if (indexed == m_byFile.end())
        return std::nullopt;
    if (auto found = m_remembered.find(file); found != m_remembered.end()) {
        if (found->second.url != url)
            return std::nullopt;
        m_recent.splice(m_recent.begin(), m_recent, found->second.recent);
        indexed->second.lastUse = fileTimeNow();
        return found->second.entry;
    }
    auto damaged = [&] {
        ++m_corruptEntries;
        forget(file, true);
        return std::nullopt;
    };
    if (indexed->second.size > m_maximumBodySize + diskHeaderAllowance)
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
    if (!rest.starts_with(m_format.magic))
        return damaged();
    rest.remove_prefix(m_format.magic.size());
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
    if (lengthText.empty() || *end || bodyLength != rest.size() || hex64(ValidatedDiskCache::digest(rest)) != *checksum)
        return damaged();
    auto bytes = Data::create(rest);
    if (m_format.accepts && !m_format.accepts(bytes))
        return damaged();
    // The file's time is its last use, so that the order survives a restart.
    indexed->second.lastUse = fileTimeNow();
    utimensat(AT_FDCWD, pathOfFile(file).c_str(), nullptr, 0);
    Entry entry { bytes, std::string(*etag), std::string(*lastModified) };
    remember(file, url, entry);
    return entry;
}

void ValidatedDiskCache::remember(const std::string& file, const std::string& url, const Entry& entry)
{
    forgetRemembered(file);
    size_t size = entry.body->length();
    if (!m_memoryCapacity || size > m_memoryCapacity / 4)
        return;
    m_recent.push_front(file);
    m_remembered.emplace(file, Remembered { url, entry, m_recent.begin() });
    m_memoryBytes += size;
    while (m_memoryBytes > m_memoryCapacity && !m_recent.empty())
        forgetRemembered(m_recent.back());
}

void ValidatedDiskCache::forgetRemembered(const std::string& file)
{
    auto found = m_remembered.find(file);
    if (found == m_remembered.end())
        return;
    m_memoryBytes -= found->second.entry.body->length();
    m_recent.erase(found->second.recent);
    m_remembered.erase(found);
}

void ValidatedDiskCache::setMemoryCapacity(size_t bytes)
{
    m_memoryCapacity = bytes;
    while (m_memoryBytes > m_memoryCapacity && !m_recent.empty())
        forgetRemembered(m_recent.back());
}

void ValidatedDiskCache::write(const std::string& url, Data& data, const std::string& etag, const std::string& lastModified)
{
    if (!m_enabled || !isOneLine(url) || !isOneLine(etag) || !isOneLine(lastModified))
        return;
    auto body = data.view();
    if (body.size() + diskHeaderAllowance > m_capacity)
        return;
    index();
    if (!FileManager::defaultManager().createDirectoryAtPath(m_path, true, nullptr, 0700))
        return;
    std::string contents;
    contents.reserve(body.size() + url.size() + 128);
    contents.append(m_format.magic);
    for (auto* field : { &url, &etag, &lastModified }) {
        contents.append(*field);
        contents.push_back('\n');
    }
    contents.append(std::to_string(body.size()));
    contents.push_back('\n');
    contents.append(hex64(ValidatedDiskCache::digest(body)));
    contents.push_back('\n');
    contents.append(body);
    std::string file = fileNameForKey(url);
    if (!FileManager::writeFileAtomically(pathOfFile(file), contents))
        return;
    forget(file, false);
    m_byFile[file] = IndexEntry { contents.size(), fileTimeNow() };
    m_bytes += contents.size();
    remember(file, url, Entry { data, etag, lastModified });
    trim();
}

void ValidatedDiskCache::trim()
{
    if (m_bytes <= m_capacity)
        return;
    // Down to nine tenths, so that the sort is not paid at every write.
    size_t goal = m_capacity / 10 * 9;
    std::vector<std::pair<double, std::string>> byAge;
    byAge.reserve(m_byFile.size());
    for (auto& [file, entry] : m_byFile)
        byAge.emplace_back(entry.lastUse, file);
    std::sort(byAge.begin(), byAge.end());
    for (auto& [lastUse, file] : byAge) {
        if (m_bytes <= goal)
            break;
        forget(file, true);
    }
}

void ValidatedDiskCache::remove(const std::string& url)
{
    index();
    forget(fileNameForKey(url), true);
}

void ValidatedDiskCache::setCapacity(size_t bytes)
{
    m_capacity = bytes;
    index();
    trim();
}

void ValidatedDiskCache::removeAll()
{
    index();
    std::vector<std::string> files;
    for (auto& [file, entry] : m_byFile)
        files.push_back(file);
    for (auto& file : files)
        forget(file, true);
}

size_t ValidatedDiskCache::bytes()
{
    index();
    return m_bytes;
}

size_t ValidatedDiskCache::count()
{
    index();
    return m_byFile.size();
}

} // namespace velvox
