// Loads ProductCfgPlg.dll as the host does and wires one plugin object to a
// simulated host.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "log_capture.h"
#include "registry_scratch.h"
#include "simhost/guarded_library.h"
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
                                   const char* account = "", const char* commercialId = "")
{
    SubscriptionData record;
    record.ServerProductType = serverType;
    record.ProductType = localType;
    record.StatusCode = statusCode;
    SetFixedText(record.AccountId, account);
    SetFixedText(record.CommercialId, commercialId);
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

// The companion apps under the identifiers a product identifier without a
// dot gives them (1: off).
constexpr const wchar_t* kApps[] = {L"com.quillmarten.vpn", L"com.quillmarten.familymentor",
                                    L"com.quillmarten.kinguard"};
// What RegistryScratch::Dword gives when no DWORD can be read.
constexpr DWORD kNoValue = 0xFFFFFFFFu;

// Writes text as a REG_SZ value.
inline void SetText(HKEY root, const std::wstring& key, const wchar_t* name, const wchar_t* text)
{
    RegSetKeyValueW(root, key.c_str(), name, REG_SZ, text, static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
}

// A folder of the test's own with a "settings" folder in it, for
// settings\bootstrapdata.json; all three are removed at the end.
class SettingsFolder
{
public:
    explicit SettingsFolder(const wchar_t* prefix) : path(NewTempFile(prefix))
    {
        DeleteFileW(path.c_str());
        CreateDirectoryW(path.c_str(), nullptr);
        CreateDirectoryW((path + L"\\settings").c_str(), nullptr);
    }
    ~SettingsFolder()
    {
        DeleteFileW(File().c_str());
        RemoveDirectoryW((path + L"\\settings").c_str());
        RemoveDirectoryW(path.c_str());
    }
    SettingsFolder(const SettingsFolder&) = delete;
    SettingsFolder& operator=(const SettingsFolder&) = delete;

    std::wstring File() const { return path + L"\\settings\\bootstrapdata.json"; }
    void Write(const std::string& content) const { std::ofstream(File().c_str(), std::ios::binary) << content; }
    // The file's bytes, or nothing when it does not exist.
    std::optional<std::string> Read() const
    {
        std::ifstream in(File().c_str(), std::ios::binary);
        if (!in)
            return std::nullopt;
        std::ostringstream content;
        content << in.rdbuf();
        return content.str();
    }

    const std::wstring path;
};

// What PutValue leaves under a name: nothing (kNone), a DWORD (0 and up), or
// (kText) a text that cannot be read as a DWORD.
constexpr int64_t kNone = -1;
constexpr int64_t kText = -2;
inline void PutValue(HKEY root, const std::wstring& key, const wchar_t* name, int64_t value, const wchar_t* text = L"1")
{
    RegDeleteKeyValueW(root, key.c_str(), name);
    const DWORD dword = static_cast<DWORD>(value);
    if (value == kText)
        SetText(root, key, name, text);
    else if (value >= 0)
        RegSetKeyValueW(root, key.c_str(), name, REG_DWORD, &dword, sizeof(dword));
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
    EXPECT_EQ(host.productAgent.ModulesReleased(), host.productAgent.ModulesHandedOut());
}

// The DLL with the guard enforced on its indirect calls, as Windows does.
class PluginModule
{
public:
    PluginModule() : module(L"ProductCfgPlg.dll")
    {
        EXPECT_TRUE(module) << module.Error();
        if (module)
        {
            create = reinterpret_cast<QmCreateObjectFn>(
                reinterpret_cast<void*>(GetProcAddress(module.get(), "QmCreateObject")));
            destroy = reinterpret_cast<QmDestroyObjectFn>(
                reinterpret_cast<void*>(GetProcAddress(module.get(), "QmDestroyObject")));
        }
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
    sim::GuardedLibrary module;
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
        running = false;
    }

    // Init and Start with the host service loaded; waits for _DelayedLoad.
    void StartPlugin()
    {
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        running = true;
        ASSERT_EQ(plugin->Start(), 0u);
        ASSERT_TRUE(host->WaitIdle());
    }

    // Stop and UnInit, once, of an object that StartPlugin started.
    void StopPlugin()
    {
        if (running)
        {
            plugin->Stop();
            plugin->UnInit();
        }
        running = false;
    }

    LogCapture log;
    PluginModule module;
    std::unique_ptr<sim::Host> host = std::make_unique<sim::Host>();
    IServPlugin* plugin = nullptr;
    bool running = false;
};

// The plugin under product identifier id and base folder base (settings 44,
// 0 and 217) in a quiet registry: ProductCfg.exe has run before and the
// seccenter has been shown, so without an account the seccenter is not
// allowed. A running object is stopped at the end, after the clock's thread
// of AdvanceInBackground has returned.
class QuietRunTest : public PluginTest
{
protected:
    QuietRunTest(const wchar_t* id, const wchar_t* base)
        : id(id), base(base), subscriptionKey(std::wstring(L".DEFAULT\\SOFTWARE\\Sub_ID_") + id),
          productKey(std::wstring(L"Software\\") + base + L"\\Product")
    {
    }
    void SetUp() override
    {
        registry.Forget(HKEY_USERS, subscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, std::wstring(L"Software\\") + base);
        registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"product_config_first_run", 1);
        registry.SetDword(HKEY_USERS, subscriptionKey, L"GsShowed", 1);
        Configure(*host);
        PluginTest::SetUp();
    }
    void TearDown() override
    {
        StopPlugin(); // ends a timer item's wait, so the clock's thread returns
        if (background.valid())
        {
            EXPECT_EQ(background.wait_for(std::chrono::seconds(20)), std::future_status::ready)
                << "the timer item never returned";
        }
        PluginTest::TearDown();
    }

    void Configure(sim::Host& target) const { ConfigureProduct(target, id, base, productKey.c_str()); }
    // A new plugin object on a new host, not yet initialised.
    void Renew()
    {
        StopPlugin();
        DestroyPlugin();
        host = std::make_unique<sim::Host>();
        Configure(*host);
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
    }
    // Moves the clock on by ms on a thread of the test: a timer item that
    // waits for an earlier process holds the caller of Advance meanwhile.
    void AdvanceInBackground(uint64_t ms)
    {
        background = std::async(std::launch::async, [this, ms] { host->queue.Advance(ms); });
    }
    bool BackgroundDone() { return background.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }
    size_t Armings() const { return host->journal.LinesStartingWith("SetTimer _ProductCfgTimer ").size(); }

    const wchar_t* const id;
    const wchar_t* const base;
    const std::wstring subscriptionKey;
    const std::wstring productKey;
    RegistryScratch registry;
    std::future<void> background;
};
