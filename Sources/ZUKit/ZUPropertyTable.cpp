#include "ZUPropertyTable.h"

namespace velvox {

ZUPropertyTable::ZUPropertyTable(const Set& descriptors)
{
    m_descriptors.reserve(descriptors.count());
    m_byKeyPath.reserve(descriptors.count());
    for (auto* object : descriptors) {
        auto* descriptor = downcast<ZUPropertyDescriptor>(object);
        m_descriptors.push_back(descriptor);
        // The first descriptor of a key path answers for it, as a search in order would.
        m_byKeyPath.emplace(descriptor->keyPath().view(), descriptor);
    }
}

} // namespace velvox
