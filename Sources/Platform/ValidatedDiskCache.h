#pragma once

// A folder of HTTP answers kept with their validators: one file per URL (a
// header with the URL, its ETag and Last-Modified, the body's length and
// checksum, then the body), written atomically and privately, bounded in
// bytes with the oldest use going first, and indexed from the folder at
// first use so that it survives a restart. An entry that does not read back
// whole is damage: removed, counted, never handed out. It is a file format
// and a folder's bookkeeping, with nothing of requests in it: the image
// cache's disk tier and the API client's answers both use it.

#include "Data.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace velvox {

class ValidatedDiskCache {
public:
    // What tells one cache's files from another's, and what a body must be.
    struct Format {
        std::string magic;  // the first line of a file, with its "\n"
        std::string suffix; // of the file names
        // Whether a body read back is acceptable (an image that decodes, say);
        // none: every body is.
        std::function<bool(Data&)> accepts;
    };
    struct Entry {
        Ref<Data> body;
        std::string etag;
        std::string lastModified;
    };

    // A digest that stays the same across runs and builds (FNV-1a): file names,
    // checksums, keys that must not show what they stand for verbatim.
    static uint64_t digest(std::string_view bytes);

    // `enabled` false: nothing is read or written. `maximumBodySize` bounds
    // the bodies read back (a larger file is damage).
    ValidatedDiskCache(Format, std::string path, size_t capacity, size_t maximumBodySize, bool enabled);

    bool enabled() const { return m_enabled; }
    const std::string& path() const { return m_path; }
    size_t capacity() const { return m_capacity; }
    // Drops the oldest entries down to the new capacity.
    void setCapacity(size_t bytes);
    // Entries read or written lately stay in memory too, up to this many
    // bytes of bodies (0, the default: none), so that asking again reads no
    // file; the files stay what outlives the process.
    void setMemoryCapacity(size_t bytes);
    size_t memoryBytes() const { return m_memoryBytes; }

    // The entry of a URL, checked whole; a damaged one is removed (and counted).
    std::optional<Entry> read(const std::string& url);
    // Keeps the body unless the cache is off, a field would break the header
    // (a line break in it), or the body could never fit; failures to write
    // lose only the entry.
    void write(const std::string& url, Data& body, const std::string& etag, const std::string& lastModified);
    void remove(const std::string& url);
    void removeAll();

    size_t bytes();
    size_t count();
    uint64_t corruptEntries() const { return m_corruptEntries; }

private:
    struct IndexEntry {
        size_t size;
        double lastUse;
    };

    std::string fileNameForKey(std::string_view) const;
    std::string pathOfFile(const std::string& file) const;
    void index();
    void forget(const std::string& file, bool remove);
    void trim();
    void remember(const std::string& file, const std::string& url, const Entry&);
    void forgetRemembered(const std::string& file);

    Format m_format;
    std::string m_path;
    size_t m_capacity;
    size_t m_maximumBodySize;
    bool m_enabled;
    // Read from the folder at first use.
    std::unordered_map<std::string, IndexEntry> m_byFile;
    size_t m_bytes { 0 };
    bool m_indexed { false };
    uint64_t m_corruptEntries { 0 };
    // The memory tier: by file name, most recent use first in m_recent.
    struct Remembered {
        std::string url;
        Entry entry;
        std::list<std::string>::iterator recent;
    };
    std::unordered_map<std::string, Remembered> m_remembered;
    std::list<std::string> m_recent;
    size_t m_memoryBytes { 0 };
    size_t m_memoryCapacity { 0 };
};

} // namespace velvox
