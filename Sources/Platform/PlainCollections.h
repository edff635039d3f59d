#pragma once

// The plain implementations of the collection interfaces, which Array::create()
// and friends make, and the ordered hash table behind the plain dictionaries
// and sets. Private to the platform layer.

#include "Collections.h"
#include "Exception.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::detail {

inline std::string indented(std::string_view text)
{
    std::string out;
    for (char c : text) {
        out.push_back(c);
        if (c == '\n')
            out += "    ";
    }
    return out;
}

// MARK: Plain arrays

class PlainArray final : public Array {
public:
    explicit PlainArray(std::vector<Ref<Object>>&& objects)
        : m_objects(std::move(objects))
    {
    }
    size_t count() const override { return m_objects.size(); }
    Object* objectAtIndex(size_t index) const override
    {
        if (index >= m_objects.size()) [[unlikely]]
            raiseIndexBeyondBounds(*this, "objectAtIndex:", index, m_objects.size());
        return m_objects[index].ptr();
    }

private:
    std::vector<Ref<Object>> m_objects;
};

class PlainMutableArray final : public MutableArray {
public:
    explicit PlainMutableArray(size_t capacity) { m_objects.reserve(capacity); }
    size_t count() const override { return m_objects.size(); }
    Object* objectAtIndex(size_t index) const override
    {
        if (index >= m_objects.size()) [[unlikely]]
            raiseIndexBeyondBounds(*this, "objectAtIndex:", index, m_objects.size());
        return m_objects[index].ptr();
    }
    uint64_t mutations() const override { return m_mutations; }
    void insertObject(Object* object, size_t index) override
    {
        if (!object)
            raiseInsertNil(*this, "insertObject:atIndex:");
        if (index > m_objects.size())
            raiseIndexBeyondBounds(*this, "insertObject:atIndex:", index, m_objects.size() + 1);
        m_objects.insert(m_objects.begin() + index, Ref<Object>(*object));
        ++m_mutations;
    }
    void removeObjectAtIndex(size_t index) override
    {
        if (index >= m_objects.size())
            raiseIndexBeyondBounds(*this, "removeObjectAtIndex:", index, m_objects.size());
        // Keep the element alive until the array is consistent again.
        Ref<Object> removed = std::move(m_objects[index]);
        m_objects.erase(m_objects.begin() + index);
        ++m_mutations;
    }
    void replaceObjectAtIndex(size_t index, Object* object) override
    {
        if (!object)
            raiseInsertNil(*this, "replaceObjectAtIndex:withObject:");
        if (index >= m_objects.size())
            raiseIndexBeyondBounds(*this, "replaceObjectAtIndex:withObject:", index, m_objects.size());
        Ref<Object> old = std::exchange(m_objects[index], Ref<Object>(*object));
        ++m_mutations;
    }
    void removeAllObjects() override
    {
        auto old = std::move(m_objects);
        m_objects.clear();
        ++m_mutations;
    }

private:
    std::vector<Ref<Object>> m_objects;
    uint64_t m_mutations { 0 };
};

inline std::vector<Ref<Object>> refsFrom(std::span<Object* const> objects)
{
    std::vector<Ref<Object>> refs;
    refs.reserve(objects.size());
    for (auto* object : objects) {
        if (!object)
            Exception::raise(InvalidArgumentException, "*** -[Array initWithObjects:count:]: attempt to insert nil object");
        refs.emplace_back(*object);
    }
    return refs;
}

// MARK: Hash index shared by the plain dictionaries and sets

// Entries stay in insertion order in a vector (removed ones leave a hole with a
// null key); an open-addressing table of entry numbers finds them by hash.
template<typename EntryType>
class OrderedHashTable {
public:
    struct Slot {
        uint32_t entry; // index + 1; 0 is empty
    };

    size_t count() const { return m_live; }

    // The entry whose key is equal to `key`, or -1.
    ptrdiff_t find(const Object* key, size_t hash) const
    {
        if (m_slots.empty())
            return -1;
        size_t mask = m_slots.size() - 1;
        for (size_t i = hash & mask;; i = (i + 1) & mask) {
            uint32_t slot = m_slots[i];
            if (!slot)
                return -1;
            auto& entry = m_entries[slot - 1];
            if (entry.hash == hash && objectsEqual(entry.key.get(), key))
                return slot - 1;
        }
    }

    // Appends an entry known to be absent.
    void append(EntryType&& entry)
    {
        if ((m_entries.size() + 1) * 4 > m_slots.size() * 3)
            rebuild(std::max<size_t>(8, m_live * 2 + 2));
        m_entries.push_back(std::move(entry));
        insertSlot(m_entries.size() - 1);
        ++m_live;
    }

    // Empties the entry; the caller keeps what it held alive until done.
    EntryType remove(size_t index)
    {
        size_t mask = m_slots.size() - 1;
        size_t i = m_entries[index].hash & mask;
        while (m_slots[i] != index + 1)
            i = (i + 1) & mask;
        // Backward-shift deletion keeps every probe run unbroken.
        size_t j = i;
        while (true) {
            j = (j + 1) & mask;
            if (!m_slots[j])
                break;
            size_t ideal = m_entries[m_slots[j] - 1].hash & mask;
            bool stays = i <= j ? (i < ideal && ideal <= j) : (i < ideal || ideal <= j);
            if (stays)
                continue;
            m_slots[i] = m_slots[j];
            i = j;
        }
        m_slots[i] = 0;
        EntryType removed = std::move(m_entries[index]);
        m_entries[index] = EntryType {};
        --m_live;
        if (m_entries.size() > 16 && m_live < m_entries.size() / 2)
            rebuild(std::max<size_t>(8, m_live * 2 + 2));
        return removed;
    }

    std::vector<EntryType>& entries() { return m_entries; }
    const std::vector<EntryType>& entries() const { return m_entries; }

    // The next live entry at or after `state`.
    const EntryType* next(size_t& state) const
    {
        while (state < m_entries.size()) {
            auto& entry = m_entries[state++];
            if (entry.key)
                return &entry;
        }
        return nullptr;
    }

    std::vector<EntryType> takeAll()
    {
        m_slots.clear();
        m_live = 0;
        return std::exchange(m_entries, {});
    }

private:
    void insertSlot(size_t index)
    {
        size_t mask = m_slots.size() - 1;
        size_t i = m_entries[index].hash & mask;
        while (m_slots[i])
            i = (i + 1) & mask;
        m_slots[i] = static_cast<uint32_t>(index + 1);
    }

    void rebuild(size_t minimumEntries)
    {
        size_t size = 8;
        while (size * 3 < minimumEntries * 4)
            size *= 2;
        std::erase_if(m_entries, [](auto& entry) { return !entry.key; });
        m_slots.assign(size, 0);
        for (size_t i = 0; i < m_entries.size(); ++i)
            insertSlot(i);
    }

    std::vector<EntryType> m_entries;
    std::vector<uint32_t> m_slots;
    size_t m_live { 0 };
};

struct DictionaryEntry {
    RefPtr<Object> key;
    RefPtr<Object> object;
    size_t hash { 0 };
};

struct SetEntry {
    RefPtr<Object> key;
    size_t hash { 0 };
};

// MARK: Plain dictionaries

class PlainDictionaryStorage {
public:
    size_t count() const { return m_table.count(); }
    Object* objectForKey(const Object* key) const
    {
        if (!key)
            return nullptr;
        ptrdiff_t index = m_table.find(key, key->hash());
        return index < 0 ? nullptr : m_table.entries()[index].object.get();
    }
    bool nextEntry(size_t& state, Dictionary::Entry& entry) const
    {
        auto* next = m_table.next(state);
        if (!next)
            return false;
        entry = { next->key.get(), next->object.get() };
        return true;
    }
    uint64_t mutations() const { return m_mutations; }

    void set(const Object& dictionary, Object* object, Object* key)
    {
        if (!key)
            raiseInsertNilKey(dictionary);
        if (!object)
            raiseInsertNilValue(dictionary, key);
        size_t hash = key->hash();
        ptrdiff_t index = m_table.find(key, hash);
        ++m_mutations;
        if (index >= 0) {
            RefPtr<Object> old = std::exchange(m_table.entries()[index].object, object);
            return;
        }
        m_table.append({ key->copyObject(), object, hash });
    }
    void remove(const Object* key)
    {
        if (!key)
            return;
        ptrdiff_t index = m_table.find(key, key->hash());
        if (index < 0)
            return;
        ++m_mutations;
        auto removed = m_table.remove(index);
    }
    void clear()
    {
        ++m_mutations;
        auto removed = m_table.takeAll();
    }

private:
    OrderedHashTable<DictionaryEntry> m_table;
    uint64_t m_mutations { 0 };
};

class PlainDictionary final : public Dictionary {
public:
    size_t count() const override { return m_storage.count(); }
    Object* objectForKey(const Object* key) const override { return m_storage.objectForKey(key); }
    bool nextEntry(size_t& state, Entry& entry) const override { return m_storage.nextEntry(state, entry); }
    // Only while the dictionary is being made.
    void set(Object* object, Object* key) { m_storage.set(*this, object, key); }

private:
    PlainDictionaryStorage m_storage;
};

class PlainMutableDictionary final : public MutableDictionary {
public:
    size_t count() const override { return m_storage.count(); }
    Object* objectForKey(const Object* key) const override { return m_storage.objectForKey(key); }
    bool nextEntry(size_t& state, Entry& entry) const override { return m_storage.nextEntry(state, entry); }
    uint64_t mutations() const override { return m_storage.mutations(); }
    void setObject(Object* object, Object* key) override { m_storage.set(*this, object, key); }
    void removeObjectForKey(const Object* key) override { m_storage.remove(key); }
    void removeAllObjects() override { m_storage.clear(); }

private:
    PlainDictionaryStorage m_storage;
};

class DictionaryKeyEnumerator final : public Enumerator {
public:
    explicit DictionaryKeyEnumerator(const Dictionary& dictionary)
        : m_dictionary(const_cast<Dictionary&>(dictionary))
    {
    }
    Object* nextObject() override
    {
        Dictionary::Entry entry;
        return m_dictionary->nextEntry(m_state, entry) ? entry.key : nullptr;
    }

private:
    Ref<Dictionary> m_dictionary;
    size_t m_state { 0 };
};

// MARK: Plain sets

class PlainSetStorage {
public:
    size_t count() const { return m_table.count(); }
    Object* member(const Object* object) const
    {
        if (!object)
            return nullptr;
        ptrdiff_t index = m_table.find(object, object->hash());
        return index < 0 ? nullptr : m_table.entries()[index].key.get();
    }
    bool next(size_t& state, Object*& object) const
    {
        auto* entry = m_table.next(state);
        if (!entry)
            return false;
        object = entry->key.get();
        return true;
    }
    void add(const Object& set, Object* object)
    {
        if (!object)
            Exception::raise(InvalidArgumentException, "*** -[%s %s]: object cannot be nil", set.className(), "addObject:");
        size_t hash = object->hash();
        if (m_table.find(object, hash) >= 0)
            return;
        ++m_mutations;
        m_table.append({ object, hash });
    }
    void remove(const Object* object)
    {
        if (!object)
            return;
        ptrdiff_t index = m_table.find(object, object->hash());
        if (index < 0)
            return;
        ++m_mutations;
        auto removed = m_table.remove(index);
    }
    void clear()
    {
        ++m_mutations;
        auto removed = m_table.takeAll();
    }
    uint64_t mutations() const { return m_mutations; }

private:
    OrderedHashTable<SetEntry> m_table;
    uint64_t m_mutations { 0 };
};

class PlainSet final : public Set {
public:
    explicit PlainSet(std::span<Object* const> objects)
    {
        for (auto* object : objects)
            m_storage.add(*this, object);
    }
    size_t count() const override { return m_storage.count(); }
    Object* member(const Object* object) const override { return m_storage.member(object); }
    bool nextObject(size_t& state, Object*& object) const override { return m_storage.next(state, object); }

private:
    PlainSetStorage m_storage;
};

class PlainMutableSet final : public MutableSet {
public:
    size_t count() const override { return m_storage.count(); }
    Object* member(const Object* object) const override { return m_storage.member(object); }
    bool nextObject(size_t& state, Object*& object) const override { return m_storage.next(state, object); }
    uint64_t mutations() const override { return m_storage.mutations(); }
    void addObject(Object* object) override { m_storage.add(*this, object); }
    void removeObject(const Object* object) override { m_storage.remove(object); }
    void removeAllObjects() override { m_storage.clear(); }

private:
    PlainSetStorage m_storage;
};

} // namespace velvox::detail
