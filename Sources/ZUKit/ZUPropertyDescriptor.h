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

// Reads and writes one property of an object as an Object: scalars travel as
// Numbers. coerce() turns an incoming value into the form the property takes
// (and get() then answers), or nullopt when the property cannot take it.
class ZUPropertyAccessor {
public:
    virtual ~ZUPropertyAccessor() = default;
    virtual RefPtr<Object> get(const ZUObject&) const = 0;
    virtual void set(ZUObject&, Object* coercedValue) const = 0;
    virtual std::optional<RefPtr<Object>> coerce(Object* value) const = 0;
    virtual const ClassInfo& ownerClass() const = 0;
    virtual const char* typeName() const = 0;
};

namespace detail {

template<typename T>
struct IsRefPtr : std::false_type { };
template<typename T>
struct IsRefPtr<RefPtr<T>> : std::true_type {
    using Element = T;
};

bool answersNumericValue(const Object*);

// Coercion of an incoming value to a member type.
template<typename Member>
std::optional<RefPtr<Object>> coerceTo(Object* value)
{
    if constexpr (IsRefPtr<Member>::value) {
        using Element = typename IsRefPtr<Member>::Element;
        if (!value || is<Null>(value))
            return RefPtr<Object> {};
        if (is<Element>(value))
            return RefPtr<Object>(value);
        if constexpr (std::is_same_v<Element, String>) {
            if (auto* number = dynamicDowncast<Number>(value))
                return RefPtr<Object>(number->stringValue());
        }
        return std::nullopt;
    } else {
        static_assert(std::is_arithmetic_v<Member> || std::is_enum_v<Member>, "a described member is a RefPtr or a scalar");
        if (!value || is<Null>(value))
            return RefPtr<Object>(Number::create(Member {}));
        if (!answersNumericValue(value))
            return std::nullopt;
        auto* number = dynamicDowncast<Number>(value);
        auto* string = dynamicDowncast<String>(value);
        if constexpr (std::is_same_v<Member, bool>)
            return RefPtr<Object>(Number::withBool(number ? number->boolValue() : string->boolValue()));
        else if constexpr (std::is_floating_point_v<Member>)
            return RefPtr<Object>(Number::withDouble(number ? number->doubleValue() : string->doubleValue()));
        else if constexpr (std::is_enum_v<Member>)
            return RefPtr<Object>(Number::withInteger(number ? number->intValue() : string->intValue()));
        else if constexpr (std::is_unsigned_v<Member>)
            return RefPtr<Object>(Number::withUnsignedInteger(static_cast<Member>(number ? number->unsignedLongLongValue() : static_cast<uint64_t>(string->integerValue()))));
        else
            return RefPtr<Object>(Number::withInteger(static_cast<Member>(number ? number->integerValue() : string->integerValue())));
    }
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
void unbox(Member& member, Object* coerced)
{
    if constexpr (IsRefPtr<Member>::value)
        member = static_cast<typename IsRefPtr<Member>::Element*>(coerced);
    else {
        auto* number = downcast<Number>(coerced);
        if constexpr (std::is_same_v<Member, bool>)
            member = number->boolValue();
        else if constexpr (std::is_floating_point_v<Member>)
            member = static_cast<Member>(number->doubleValue());
        else if constexpr (std::is_enum_v<Member>)
            member = static_cast<Member>(number->integerValue());
        else if constexpr (std::is_unsigned_v<Member>)
            member = static_cast<Member>(number->unsignedLongLongValue());
        else
            member = static_cast<Member>(number->integerValue());
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
    void set(ZUObject& object, Object* coercedValue) const override { unbox(const_cast<Owner&>(owner(object)).*m_member, coercedValue); }
    std::optional<RefPtr<Object>> coerce(Object* value) const override { return coerceTo<Member>(value); }
    const ClassInfo& ownerClass() const override { return Owner::s_info; }
    const char* typeName() const override { return memberTypeName<Member>(); }

private:
    static const Owner& owner(const ZUObject& object) { return static_cast<const Owner&>(object); }
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
    // Raises when the descriptor was never bound.
    const ZUPropertyAccessor& accessor() const;

    Ref<String> description() const override;

private:
    ZUPropertyDescriptor(Ref<String>&& keyPath, Ref<String>&& source, RefPtr<String>&& transformerName);

    Ref<String> m_keyPath;
    Ref<String> m_source;
    RefPtr<String> m_transformerName;
    std::unique_ptr<ZUPropertyAccessor> m_accessor;
};

} // namespace velvox
