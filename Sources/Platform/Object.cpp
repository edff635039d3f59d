#include "Object.h"

#include "Exception.h"
#include "Number.h"
#include "String.h"

#include <vector>

namespace velvox {

const ClassInfo Object::s_info { "Object", nullptr };

// The tag lives in the padding after the count: no object grows for it.
static_assert(sizeof(void*) != 8 || sizeof(Object) == 16, "Object is a vtable pointer, a count and a tag");

Ref<String> Object::description() const
{
    return String::format("<%s: 0x%08X>", className(), static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)));
}

void downcastFailure(const Object& object, const ClassInfo& wanted)
{
    Exception::raise(InternalInconsistencyException, "Object of class %s is not of kind %s.", object.className(), wanted.name);
}

} // namespace velvox

namespace velvox {

RefPtr<Object> Object::valueForKey(std::string_view key) const
{
    Exception::raise(UndefinedKeyException, "[<%@ 0x%08X> valueForUndefinedKey:]: this class is not key value coding-compliant for the key %@.",
        className(), this, key);
}

RefPtr<Object> Object::valueForKeyPath(std::string_view keyPath) const
{
    size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos)
        return valueForKey(keyPath);
    auto head = valueForKey(keyPath.substr(0, dot));
    if (!head)
        return nullptr;
    return head->valueForKeyPath(keyPath.substr(dot + 1));
}

} // namespace velvox

namespace velvox {

namespace {

constexpr unsigned maximumNestedDestructions = 256;
thread_local unsigned t_destructionDepth = 0;

// The queue, and whether this thread's exit has already destroyed it (objects
// released after that go at once, as before).
struct DeferredDestructions {
    std::vector<const Object*> objects;
    ~DeferredDestructions() { s_gone = true; }
    static thread_local bool s_gone;
};
thread_local bool DeferredDestructions::s_gone = false;
thread_local DeferredDestructions t_deferred;
// Trivial, so that the common case (nothing deferred) costs no initialisation check.
thread_local bool t_anyDeferred = false;

} // namespace

void Object::destroy(const Object* object)
{
    // Strings and numbers, the bulk of a decoded tree, hold nothing that needs
    // releasing: they go without a virtual destructor call or a nesting count.
    switch (object->tag()) {
    case ObjectTag::Number:
        delete static_cast<const Number*>(object); // final: no virtual call
        return;
    case ObjectTag::String:
        String::deallocate(static_cast<const String*>(object));
        return;
    default:
        break;
    }
    if (t_destructionDepth >= maximumNestedDestructions && !DeferredDestructions::s_gone) {
        t_deferred.objects.push_back(object);
        t_anyDeferred = true;
        return;
    }
    ++t_destructionDepth;
    delete object;
    --t_destructionDepth;
    if (t_destructionDepth || !t_anyDeferred)
        return;
    // The outermost destruction: the deferred objects go now, each starting a
    // fresh nesting of its own.
    auto& deferred = t_deferred.objects;
    while (!deferred.empty()) {
        const Object* next = deferred.back();
        deferred.pop_back();
        ++t_destructionDepth;
        delete next;
        --t_destructionDepth;
    }
    t_anyDeferred = false;
}

} // namespace velvox
