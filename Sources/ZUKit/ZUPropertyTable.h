#pragma once

// A class's property descriptors in the form the filling path wants them: in
// order (the base class's first), and found by key path in constant time.
// Built once per class from its descriptor set, which lives as long as the
// process; the table refers to the set's descriptors without retaining them.

#include "ZUPropertyDescriptor.h"

#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velvox {

class ZUPropertyTable {
public:
    explicit ZUPropertyTable(const Set& descriptors);
    ZUPropertyTable(const ZUPropertyTable&) = delete;
    ZUPropertyTable& operator=(const ZUPropertyTable&) = delete;

    std::span<const ZUPropertyDescriptor* const> descriptors() const { return m_descriptors; }
    // Null when no descriptor has the key path.
    const ZUPropertyDescriptor* descriptorForKeyPath(std::string_view keyPath) const
    {
        auto it = m_byKeyPath.find(keyPath);
        return it == m_byKeyPath.end() ? nullptr : it->second;
    }

    // The value each descriptor reads from a dictionary whose enumeration
    // finds exactly what its lookups find, gathered in one walk of its entries
    // instead of one lookup per descriptor: values[i] for descriptors()[i],
    // null where the dictionary has no entry.
    void gatherValues(const Dictionary&, Object** values) const;

private:
    // Descriptor indices by the hash of their JSON key; several descriptors
    // may read one key (chained through m_nextWithSource).
    struct SourceSlot {
        size_t hash { 0 };
        const String* source { nullptr };
        uint32_t first { 0 };
    };
    std::vector<SourceSlot> m_sources;
    std::vector<uint32_t> m_nextWithSource;
    std::vector<const ZUPropertyDescriptor*> m_descriptors;
    std::unordered_map<std::string_view, const ZUPropertyDescriptor*> m_byKeyPath;
};

} // namespace velvox
