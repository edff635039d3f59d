#include "CollectionSupport.h"

#include "Exception.h"
#include "String.h"

#include <unordered_set>
#include <utility>

namespace velvox {

void collectionMutatedDuringEnumeration(const Object& collection)
{
    Exception::raise(GenericException, "*** Collection <%s: 0x%08X> was mutated while being enumerated.", collection.className(),
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(&collection)));
}

void raiseIndexBeyondBounds(const Object& collection, const char* selector, size_t index, size_t bound)
{
    Exception::raise(RangeException, "*** -[%s %s]: index (%lu) beyond bounds (%lu)", collection.className(), selector, index, bound);
}

void raiseInsertNil(const Object& collection, const char* selector)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil", collection.className(), selector);
}

void raiseInsertNilKey(const Object& dictionary)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil key", dictionary.className(), "setObject:forKey:");
}

void raiseInsertNilValue(const Object& dictionary, const Object* key)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil value (key: %@)", dictionary.className(), "setObject:forKey:", key);
}

namespace detail {

namespace {

struct PairHash {
    size_t operator()(const std::pair<const Object*, const Object*>& pair) const noexcept
    {
        return std::hash<const void*>()(pair.first) * 31 + std::hash<const void*>()(pair.second);
    }
};

thread_local unsigned t_comparisonDepth = 0;
thread_local std::unordered_set<std::pair<const Object*, const Object*>, PairHash>* t_equalPairs = nullptr;

} // namespace

CollectionComparison::CollectionComparison(const Object* a, const Object* b)
    : m_a(a)
    , m_b(b)
{
    ++t_comparisonDepth;
}

CollectionComparison::~CollectionComparison()
{
    if (--t_comparisonDepth == 0 && t_equalPairs) {
        delete t_equalPairs;
        t_equalPairs = nullptr;
    }
}

bool CollectionComparison::knownEqual() const
{
    return t_equalPairs && t_equalPairs->count({ m_a, m_b });
}

void CollectionComparison::markEqual()
{
    // The outermost comparison is over when this is asked: nothing to remember for it.
    if (t_comparisonDepth < 2)
        return;
    if (!t_equalPairs)
        t_equalPairs = new std::unordered_set<std::pair<const Object*, const Object*>, PairHash>;
    t_equalPairs->insert({ m_a, m_b });
}

} // namespace detail

namespace detail {

namespace {

struct DescriptionState {
    int depth { 0 };
    size_t spent { 0 };
};
thread_local DescriptionState t_description;

constexpr int maximumDescriptionDepth = 100;
constexpr size_t maximumDescriptionLength = 4 * 1024 * 1024;

} // namespace

DescriptionBudget::DescriptionBudget()
{
    if (t_description.depth++ == 0)
        t_description.spent = 0;
}

DescriptionBudget::~DescriptionBudget()
{
    --t_description.depth;
}

bool DescriptionBudget::exhausted() const
{
    return t_description.depth > maximumDescriptionDepth || t_description.spent > maximumDescriptionLength;
}

void DescriptionBudget::spend(size_t characters)
{
    t_description.spent += characters;
}

} // namespace detail

} // namespace velvox
