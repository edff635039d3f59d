#pragma once

// A property descriptor maps one model property to a JSON key, optionally
// through a registered value transformer, and knows how to read and write
// that property on an object: it is bound to the typed member it fills. A
// class's set of descriptors drives filling, refreshing, key-value coding and
// archiving of its objects; no code is written per property.

#include <Platform/Collections.h>
#include <Platform/Exception.h>
#include <Platform/Format.h>
#include <Platform/Number.h>
#include <Platform/String.h>
#include <Platform/ValueTransformer.h>

#include <atomic>
#include <memory>
#include <optional>
#include <type_traits>

namespace velvox {

class ZUObject;

// Reads and writes one property of an object. get() and set() move values as
// Objects (scalars travel as Numbers) for key-value coding and archiving;
// coerce() turns an incoming value into the form the property takes (and
// get() then answers), or nullopt when the property cannot take it.
// compare() and assign() are the filling path: they take the incoming value
// as it is and compare and store scalars without boxing them.
class ZUPropertyAccessor {
public:
    virtual ~ZUPropertyAccessor() = default;
    virtual RefPtr<Object> get(const ZUObject&) const = 0;
    virtual void set(ZUObject&, Object* coercedValue) const = 0;
    virtual std::optional<RefPtr<Object>> coerce(Object* value) const = 0;
    virtual const ClassInfo& ownerClass() const = 0;
    virtual const char* typeName() const = 0;

    enum class Comparison { Equal,
        Different,
        Unacceptable };
    // How an incoming value compares with the property's; the default goes through coerce() and get().
    virtual Comparison compare(const ZUObject&, Object* value) const;
    // Stores an incoming value that compare() found acceptable.
    virtual void assign(ZUObject&, Object* value) const;
    // The same for a value made for the property (a transformer's result):
    // its reference moves into the member when the kinds agree.
    virtual void assignTaking(ZUObject& object, RefPtr<Object>&& value) const { assign(object, value.get()); }
    // An object's first fill: stores `value` (which is `made.get()` when a
    // transformer made it) unless the property cannot take it, and answers
    // whether it could. The default compares first, as a refresh does.
    virtual bool fill(ZUObject&, Object* value, RefPtr<Object>&& made) const;
    // The object a property holds, without taking a reference (null for a
    // scalar or an empty property), for measuring many objects cheaply; false
    // when the accessor cannot tell, and get() must be asked.
    virtual bool peekObject(const ZUObject&, const Object*& object) const
    {
        object = nullptr;
        return false;
    }
};

namespace detail {

template<typename T>
struct IsRefPtr : std::false_type {
};
template<typename T>
struct IsRefPtr<RefPtr<T>> : std::true_type {
    using Element = T;
};

// The value a scalar member takes from an incoming value (absent and null
// give zero), or nullopt when it cannot take it.
template<typename Member>
std::optional<Member> scalarFrom(Object* value)
{
    static_assert(std::is_arithmetic_v<Member> || std::is_enum_v<Member>, "a described member is a RefPtr or a scalar");
    if (!value || is<Null>(value))
        return Member {};
    auto* number = dynamicDowncast<Number>(value);
    auto* string = number ? nullptr : dynamicDowncast<String>(value);
    if (!number && !string)
        return std::nullopt;
    if constexpr (std::is_same_v<Member, bool>)
        return number ? number->boolValue() : string->boolValue();
    else if constexpr (std::is_floating_point_v<Member>)
        return static_cast<Member>(number ? number->doubleValue() : string->doubleValue());
    else if constexpr (std::is_enum_v<Member>)
        return static_cast<Member>(number ? number->intValue() : string->intValue());
    else if constexpr (std::is_unsigned_v<Member>)
        return static_cast<Member>(number ? number->unsignedLongLongValue() : static_cast<uint64_t>(string->integerValue()));
    else
        return static_cast<Member>(number ? number->integerValue() : string->integerValue());
}

// The object an object member takes from an incoming value: itself when of
// the member's kind, a number's text for a string member, null for absent and
// null; nullopt when it cannot take it.
template<typename Element>
std::optional<RefPtr<Element>> objectFrom(Object* value)
{
    if (!value || is<Null>(value))
        return RefPtr<Element> {};
    if (auto* typed = dynamicDowncast<Element>(value))
        return RefPtr<Element>(typed);
    if constexpr (std::is_same_v<Element, String>) {
        if (auto* number = dynamicDowncast<Number>(value))
            return RefPtr<Element>(number->stringValue());
    }
    return std::nullopt;
}

template<typename Member>
RefPtr<Object> boxed(const Member& member)
{
    if constexpr (IsRefPtr<Member>::value)
        return member;
    else if constexpr (std::is_enum_v<Member>)
        return Number::withInteger(static_cast<int64_t>(member));
    else
        return Number::create(member);
}

template<typename Member>
std::optional<RefPtr<Object>> coerceTo(Object* value)
{
    if constexpr (IsRefPtr<Member>::value) {
        if (auto object = objectFrom<typename IsRefPtr<Member>::Element>(value))
            return RefPtr<Object>(std::move(*object));
        return std::nullopt;
    } else {
        if (auto scalar = scalarFrom<Member>(value))
            return boxed(*scalar);
        return std::nullopt;
    }
}

template<typename Member>
const char* memberTypeName()
{
    if constexpr (IsRefPtr<Member>::value)
        return IsRefPtr<Member>::Element::s_info.name;
    else if constexpr (std::is_same_v<Member, bool>)
        return "bool";
    else if constexpr (std::is_floating_point_v<Member>)
        return "double";
    else
        return "integer";
}

template<typename Owner, typename Member>
class ZUMemberAccessor final : public ZUPropertyAccessor {
public:
    explicit ZUMemberAccessor(Member Owner::*member)
        : m_member(member)
    {
    }
    RefPtr<Object> get(const ZUObject& object) const override { return boxed(owner(object).*m_member); }
    bool peekObject(const ZUObject& object, const Object*& value) const override
    {
        if constexpr (IsRefPtr<Member>::value)
            value = (owner(object).*m_member).get();
        else
            value = nullptr;
        return true;
    }
    void set(ZUObject& object, Object* coercedValue) const override { assign(object, coercedValue); }
    std::optional<RefPtr<Object>> coerce(Object* value) const override { return coerceTo<Member>(value); }
    const ClassInfo& ownerClass() const override { return Owner::s_info; }
    const char* typeName() const override { return memberTypeName<Member>(); }

    Comparison compare(const ZUObject& object, Object* value) const override
    {
        auto& member = owner(object).*m_member;
        if constexpr (IsRefPtr<Member>::value) {
            using Element = typename IsRefPtr<Member>::Element;
            if (!value || is<Null>(value))
                return member ? Comparison::Different : Comparison::Equal;
            if (is<Element>(value))
                return objectsEqual(member.get(), value) ? Comparison::Equal : Comparison::Different;
            auto taken = objectFrom<Element>(value);
            if (!taken)
                return Comparison::Unacceptable;
            return objectsEqual(member.get(), taken->get()) ? Comparison::Equal : Comparison::Different;
        } else {
            auto scalar = scalarFrom<Member>(value);
            if (!scalar)
                return Comparison::Unacceptable;
            return member == *scalar ? Comparison::Equal : Comparison::Different;
        }
    }
    // A member has no setter to run: nothing to compare before storing.
    bool fill(ZUObject& object, Object* value, RefPtr<Object>&& made) const override
    {
        if (adoptMade(object, made))
            return true;
        auto& member = const_cast<Owner&>(owner(object)).*m_member;
        if constexpr (IsRefPtr<Member>::value) {
            auto taken = objectFrom<typename IsRefPtr<Member>::Element>(value);
            if (!taken)
                return false;
            member = std::move(*taken);
        } else {
            auto scalar = scalarFrom<Member>(value);
            if (!scalar)
                return false;
            member = *scalar;
        }
        return true;
    }
    void assignTaking(ZUObject& object, RefPtr<Object>&& value) const override
    {
        if (!adoptMade(object, value))
            assign(object, value.get());
    }
    void assign(ZUObject& object, Object* value) const override
    {
        auto& member = const_cast<Owner&>(owner(object)).*m_member;
        if constexpr (IsRefPtr<Member>::value) {
            if (auto taken = objectFrom<typename IsRefPtr<Member>::Element>(value))
                member = std::move(*taken);
        } else {
            if (auto scalar = scalarFrom<Member>(value))
                member = *scalar;
        }
    }

private:
    static const Owner& owner(const ZUObject& object) { return static_cast<const Owner&>(object); }
    // Moves a value made for the property into a reference member of its
    // kind, without touching its count; answers whether it did.
    bool adoptMade(ZUObject& object, RefPtr<Object>& made) const
    {
        if constexpr (IsRefPtr<Member>::value) {
            using Element = typename IsRefPtr<Member>::Element;
            if (is<Element>(made.get())) {
                const_cast<Owner&>(owner(object)).*m_member = adoptRef(static_cast<Element*>(made.leakRef()));
                return true;
            }
        }
        return false;
    }
    Member Owner::*m_member;
};

} // namespace detail

class ZUPropertyDescriptor final : public Object {
    VX_OBJECT(ZUPropertyDescriptor)
public:
    // The JSON key is the key path; no transformer.
    static Ref<ZUPropertyDescriptor> descriptorForKeyPath(std::string_view keyPath);
    static Ref<ZUPropertyDescriptor> descriptorForKeyPath(std::string_view keyPath, std::string_view source);
    // `transformer` is the registered name of a value transformer.
    static Ref<ZUPropertyDescriptor> descriptorForKeyPath(std::string_view keyPath, std::string_view source, std::string_view transformer);

    // Binds the descriptor to the member it fills; answers the descriptor.
    template<typename Owner, typename Member>
    Ref<ZUPropertyDescriptor> bind(Member Owner::*member)
    {
        m_accessor = std::make_unique<detail::ZUMemberAccessor<Owner, Member>>(member);
        return *this;
    }
    // Binds it to an accessor of the caller's own.
    Ref<ZUPropertyDescriptor> bind(std::unique_ptr<ZUPropertyAccessor> accessor)
    {
        m_accessor = std::move(accessor);
        return *this;
    }

    String& keyPath() const { return m_keyPath; }
    String& source() const { return m_source; }
    // Null when the descriptor names no transformer.
    String* transformerName() const { return m_transformerName.get(); }
    // The transformer registered under the name now, or null.
    RefPtr<ValueTransformer> transformer() const;
    // The same, looked up once and again only after a registration changed
    // the registry. For the filling path, on the thread that fills models.
    ValueTransformer* cachedTransformer() const;
    // Raises when the descriptor was never bound.
    const ZUPropertyAccessor& accessor() const;

    Ref<String> description() const override;

private:
    ZUPropertyDescriptor(Ref<String>&& keyPath, Ref<String>&& source, RefPtr<String>&& transformerName);

    Ref<String> m_keyPath;
    Ref<String> m_source;
    RefPtr<String> m_transformerName;
    std::unique_ptr<ZUPropertyAccessor> m_accessor;
    mutable RefPtr<ValueTransformer> m_cachedTransformer;
    mutable uint64_t m_cachedGeneration { 0 };
};

} // namespace velvox
