#include "JCCollections.h"

#include <Platform/Exception.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace velvox {

VX_DEFINE_CLASS(JCArray, Array)
VX_DEFINE_CLASS(JCMutableArray, MutableArray)
VX_DEFINE_CLASS(JCDictionary, Dictionary)
VX_DEFINE_CLASS(JCMutableDictionary, MutableDictionary)
VX_DEFINE_CLASS(JCDictionaryEnumerator, Enumerator)

namespace {

inline void incrementMutations(uint64_t& mutations)
{
    if (!++mutations)
        mutations = 1;
}

constexpr size_t jc_dictionaryCapacities[] = { 0, 3, 7, 13, 23, 41, 71, 127, 191, 251, 383, 631, 1087, 1723, 2803, 4523, 7351, 11959,
    19447, 31231, 50683, 81919, 132607, 214519, 346607, 561109, 907759, 1468927, 2376191, 3845119, 6221311, 10066421, 16287743,
    26354171, 42641881, 68996069, 111638519, 180634607, 292272623, 472907251 };

// The keys of a decoded tree are a few strings shared by thousands of
// dictionaries (the decoder's cache hands out one object per key). Releasing
// them one atomic operation at a time stalls the walk on a line every
// dictionary touches, so while a tree goes its key releases are counted here
// and handed over in one operation per key when the outermost release ends.
class KeyReleases {
public:
    void enter() { ++m_depth; }
    void leave()
    {
        if (m_depth > 1) {
            --m_depth;
            return;
        }
        // Still entered while handing over: a key whose last reference goes
        // may release collections of its own, and those count in here too.
        while (m_usedCount) {
            Slot& slot = m_slots[m_used[--m_usedCount]];
            Object* key = std::exchange(slot.key, nullptr);
            key->deref(std::exchange(slot.count, 0));
        }
        m_depth = 0;
    }
    void release(size_t keyHash, Object* key)
    {
        size_t index = (keyHash * 0x9E3779B97F4A7C15ull) >> (64 - slotBits);
        Slot& slot = m_slots[index];
        if (slot.key == key) {
            ++slot.count;
            return;
        }
        // The slot changes hands before the old key is released, for the
        // same reason.
        Object* old = std::exchange(slot.key, key);
        uint32_t oldCount = std::exchange(slot.count, 1);
        if (old)
            old->deref(oldCount);
        else
            m_used[m_usedCount++] = static_cast<uint8_t>(index);
    }

private:
    static constexpr unsigned slotBits = 8;
    static constexpr size_t slotCount = size_t(1) << slotBits;
    struct Slot {
        Object* key;
        uint32_t count;
    };
    Slot m_slots[slotCount];
    // The slots in use, so that a small tree's end does not scan them all.
    uint8_t m_used[slotCount];
    uint32_t m_usedCount;
    uint32_t m_depth;
};

// Trivial, so that reaching it costs no initialisation check.
thread_local KeyReleases t_keyReleases;

} // namespace

// MARK: Arrays

Object* JCArrayStorage::objectAtIndex(const Object& owner, size_t index) const
{
    if (index >= count) [[unlikely]]
        raiseIndexBeyondBounds(owner, "objectAtIndex:", index, count);
    return objects[index];
}

void JCArrayStorage::getObjects(const Object& owner, Object** buffer, size_t location, size_t length) const
{
    if (location > count || length > count - location) [[unlikely]]
        raiseIndexBeyondBounds(owner, "getObjects:range:", location + length, count);
    if (length)
        memcpy(buffer, objects + location, length * sizeof(Object*));
}

void JCArrayStorage::releaseAll()
{
    // Elements are scattered in memory: fetch a few ahead of the one released.
    auto& keyReleases = t_keyReleases;
    keyReleases.enter();
    for (size_t i = 0; i < count; ++i) {
        if (i + 4 < count)
            __builtin_prefetch(objects[i + 4], 1);
        objects[i]->deref();
    }
    keyReleases.leave();
    if (!inlineStorage)
        free(objects);
    objects = nullptr;
    count = capacity = 0;
}

JCArray::~JCArray()
{
    m_storage.releaseAll();
}

void JCArray::operator delete(JCArray* array, std::destroying_delete_t)
{
    size_t size = sizeof(JCArray) + array->m_storage.capacity * sizeof(Object*);
    array->~JCArray();
    detail::deallocateSmall(array, size);
}

JCMutableArray::~JCMutableArray()
{
    m_storage.releaseAll();
}

void JCMutableArray::insertObject(Object* object, size_t index)
{
    if (!object)
        raiseInsertNil(*this, "insertObject:atIndex:");
    if (index > m_storage.count)
        raiseIndexBeyondBounds(*this, "insertObject:atIndex:", index, m_storage.count + 1);
    if (m_storage.count >= m_storage.capacity) {
        size_t newCapacity = m_storage.capacity + 16;
        auto* grown = static_cast<Object**>(realloc(m_storage.objects, newCapacity * sizeof(Object*)));
        if (!grown)
            Exception::raise(MallocException, "Unable to resize objects array.");
        memset(grown + m_storage.capacity, 0, 16 * sizeof(Object*));
        m_storage.objects = grown;
        m_storage.capacity = newCapacity;
    }
    object->ref();
    memmove(m_storage.objects + index + 1, m_storage.objects + index, (m_storage.count - index) * sizeof(Object*));
    m_storage.objects[index] = object;
    ++m_storage.count;
    incrementMutations(m_storage.mutations);
}

void JCMutableArray::removeObjectAtIndex(size_t index)
{
    if (index >= m_storage.count)
        raiseIndexBeyondBounds(*this, "removeObjectAtIndex:", index, m_storage.count);
    Object* removed = m_storage.objects[index];
    memmove(m_storage.objects + index, m_storage.objects + index + 1, (m_storage.count - index - 1) * sizeof(Object*));
    m_storage.objects[--m_storage.count] = nullptr;
    incrementMutations(m_storage.mutations);
    // Released last: its destruction may run code that looks at this array.
    removed->deref();
}

void JCMutableArray::replaceObjectAtIndex(size_t index, Object* object)
{
    if (!object)
        raiseInsertNil(*this, "replaceObjectAtIndex:withObject:");
    if (index >= m_storage.count)
        raiseIndexBeyondBounds(*this, "replaceObjectAtIndex:withObject:", index, m_storage.count);
    object->ref();
    Object* old = std::exchange(m_storage.objects[index], object);
    incrementMutations(m_storage.mutations);
    old->deref();
}

Array* detail::JCArrayFactory::JCArrayCreate(Object** objects, size_t count, bool mutableCollection)
{
    if (mutableCollection) {
        Object** storage = nullptr;
        if (count) {
            storage = static_cast<Object**>(malloc(count * sizeof(Object*)));
            if (!storage)
                return nullptr;
            memcpy(storage, objects, count * sizeof(Object*));
        }
        auto* array = new JCMutableArray;
        array->m_storage = { storage, count, count, 0, false };
        return array;
    }
    // One block for the object and its elements.
    void* memory = allocateSmall(sizeof(JCArray) + count * sizeof(Object*));
    auto* array = ::new (memory) JCArray;
    auto* storage = reinterpret_cast<Object**>(static_cast<char*>(memory) + sizeof(JCArray));
    if (count)
        memcpy(storage, objects, count * sizeof(Object*));
    array->m_storage = { storage, count, count, 0, true };
    return array;
}

// MARK: Dictionaries

namespace {

constexpr size_t capacityIndexForCount(size_t count)
{
    size_t target = static_cast<size_t>(static_cast<double>(count) * 1.33);
    auto* begin = std::begin(jc_dictionaryCapacities);
    auto* end = std::end(jc_dictionaryCapacities);
    auto* found = std::lower_bound(begin, end, target);
    return (found == end ? end - 1 : found) - begin;
}

// Every decoded record asks this; most have fewer than 64 keys, so their
// answers are looked up instead of searched for.
constexpr auto smallCountCapacityIndexes = [] {
    std::array<uint8_t, 64> indexes {};
    for (size_t count = 0; count < indexes.size(); ++count)
        indexes[count] = static_cast<uint8_t>(capacityIndexForCount(count));
    return indexes;
}();

} // namespace

size_t JCDictionaryCapacityIndexForCount(size_t count)
{
    return count < smallCountCapacityIndexes.size() ? smallCountCapacityIndexes[count] : capacityIndexForCount(count);
}

size_t JCDictionaryCapacityForCount(size_t count)
{
    return jc_dictionaryCapacities[JCDictionaryCapacityIndexForCount(count)];
}

// Calls `body` with the capacity at `capacityIndex` of the table as a template
// argument, so that `hash % capacity` in it is a multiplication: dividing by a
// variable is a slow division. Past the first sixteen sizes it passes 0, and
// the body divides by the capacity at run time.
template<typename Body>
inline decltype(auto) withConstantCapacity(size_t capacityIndex, Body&& body)
{
    switch (capacityIndex) {
#define JC_CAPACITY_CASE(index) \
    case index:                 \
        return body.template operator()<jc_dictionaryCapacities[index]>();
        JC_CAPACITY_CASE(1)
        JC_CAPACITY_CASE(2) JC_CAPACITY_CASE(3) JC_CAPACITY_CASE(4) JC_CAPACITY_CASE(5) JC_CAPACITY_CASE(6)
            JC_CAPACITY_CASE(7) JC_CAPACITY_CASE(8) JC_CAPACITY_CASE(9) JC_CAPACITY_CASE(10) JC_CAPACITY_CASE(11) JC_CAPACITY_CASE(12)
                JC_CAPACITY_CASE(13) JC_CAPACITY_CASE(14) JC_CAPACITY_CASE(15) JC_CAPACITY_CASE(16)
#undef JC_CAPACITY_CASE
                    default : return body.template operator()<0>();
    }
}

size_t JCDictionaryStorage::bucketForHash(size_t hash) const
{
    return withConstantCapacity(capacityIndex, [&]<size_t constantCapacity>() { return hash % (constantCapacity ? constantCapacity : capacity); });
}

JCHashTableEntry* JCDictionaryStorage::entryForKey(const Object* key) const
{
    if (!key || !capacity)
        return nullptr;
    size_t hash = key->hash();
    // Linear probing; the wrap is a compare, not a division per probe.
    size_t index = bucketForHash(hash);
    for (size_t i = 0; i < capacity; ++i) {
        auto& candidate = entry[index];
        if (!candidate.key)
            return nullptr;
        if (candidate.keyHash == hash && (candidate.key == key || candidate.key->isEqual(key)))
            return &candidate;
        if (++index == capacity)
            index = 0;
    }
    return nullptr;
}

void JCDictionaryStorage::addObject(size_t keyHash, Object* key, Object* object, const JCReleaseHook& beforeRelease)
{
    addObjectFrom(capacity ? bucketForHash(keyHash) : 0, keyHash, key, object, beforeRelease);
}

inline void JCDictionaryStorage::addObjectFrom(size_t index, size_t keyHash, Object* key, Object* object, const JCReleaseHook& beforeRelease)
{
    if (capacity) {
        for (size_t i = 0; i < capacity; ++i) {
            auto& candidate = entry[index];
            if (candidate.key && candidate.keyHash == keyHash && (candidate.key == key || candidate.key->isEqual(key)))
                removeEntry(candidate, beforeRelease);
            if (!candidate.key) {
                candidate = { keyHash, key, object };
                ++count;
                return;
            }
            if (++index == capacity)
                index = 0;
        }
    }
    beforeRelease();
    key->deref();
    object->deref();
}

void JCDictionaryStorage::removeEntry(JCHashTableEntry& removed, const JCReleaseHook& beforeRelease)
{
    Object* key = removed.key;
    Object* object = removed.object;
    removed = { 0, nullptr, nullptr };
    --count;
    beforeRelease();
    key->deref();
    object->deref();
}

void JCDictionaryStorage::resizeIfNeccessary(size_t newCapacityIndex)
{
    size_t newCapacity = jc_dictionaryCapacities[newCapacityIndex];
    auto* table = static_cast<JCHashTableEntry*>(calloc(newCapacity ? newCapacity : 1, sizeof(JCHashTableEntry)));
    if (!table)
        Exception::raise(MallocException, "Unable to allocate memory for hash table.");
    JCHashTableEntry* old = std::exchange(entry, table);
    size_t oldCapacity = std::exchange(capacity, newCapacity);
    capacityIndex = static_cast<uint8_t>(newCapacityIndex);
    bool oldInline = std::exchange(inlineStorage, false);
    size_t oldCount = std::exchange(count, 0);
    for (size_t i = 0; i < oldCapacity; ++i) {
        if (old[i].key)
            addObject(old[i].keyHash, old[i].key, old[i].object);
    }
    VXParameterAssert(oldCount == count);
    if (!oldInline)
        free(old);
}

bool JCDictionaryStorage::nextEntry(size_t& state, Dictionary::Entry& out) const
{
    while (state < capacity) {
        auto& candidate = entry[state++];
        if (candidate.key) {
            out = { candidate.key, candidate.object };
            return true;
        }
    }
    return false;
}

size_t JCDictionaryStorage::nextEntries(size_t& state, Dictionary::HashedEntry* buffer, size_t bufferCapacity) const
{
    size_t count = 0;
    while (state < capacity && count < bufferCapacity) {
        auto& candidate = entry[state++];
        if (candidate.key)
            buffer[count++] = { candidate.key, candidate.object, candidate.keyHash };
    }
    return count;
}

size_t JCDictionaryStorage::getKeysAndObjects(size_t arrayLength, Object** keys, Object** objects) const
{
    size_t gotCount = 0;
    for (size_t i = 0; i < capacity && gotCount < arrayLength; ++i) {
        if (!entry[i].key)
            continue;
        if (keys)
            keys[gotCount] = entry[i].key;
        if (objects)
            objects[gotCount] = entry[i].object;
        ++gotCount;
    }
    VXParameterAssert(gotCount == count || gotCount == arrayLength);
    return gotCount;
}

void JCDictionaryStorage::releaseAll()
{
    auto& keyReleases = t_keyReleases;
    keyReleases.enter();
    // The values lie anywhere in memory: their lines are fetched several
    // entries ahead, so that the misses overlap instead of coming one by one.
    constexpr size_t ahead = 8;
    for (size_t i = 0; i < std::min(capacity, ahead); ++i) {
        if (entry[i].key)
            __builtin_prefetch(entry[i].object, 1);
    }
    for (size_t i = 0; i < capacity; ++i) {
        if (i + ahead < capacity && entry[i + ahead].key)
            __builtin_prefetch(entry[i + ahead].object, 1);
        if (entry[i].key) {
            keyReleases.release(entry[i].keyHash, entry[i].key);
            entry[i].object->deref();
        }
    }
    keyReleases.leave();
    if (!inlineStorage)
        free(entry);
    entry = nullptr;
    count = capacity = 0;
}

JCDictionary::~JCDictionary()
{
    m_storage.releaseAll();
}

void JCDictionary::operator delete(JCDictionary* dictionary, std::destroying_delete_t)
{
    size_t size = sizeof(JCDictionary) + dictionary->m_storage.capacity * sizeof(JCHashTableEntry);
    dictionary->~JCDictionary();
    detail::deallocateSmall(dictionary, size);
}

JCMutableDictionary::~JCMutableDictionary()
{
    m_storage.releaseAll();
}

Object* JCDictionary::objectForKey(const Object* key) const
{
    auto* found = m_storage.entryForKey(key);
    return found ? found->object : nullptr;
}

Object* JCMutableDictionary::objectForKey(const Object* key) const
{
    auto* found = m_storage.entryForKey(key);
    return found ? found->object : nullptr;
}

Ref<Enumerator> JCDictionary::keyEnumerator() const
{
    return adoptRef(*new JCDictionaryEnumerator(*this, m_storage));
}

Ref<Enumerator> JCMutableDictionary::keyEnumerator() const
{
    return adoptRef(*new JCDictionaryEnumerator(*this, m_storage));
}

void JCMutableDictionary::setObject(Object* object, Object* key)
{
    if (!key)
        raiseInsertNilKey(*this);
    if (!object)
        raiseInsertNilValue(*this, key);
    size_t neededIndex = JCDictionaryCapacityIndexForCount(m_storage.count + 1);
    if (m_storage.capacity < jc_dictionaryCapacities[neededIndex])
        m_storage.resizeIfNeccessary(neededIndex);
    Ref<Object> keyCopy = key->copyObject();
    size_t keyHash = keyCopy->hash();
    object->ref();
    m_storage.addObject(keyHash, keyCopy.leakRef(), object);
    incrementMutations(m_storage.mutations);
}

void JCMutableDictionary::removeObjectForKey(const Object* key)
{
    if (auto* found = m_storage.entryForKey(key)) {
        m_storage.removeEntry(*found);
        incrementMutations(m_storage.mutations);
    }
}

Dictionary* detail::JCDictionaryFactory::JCDictionaryCreate(Object** keys, size_t* keyHashes, Object** objects, size_t count, bool mutableCollection,
    const JCReleaseHook& beforeRelease)
{
    size_t capacityIndex = JCDictionaryCapacityIndexForCount(count);
    size_t capacity = jc_dictionaryCapacities[capacityIndex];
    auto fill = [&](JCDictionaryStorage& storage, JCHashTableEntry* table, bool inlineStorage) {
        storage.entry = table;
        storage.capacity = capacity;
        storage.capacityIndex = static_cast<uint8_t>(capacityIndex);
        storage.inlineStorage = inlineStorage;
        // One dispatch on the table size per dictionary, not one per key.
        withConstantCapacity(capacityIndex, [&]<size_t constantCapacity>() {
            size_t divisor = constantCapacity ? constantCapacity : capacity;
            for (size_t i = 0; i < count; ++i)
                storage.addObjectFrom(keyHashes[i] % divisor, keyHashes[i], keys[i], objects[i], beforeRelease);
        });
    };
    if (mutableCollection) {
        auto* table = static_cast<JCHashTableEntry*>(calloc(capacity ? capacity : 1, sizeof(JCHashTableEntry)));
        if (!table)
            return nullptr;
        auto* dictionary = new JCMutableDictionary;
        fill(dictionary->m_storage, table, false);
        return dictionary;
    }
    // One block for the object and its table.
    size_t tableSize = capacity * sizeof(JCHashTableEntry);
    void* memory = allocateSmall(sizeof(JCDictionary) + tableSize);
    auto* dictionary = ::new (memory) JCDictionary;
    auto* table = reinterpret_cast<JCHashTableEntry*>(static_cast<char*>(memory) + sizeof(JCDictionary));
    memset(table, 0, tableSize);
    fill(dictionary->m_storage, table, true);
    return dictionary;
}

// MARK: Enumerator

JCDictionaryEnumerator::JCDictionaryEnumerator(const Dictionary& dictionary, const JCDictionaryStorage& storage)
    : m_dictionary(const_cast<Dictionary&>(dictionary))
    , m_storage(storage)
{
}

Object* JCDictionaryEnumerator::nextObject()
{
    while (m_index < m_storage.capacity) {
        auto& candidate = m_storage.entry[m_index++];
        if (candidate.key)
            return candidate.key;
    }
    return nullptr;
}

} // namespace velvox
