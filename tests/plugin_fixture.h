// Loads ProductCfgPlg.dll as the host does and wires one plugin object to a
// simulated host.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <memory>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "simhost/sim_host.h"

using QmCreateObjectFn = Status (*)(const wchar_t*, const InterfaceId&, void**);
using QmDestroyObjectFn = void (*)(const wchar_t*, void*);

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

    PluginModule module;
    std::unique_ptr<sim::Host> host = std::make_unique<sim::Host>();
    IServPlugin* plugin = nullptr;
};
