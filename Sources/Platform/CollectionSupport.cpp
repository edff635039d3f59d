#include "CollectionSupport.h"

#include "Exception.h"
#include "String.h"

namespace velvox {

void collectionMutatedDuringEnumeration(const Object& collection)
{
    Exception::raise(GenericException, "*** Collection <%s: 0x%08X> was mutated while being enumerated.", collection.className(),
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(&collection)));
}

void raiseIndexBeyondBounds(const Object& collection, const char* selector, size_t index, size_t bound)
{
    Exception::raise(RangeException, "*** -[%s %s]: index (%lu) beyond bounds (%lu)", collection.className(), selector, index, bound);
}

void raiseInsertNil(const Object& collection, const char* selector)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil", collection.className(), selector);
}

void raiseInsertNilKey(const Object& dictionary)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil key", dictionary.className(), "setObject:forKey:");
}

void raiseInsertNilValue(const Object& dictionary, const Object* key)
{
    Exception::raise(InvalidArgumentException, "*** -[%s %s]: attempt to insert nil value (key: %@)", dictionary.className(), "setObject:forKey:", key);
}

} // namespace velvox
