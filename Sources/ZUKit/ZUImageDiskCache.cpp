// The disk tier of the loading image cache (see ZUImageDiskCache.h).

#include "ZUImageDiskCache.h"

namespace velvox {

ZUImageDiskCache::ZUImageDiskCache(std::string path, size_t capacity, size_t maximumImageSize, bool enabled)
    // The files of earlier versions stay readable: the same magic and suffix.
    : m_files({ "VXIMG1\n", ".img", [](Data& bytes) { return Image::create(bytes) != nullptr; } }, std::move(path), capacity, maximumImageSize, enabled)
{
}

std::optional<ZUImageDiskCache::Entry> ZUImageDiskCache::read(const std::string& url)
{
    auto entry = m_files.read(url);
    if (!entry)
        return std::nullopt;
    return Entry { Image::create(entry->body), std::move(entry->etag), std::move(entry->lastModified) };
}

} // namespace velvox
