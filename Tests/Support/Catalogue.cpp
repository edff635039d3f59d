#include "Catalogue.h"

#include <JSONCodec/JSONCodec.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXFramework.h>

#include <gtest/gtest.h>

#include <mutex>

namespace velvox::test {

void registerFrameworkOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { VXRegisterFramework(); });
}

Ref<MutableDictionary> catalogueTrack(size_t index)
{
    registerFrameworkOnce();
    auto record = sandbox::SandboxService::catalogueTrackRecord(index);
    EXPECT_TRUE(record) << "the sample catalogue cannot be read";
    return record ? record->mutableCopy() : MutableDictionary::create();
}

Ref<Dictionary> json(std::string_view text)
{
    auto source = String::create(text);
    auto object = objectFromJSONString(source);
    EXPECT_TRUE(is<Dictionary>(object)) << text;
    if (auto* dictionary = dynamicDowncast<Dictionary>(object.get()))
        return *dictionary;
    return Dictionary::create();
}

} // namespace velvox::test
