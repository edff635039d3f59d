#pragma once

// The memory tier of the loading image cache: decoded images by URL with the
// validators they came with, bounded in bytes, least recently used first out.
// Apart from the disk tier and the loads because it knows nothing of files or
// requests: a bounded map in the order of use.

#include <Platform/Image.h>

#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace velvox {

class ZUImageMemoryCache {
public:
    struct Entry {
        std::string url;
        Ref<Image> image;
        std::string etag;
        std::string lastModified;
    };

    explicit ZUImageMemoryCache(size_t capacity)
        : m_capacity(capacity)
    {
    }

    // The entry of a URL, or null; `touch` makes it the most recently used.
    Entry* find(std::string_view url, bool touch);
    // Replaces the URL's entry; an image larger than the whole tier is not kept.
    void store(const std::string& url, Image&, std::string etag, std::string lastModified);
    void remove(const std::string& url);
    void removeAll();

    size_t capacity() const { return m_capacity; }
    // Drops the least recently used entries down to the new capacity.
    void setCapacity(size_t bytes);
    size_t bytes() const { return m_bytes; }
    size_t count() const { return m_byURL.size(); }

private:
    void trim();

    // Lookups by std::string_view in a map keyed by std::string, without a copy.
    struct TextHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };

    size_t m_capacity;
    // Most recently used first.
    std::list<Entry> m_order;
    std::unordered_map<std::string, std::list<Entry>::iterator, TextHash, std::equal_to<>> m_byURL;
    size_t m_bytes { 0 };
};

} // namespace velvox
