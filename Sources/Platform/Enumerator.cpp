#include "Enumerator.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(Enumerator, Object)

Ref<Array> Enumerator::allObjects()
{
    auto result = MutableArray::create();
    while (auto* object = nextObject())
        result->addObject(object);
    return result->copy();
}

} // namespace velvox
