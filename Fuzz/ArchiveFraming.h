#pragma once

// A keyed archive's frame around a fuzzer's input: the header before the body
// and the checksum after it, so that a fuzzer gets past the checksum to the
// reader behind it.

#include <cstdint>
#include <string>

namespace velvox::fuzz {

inline uint64_t fnv1a(const std::string& bytes)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

// The whole file for an archive whose body (record count, records, root) is `body`.
inline std::string framedArchive(const uint8_t* body, size_t size)
{
    std::string archive("VXKA\x01", 5);
    archive.append(reinterpret_cast<const char*>(body), size);
    uint64_t checksum = fnv1a(archive);
    for (int i = 0; i < 8; ++i)
        archive.push_back(static_cast<char>(checksum >> (8 * i)));
    return archive;
}

} // namespace velvox::fuzz
