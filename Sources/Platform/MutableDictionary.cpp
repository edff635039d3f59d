#include "MutableDictionary.h"

#include "PlainCollections.h"

namespace velvox {

using namespace detail;

VX_DEFINE_CLASS(MutableDictionary, Dictionary)

Ref<MutableDictionary> MutableDictionary::create(size_t)
{
    return adoptRef(*new PlainMutableDictionary);
}

void MutableDictionary::setObject(Object* object, std::string_view key)
{
    setObject(object, String::create(key).ptr());
}

void MutableDictionary::removeAllObjects()
{
    // A snapshot that lives through the loop (a temporary would not).
    auto keys = allKeys();
    for (auto* key : *keys)
        removeObjectForKey(key);
}

void MutableDictionary::addEntriesFromDictionary(const Dictionary& dictionary)
{
    for (auto& entry : dictionary)
        setObject(entry.object, entry.key);
}

Ref<Object> MutableDictionary::copyObject() const
{
    auto copy = adoptRef(*new PlainDictionary);
    for (auto& entry : *this)
        copy->set(entry.object, entry.key);
    return copy;
}

} // namespace velvox
