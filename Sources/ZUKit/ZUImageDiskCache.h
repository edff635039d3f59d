#pragma once

// The disk tier of the loading image cache: a validated disk cache whose
// bodies must be images (see Platform/ValidatedDiskCache.h for the files).

#include <Platform/Image.h>
#include <Platform/ValidatedDiskCache.h>

#include <optional>
#include <string>

namespace velvox {

class ZUImageDiskCache {
public:
    struct Entry {
        RefPtr<Image> image;
        std::string etag;
        std::string lastModified;
    };

    ZUImageDiskCache(std::string path, size_t capacity, size_t maximumImageSize, bool enabled);

    bool enabled() const { return m_files.enabled(); }
    const std::string& path() const { return m_files.path(); }
    size_t capacity() const { return m_files.capacity(); }
    void setCapacity(size_t bytes) { m_files.setCapacity(bytes); }

    // The entry of a URL, checked whole (an image that decodes); a damaged one is removed.
    std::optional<Entry> read(const std::string& url);
    void write(const std::string& url, Image& image, const std::string& etag, const std::string& lastModified)
    {
        m_files.write(url, image.data(), etag, lastModified);
    }
    void removeAll() { m_files.removeAll(); }

    size_t bytes() { return m_files.bytes(); }
    size_t count() { return m_files.count(); }
    uint64_t corruptEntries() const { return m_files.corruptEntries(); }

private:
    ValidatedDiskCache m_files;
};

} // namespace velvox
