#pragma once

// The root of the object world: an intrusive, thread-safe reference count, a
// class-info record for kind tests and archive class names, and the identity
// operations (description, equality, hashing) that collections rely on.

#include "Ref.h"
#include "SmallAllocator.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace velvox {

class Coding;
class String;

struct ClassInfo {
    const char* name;
    const ClassInfo* parent;

    bool isSubclassOf(const ClassInfo& other) const
    {
        for (auto* info = this; info; info = info->parent) {
            if (info == &other)
                return true;
        }
        return false;
    }
};

// Declares the class-info record of a class; pair it with VX_DEFINE_CLASS in
// the class's source file. Leaves the access level at public.
#define VX_OBJECT(ClassName)                 \
public:                                      \
    static const ::velvox::ClassInfo s_info; \
    const ::velvox::ClassInfo* classInfo() const override { return &s_info; }

#define VX_DEFINE_CLASS(ClassName, ParentName) \
    const ::velvox::ClassInfo ClassName::s_info { #ClassName, &ParentName::s_info };

// A one-byte tag for the few classes that hot loops dispatch on (the
// encoder, tree walkers): a load from the object instead of a virtual call.
// Each tagged class declares its value where it lives (VX_OBJECT_TAG): the
// platform's own are named here, and a layer above the platform numbers its
// classes' tags from FirstLayerTag on (layerObjectTag), one value per class.
// Other classes answer Other; a subclass keeps its base's tag.
enum class ObjectTag : uint8_t {
    Other,
    String,
    Number,
    Null,
    FirstLayerTag,
};

constexpr ObjectTag layerObjectTag(uint8_t index)
{
    return static_cast<ObjectTag>(static_cast<uint8_t>(ObjectTag::FirstLayerTag) + index);
}

// Gives a class its own tag: its constructors set it (setTag(s_tag)), and
// kind tests of exactly this class answer from the tag alone (a subclass that
// keeps the tag is still told by its class info). Leaves the access level at
// public.
#define VX_OBJECT_TAG(ClassName, Value)                   \
public:                                                   \
    static constexpr ::velvox::ObjectTag s_tag { Value }; \
    using TaggedClass = ClassName;

class Object {
public:
    static const ClassInfo s_info;
    ObjectTag tag() const { return m_tag; }
    virtual const ClassInfo* classInfo() const { return &s_info; }

    // Immortal objects (the shared singletons) skip the count: their lines
    // stay clean and no atomic operation is spent on them.
    void ref() const
    {
        if (!isImmortal())
            m_refCount.fetch_add(1, std::memory_order_relaxed);
    }
    void deref() const
    {
        // The last reference needs no atomic operation: whoever holds it is
        // the only one who can reach the object, so no other thread can change
        // the count meanwhile (the acquire pairs with other threads' releases).
        uint32_t count = m_refCount.load(std::memory_order_acquire);
        if (count == 1) {
            m_refCount.store(0, std::memory_order_relaxed);
            destroy(this);
        } else if (count < immortalCount && m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            destroy(this);
    }
    // Adds `delta` (which may be negative) to the count of an object that no
    // other thread can reach yet (one just made and not handed out), without
    // an atomic operation; a count that reaches zero deletes it.
    void adjustUnshared(int64_t delta) const
    {
        uint32_t count = static_cast<uint32_t>(m_refCount.load(std::memory_order_relaxed) + delta);
        m_refCount.store(count, std::memory_order_relaxed);
        if (!count)
            destroy(this);
    }
    // Several references at once: one atomic operation instead of `count`.
    void ref(uint32_t count) const
    {
        if (count && !isImmortal())
            m_refCount.fetch_add(count, std::memory_order_relaxed);
    }
    void deref(uint32_t count) const
    {
        if (count && !isImmortal() && m_refCount.fetch_sub(count, std::memory_order_acq_rel) == count)
            destroy(this);
    }
    uint32_t refCount() const { return m_refCount.load(std::memory_order_relaxed); }
    bool isImmortal() const { return m_refCount.load(std::memory_order_relaxed) >= immortalCount; }

    std::string_view className() const { return classInfo()->name; }
    bool isKindOf(const ClassInfo& info) const { return classInfo()->isSubclassOf(info); }

    // "<ClassName: 0x0000ABCD>" unless a class says more about itself.
    virtual Ref<String> description() const;
    // Identity unless a class compares by content; equal objects hash alike.
    virtual bool isEqual(const Object* other) const { return this == other; }
    virtual size_t hash() const { return reinterpret_cast<uintptr_t>(this) >> 4; }

    // An immutable copy. Immutable objects answer themselves; mutable
    // collections answer a new immutable collection with the same elements.
    virtual Ref<Object> copyObject() const { return const_cast<Object&>(*this); }

    // Objects that can be written to a keyed archive answer their coding.
    virtual const Coding* asCoding() const { return nullptr; }

    // Key-value coding, through which templates and bindings read any object:
    // dictionaries answer their entries, model objects their properties. An
    // object that does not know the key raises UndefinedKeyException.
    virtual RefPtr<Object> valueForKey(std::string_view key) const;
    // A dotted path ("track.user.username") asks each object in turn for one
    // key; a null on the way ends it with null.
    virtual RefPtr<Object> valueForKeyPath(std::string_view keyPath) const;

    // Objects live in the small-object lists (see SmallAllocator.h). The
    // deleting destructor passes the dynamic type's size.
    static void* operator new(size_t size) { return detail::allocateSmall(size); }
    static void operator delete(void* pointer, size_t size) { detail::deallocateSmall(pointer, size); }

protected:
    Object() = default;
    virtual ~Object() = default;
    void setTag(ObjectTag tag) { m_tag = tag; }
    // For singletons made once and never freed.
    void makeImmortal() { m_refCount.store(immortalCount, std::memory_order_relaxed); }

private:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    // Deletes an object whose last reference went. Destructions that nest
    // deeper than a few hundred levels (a deep tree going) wait in a per-thread
    // queue that the outermost one empties, so that releasing a tree of any
    // depth takes a bounded amount of stack.
    static void destroy(const Object*);

    static constexpr uint32_t immortalCount = 0xC0000000u;
    mutable std::atomic<uint32_t> m_refCount { 1 };
    ObjectTag m_tag { ObjectTag::Other };
};

namespace detail {

// The tag that every object of exactly this class (or of a subclass that
// keeps it) carries, for classes where the tag alone decides the kind test:
// those that declare it themselves, not those that inherit it.
template<typename T>
constexpr ObjectTag exactTagOf()
{
    using U = std::remove_cv_t<T>;
    if constexpr (requires { typename U::TaggedClass; }) {
        if constexpr (std::is_same_v<typename U::TaggedClass, U>)
            return U::s_tag;
    }
    return ObjectTag::Other;
}

} // namespace detail

// Kind tests. A null object is of no kind. Classes with a tag of their own
// answer from it, without a virtual call.
template<typename T>
inline bool is(const Object* object)
{
    if constexpr (constexpr ObjectTag tag = detail::exactTagOf<T>(); tag != ObjectTag::Other)
        return object && object->tag() == tag;
    else
        return object && object->isKindOf(T::s_info);
}
template<typename T>
inline bool is(const Object& object)
{
    return is<T>(&object);
}
template<typename T, typename U>
inline bool is(const RefPtr<U>& object)
{
    return is<T>(object.get());
}
template<typename T, typename U>
inline bool is(const Ref<U>& object)
{
    return is<T>(object.ptr());
}

[[noreturn]] void downcastFailure(const Object&, const ClassInfo& wanted);

namespace detail {

// A cast that is not a downcast is a mistake the compiler can see.
template<typename Target, typename Source>
constexpr void checkDowncast()
{
    using S = std::remove_cv_t<Source>;
    using T = std::remove_cv_t<Target>;
    static_assert(!std::is_same_v<S, T>, "Unnecessary cast to the same type");
    static_assert(std::is_base_of_v<S, T>, "Should be a downcast");
}

} // namespace detail

// Casts to a kind the caller knows the object has; a wrong kind is a
// programming error and raises. Null passes through as null. Owning pointers
// passed as temporaries come back as owning pointers, so that no raw pointer
// outlives its owner.
template<typename T, typename U>
inline T* downcast(U* object)
{
    detail::checkDowncast<T, U>();
    if (object && !is<T>(object)) [[unlikely]]
        downcastFailure(*object, T::s_info);
    return static_cast<T*>(object);
}
template<typename T, typename U>
inline const T* downcast(const U* object)
{
    detail::checkDowncast<T, U>();
    if (object && !is<T>(object)) [[unlikely]]
        downcastFailure(*object, T::s_info);
    return static_cast<const T*>(object);
}
template<typename T, typename U>
    requires std::is_base_of_v<Object, U>
inline T& downcast(U& object)
{
    return *downcast<T>(&object);
}
template<typename T, typename U>
inline T* downcast(const RefPtr<U>& object)
{
    return downcast<T>(object.get());
}
template<typename T, typename U>
inline T* downcast(const Ref<U>& object)
{
    return downcast<T>(object.ptr());
}
template<typename T, typename U>
inline RefPtr<T> downcast(RefPtr<U>&& object)
{
    downcast<T>(object.get());
    return adoptRef(static_cast<T*>(object.leakRef()));
}
template<typename T, typename U>
inline Ref<T> downcast(Ref<U>&& object)
{
    downcast<T>(object.ptr());
    return adoptRef(static_cast<T&>(*object.leakRef()));
}

// Casts when the object has the kind, else null.
template<typename T, typename U>
inline T* dynamicDowncast(U* object)
{
    detail::checkDowncast<T, U>();
    return is<T>(object) ? static_cast<T*>(object) : nullptr;
}
template<typename T, typename U>
inline const T* dynamicDowncast(const U* object)
{
    detail::checkDowncast<T, U>();
    return is<T>(object) ? static_cast<const T*>(object) : nullptr;
}
template<typename T, typename U>
    requires std::is_base_of_v<Object, U>
inline T* dynamicDowncast(U& object)
{
    return dynamicDowncast<T>(&object);
}
template<typename T, typename U>
inline T* dynamicDowncast(const RefPtr<U>& object)
{
    return dynamicDowncast<T>(object.get());
}
template<typename T, typename U>
inline T* dynamicDowncast(const Ref<U>& object)
{
    return dynamicDowncast<T>(object.ptr());
}
template<typename T, typename U>
inline RefPtr<T> dynamicDowncast(RefPtr<U>&& object)
{
    if (!dynamicDowncast<T>(object.get()))
        return nullptr;
    return adoptRef(static_cast<T*>(object.leakRef()));
}
template<typename T, typename U>
inline RefPtr<T> dynamicDowncast(Ref<U>&& object)
{
    if (!dynamicDowncast<T>(object.ptr()))
        return nullptr;
    return adoptRef(static_cast<T*>(object.leakRef()));
}

// Equality that treats two nils as equal, as the collections do.
inline bool objectsEqual(const Object* a, const Object* b)
{
    if (a == b)
        return true;
    return a && b && a->isEqual(b);
}

} // namespace velvox
