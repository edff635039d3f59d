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
