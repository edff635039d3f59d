#include "Array.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(Array, Object)

Ref<Array> Array::create()
{
    return adoptRef(*new PlainArray({}));
}

Ref<Array> Array::create(std::span<Object* const> objects)
{
    return adoptRef(*new PlainArray(refsFrom(objects)));
}

Ref<Array> Array::create(std::vector<Ref<Object>>&& objects)
{
    return adoptRef(*new PlainArray(std::move(objects)));
}

void Array::getObjects(Object** buffer, size_t location, size_t length) const
{
    size_t total = count();
    if (location > total || length > total - location)
        raiseIndexBeyondBounds(*this, "getObjects:range:", location + length, total);
    for (size_t i = 0; i < length; ++i)
        buffer[i] = objectAtIndex(location + i);
}

size_t Array::indexOfObject(const Object* object) const
{
    size_t n = count();
    for (size_t i = 0; i < n; ++i) {
        if (objectsEqual(objectAtIndex(i), object))
            return i;
    }
    return notFound;
}

Ref<String> Array::componentsJoinedByString(std::string_view separator) const
{
    std::string text;
    size_t n = count();
    for (size_t i = 0; i < n; ++i) {
        if (i)
            text.append(separator);
        text.append(objectAtIndex(i)->description()->view());
    }
    return String::create(text);
}

Ref<Array> Array::copy() const
{
    return *downcast<Array>(copyObject().ptr());
}

Ref<MutableArray> Array::mutableCopy() const
{
    size_t n = count();
    auto copy = MutableArray::create(n);
    for (size_t i = 0; i < n; ++i)
        copy->addObject(objectAtIndex(i));
    return copy;
}

Ref<String> Array::description() const
{
    detail::DescriptionBudget budget;
    if (budget.exhausted())
        return String::create("…");
    std::string text = "(";
    size_t n = count();
    for (size_t i = 0; i < n; ++i) {
        text += i ? ",\n    " : "\n    ";
        text += indented(objectAtIndex(i)->description()->view());
    }
    text += "\n)";
    budget.spend(text.size());
    return String::create(text);
}

bool Array::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* array = dynamicDowncast<Array>(other);
    if (!array || array->count() != count())
        return false;
    detail::CollectionComparison comparison(this, other);
    if (comparison.knownEqual())
        return true;
    size_t n = count();
    for (size_t i = 0; i < n; ++i) {
        if (!objectsEqual(objectAtIndex(i), array->objectAtIndex(i)))
            return false;
    }
    comparison.markEqual();
    return true;
}

} // namespace velvox
