// Keyed archives as a crafted file would present them. The input is an
// archive's body (record count, records, root); the target adds the header and
// the checksum, so that the fuzzer gets past the checksum to the reader. Any
// input must read as an object or as nothing: no crash, no leak, no hang.

#include <Platform/Platform.h>

#include "ArchiveFraming.h"

#include <cstdint>
#include <cstring>
#include <string>

using namespace velvox;

namespace {

// A coded class, so that the coded-object path is reached too.
bool registerSample()
{
    KeyedUnarchiver::registerClass("Sample", [](KeyedUnarchiver& coder) -> RefPtr<Object> {
        auto fields = MutableDictionary::create();
        for (auto key : { "name", "items", "count" }) {
            if (auto value = coder.decodeObjectForKey(key))
                fields->setObject(value, key);
        }
        return fields;
    });
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool registered = registerSample();
    (void)registered;
    std::string archive = fuzz::framedArchive(data, size);
    auto root = KeyedUnarchiver::unarchiveObjectWithData(*Data::create(archive));
    if (root) {
        // What was read can be described, compared, hashed and written again.
        (void)root->description();
        (void)root->isEqual(root.get());
        (void)root->hash();
        (void)KeyedArchiver::archivedDataWithRootObject(root.get());
    }
    return 0;
}
