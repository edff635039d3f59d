// The store's identity map as a crafted "ressources.archive" presents it. The
// input is an archive's body; the target adds the header and the checksum (as
// the unarchiver fuzzer does, so that the reader is reached), writes the file
// where the store looks for it and makes a store, which loads it. Whatever
// loaded must then behave as the store's own objects: every entry is looked
// up under its class, refreshed from a record of that class, counted and
// saved again. No crash, leak, hang or exception may come out.

#include <Platform/Platform.h>

#include "ArchiveFraming.h"
#include <VelvoxKit/VXResourceController.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

using namespace velvox;

namespace {

std::string& dataFolder()
{
    static std::string* folder = new std::string;
    return *folder;
}

// A record of the class for an identifier: as the service sends it (a
// number) when the identifier is decimal, else as text.
Ref<Dictionary> recordFor(String& identifier)
{
    std::string text = identifier.str();
    bool decimal = !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
    RefPtr<Object> value = decimal ? RefPtr<Object>(Number::withInteger(std::stoll(text))) : RefPtr<Object>(&identifier);
    return Dictionary::create({ { "id", value.get() }, { "state", String::create("finished").ptr() }, { "username", String::create("u").ptr() } });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    char pattern[] = "/tmp/velvox-store-fuzz-XXXXXX";
    if (!mkdtemp(pattern))
        abort();
    dataFolder() = pattern;
    setenv("XDG_DATA_HOME", pattern, 1);
    setLogSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string archive = fuzz::framedArchive(data, size);
    std::string folder = stringByAppendingPathComponent(dataFolder(), "Velvox");
    FileManager::defaultManager().removeItemAtPath(folder);
    FileManager::defaultManager().createDirectoryAtPath(folder, true);
    if (!FileManager::writeFileAtomically(stringByAppendingPathComponent(folder, "ressources.archive"), archive))
        abort();

    {
        // Half the inputs load through the bound, which orders and cuts.
        VXResourceController::Options options;
        options.archivedObjectsPerClass = size % 2 ? 2 : 0;
        auto store = VXResourceController::create(nullptr, options);
        std::vector<std::pair<Ref<String>, Ref<String>>> entries;
        for (auto& entry : store->resourceCache()) {
            auto* className = dynamicDowncast<String>(entry.key);
            auto* classCache = dynamicDowncast<Dictionary>(entry.object);
            if (!className || !classCache)
                abort(); // the store must have dropped it
            for (auto& item : *classCache) {
                auto* identifier = dynamicDowncast<String>(item.key);
                if (!identifier)
                    abort();
                entries.emplace_back(*className, *identifier);
            }
        }
        for (auto& [className, identifier] : entries) {
            (void)store->cachedResource(className->view(), identifier.ptr());
            auto record = recordFor(identifier);
            store->userWithUserDictionary(record.ptr());
            store->trackWithTrackDictionary(record.ptr());
            store->commentWithCommentDictionary(record.ptr());
        }
        (void)store->resourceCacheStatistics();
        store->setMeUserIdentifier(String::create("1").ptr());
        (void)store->save();
    }
    return 0;
}
