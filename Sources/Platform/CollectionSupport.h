#pragma once

// What every implementation of the collection interfaces shares: the
// exceptions of misuse with the platform's texts, and the plain pointer inside
// an owning pointer given to a setter.

#include "Object.h"

#include <cstddef>

namespace velvox {

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

namespace detail {

// Deep comparison of collections remembers, for the length of the outermost
// comparison, the pairs of nested collections it has found equal: a tree that
// shares sub-trees (a crafted archive's DAG) is compared in time linear in
// its size, not exponential in its depth.
class CollectionComparison {
public:
    CollectionComparison(const Object* a, const Object* b);
    ~CollectionComparison();
    CollectionComparison(const CollectionComparison&) = delete;
    CollectionComparison& operator=(const CollectionComparison&) = delete;

    bool knownEqual() const;
    void markEqual();

private:
    const Object* m_a;
    const Object* m_b;
};

// Nested descriptions of collections are bounded: past 100 levels or 4 MiB of
// text in all, a collection describes itself as "…". A crafted tree that
// shares sub-trees would otherwise describe itself in exponential size.
class DescriptionBudget {
public:
    DescriptionBudget();
    ~DescriptionBudget();
    DescriptionBudget(const DescriptionBudget&) = delete;
    DescriptionBudget& operator=(const DescriptionBudget&) = delete;

    bool exhausted() const;
    // Counts a finished description against the outermost one's budget.
    void spend(size_t characters);
};

} // namespace detail

} // namespace velvox
