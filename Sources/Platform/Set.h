#pragma once

#include "CollectionSupport.h"
#include "String.h"

#include <initializer_list>
#include <span>

namespace velvox {

class Array;
class MutableSet;

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

} // namespace velvox
