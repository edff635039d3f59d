#include "Set.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(Set, Object)

Ref<Set> Set::create()
{
    return adoptRef(*new PlainSet({}));
}

Ref<Set> Set::create(std::span<Object* const> objects)
{
    return adoptRef(*new PlainSet(objects));
}

Ref<Array> Set::allObjects() const
{
    std::vector<Ref<Object>> objects;
    objects.reserve(count());
    for (auto* object : *this)
        objects.emplace_back(*object);
    return Array::create(std::move(objects));
}

Ref<Set> Set::copy() const
{
    return *downcast<Set>(copyObject().ptr());
}

Ref<MutableSet> Set::mutableCopy() const
{
    auto copy = MutableSet::create(count());
    for (auto* object : *this)
        copy->addObject(object);
    return copy;
}

Ref<String> Set::description() const
{
    detail::DescriptionBudget budget;
    if (budget.exhausted())
        return String::create("…");
    std::string text = "{(";
    bool first = true;
    for (auto* object : *this) {
        text += first ? "\n    " : ",\n    ";
        text += indented(object->description()->view());
        first = false;
    }
    text += "\n)}";
    budget.spend(text.size());
    return String::create(text);
}

bool Set::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* set = dynamicDowncast<Set>(other);
    if (!set || set->count() != count())
        return false;
    detail::CollectionComparison comparison(this, other);
    if (comparison.knownEqual())
        return true;
    for (auto* object : *this) {
        if (!set->member(object))
            return false;
    }
    comparison.markEqual();
    return true;
}

} // namespace velvox
