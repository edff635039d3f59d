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

private:
    std::vector<const ZUPropertyDescriptor*> m_descriptors;
    std::unordered_map<std::string_view, const ZUPropertyDescriptor*> m_byKeyPath;
};

} // namespace velvox
