// The memory tier of the loading image cache (see ZUImageMemoryCache.h).

#include "ZUImageMemoryCache.h"

#include <Platform/Data.h>

namespace velvox {

ZUImageMemoryCache::Entry* ZUImageMemoryCache::find(std::string_view url, bool touch)
{
    auto it = m_byURL.find(url);
    if (it == m_byURL.end())
        return nullptr;
    if (touch)
        m_order.splice(m_order.begin(), m_order, it->second);
    return &*it->second;
}

void ZUImageMemoryCache::store(const std::string& url, Image& image, std::string etag, std::string lastModified)
{
    remove(url);
    size_t bytes = image.data().length();
    if (bytes > m_capacity)
        return;
    m_order.push_front(Entry { url, image, std::move(etag), std::move(lastModified) });
    m_byURL.emplace(url, m_order.begin());
    m_bytes += bytes;
    trim();
}

void ZUImageMemoryCache::remove(const std::string& url)
{
    auto it = m_byURL.find(url);
    if (it == m_byURL.end())
        return;
    m_bytes -= it->second->image->data().length();
    m_order.erase(it->second);
    m_byURL.erase(it);
}

void ZUImageMemoryCache::removeAll()
{
    m_order.clear();
    m_byURL.clear();
    m_bytes = 0;
}

void ZUImageMemoryCache::setCapacity(size_t bytes)
{
    m_capacity = bytes;
    trim();
}

void ZUImageMemoryCache::trim()
{
    while (m_bytes > m_capacity && !m_order.empty())
        remove(m_order.back().url);
}

} // namespace velvox
