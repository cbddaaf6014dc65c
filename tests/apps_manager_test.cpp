// CAppsManager against the simulated product agent and the real registry:
// application identifiers, the soho and VPN decisions, no_auto_enable_vp,
// the install shortcut, module objects released once on every path, and the
// VPN switched on once by two threads at once.
#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>

#include "apps/apps_manager.h"
#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "support/unique_resource.h"

// Reaches the manager's private operations.
class AppsManagerProbe
{
public:
    explicit AppsManagerProbe(CAppsManager& apps) : apps(apps) {}
    std::wstring GetAppId(const std::wstring& suffix) { return apps._GetAppId(suffix); }
    bool IsSoho(const std::string& bundle) { return apps._IsSohoProduct(bundle); }
    bool IsVpnAllowed(int32_t type) { return apps._IsVpnAllowed(type); }
    void CheckVpn() { apps._CheckVPN(); }

private:
    CAppsManager& apps;
};

namespace
{
constexpr wchar_t kRoot[] = L"Software\\PcpApps";
constexpr wchar_t kProductKey[] = L"Software\\PcpApps\\Product";
constexpr wchar_t kVpnKey[] = L"Software\\PcpApps\\Vpn";
constexpr wchar_t kAboutKey[] = L"Software\\PcpApps\\About";
constexpr wchar_t kFallbackKey[] = L"Software\\Quillmarten";
constexpr wchar_t kMarker[] = L"no_auto_enable_vp";
constexpr wchar_t kVpn[] = L"com.pcp.vpn";

class Internal final : public IProductCfgInternal
{
public:
    QM_IMPLEMENTS_DESTRUCTOR_SLOT(Internal)
    std::string GetBundleId() override { return bundle; }
    int32_t GetServerProductType() override { return type; }
    bool IsMsp() override { return msp; }

    std::string bundle;
    std::atomic<int32_t> type{5};
    std::atomic<bool> msp{false};
};

class AppsManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_LOCAL_MACHINE, kRoot);
        SetText(HKEY_LOCAL_MACHINE, kVpnKey, L"Config", L"AV,VP");
        ASSERT_NO_FATAL_FAILURE(InitOn(host));
    }
    void TearDown() override
    {
        apps.UnInit();
        EXPECT_EQ(host.components.Outstanding(), 0);
        EXPECT_EQ(host.productAgent.ModulesReleased(), host.productAgent.ModulesHandedOut());
    }
    // Settings 44, 217, 227, 203 and 0 on target, and the manager on its components.
    void InitOn(sim::Host& target)
    {
        target.config.SetMissing(sim::ServConfig::Missing::NotFoundText);
        target.config.Set(44, L"Desktop", L"com.pcp.product");
        target.config.Set(217, L"Desktop", kProductKey);
        target.config.Set(227, L"Desktop", kVpnKey);
        target.config.Set(203, L"app", kAboutKey);
        target.config.Set(0, L"BASE", L"PcpApps");
        ASSERT_EQ(apps.Init(&internal, &target.components), 0u);
    }
    DWORD Marker(const wchar_t* key = kProductKey) const { return registry.Dword(HKEY_LOCAL_MACHINE, key, kMarker); }
    size_t Switched(const std::string& how) const
    {
        return host.journal.Count("productagentcommclient.SetConnectAppState " + how);
    }

    LogCapture log;
    RegistryScratch registry;
    sim::Host host;
    Internal internal;
    CAppsManager apps;
    AppsManagerProbe probe{apps};
};

TEST_F(AppsManagerTest, AppIdReplacesTheLastComponentOfTheProductId)
{
    const struct
    {
        const wchar_t* id; // null: the setting is missing
        bool nullMissing;
        std::wstring expected;
    } rows[] = {
        {L"product", false, L"com.quillmarten.vpn"},    {L"", false, L"com.quillmarten.vpn"},
        {L".product", false, L".vpn"},                  {L"com.pcp.", false, L"com.pcp.vpn"},
        {L"com.pcp.product", false, L"com.pcp.vpn"},    {nullptr, false, L"com.quillmarten.vpn"},
        {nullptr, true, L"com.quillmarten.vpn"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.id == nullptr ? "missing" : sim::Narrow(row.id));
        host.config.SetMissing(row.nullMissing ? sim::ServConfig::Missing::Null
                                               : sim::ServConfig::Missing::NotFoundText);
        if (row.id == nullptr)
            host.config.Remove(44, L"Desktop");
        else
            host.config.Set(44, L"Desktop", row.id);
        EXPECT_EQ(probe.GetAppId(L".vpn"), row.expected);
    }
}

TEST_F(AppsManagerTest, SohoBundleEndsInLowerCaseDotSoho)
{
    const std::pair<const char*, bool> rows[] = {
        {".soho", true},   {"x.soho", true},  {".soho.soho", true}, {".sohox", false},
        {"x.SOHO", false}, {"xsoho", false},  {"", false},          {"soh", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(probe.IsSoho(row.first), row.second) << row.first;
}

TEST_F(AppsManagerTest, VpnAllowedByTypeFreeEditionAndTheExactTokenVP)
{
    const struct
    {
        const char* what;
        int32_t type;
        const wchar_t* config; // null: no value
        int64_t freeApp;       // IsFreeApp
        bool setting227;
        bool allowed;
    } rows[] = {
        {"VP alone", 5, L"VP", kNone, true, true},
        {"VP between", 5, L"AV,VP,FW", kNone, true, true},
        {"vp", 5, L"AV,vp", kNone, true, false},
        {"blank VP", 5, L"AV, VP", kNone, true, false},
        {"VPN", 5, L"VPN", kNone, true, false},
        {"empty", 5, L"", kNone, true, false},
        {"type 2", 2, L"VP", kNone, true, false},
        {"type 9", 9, L"VP", kNone, true, false},
        {"type 0, free", 0, L"VP", 1, true, false},
        {"type 0, free value missing", 0, L"VP", kNone, true, true},
        {"type 0, not free", 0, L"VP", 0, true, true},
        {"type 0, IsFreeApp 2", 0, L"VP", 2, true, false},
        {"type 0, IsFreeApp a text", 0, L"VP", kText, true, true},
        {"setting 227 missing", 5, L"VP", kNone, false, false},
        {"Config missing", 5, nullptr, kNone, true, false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        PutValue(HKEY_LOCAL_MACHINE, kVpnKey, L"Config", row.config ? kText : kNone, row.config);
        PutValue(HKEY_LOCAL_MACHINE, kAboutKey, L"IsFreeApp", row.freeApp);
        if (row.setting227)
            host.config.Set(227, L"Desktop", kVpnKey);
        else
            host.config.Remove(227, L"Desktop");
        const size_t configReads = host.journal.Count("productinfo.GetString 227 Desktop -> \"" +
                                                      sim::Narrow(kVpnKey) + "\"");
        EXPECT_EQ(probe.IsVpnAllowed(row.type), row.allowed);
        // A free edition of unknown type is refused before Config is looked for.
        if (row.type == 0 && row.freeApp > 0)
        {
            EXPECT_EQ(host.journal.Count("productinfo.GetString 227 Desktop -> \"" + sim::Narrow(kVpnKey) + "\""),
                      configReads);
        }
    }
}

TEST_F(AppsManagerTest, MarkerIsSetUnlessTheProductAgentFails)
{
    const struct
    {
        const char* what;
        int64_t state; // -1: module unknown
        Status setFailure;
        bool msp;
        DWORD marker;
        size_t switchedOn;
    } rows[] = {
        {"off, switched on", 1, 0, false, 1, 1},
        {"on already", 0, 0, false, 1, 0},
        {"state 2", 2, 0, false, 1, 0},
        {"module unknown", -1, 0, false, kNoValue, 0},
        {"switching fails", 1, 5, false, kNoValue, 1},
        {"managed organisation", 1, 0, true, 1, 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        sim::Host agentHost; // a fresh module table
        ASSERT_NO_FATAL_FAILURE(InitOn(agentHost));
        if (row.state >= 0)
            agentHost.productAgent.SetModule(kVpn, static_cast<uint32_t>(row.state));
        agentHost.productAgent.FailSetConnectAppState(row.setFailure);
        internal.msp = row.msp;
        log.Clear();
        probe.CheckVpn();
        EXPECT_EQ(Marker(), row.marker);
        EXPECT_EQ(agentHost.journal.Count("productagentcommclient.SetConnectAppState com.pcp.vpn on -> " +
                                          std::to_string(row.setFailure)),
                  row.switchedOn);
        EXPECT_EQ(log.Count("TRACE", "CAppsManager::_CheckVPN: -> [No value in registry]"), 1u);
        if (row.state < 0 && !row.msp)
        {
            EXPECT_TRUE(log.Contains("ERROR", "CAppsManager::_EnableVpn: GetModuleInfo failed, 1168"));
        }
        if (row.setFailure != 0)
        {
            EXPECT_TRUE(log.Contains("INFO", "CAppsManager::_EnableVpn: SetConnectAppState true err=5"));
        }
        EXPECT_EQ(agentHost.productAgent.ModulesReleased(), agentHost.productAgent.ModulesHandedOut());
        apps.UnInit();
        EXPECT_EQ(agentHost.components.Outstanding(), 0);
    }
    internal.msp = false;
    ASSERT_NO_FATAL_FAILURE(InitOn(host));

    // Present with 0: nothing is asked of the product agent.
    registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 0);
    host.productAgent.SetModule(kVpn, 1);
    probe.CheckVpn();
    EXPECT_EQ(host.productAgent.ModulesHandedOut(), 0u);
    EXPECT_EQ(Marker(), 0u);

    // EnableVpn neither reads nor writes it.
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
    const std::string productKeyRead = "productinfo.GetString 217 Desktop -> \"" + sim::Narrow(kProductKey) + "\"";
    const size_t reads = host.journal.Count(productKeyRead);
    apps.EnableVpn();
    EXPECT_EQ(host.productAgent.ModuleState(kVpn), 0);
    EXPECT_EQ(Marker(), kNoValue);
    EXPECT_EQ(host.journal.Count(productKeyRead), reads);
}

TEST_F(AppsManagerTest, MarkerGoesUnderTheFallbackKeyWithoutSetting217)
{
    registry.Forget(HKEY_LOCAL_MACHINE, std::wstring(kFallbackKey) + L"\\PcpAppsNone"); // nothing of ours there
    const DWORD before = Marker(kFallbackKey);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFallbackKey, kMarker);
    host.config.Remove(217, L"Desktop");
    host.productAgent.SetModule(kVpn, 0);
    probe.CheckVpn();
    EXPECT_EQ(Marker(kFallbackKey), 1u);
    EXPECT_EQ(Marker(), kNoValue);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFallbackKey, kMarker);
    if (before != kNoValue)
        registry.SetDword(HKEY_LOCAL_MACHINE, kFallbackKey, kMarker, before);
}

TEST_F(AppsManagerTest, ManagedOrganisationDeletesTheInstallShortcut)
{
    PWSTR folder = nullptr;
    ASSERT_GE(SHGetKnownFolderPath(FOLDERID_PublicDesktop, 0, nullptr, &folder), 0);
    const std::wstring shortcut = std::wstring(folder) + L"\\PcpApps VPN.lnk";
    CoTaskMemFree(folder);
    internal.msp = true;

    for (bool held : {false, true})
    {
        SCOPED_TRACE(held ? "held open" : "free");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        UniqueFileHandle file(CreateFileW(shortcut.c_str(), GENERIC_WRITE, held ? 0 : FILE_SHARE_DELETE, nullptr,
                                      CREATE_ALWAYS, 0, nullptr));
        ASSERT_TRUE(file);
        if (!held)
            file.reset();
        log.Clear();
        const size_t configReads = host.journal.LinesStartingWith("productinfo.GetString 227 ").size();
        probe.CheckVpn();
        EXPECT_EQ(host.journal.LinesStartingWith("productinfo.GetString 227 ").size(), configReads)
            << "the VPN's feature list is not asked for";
        EXPECT_EQ(GetFileAttributesW(shortcut.c_str()) == INVALID_FILE_ATTRIBUTES, !held);
        EXPECT_EQ(log.Contains("ERROR", "CAppsManager::_CheckVPN: Failed to delete vpn install shortcut."), held);
        EXPECT_EQ(Marker(), 1u);
        EXPECT_EQ(host.productAgent.ModulesHandedOut(), 0u);
        file.reset();
        DeleteFileW(shortcut.c_str());
    }
}

TEST_F(AppsManagerTest, CheckAppsSwitchesParentalControlOffOnSohoAndGoesOnAfterAFailure)
{
    const struct
    {
        const char* what;
        const char* bundle;
        bool firstKnown;
        uint32_t state;
        size_t switchedOff;
        size_t stateReads;
    } rows[] = {
        {"not soho", "qm-total", true, 0, 0, 1},     // only the VPN's state is read
        {"soho, on", "qm.soho", true, 0, 2, 3},
        {"soho, state 2", "qm.soho", true, 2, 2, 3},
        {"soho, off", "qm.soho", true, 1, 0, 3},
        {"soho, first unknown", "qm.soho", false, 0, 1, 2},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        sim::Host agentHost;
        ASSERT_NO_FATAL_FAILURE(InitOn(agentHost));
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        if (row.firstKnown)
            agentHost.productAgent.SetModule(L"com.pcp.familymentor", row.state);
        agentHost.productAgent.SetModule(L"com.pcp.kinguard", row.state);
        agentHost.productAgent.SetModule(kVpn, 0);
        internal.bundle = row.bundle;
        log.Clear();
        apps.CheckApps();
        EXPECT_EQ(agentHost.journal.LinesStartingWith("productagentcommclient.SetConnectAppState com.pcp.kinguard off")
                          .size() +
                      agentHost.journal
                          .LinesStartingWith("productagentcommclient.SetConnectAppState com.pcp.familymentor off")
                          .size(),
                  row.switchedOff);
        EXPECT_EQ(agentHost.journal.LinesStartingWith("module.GetConnectAppState").size(), row.stateReads);
        EXPECT_EQ(log.Contains("ERROR", "CAppsManager::_CheckParentalControl: get module info failed, 1168"),
                  !row.firstKnown);
        EXPECT_TRUE(log.Contains("INFO", "CAppsManager::_CheckParentalControl: Appid: com.pcp.kinguard"));
        EXPECT_EQ(Marker(), 1u) << "the VPN step ran";
        EXPECT_EQ(agentHost.productAgent.ModulesReleased(), agentHost.productAgent.ModulesHandedOut());
        apps.UnInit();
    }
    ASSERT_NO_FATAL_FAILURE(InitOn(host));
}

// The thread that asks for the VPN module first is held inside
// GetModuleInfo, the state "off" in hand, while the other one runs up to the
// product agent: under vpnMutex the other gets no further until the first
// has switched, then finds the VPN on. Both orders of timer and serial
// execution.
TEST_F(AppsManagerTest, CheckOnTheTimerAndEnableVpnAtOnceSwitchOnce)
{
    struct Gate
    {
        std::mutex mutex;
        std::condition_variable changed;
        size_t arrivals = 0;
        bool open = false;
    } gate;
    host.productAgent.SetModuleInfoGate([&gate](const std::wstring&) {
        std::unique_lock<std::mutex> lock(gate.mutex);
        if (++gate.arrivals == 1)
        {
            gate.changed.notify_all();
            gate.changed.wait_for(lock, std::chrono::seconds(10), [&] { return gate.open; });
        }
        else
        {
            gate.changed.notify_all();
        }
    });
    const auto openGate = [&gate] {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.open = true;
        gate.changed.notify_all();
    };
    const std::string vpnAllowedRead = "productinfo.GetString 227 Desktop -> \"" + sim::Narrow(kVpnKey) + "\"";
    const std::function<void()> check = [&] { probe.CheckVpn(); };
    const std::function<void()> enable = [&] { apps.EnableVpn(); };

    for (bool timerFirst : {true, false})
    {
        SCOPED_TRACE(timerFirst ? "timer first" : "serial execution first");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        host.productAgent.SetModule(kVpn, 1);
        {
            std::lock_guard<std::mutex> lock(gate.mutex);
            gate.arrivals = 0;
            gate.open = false;
        }
        const size_t before = Switched("com.pcp.vpn on -> 0");
        auto first = std::async(std::launch::async, timerFirst ? check : enable);
        bool held = false;
        {
            std::unique_lock<std::mutex> lock(gate.mutex);
            held = gate.changed.wait_for(lock, std::chrono::seconds(10), [&] { return gate.arrivals == 1; });
        }
        const size_t reads = host.journal.Count(vpnAllowedRead);
        auto second = std::async(std::launch::async, timerFirst ? enable : check);
        // The second has found the VPN allowed and goes for the module.
        const bool secondOnItsWay = held && host.journal.WaitFor(vpnAllowedRead, reads + 1, std::chrono::seconds(10));
        bool overtaken = false;
        if (secondOnItsWay)
        {
            std::unique_lock<std::mutex> lock(gate.mutex);
            overtaken = gate.changed.wait_for(lock, std::chrono::milliseconds(500), [&] { return gate.arrivals > 1; });
        }
        openGate();
        ASSERT_EQ(first.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        ASSERT_EQ(second.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        ASSERT_TRUE(held) << "nobody asked for the VPN module";
        ASSERT_TRUE(secondOnItsWay) << "the second thread never decided on the VPN";
        EXPECT_FALSE(overtaken) << "the second thread reached the product agent while the first was switching";
        EXPECT_EQ(Switched("com.pcp.vpn on -> 0") - before, 1u);
        EXPECT_EQ(host.productAgent.ModuleState(kVpn), 0);
    }
    host.productAgent.SetModuleInfoGate(nullptr);
}

// Init's failure through the real DLL: the last "productinfo" and the
// second "productagentcommclient" are those of CAppsManager.
TEST_F(PluginTest, AppsManagerInitFailureGivesEverythingBack)
{
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    const size_t infos = host->components.Acquired(L"productinfo");
    plugin->UnInit();
    const struct
    {
        const wchar_t* name;
        size_t nth;
        Status status;
        std::string line;
    } rows[] = {
        {L"productinfo", infos, 5, "CAppsManager::Init: ServConfig, err: 5"},
        {L"productagentcommclient", 2, 6, "CAppsManager::Init: Product Agent, err: 6"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(sim::Narrow(row.name));
        DestroyPlugin();
        host = std::make_unique<sim::Host>();
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
        host->components.FailFrom(row.name, row.nth, row.status);
        log.Clear();
        EXPECT_EQ(plugin->Init(host.get()), row.status);
        EXPECT_TRUE(log.Contains("ERROR", row.line));
        EXPECT_EQ(host->components.Outstanding(), 0);
        EXPECT_EQ(host->components.Requested(row.name), row.nth);
    }
}
} // namespace
