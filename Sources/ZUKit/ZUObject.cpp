#include "ZUObject.h"

#include <Platform/Format.h>
#include <Platform/ValueTransformer.h>
#include <Platform/Values.h>

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

const ZUPropertyTable& ZUObject::propertyTable() const
{
    static const ZUPropertyTable table(propertyDescriptors());
    return table;
}

Ref<ZUPropertyDescriptor> detail::describeProperty(std::string_view name, std::string_view key, std::string_view transformer)
{
    // The three constructors, as a class listing its descriptors by hand would use them.
    if (!transformer.empty())
        return ZUPropertyDescriptor::descriptorForKeyPath(name, key, transformer);
    if (key == name)
        return ZUPropertyDescriptor::descriptorForKeyPath(name);
    return ZUPropertyDescriptor::descriptorForKeyPath(name, key);
}

namespace {

// Raw JSON values that every transformer treats alike: the same object, equal
// strings, or numbers of one kind and value (a boolean and a 1 may differ).
bool sameRawValue(const Object* applied, const Object* incoming)
{
    if (applied == incoming)
        return true;
    if (!applied || !incoming)
        return false;
    if (auto* string = dynamicDowncast<String>(applied))
        return is<String>(incoming) && string->isEqual(incoming);
    if (auto* number = dynamicDowncast<Number>(applied)) {
        auto* other = dynamicDowncast<Number>(incoming);
        return other && number->objCType() == other->objCType() && number->isBoolean() == other->isBoolean() && number->isEqual(other);
    }
    return false;
}

} // namespace

namespace {

ZUObject::UnreadableValue& unreadableValue()
{
    thread_local ZUObject::UnreadableValue value;
    return value;
}

} // namespace

const ZUObject::UnreadableValue& ZUObject::lastUnreadableValue()
{
    return unreadableValue();
}

void ZUObject::clearUnreadableValue()
{
    unreadableValue() = {};
}

void ZUObject::noteUnreadableValue(std::string_view className, std::string_view key)
{
    unreadableValue() = { std::string(className), std::string(key) };
}

void ZUObject::rememberAppliedValue(size_t index, Object* jsonValue)
{
    uint64_t generation = ValueTransformer::registrationGeneration();
    if (!m_appliedValues || m_appliedGeneration != generation) {
        m_appliedValues = std::make_unique<RefPtr<Object>[]>(propertyTable().descriptors().size());
        m_appliedGeneration = generation;
    }
    m_appliedValues[index] = jsonValue;
}

bool ZUObject::applyDescriptor(const ZUPropertyDescriptor& descriptor, size_t index, Object* jsonValue, bool announce)
{
    bool transforms = descriptor.transformerName();
    if (transforms && m_appliedValues && m_appliedGeneration == ValueTransformer::registrationGeneration()) {
        // The same raw value transforms to the same property value.
        auto* applied = m_appliedValues[index].get();
        if (applied && sameRawValue(applied, jsonValue))
            return false;
    }
    // A JSON null is an absent value to transformers and properties alike.
    Object* value = is<Null>(jsonValue) ? nullptr : jsonValue;
    RefPtr<Object> transformed;
    if (transforms) {
        auto* transformer = descriptor.cachedTransformer();
        VXAssert(transformer, "No value transformer is registered under %@ (for %@ of %@).", descriptor.transformerName(),
            &descriptor.keyPath(), className());
        try {
            transformed = transformer->transformedValue(value);
        } catch (...) {
            noteUnreadableValue(className(), descriptor.source().view());
            throw;
        }
        value = transformed.get();
    }
    auto& accessor = descriptor.accessor();
    auto refuse = [&] {
        VXLog("ZUObject - %@: ignoring a value of class %@ for %@, which takes %s.", className(), value ? value->className() : "(null)",
            &descriptor.keyPath(), accessor.typeName());
        return false;
    };
    if (!announce) {
        // A first fill: no observer to tell, nothing to remember.
        return accessor.fill(*this, value, std::move(transformed)) || refuse();
    }
    switch (accessor.compare(*this, value)) {
    case ZUPropertyAccessor::Comparison::Equal:
        if (transforms)
            rememberAppliedValue(index, jsonValue);
        return false;
    case ZUPropertyAccessor::Comparison::Unacceptable:
        return refuse();
    case ZUPropertyAccessor::Comparison::Different:
        break;
    }
    willChangeValueForKey(descriptor.keyPath().view());
    if (transformed)
        accessor.assignTaking(*this, std::move(transformed));
    else
        accessor.assign(*this, value);
    // Refreshes remember raw values; a new object's first fill does not (it
    // pays for no memo until it is refreshed).
    if (transforms)
        rememberAppliedValue(index, jsonValue);
    didChangeValueForKey(descriptor.keyPath().view());
    return true;
}

template<typename Apply>
void ZUObject::forEachDescribedValue(const Dictionary& dictionary, Apply&& apply) const
{
    auto& table = propertyTable();
    auto descriptors = table.descriptors();
    // A dictionary whose walk finds what its lookups find (a decoded record)
    // is walked once; anything else is asked per key.
    constexpr size_t gatherLimit = 128;
    if (descriptors.size() <= gatherLimit && dictionary.walkFindsWhatLookupsFind()) {
        Object* values[gatherLimit];
        table.gatherValues(dictionary, values);
        for (size_t i = 0; i < descriptors.size(); ++i) {
            if (values[i])
                apply(*descriptors[i], i, values[i]);
        }
        return;
    }
    for (size_t i = 0; i < descriptors.size(); ++i) {
        if (auto* value = dictionary.objectForKey(&descriptors[i]->source()))
            apply(*descriptors[i], i, value);
    }
}

void ZUObject::initWithDictionary(Dictionary* dictionary)
{
    if (!dictionary)
        return;
    forEachDescribedValue(*dictionary, [&](const ZUPropertyDescriptor& descriptor, size_t index, Object* value) {
        applyDescriptor(descriptor, index, value, false);
    });
}

bool ZUObject::updateWithDictionary(Dictionary* dictionary)
{
    if (!dictionary)
        return false;
    Ref protectedThis { *this }; // an observer may drop the last other reference
    bool changed = false;
    forEachDescribedValue(*dictionary, [&](const ZUPropertyDescriptor& descriptor, size_t index, Object* value) {
        changed |= applyDescriptor(descriptor, index, value, true);
    });
    return changed;
}

const ZUPropertyAccessor* ZUObject::accessorForKey(std::string_view key) const
{
    auto* descriptor = propertyTable().descriptorForKeyPath(key);
    return descriptor ? &descriptor->accessor() : nullptr;
}

RefPtr<Object> ZUObject::valueForKey(std::string_view key) const
{
    auto* accessor = accessorForKey(key);
    if (!accessor)
        return Object::valueForKey(key); // raises
    return accessor->get(*this);
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
    forgetAppliedValues();
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
    ++m_changeCount;
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
    for (auto* descriptor : propertyTable().descriptors()) {
        if (auto value = descriptor->accessor().get(*this))
            coder.encodeObject(value.get(), descriptor->keyPath().view());
    }
}

void ZUObject::initWithCoder(KeyedUnarchiver& coder)
{
    for (auto* descriptor : propertyTable().descriptors()) {
        if (!coder.containsValueForKey(descriptor->keyPath().view()))
            continue;
        auto value = coder.decodeObjectForKey(descriptor->keyPath().view());
        auto& accessor = descriptor->accessor();
        if (accessor.compare(*this, value.get()) != ZUPropertyAccessor::Comparison::Unacceptable)
            accessor.assign(*this, value.get());
    }
}

Ref<String> ZUObject::description() const
{
    return String::format("<%@ 0x%08X>", className(), this);
}

} // namespace velvox
