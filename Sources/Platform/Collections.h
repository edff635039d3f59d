#pragma once

// Arrays, dictionaries and sets.
//
// Array, Dictionary and Set are interfaces that any class can implement (the
// JSON codec's collections do); Array::create() and friends make the plain
// implementations. Elements are retained by the collection and handed out as
// borrowed pointers, never null: the Null singleton stands for nil. Copying an
// immutable collection answers the collection itself; mutableCopy() always
// makes a new plain mutable one. Changing a mutable collection while a
// range-for walks it raises GenericException.

#include "Object.h"
#include "String.h"

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace velvox {

class MutableArray;
class MutableDictionary;
class MutableSet;

// The plain pointer inside whatever form a key or object is given in.
inline Object* rawObject(Object* object) { return object; }
template<typename T> T* rawObject(const Ref<T>& object) { return object.ptr(); }
template<typename T> T* rawObject(const RefPtr<T>& object) { return object.get(); }

[[noreturn]] void collectionMutatedDuringEnumeration(const Object&);

// The exceptions of collection misuse, with the platform's texts, for every
// implementation of the collection interfaces.
[[noreturn]] void raiseIndexBeyondBounds(const Object& collection, const char* selector, size_t index, size_t bound);
[[noreturn]] void raiseInsertNil(const Object& collection, const char* selector);
// For setObject(_:forKey:): a null key, or a null object under `key`.
[[noreturn]] void raiseInsertNilKey(const Object& dictionary);
[[noreturn]] void raiseInsertNilValue(const Object& dictionary, const Object* key);

// Walks the objects of an enumeration once.
class Enumerator : public Object {
    VX_OBJECT(Enumerator)
public:
    // Null at the end.
    virtual Object* nextObject() = 0;
    // The objects not yet walked.
    Ref<Array> allObjects();

protected:
    Enumerator() = default;
};

class Array : public Object {
    VX_OBJECT(Array)
public:
    static Ref<Array> create();
    static Ref<Array> create(std::span<Object* const> objects);
    static Ref<Array> create(std::initializer_list<Object*> objects) { return create(std::span<Object* const>(objects.begin(), objects.size())); }
    static Ref<Array> create(std::vector<Ref<Object>>&& objects);

    virtual size_t count() const = 0;
    // Raises RangeException for an index at or beyond count().
    virtual Object* objectAtIndex(size_t index) const = 0;
    // Copies `length` borrowed pointers from `location` on; raises RangeException past the end.
    virtual void getObjects(Object** buffer, size_t location, size_t length) const;
    // Changes whenever a mutable array changes; 0 for immutable arrays.
    virtual uint64_t mutations() const { return 0; }

    bool isEmpty() const { return !count(); }
    Object* firstObject() const { return count() ? objectAtIndex(0) : nullptr; }
    Object* lastObject() const { return count() ? objectAtIndex(count() - 1) : nullptr; }
    Object* operator[](size_t index) const { return objectAtIndex(index); }
    static constexpr size_t notFound = static_cast<size_t>(-1);
    size_t indexOfObject(const Object*) const;
    bool containsObject(const Object* object) const { return indexOfObject(object) != notFound; }
    // The elements' descriptions joined with the separator.
    Ref<String> componentsJoinedByString(std::string_view separator) const;

    Ref<Array> copy() const;
    Ref<MutableArray> mutableCopy() const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return count(); }

    class Iterator {
    public:
        Iterator(const Array* array, size_t index)
            : m_array(array)
            , m_index(index)
            , m_mutations(array->mutations())
        {
        }
        Object* operator*() const { return m_array->objectAtIndex(m_index); }
        Iterator& operator++()
        {
            if (m_array->mutations() != m_mutations) [[unlikely]]
                collectionMutatedDuringEnumeration(*m_array);
            ++m_index;
            return *this;
        }
        bool operator!=(const Iterator&) const { return m_index < m_array->count(); }
        bool operator==(const Iterator& other) const { return !(*this != other); }

    private:
        const Array* m_array;
        size_t m_index;
        uint64_t m_mutations;
    };
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, count()); }

protected:
    Array() = default;
};

class MutableArray : public Array {
    VX_OBJECT(MutableArray)
public:
    static Ref<MutableArray> create(size_t capacity = 0);

    // Raises InvalidArgumentException for a null object, RangeException for an index beyond count().
    virtual void insertObject(Object* object, size_t atIndex) = 0;
    virtual void removeObjectAtIndex(size_t index) = 0;
    virtual void replaceObjectAtIndex(size_t index, Object* withObject) = 0;

    void addObject(Object* object) { insertObject(object, count()); }
    // Owning pointers, temporaries included: the array retains before the temporary goes.
    template<typename T> void addObject(const Ref<T>& object) { addObject(object.ptr()); }
    template<typename T> void addObject(const RefPtr<T>& object) { addObject(object.get()); }
    template<typename T> void insertObject(const Ref<T>& object, size_t atIndex) { insertObject(object.ptr(), atIndex); }
    template<typename T> void insertObject(const RefPtr<T>& object, size_t atIndex) { insertObject(object.get(), atIndex); }
    template<typename T> void replaceObjectAtIndex(size_t index, const Ref<T>& object) { replaceObjectAtIndex(index, object.ptr()); }
    template<typename T> void replaceObjectAtIndex(size_t index, const RefPtr<T>& object) { replaceObjectAtIndex(index, object.get()); }
    void addObjectsFromArray(const Array&);
    void removeLastObject();
    void removeObject(const Object*);
    virtual void removeAllObjects();

    // An immutable plain copy.
    Ref<Object> copyObject() const override;

protected:
    MutableArray() = default;
};

class Dictionary : public Object {
    VX_OBJECT(Dictionary)
public:
    struct Entry {
        Object* key;
        Object* object;
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

class MutableDictionary : public Dictionary {
    VX_OBJECT(MutableDictionary)
public:
    static Ref<MutableDictionary> create(size_t capacity = 0);

    // Stores an immutable copy of the key. Raises InvalidArgumentException for a null key or object.
    virtual void setObject(Object* object, Object* forKey) = 0;
    virtual void removeObjectForKey(const Object* key) = 0;
    virtual void removeAllObjects();

    void setObject(Object* object, std::string_view forKey);
    // Owning pointers, temporaries included.
    template<typename T> void setObject(const Ref<T>& object, std::string_view forKey) { setObject(object.ptr(), forKey); }
    template<typename T> void setObject(const RefPtr<T>& object, std::string_view forKey) { setObject(object.get(), forKey); }
    template<typename T, typename K>
        requires(!std::is_convertible_v<const K&, std::string_view>)
    void setObject(const Ref<T>& object, const K& forKey) { setObject(object.ptr(), rawObject(forKey)); }
    template<typename T, typename K>
        requires(!std::is_convertible_v<const K&, std::string_view>)
    void setObject(const RefPtr<T>& object, const K& forKey) { setObject(object.get(), rawObject(forKey)); }
    void removeObjectForKey(std::string_view key)
    {
        StackString stackKey(key);
        removeObjectForKey(&stackKey);
    }
    void addEntriesFromDictionary(const Dictionary&);

    Ref<Object> copyObject() const override;

protected:
    MutableDictionary() = default;
};

class Set : public Object {
    VX_OBJECT(Set)
public:
    static Ref<Set> create();
    static Ref<Set> create(std::span<Object* const> objects);
    static Ref<Set> create(std::initializer_list<Object*> objects) { return create(std::span<Object* const>(objects.begin(), objects.size())); }

    virtual size_t count() const = 0;
    // The member equal to the object, or null.
    virtual Object* member(const Object* object) const = 0;
    virtual bool nextObject(size_t& state, Object*& object) const = 0;
    virtual uint64_t mutations() const { return 0; }

    bool containsObject(const Object* object) const { return member(object); }
    bool containsObject(std::string_view text) const
    {
        StackString stackText(text);
        return member(&stackText);
    }
    bool isEmpty() const { return !count(); }
    Ref<Array> allObjects() const;

    Ref<Set> copy() const;
    Ref<MutableSet> mutableCopy() const;

    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override { return count(); }

    class Iterator {
    public:
        Iterator(const Set* set, bool atEnd)
            : m_set(set)
            , m_mutations(set->mutations())
            , m_atEnd(atEnd)
        {
            if (!atEnd)
                advance();
        }
        Object* operator*() const { return m_object; }
        Iterator& operator++()
        {
            if (m_set->mutations() != m_mutations) [[unlikely]]
                collectionMutatedDuringEnumeration(*m_set);
            advance();
            return *this;
        }
        bool operator!=(const Iterator& other) const { return m_atEnd != other.m_atEnd; }
        bool operator==(const Iterator& other) const { return m_atEnd == other.m_atEnd; }

    private:
        void advance() { m_atEnd = !m_set->nextObject(m_state, m_object); }
        const Set* m_set;
        size_t m_state { 0 };
        Object* m_object { nullptr };
        uint64_t m_mutations;
        bool m_atEnd;
    };
    Iterator begin() const { return Iterator(this, false); }
    Iterator end() const { return Iterator(this, true); }

protected:
    Set() = default;
};

class MutableSet : public Set {
    VX_OBJECT(MutableSet)
public:
    static Ref<MutableSet> create(size_t capacity = 0);

    // Adds the object unless an equal one is a member. Raises InvalidArgumentException for null.
    virtual void addObject(Object* object) = 0;
    virtual void removeObject(const Object* object) = 0;
    virtual void removeAllObjects();
    // Owning pointers, temporaries included.
    template<typename T> void addObject(const Ref<T>& object) { addObject(object.ptr()); }
    template<typename T> void addObject(const RefPtr<T>& object) { addObject(object.get()); }

    Ref<Object> copyObject() const override;

protected:
    MutableSet() = default;
};

} // namespace velvox
