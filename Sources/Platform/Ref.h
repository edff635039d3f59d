#pragma once

// Owning pointers for intrusively reference-counted objects.
//
// Ref<T> always points at an object; RefPtr<T> may be null (null is nil). Both
// take a reference when constructed from a plain pointer or reference, and drop
// it when destroyed. adoptRef() takes over a reference that the caller already
// owns (the one every freshly made object starts with) without adding another.

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace velvox {

template<typename T> class Ref;
template<typename T> class RefPtr;
template<typename T> Ref<T> adoptRef(T&);
template<typename T> RefPtr<T> adoptRef(T*);

template<typename T>
class Ref {
public:
    Ref(T& object)
        : m_ptr(&object)
    {
        m_ptr->ref();
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ref(U& object)
        : m_ptr(&object)
    {
        m_ptr->ref();
    }
    Ref(const Ref& other)
        : m_ptr(other.m_ptr)
    {
        m_ptr->ref();
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ref(const Ref<U>& other)
        : m_ptr(other.ptr())
    {
        m_ptr->ref();
    }
    // A moved-from Ref is empty and may only be destroyed or assigned to.
    Ref(Ref&& other) noexcept
        : m_ptr(other.leakRef())
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ref(Ref<U>&& other) noexcept
        : m_ptr(other.leakRef())
    {
    }
    ~Ref()
    {
        if (m_ptr)
            m_ptr->deref();
    }

    Ref& operator=(const Ref& other)
    {
        Ref copy(other);
        swap(copy);
        return *this;
    }
    Ref& operator=(Ref&& other) noexcept
    {
        Ref moved(std::move(other));
        swap(moved);
        return *this;
    }
    Ref& operator=(T& object)
    {
        Ref copy(object);
        swap(copy);
        return *this;
    }

    T* ptr() const { return m_ptr; }
    T* get() const { return m_ptr; }
    T& operator*() const { return *m_ptr; }
    T* operator->() const { return m_ptr; }
    // Only a Ref that outlives the expression converts implicitly: a raw
    // pointer taken from a temporary would dangle (`String* s = String::create("x");`).
    operator T&() const& { return *m_ptr; }
    operator T*() const& { return m_ptr; }
    operator T&() && = delete;
    operator T*() && = delete;

    [[nodiscard]] T* leakRef() { return std::exchange(m_ptr, nullptr); }
    void swap(Ref& other) noexcept { std::swap(m_ptr, other.m_ptr); }

private:
    template<typename U> friend Ref<U> adoptRef(U&);
    enum AdoptTag { Adopt };
    Ref(T& object, AdoptTag)
        : m_ptr(&object)
    {
    }

    T* m_ptr;
};

template<typename T>
class RefPtr {
public:
    RefPtr() = default;
    RefPtr(std::nullptr_t) { }
    RefPtr(T* object)
        : m_ptr(object)
    {
        if (m_ptr)
            m_ptr->ref();
    }
    RefPtr(T& object)
        : RefPtr(&object)
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(U* object)
        : RefPtr(static_cast<T*>(object))
    {
    }
    RefPtr(const RefPtr& other)
        : RefPtr(other.m_ptr)
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(const RefPtr<U>& other)
        : RefPtr(other.get())
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(const Ref<U>& other)
        : RefPtr(other.ptr())
    {
    }
    RefPtr(RefPtr&& other) noexcept
        : m_ptr(other.leakRef())
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(RefPtr<U>&& other) noexcept
        : m_ptr(other.leakRef())
    {
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(Ref<U>&& other) noexcept
        : m_ptr(other.leakRef())
    {
    }
    ~RefPtr()
    {
        if (m_ptr)
            m_ptr->deref();
    }

    RefPtr& operator=(const RefPtr& other)
    {
        RefPtr copy(other);
        swap(copy);
        return *this;
    }
    RefPtr& operator=(RefPtr&& other) noexcept
    {
        RefPtr moved(std::move(other));
        swap(moved);
        return *this;
    }
    RefPtr& operator=(std::nullptr_t)
    {
        RefPtr empty;
        swap(empty);
        return *this;
    }
    RefPtr& operator=(T* object)
    {
        RefPtr copy(object);
        swap(copy);
        return *this;
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr& operator=(RefPtr<U>&& other)
    {
        RefPtr moved(std::move(other));
        swap(moved);
        return *this;
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr& operator=(Ref<U>&& other)
    {
        RefPtr moved(std::move(other));
        swap(moved);
        return *this;
    }
    template<typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr& operator=(const Ref<U>& other)
    {
        RefPtr copy(other);
        swap(copy);
        return *this;
    }

    T* get() const { return m_ptr; }
    T& operator*() const { return *m_ptr; }
    T* operator->() const { return m_ptr; }
    explicit operator bool() const { return m_ptr; }
    bool operator!() const { return !m_ptr; }
    // As with Ref: no raw pointer out of a temporary.
    operator T*() const& { return m_ptr; }
    operator T*() && = delete;

    [[nodiscard]] T* leakRef() { return std::exchange(m_ptr, nullptr); }
    // Turns a non-null RefPtr into a Ref, leaving this one null.
    Ref<T> releaseNonNull() { return adoptRef(*leakRef()); }
    void swap(RefPtr& other) noexcept { std::swap(m_ptr, other.m_ptr); }

private:
    template<typename U> friend RefPtr<U> adoptRef(U*);
    T* m_ptr { nullptr };
};

template<typename T>
inline Ref<T> adoptRef(T& object)
{
    return Ref<T>(object, Ref<T>::Adopt);
}

template<typename T>
inline RefPtr<T> adoptRef(T* object)
{
    RefPtr<T> result;
    result.m_ptr = object;
    return result;
}

template<typename T, typename U>
inline bool operator==(const RefPtr<T>& a, const RefPtr<U>& b) { return a.get() == b.get(); }
template<typename T, typename U>
inline bool operator==(const Ref<T>& a, const Ref<U>& b) { return a.ptr() == b.ptr(); }
template<typename T, typename U>
inline bool operator==(const RefPtr<T>& a, U* b) { return a.get() == b; }
template<typename T>
inline bool operator==(const RefPtr<T>& a, std::nullptr_t) { return !a.get(); }

} // namespace velvox

template<typename T>
struct std::hash<velvox::RefPtr<T>> {
    size_t operator()(const velvox::RefPtr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
