#pragma once

// The codec's own arrays and dictionaries. The decoder makes them in one step
// from its object stack, taking over its references and the key hashes it has
// already computed. To every consumer they are plain Arrays and Dictionaries;
// nothing outside the codec can make one.
//
// The mutable classes do not derive from the immutable ones (a mutable array
// is a MutableArray, and an immutable one must not be); both share one
// storage type that holds the read code.

#include <Platform/Collections.h>

#include <cstdint>
#include <new>

namespace velvox {

namespace detail {
class JCArrayFactory;
class JCDictionaryFactory;
class JCParser;
} // namespace detail

struct JCArrayStorage {
    Object** objects { nullptr }; // each element holds one reference
    size_t count { 0 };
    size_t capacity { 0 };
    uint64_t mutations { 0 };
    // Immutable arrays keep their elements in the same block as the object.
    bool inlineStorage { false };

    Object* objectAtIndex(const Object& owner, size_t index) const;
    void getObjects(const Object& owner, Object** buffer, size_t location, size_t length) const;
    void releaseAll();
};

// The codec's immutable results carry tags of their own, so that walkers and
// the encoder tell them by a load (the codec's block of the layers' tags).
class JCArray final : public Array {
    VX_OBJECT(JCArray)
    VX_OBJECT_TAG(JCArray, layerObjectTag(0))
public:
    size_t count() const override { return m_storage.count; }
    Object* objectAtIndex(size_t index) const override { return m_storage.objectAtIndex(*this, index); }
    void getObjects(Object** buffer, size_t location, size_t length) const override { m_storage.getObjects(*this, buffer, location, length); }
    // The elements, for callers that walk many.
    Object* const* objects() const { return m_storage.objects; }

    static void operator delete(JCArray*, std::destroying_delete_t);

private:
    friend class detail::JCArrayFactory;
    JCArray() { setTag(s_tag); }
    ~JCArray() override;
    JCArrayStorage m_storage;
};

class JCMutableArray final : public MutableArray {
    VX_OBJECT(JCMutableArray)
public:
    size_t count() const override { return m_storage.count; }
    Object* objectAtIndex(size_t index) const override { return m_storage.objectAtIndex(*this, index); }
    void getObjects(Object** buffer, size_t location, size_t length) const override { m_storage.getObjects(*this, buffer, location, length); }
    uint64_t mutations() const override { return m_storage.mutations; }

    void insertObject(Object* object, size_t atIndex) override;
    void removeObjectAtIndex(size_t index) override;
    void replaceObjectAtIndex(size_t index, Object* withObject) override;
    using MutableArray::insertObject;
    using MutableArray::replaceObjectAtIndex;

private:
    friend class detail::JCArrayFactory;
    JCMutableArray() = default;
    ~JCMutableArray() override;
    JCArrayStorage m_storage;
};

struct JCHashTableEntry {
    size_t keyHash;
    Object* key; // free when null
    Object* object;
};

// Called once before a dictionary being made releases a reference it was
// handed (a repeated key, a full table): the decoder counts the references
// its cache handed out first, so that no release finds a count short.
struct JCReleaseHook {
    void (*call)(void* context) { nullptr };
    void* context { nullptr };
    void operator()() const
    {
        if (call)
            call(context);
    }
};

struct JCDictionaryStorage {
    JCHashTableEntry* entry { nullptr };
    size_t count { 0 };
    size_t capacity { 0 };
    uint64_t mutations { 0 };
    // The capacity's place in the capacity table, for a division by a constant.
    uint8_t capacityIndex { 0 };
    // Immutable dictionaries keep their table in the same block as the object.
    bool inlineStorage { false };

    size_t bucketForHash(size_t hash) const;
    JCHashTableEntry* entryForKey(const Object* key) const;
    // Takes over both references; releases them when there is no room.
    void addObject(size_t keyHash, Object* key, Object* object, const JCReleaseHook& beforeRelease = {});
    // The same with the probe's first entry given.
    void addObjectFrom(size_t index, size_t keyHash, Object* key, Object* object, const JCReleaseHook& beforeRelease);
    void removeEntry(JCHashTableEntry&, const JCReleaseHook& beforeRelease = {});
    void resizeIfNeccessary(size_t newCapacityIndex);
    bool nextEntry(size_t& state, Dictionary::Entry& entry) const;
    size_t nextEntries(size_t& state, Dictionary::HashedEntry* buffer, size_t capacity) const;
    size_t getKeysAndObjects(size_t arrayLength, Object** keys, Object** objects) const;
    void releaseAll();
};

// The table size for a number of keys: the first entry of the capacity table
// that is at least count × 1.33.
size_t JCDictionaryCapacityForCount(size_t count);
// That entry's place in the table.
size_t JCDictionaryCapacityIndexForCount(size_t count);

class JCDictionary final : public Dictionary {
    VX_OBJECT(JCDictionary)
    VX_OBJECT_TAG(JCDictionary, layerObjectTag(1))
public:
    size_t count() const override { return m_storage.count; }
    Object* objectForKey(const Object* key) const override;
    using Dictionary::objectForKey;
    bool nextEntry(size_t& state, Entry& entry) const override { return m_storage.nextEntry(state, entry); }
    size_t nextEntries(size_t& state, HashedEntry* buffer, size_t capacity) const override { return m_storage.nextEntries(state, buffer, capacity); }
    bool walkFindsWhatLookupsFind() const override { return true; }
    Ref<Enumerator> keyEnumerator() const override;
    size_t getObjects(size_t arrayLength, Object** objects, Object** keys) const { return m_storage.getKeysAndObjects(arrayLength, keys, objects); }
    size_t capacity() const { return m_storage.capacity; }
    // The table, `capacity()` entries in enumeration order; free ones have no key.
    const JCHashTableEntry* entries() const { return m_storage.entry; }

    static void operator delete(JCDictionary*, std::destroying_delete_t);

private:
    friend class detail::JCDictionaryFactory;
    friend class JCDictionaryEnumerator;
    JCDictionary() { setTag(s_tag); }
    ~JCDictionary() override;
    JCDictionaryStorage m_storage;
};

class JCMutableDictionary final : public MutableDictionary {
    VX_OBJECT(JCMutableDictionary)
public:
    size_t count() const override { return m_storage.count; }
    Object* objectForKey(const Object* key) const override;
    using Dictionary::objectForKey;
    bool nextEntry(size_t& state, Entry& entry) const override { return m_storage.nextEntry(state, entry); }
    uint64_t mutations() const override { return m_storage.mutations; }
    Ref<Enumerator> keyEnumerator() const override;
    size_t getObjects(size_t arrayLength, Object** objects, Object** keys) const { return m_storage.getKeysAndObjects(arrayLength, keys, objects); }
    size_t capacity() const { return m_storage.capacity; }

    // Raises InvalidArgumentException for a null key or object.
    void setObject(Object* object, Object* forKey) override;
    using MutableDictionary::setObject;
    void removeObjectForKey(const Object* key) override;
    using MutableDictionary::removeObjectForKey;

private:
    friend class detail::JCDictionaryFactory;
    friend class JCDictionaryEnumerator;
    JCMutableDictionary() = default;
    ~JCMutableDictionary() override;
    JCDictionaryStorage m_storage;
};

// Walks a codec dictionary's keys in table order.
class JCDictionaryEnumerator final : public Enumerator {
    VX_OBJECT(JCDictionaryEnumerator)
public:
    Object* nextObject() override;

private:
    friend class JCDictionary;
    friend class JCMutableDictionary;
    JCDictionaryEnumerator(const Dictionary& dictionary, const JCDictionaryStorage& storage);
    Ref<Dictionary> m_dictionary;
    const JCDictionaryStorage& m_storage;
    size_t m_index { 0 };
};

namespace detail {

// The creation functions, open to the decoder only.
class JCArrayFactory {
    friend class JCParser;
    friend struct JCCollectionsTestAccess;
    // Takes over the references in objects[0..count). Null when memory runs out.
    static Array* JCArrayCreate(Object** objects, size_t count, bool mutableCollection);
};

class JCDictionaryFactory {
    friend class JCParser;
    friend struct JCCollectionsTestAccess;
    // Takes over the references to keys and objects.
    static Dictionary* JCDictionaryCreate(Object** keys, size_t* keyHashes, Object** objects, size_t count, bool mutableCollection,
        const JCReleaseHook& beforeRelease = {});
};

} // namespace detail

} // namespace velvox
