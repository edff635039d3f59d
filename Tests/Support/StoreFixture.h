#pragma once

// A fresh shared resource store for each test, on a stand-in client, with its
// files in a temporary data folder ($XDG_DATA_HOME) that goes with the test.

#include <FakeAPI.h>
#include <TestSupport.h>

#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXFramework.h>
#include <VelvoxKit/VXResourceController.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>

namespace velvox::test {

// Points an environment variable elsewhere for the life of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value)
        : m_name(name)
    {
        if (const char* old = getenv(name))
            m_old = old;
        m_hadOld = getenv(name) != nullptr;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment()
    {
        if (m_hadOld)
            setenv(m_name, m_old.c_str(), 1);
        else
            unsetenv(m_name);
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    const char* m_name;
    std::string m_old;
    bool m_hadOld { false };
};

class StoreFixture : public testing::Test {
protected:
    void SetUp() override { makeStore(); }
    void TearDown() override { VXResourceController::setSharedResourceController(nullptr); }

    // A new store, as a new run of the program would make.
    VXResourceController& makeStore()
    {
        store = VXResourceController::create(controller.ptr());
        VXResourceController::setSharedResourceController(store);
        return *store;
    }
    FakeAPI& api() { return static_cast<FakeAPI&>(*controller->api()); }
    std::vector<SentRequest>& sent() { return api().log(); }
    std::string dataFolder() const { return data.path() + "/Velvox"; }

    TemporaryFolder data;
    ScopedEnvironment dataHome { "XDG_DATA_HOME", data.path() };
    Ref<FakeAPI> prototype = FakeAPI::create();
    Ref<VXAPIController> controller = VXAPIController::create(prototype.ptr());
    RefPtr<VXResourceController> store;
};

// A fresh shared store on a real client of a sandbox started for each test.
class SandboxStoreFixture : public testing::Test {
protected:
    void SetUp() override
    {
        sandbox::SandboxService::Options options;
        options.processingSeconds = 0.3;
        options.activityPageSize = 7;
        service = std::make_unique<sandbox::SandboxService>(options);
        ASSERT_TRUE(service->start());
        auto api = VXVelvoxAPI::create(service->baseURL(), service->token());
        ASSERT_TRUE(api);
        store = VXResourceController::create(VXAPIController::create(api.get()).ptr());
        VXResourceController::setSharedResourceController(store);
    }
    void TearDown() override
    {
        VXResourceController::setSharedResourceController(nullptr);
        service->stop();
    }
    static bool waitFor(const std::function<bool()>& condition, double seconds = 10)
    {
        return RunLoop::current().runUntil(condition, seconds);
    }

    TemporaryFolder data;
    ScopedEnvironment dataHome { "XDG_DATA_HOME", data.path() };
    std::unique_ptr<sandbox::SandboxService> service;
    RefPtr<VXResourceController> store;
};

} // namespace velvox::test
