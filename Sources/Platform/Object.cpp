#include "Object.h"

#include "Exception.h"
#include "String.h"

namespace velvox {

const ClassInfo Object::s_info { "Object", nullptr };

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
