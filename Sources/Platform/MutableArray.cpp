#include "MutableArray.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(MutableArray, Array)

Ref<MutableArray> MutableArray::create(size_t capacity)
{
    return adoptRef(*new PlainMutableArray(capacity));
}

void MutableArray::addObjectsFromArray(const Array& array)
{
    size_t n = array.count();
    for (size_t i = 0; i < n; ++i)
        addObject(array.objectAtIndex(i));
}

void MutableArray::removeLastObject()
{
    if (size_t n = count())
        removeObjectAtIndex(n - 1);
}

void MutableArray::removeObject(const Object* object)
{
    for (size_t i = count(); i-- > 0;) {
        if (objectsEqual(objectAtIndex(i), object))
            removeObjectAtIndex(i);
    }
}

void MutableArray::removeAllObjects()
{
    while (size_t n = count())
        removeObjectAtIndex(n - 1);
}

Ref<Object> MutableArray::copyObject() const
{
    size_t n = count();
    std::vector<Ref<Object>> refs;
    refs.reserve(n);
    for (size_t i = 0; i < n; ++i)
        refs.emplace_back(*objectAtIndex(i));
    return Array::create(std::move(refs));
}

} // namespace velvox
