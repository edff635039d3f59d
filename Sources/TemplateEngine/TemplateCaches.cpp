// The engine's caches of parsed texts and files (see TemplateCaches.h).

#include "TemplateCaches.h"

namespace velvox::templates {

ParsedTexts& ParsedTexts::shared()
{
    // Never destroyed: engines may render while the process exits.
    static ParsedTexts* texts = new ParsedTexts;
    return *texts;
}

ParsedTemplate ParsedTexts::find(std::string_view text)
{
    if (text.size() > largestText)
        return nullptr;
    std::lock_guard lock(m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->first == text) {
            m_entries.splice(m_entries.begin(), m_entries, it);
            return it->second;
        }
    }
    return nullptr;
}

void ParsedTexts::store(std::string_view text, ParsedTemplate parsed)
{
    if (text.size() > largestText)
        return;
    std::lock_guard lock(m_mutex);
    m_entries.emplace_front(std::string(text), std::move(parsed));
    if (m_entries.size() > limit)
        m_entries.pop_back();
}

ParsedFiles& ParsedFiles::shared()
{
    static ParsedFiles* files = new ParsedFiles;
    return *files;
}

ParsedTemplate ParsedFiles::find(const std::string& path, int64_t modified, int64_t size)
{
    std::lock_guard lock(m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->path == path) {
            if (it->modified != modified || it->size != size) {
                m_entries.erase(it);
                return nullptr;
            }
            m_entries.splice(m_entries.begin(), m_entries, it);
            return m_entries.front().parsed;
        }
    }
    return nullptr;
}

void ParsedFiles::store(Entry entry)
{
    std::lock_guard lock(m_mutex);
    m_entries.push_front(std::move(entry));
    if (m_entries.size() > limit)
        m_entries.pop_back();
}

} // namespace velvox::templates
