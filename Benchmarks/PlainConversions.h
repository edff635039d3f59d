#pragma once

// The conversions a careful hand writes for the floors of the model and store
// benchmarks: what the value transformers do, without their checks.

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::bench {

// "a b  c" → { "a", "b", "c" }.
inline void splitTags(const std::string& tagList, std::vector<std::string>& tags)
{
    tags.clear();
    for (size_t start = 0; start < tagList.size();) {
        size_t end = tagList.find(' ', start);
        if (end == std::string::npos)
            end = tagList.size();
        if (end > start)
            tags.emplace_back(tagList, start, end - start);
        start = end + 1;
    }
}

// "2026/11/01 10:00:00 +0000" → seconds since 1970 (0 when unreadable).
inline double parseTimestamp(const std::string& text)
{
    struct tm parts { };
    return strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &parts) ? static_cast<double>(timegm(&parts)) : 0;
}

inline int32_t stateNumber(std::string_view state)
{
    return state == "storing" ? 1 : state == "stored" ? 2
        : state == "finished"                         ? 3
        : state == "failed"                           ? 4
                                                      : 0;
}

} // namespace velvox::bench
