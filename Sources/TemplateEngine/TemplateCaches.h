#pragma once

// The parsed templates the engine keeps, so that a text or file rendered again
// and again is parsed once: texts by their contents, files by path,
// modification time and size. Both are bounded and shared by every engine;
// they stand alone because they know nothing of parsing or rendering.

#include "TemplateSyntax.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace velvox::templates {

// Parsed texts, for callers that render the same text again and again; small
// texts only, a bounded number, the least recently used dropped first.
class ParsedTexts {
public:
    static ParsedTexts& shared();

    static constexpr size_t limit = 32;
    static constexpr size_t largestText = 64 * 1024;

    // Null when the text is not kept (or too large to be).
    ParsedTemplate find(std::string_view text);
    // Keeps the parsed text unless it is too large.
    void store(std::string_view text, ParsedTemplate);

private:
    std::mutex m_mutex;
    std::list<std::pair<std::string, ParsedTemplate>> m_entries;
};

// Parsed template files, by path, kept while the file's modification time and
// size stay the same; a bounded number, the least recently used dropped first.
class ParsedFiles {
public:
    static ParsedFiles& shared();

    static constexpr size_t limit = 64;

    struct Entry {
        std::string path;
        int64_t modified;
        int64_t size;
        ParsedTemplate parsed;
    };

    // Null when the path is not kept, or was kept with another time or size
    // (then it is dropped).
    ParsedTemplate find(const std::string& path, int64_t modified, int64_t size);
    void store(Entry);

private:
    std::mutex m_mutex;
    std::list<Entry> m_entries;
};

} // namespace velvox::templates
