#include "ZUObject.h"

#include <Platform/Format.h>

namespace velvox {

VX_DEFINE_CLASS(ZUObject, Object)

ZUObject::ZUObject() = default;
ZUObject::~ZUObject()
{
    if (m_observations) {
        for (auto& observation : *m_observations)
            observation->owner = nullptr;
    }
}

Set& ZUObject::propertyDescriptors()
{
    static Set* set = Set::create().leakRef();
    return *set;
}

bool ZUObject::applyDescriptor(const ZUPropertyDescriptor& descriptor, Object* jsonValue, bool announce)
{
    // A JSON null is an absent value to transformers and properties alike.
    RefPtr<Object> value = is<Null>(jsonValue) ? nullptr : jsonValue;
    if (descriptor.transformerName()) {
        auto transformer = descriptor.transformer();
        VXAssert(transformer, "No value transformer is registered under %@ (for %@ of %@).", descriptor.transformerName(),
            &descriptor.keyPath(), className());
        value = transformer->transformedValue(value.get());
    }
    auto& accessor = descriptor.accessor();
    auto coerced = accessor.coerce(value.get());
    if (!coerced) {
        VXLog("ZUObject - %@: ignoring a value of class %@ for %@, which takes %s.", className(), value ? value->className() : "(null)",
            &descriptor.keyPath(), accessor.typeName());
        return false;
    }
    auto old = accessor.get(*this);
    if (objectsEqual(old.get(), coerced->get()))
        return false;
    if (announce)
        willChangeValueForKey(descriptor.keyPath().view());
    accessor.set(*this, coerced->get());
    if (announce)
        didChangeValueForKey(descriptor.keyPath().view());
    return true;
}

void ZUObject::initWithDictionary(Dictionary* dictionary)
{
    if (!dictionary)
        return;
    for (auto* object : descriptors()) {
        auto& descriptor = *static_cast<ZUPropertyDescriptor*>(object);
        if (auto* value = dictionary->objectForKey(&descriptor.source()))
            applyDescriptor(descriptor, value, false);
    }
}

bool ZUObject::updateWithDictionary(Dictionary* dictionary)
{
    if (!dictionary)
        return false;
    Ref protectedThis { *this }; // an observer may drop the last other reference
    bool changed = false;
    for (auto* object : descriptors()) {
        auto& descriptor = *static_cast<ZUPropertyDescriptor*>(object);
        if (auto* value = dictionary->objectForKey(&descriptor.source()))
            changed |= applyDescriptor(descriptor, value, true);
    }
    return changed;
}

const ZUPropertyAccessor* ZUObject::accessorForKey(std::string_view key) const
{
    for (auto* object : descriptors()) {
        auto& descriptor = *static_cast<ZUPropertyDescriptor*>(object);
        if (descriptor.keyPath().view() == key)
            return &descriptor.accessor();
    }
    return nullptr;
}

namespace {

[[noreturn]] void raiseUndefinedKey(const ZUObject& object, std::string_view key)
{
    Exception::raise(UndefinedKeyException, "[<%@ 0x%08X> valueForUndefinedKey:]: this class is not key value coding-compliant for the key %@.",
        object.className(), &object, key);
}

} // namespace

RefPtr<Object> ZUObject::valueForKey(std::string_view key) const
{
    auto* accessor = accessorForKey(key);
    if (!accessor)
        raiseUndefinedKey(*this, key);
    return accessor->get(*this);
}

RefPtr<Object> ZUObject::valueForKeyPath(std::string_view keyPath) const
{
    size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos)
        return valueForKey(keyPath);
    auto head = valueForKey(keyPath.substr(0, dot));
    auto rest = keyPath.substr(dot + 1);
    if (auto* model = dynamicDowncast<ZUObject>(head.get()))
        return model->valueForKeyPath(rest);
    if (auto* dictionary = dynamicDowncast<Dictionary>(head.get())) {
        // Dictionaries answer one key; deeper paths continue below it.
        size_t next = rest.find('.');
        auto* value = dictionary->objectForKey(rest.substr(0, next));
        if (next == std::string_view::npos || !value)
            return value;
        if (auto* model = dynamicDowncast<ZUObject>(value))
            return model->valueForKeyPath(rest.substr(next + 1));
        return nullptr;
    }
    return nullptr;
}

void ZUObject::setValue(Object* value, std::string_view key)
{
    auto* accessor = accessorForKey(key);
    if (!accessor)
        Exception::raise(UndefinedKeyException, "[<%@ 0x%08X> setValue:forUndefinedKey:]: this class is not key value coding-compliant for the key %@.",
            className(), this, key);
    auto coerced = accessor->coerce(value);
    if (!coerced)
        Exception::raise(InvalidArgumentException, "[<%@ 0x%08X> setValue:forKey:]: a value of class %@ cannot be set for the key %@, which takes %s.",
            className(), this, value ? value->className() : "(null)", key, accessor->typeName());
    Ref protectedThis { *this };
    willChangeValueForKey(key);
    accessor->set(*this, coerced->get());
    didChangeValueForKey(key);
}

Subscription ZUObject::addObserver(std::string_view key, Observer observer)
{
    if (!m_observations)
        m_observations = std::make_unique<std::vector<std::shared_ptr<Observation>>>();
    auto observation = std::make_shared<Observation>(Observation { std::string(key), std::make_shared<Observer>(std::move(observer)), this });
    m_observations->push_back(observation);
    return Subscription([observation] {
        if (observation->owner)
            observation->owner->removeObservation(observation.get());
        observation->observer = nullptr;
    });
}

void ZUObject::removeObservation(Observation* observation)
{
    observation->owner = nullptr;
    std::erase_if(*m_observations, [&](auto& entry) { return entry.get() == observation; });
}

void ZUObject::willChangeValueForKey(std::string_view)
{
    // Observers are told after the change only; nothing to do before it.
}

void ZUObject::didChangeValueForKey(std::string_view key)
{
    if (!m_observations || m_observations->empty())
        return;
    std::vector<std::pair<std::shared_ptr<Observation>, std::shared_ptr<Observer>>> matching;
    for (auto& observation : *m_observations) {
        if (observation->key == key)
            matching.emplace_back(observation, observation->observer);
    }
    if (matching.empty())
        return;
    Ref protectedThis { *this };
    auto keyString = String::create(key);
    for (auto& [observation, observer] : matching) {
        // Removed by an earlier observer of this change: not called.
        if (observation->owner)
            (*observer)(*this, keyString);
    }
}

void ZUObject::encodeWithCoder(KeyedArchiver& coder) const
{
    for (auto* object : descriptors()) {
        auto& descriptor = *static_cast<ZUPropertyDescriptor*>(object);
        if (auto value = descriptor.accessor().get(*this))
            coder.encodeObject(value.get(), descriptor.keyPath().view());
    }
}

void ZUObject::initWithCoder(KeyedUnarchiver& coder)
{
    for (auto* object : descriptors()) {
        auto& descriptor = *static_cast<ZUPropertyDescriptor*>(object);
        if (!coder.containsValueForKey(descriptor.keyPath().view()))
            continue;
        auto value = coder.decodeObjectForKey(descriptor.keyPath().view());
        if (auto coerced = descriptor.accessor().coerce(value.get()))
            descriptor.accessor().set(*this, coerced->get());
    }
}

Ref<String> ZUObject::description() const
{
    return String::format("<%@ 0x%08X>", className(), this);
}

} // namespace velvox
