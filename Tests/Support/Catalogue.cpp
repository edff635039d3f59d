#include "Catalogue.h"

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

} // namespace velvox::test
