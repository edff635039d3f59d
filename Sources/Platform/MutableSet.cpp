#include "MutableSet.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(MutableSet, Set)

Ref<MutableSet> MutableSet::create(size_t)
{
    return adoptRef(*new PlainMutableSet);
}

void MutableSet::removeAllObjects()
{
    // A snapshot that lives through the loop (a temporary would not).
    auto objects = allObjects();
    for (auto* object : *objects)
        removeObject(object);
}

Ref<Object> MutableSet::copyObject() const
{
    std::vector<Object*> objects;
    objects.reserve(count());
    for (auto* object : *this)
        objects.push_back(object);
    return Set::create(objects);
}

} // namespace velvox
