#pragma once

#include "CollectionSupport.h"
#include "String.h"

#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>

namespace velvox {

class Array;
class Enumerator;
class MutableDictionary;

class Dictionary : public Object {
    VX_OBJECT(Dictionary)
public:
    struct Entry {
        Object* key;
        Object* object;
    };
    struct HashedEntry {
        Object* key;
        Object* object;
        size_t keyHash; // key->hash()
    };

    static Ref<Dictionary> create();
    static Ref<Dictionary> create(std::initializer_list<std::pair<std::string_view, Object*>> entries);
    static Ref<Dictionary> create(std::span<Object* const> keys, std::span<Object* const> objects);

    virtual size_t count() const = 0;
    // Null for an absent or null key.
    virtual Object* objectForKey(const Object* key) const = 0;
    // Enumeration in the dictionary's own order: start with state 0 and call
    // until it answers false.
    virtual bool nextEntry(size_t& state, Entry& entry) const = 0;
    // The same walk by the batch, with each key's hash (which a hashed
    // dictionary has at hand): up to `capacity` entries into `buffer`,
    // answering how many (0 at the end).
    virtual size_t nextEntries(size_t& state, HashedEntry* buffer, size_t capacity) const;
    // Whether that walk finds exactly what lookups find, so that a reader
    // after many keys may gather them in one walk instead of one lookup each.
    // Only classes that promise it say so.
    virtual bool walkFindsWhatLookupsFind() const { return false; }
    virtual uint64_t mutations() const { return 0; }
    virtual Ref<Enumerator> keyEnumerator() const;

    // Key-value coding: the entry under the key, or null.
    RefPtr<Object> valueForKey(std::string_view key) const override { return objectForKey(key); }

    Object* objectForKey(std::string_view key) const
    {
        StackString stackKey(key);
        return objectForKey(&stackKey);
    }
    // A typed lookup: null when absent or of another kind.
    template<typename T>
    T* objectForKey(std::string_view key) const { return dynamicDowncast<T>(objectForKey(key)); }
    Object* operator[](std::string_view key) const { return objectForKey(key); }
    bool isEmpty() const { return !count(); }
    Ref<Array> allKeys() const;
    Ref<Array> allValues() const;

    Ref<Dictionary> copy() const;
    Ref<MutableDictionary> mutableCopy() const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return count(); }

    class Iterator {
    public:
        Iterator(const Dictionary* dictionary, bool atEnd)
            : m_dictionary(dictionary)
            , m_mutations(dictionary->mutations())
            , m_atEnd(atEnd)
        {
            if (!atEnd)
                advance();
        }
        const Entry& operator*() const { return m_entry; }
        Iterator& operator++()
        {
            if (m_dictionary->mutations() != m_mutations) [[unlikely]]
                collectionMutatedDuringEnumeration(*m_dictionary);
            advance();
            return *this;
        }
        bool operator!=(const Iterator& other) const { return m_atEnd != other.m_atEnd; }
        bool operator==(const Iterator& other) const { return m_atEnd == other.m_atEnd; }

    private:
        void advance() { m_atEnd = !m_dictionary->nextEntry(m_state, m_entry); }
        const Dictionary* m_dictionary;
        size_t m_state { 0 };
        Entry m_entry { nullptr, nullptr };
        uint64_t m_mutations;
        bool m_atEnd;
    };
    Iterator begin() const { return Iterator(this, false); }
    Iterator end() const { return Iterator(this, true); }

protected:
    Dictionary() = default;
};

} // namespace velvox
