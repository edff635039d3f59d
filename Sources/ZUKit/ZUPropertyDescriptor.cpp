#include "ZUPropertyDescriptor.h"

namespace velvox {

VX_DEFINE_CLASS(ZUPropertyDescriptor, Object)

ZUPropertyDescriptor::ZUPropertyDescriptor(Ref<String>&& keyPath, Ref<String>&& source, RefPtr<String>&& transformerName)
    : m_keyPath(std::move(keyPath))
    , m_source(std::move(source))
    , m_transformerName(std::move(transformerName))
{
}

Ref<ZUPropertyDescriptor> ZUPropertyDescriptor::descriptorForKeyPath(std::string_view keyPath)
{
    auto path = String::create(keyPath);
    return adoptRef(*new ZUPropertyDescriptor(Ref<String>(path), std::move(path), nullptr));
}

Ref<ZUPropertyDescriptor> ZUPropertyDescriptor::descriptorForKeyPath(std::string_view keyPath, std::string_view source)
{
    return adoptRef(*new ZUPropertyDescriptor(String::create(keyPath), String::create(source), nullptr));
}

Ref<ZUPropertyDescriptor> ZUPropertyDescriptor::descriptorForKeyPath(std::string_view keyPath, std::string_view source, std::string_view transformer)
{
    return adoptRef(*new ZUPropertyDescriptor(String::create(keyPath), String::create(source), String::create(transformer)));
}

RefPtr<ValueTransformer> ZUPropertyDescriptor::transformer() const
{
    if (!m_transformerName)
        return nullptr;
    return ValueTransformer::valueTransformerForName(m_transformerName->view());
}

ValueTransformer* ZUPropertyDescriptor::cachedTransformer() const
{
    if (!m_transformerName)
        return nullptr;
    uint64_t generation = ValueTransformer::registrationGeneration();
    if (generation != m_cachedGeneration) {
        m_cachedTransformer = transformer();
        m_cachedGeneration = generation;
    }
    return m_cachedTransformer.get();
}

ZUPropertyAccessor::Comparison ZUPropertyAccessor::compare(const ZUObject& object, Object* value) const
{
    auto coerced = coerce(value);
    if (!coerced)
        return Comparison::Unacceptable;
    return objectsEqual(get(object).get(), coerced->get()) ? Comparison::Equal : Comparison::Different;
}

void ZUPropertyAccessor::assign(ZUObject& object, Object* value) const
{
    if (auto coerced = coerce(value))
        set(object, coerced->get());
}

bool ZUPropertyAccessor::fill(ZUObject& object, Object* value, RefPtr<Object>&& made) const
{
    switch (compare(object, value)) {
    case Comparison::Unacceptable:
        return false;
    case Comparison::Equal:
        return true;
    case Comparison::Different:
        break;
    }
    if (made)
        assignTaking(object, std::move(made));
    else
        assign(object, value);
    return true;
}

const ZUPropertyAccessor& ZUPropertyDescriptor::accessor() const
{
    VXAssert(m_accessor, "The property descriptor for %@ is not bound to a member.", m_keyPath);
    return *m_accessor;
}

Ref<String> ZUPropertyDescriptor::description() const
{
    return String::format("<%@ 0x%08X keyPath = %@ | source = %@ | transformer = %@>", className(), this, m_keyPath, m_source, m_transformerName);
}

} // namespace velvox
