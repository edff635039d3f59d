#pragma once

// The disk tier of the loading image cache: one file per URL in a folder
// (a header with the URL, its validators, the body's length and checksum,
// then the body), written atomically, bounded in bytes with the oldest use
// going first, and indexed from the folder at first use so that it survives
// a restart. Apart from the memory tier and the loads because it is a file
// format and a folder's bookkeeping, with nothing of requests in it.

#include <Platform/Image.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace velvox {

class ZUImageDiskCache {
public:
    struct Entry {
        RefPtr<Image> image;
        std::string etag;
        std::string lastModified;
    };

    // `enabled` false: nothing is read or written. `maximumImageSize` bounds
    // the bodies read back (a larger file is damage, not an image).
    ZUImageDiskCache(std::string path, size_t capacity, size_t maximumImageSize, bool enabled);

    bool enabled() const { return m_enabled; }
    const std::string& path() const { return m_path; }
    size_t capacity() const { return m_capacity; }
    // Drops the oldest entries down to the new capacity.
    void setCapacity(size_t bytes);

    // The entry of a URL, checked whole; a damaged one is removed (and counted).
    std::optional<Entry> read(const std::string& url);
    // Keeps the image unless the tier is off, a field would break the header,
    // or the body could never fit; failures to write lose only the entry.
    void write(const std::string& url, Image&, const std::string& etag, const std::string& lastModified);
    void removeAll();

    size_t bytes();
    size_t count();
    uint64_t corruptEntries() const { return m_corruptEntries; }

private:
    struct IndexEntry {
        size_t size;
        double lastUse;
    };

    std::string pathOfFile(const std::string& file) const;
    void index();
    void forget(const std::string& file, bool remove);
    void trim();

    std::string m_path;
    size_t m_capacity;
    size_t m_maximumImageSize;
    bool m_enabled;
    // Read from the folder at first use.
    std::unordered_map<std::string, IndexEntry> m_byFile;
    size_t m_bytes { 0 };
    bool m_indexed { false };
    uint64_t m_corruptEntries { 0 };
};

} // namespace velvox
