#include "ZUPropertyTable.h"

#include <Platform/Dictionary.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace velvox {

namespace {

// Strings hash by multiplying by 33, whose low bits cluster: mix before masking.
inline size_t slotOf(size_t hash, size_t mask)
{
    return static_cast<size_t>((static_cast<uint64_t>(hash) * 0x9E3779B97F4A7C15ull) >> 40) & mask;
}

} // namespace

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
    // Open addressing at most half full; index + 1 in the chains, 0 ends one.
    size_t size = 16;
    while (size < 2 * m_descriptors.size())
        size *= 2;
    m_sources.resize(size);
    m_nextWithSource.assign(m_descriptors.size(), 0);
    for (size_t i = m_descriptors.size(); i-- > 0;) {
        const String& source = m_descriptors[i]->source();
        size_t hash = source.hash();
        for (size_t at = slotOf(hash, size - 1);; at = (at + 1) & (size - 1)) {
            auto& slot = m_sources[at];
            if (!slot.source) {
                slot = { hash, &source, static_cast<uint32_t>(i + 1) };
                break;
            }
            if (slot.hash == hash && slot.source->view() == source.view()) {
                m_nextWithSource[i] = slot.first;
                slot.first = static_cast<uint32_t>(i + 1);
                break;
            }
        }
    }
}

void ZUPropertyTable::gatherValues(const Dictionary& dictionary, Object** values) const
{
    std::fill_n(values, m_descriptors.size(), nullptr);
    size_t mask = m_sources.size() - 1;
    Dictionary::HashedEntry entries[32];
    size_t state = 0;
    while (size_t count = dictionary.nextEntries(state, entries, std::size(entries))) {
        for (size_t e = 0; e < count; ++e) {
            auto& entry = entries[e];
            if (!is<String>(entry.key))
                continue;
            auto key = static_cast<const String*>(entry.key)->view();
            for (size_t at = slotOf(entry.keyHash, mask); m_sources[at].source; at = (at + 1) & mask) {
                auto& slot = m_sources[at];
                if (slot.hash == entry.keyHash && slot.source->length() == key.size() && String::equalBytes(slot.source->view().data(), key.data(), key.size())) {
                    for (uint32_t index = slot.first; index; index = m_nextWithSource[index - 1])
                        values[index - 1] = entry.object;
                    break;
                }
            }
        }
    }
}

} // namespace velvox
