// Loads ProductCfgPlg.dll as the host does and wires one plugin object to a
// simulated host.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "log_capture.h"
#include "simhost/sim_host.h"

using QmCreateObjectFn = Status (*)(const wchar_t*, const InterfaceId&, void**);
using QmDestroyObjectFn = void (*)(const wchar_t*, void*);

// True once condition holds, polled every 2 ms up to the bound.
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds bound = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline SubscriptionData MakeRecord(int32_t serverType, int32_t localType, uint32_t statusCode = 0,
                                   const char* account = "")
{
    SubscriptionData record;
    record.ServerProductType = serverType;
    record.ProductType = localType;
    record.StatusCode = statusCode;
    SetFixedText(record.AccountId, account);
    return record;
}

// Settings 44 (product id: the subscription key's name), 0 (base folder)
// and 217 (the product key under HKLM).
inline void ConfigureProduct(sim::Host& host, const wchar_t* id, const wchar_t* base, const wchar_t* productKey)
{
    host.config.Set(44, L"Desktop", id);
    host.config.Set(0, L"BASE", base);
    host.config.Set(217, L"Desktop", productKey);
}

using Sinks = std::vector<size_t>;
// Registered with the host: subscription, session change and product agent
// sinks, the agent's asynchronous sink, service status observers.
inline Sinks SinksOf(sim::Host& host)
{
    return {host.subscription.SinkCount(), host.sessionChange.SinkCount(), host.productAgent.SinkCount(),
            host.productAgent.Async().SinkCount(), host.serviceStatus.ObserverCount()};
}

// Nothing of the plugin's is left with the host once the object is gone.
inline void ExpectNothingLeft(sim::Host& host)
{
    EXPECT_TRUE(host.WaitIdle());
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
    EXPECT_EQ(host.ledger.DoubleReleases(), 0u);
    EXPECT_EQ(host.queue.LiveTimers(), 0u);
    EXPECT_EQ(host.queue.LiveSerialExecutions(), 0u);
    EXPECT_EQ(host.queue.InvalidHandleCalls(), 0u);
    EXPECT_EQ(host.components.Outstanding(), 0);
    EXPECT_EQ(SinksOf(host), Sinks(5, 0));
}

class PluginModule
{
public:
    PluginModule() : module(LoadLibraryW(L"ProductCfgPlg.dll"))
    {
        if (module != nullptr)
        {
            create = reinterpret_cast<QmCreateObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmCreateObject")));
            destroy =
                reinterpret_cast<QmDestroyObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmDestroyObject")));
        }
    }
    ~PluginModule()
    {
        if (module != nullptr)
            FreeLibrary(module);
    }
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    bool Loaded() const { return create != nullptr && destroy != nullptr; }

    IServPlugin* Create()
    {
        void* out = nullptr;
        if (create(L"productconfigplg", ids::ServPluginA, &out) != 0)
            return nullptr;
        return static_cast<IServPlugin*>(out);
    }
    void Destroy(IServPlugin* plugin) { destroy(L"productconfigplg", plugin); }

private:
    HMODULE module;
    QmCreateObjectFn create = nullptr;
    QmDestroyObjectFn destroy = nullptr;
};

// A fresh host and plugin object for each test; the object is destroyed
// through the export at the end unless the test did so.
class PluginTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.Loaded());
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
    }
    void TearDown() override { DestroyPlugin(); }

    void DestroyPlugin()
    {
        if (plugin != nullptr)
            module.Destroy(plugin);
        plugin = nullptr;
    }

    // Init and Start with the host service loaded; waits for _DelayedLoad.
    void StartLoaded()
    {
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        ASSERT_EQ(plugin->Start(), 0u);
        ASSERT_TRUE(host->WaitIdle());
    }

    void StopAndUnInit()
    {
        plugin->Stop();
        plugin->UnInit();
    }

    LogCapture log;
    PluginModule module;
    std::unique_ptr<sim::Host> host = std::make_unique<sim::Host>();
    IServPlugin* plugin = nullptr;
};
