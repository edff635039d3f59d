#pragma once

#include "CollectionSupport.h"
#include "String.h"

#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace velvox {

class MutableArray;
class Enumerator;

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

} // namespace velvox
