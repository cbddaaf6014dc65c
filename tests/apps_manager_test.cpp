// CAppsManager against the simulated product agent and the real registry:
// application identifiers, the soho and VPN decisions, the scheduled VPN
// check with its marker no_auto_enable_vp and the install shortcut, module
// objects released once on every path, and the VPN switched on once by two
// threads at once.
#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>

#include <atomic>
#include <functional>
#include <future>
#include <tuple>

#include "apps/apps_manager.h"
#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "support/unique_resource.h"

using namespace std::chrono_literals;

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
constexpr wchar_t kMarker[] = L"no_auto_enable_vp";
constexpr wchar_t kVpn[] = L"com.pcp.vpn";
using Strings = std::vector<std::string>;

class Internal final : public IProductCfgInternal
{
public:
    QM_IMPLEMENTS_DESTRUCTOR_SLOT(Internal)
    std::string GetBundleId() override { return {}; }
    int32_t GetServerProductType() override { return type; }
    bool IsMsp() override { return msp; }

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
        ASSERT_NO_FATAL_FAILURE(Renew());
    }
    void TearDown() override { GiveBack(); }
    // The manager on a new host (a fresh module table) with settings 44,
    // 217, 227, 203 and 0.
    void Renew()
    {
        GiveBack();
        host = std::make_unique<sim::Host>();
        host->config.SetMissing(sim::ServConfig::Missing::NotFoundText);
        host->config.Set(44, L"Desktop", L"com.pcp.product");
        host->config.Set(217, L"Desktop", kProductKey);
        host->config.Set(227, L"Desktop", kVpnKey);
        host->config.Set(203, L"app", kAboutKey);
        host->config.Set(0, L"BASE", L"PcpApps");
        ASSERT_EQ(apps.Init(&internal, &host->components), 0u);
    }
    // UnInit: every component and module object is back with the host.
    void GiveBack()
    {
        apps.UnInit();
        if (!host)
            return;
        EXPECT_EQ(host->components.Outstanding(), 0);
        EXPECT_EQ(host->productAgent.ModulesReleased(), host->productAgent.ModulesHandedOut());
    }
    DWORD Marker(const wchar_t* key = kProductKey) const { return registry.Dword(HKEY_LOCAL_MACHINE, key, kMarker); }
    size_t Reads(const std::string& prefix) const { return host->journal.LinesStartingWith(prefix).size(); }

    LogCapture log;
    RegistryScratch registry;
    std::unique_ptr<sim::Host> host;
    Internal internal;
    CAppsManager apps;
    AppsManagerProbe probe{apps};
};

TEST_F(AppsManagerTest, AppIdsSohoBundlesAndWhereTheVpnIsAllowed)
{
    // Setting 44 (null: missing, answered as text or as null) -> the VPN's identifier.
    const std::tuple<const wchar_t*, bool, std::wstring> ids[] = {
        {L"product", false, L"com.quillmarten.vpn"}, {L"", false, L"com.quillmarten.vpn"},
        {L".product", false, L".vpn"},               {L"com.pcp.", false, L"com.pcp.vpn"},
        {L"com.pcp.product", false, L"com.pcp.vpn"}, {nullptr, false, L"com.quillmarten.vpn"},
        {nullptr, true, L"com.quillmarten.vpn"}};
    for (const auto& [id, nullMissing, expected] : ids)
    {
        SCOPED_TRACE(id == nullptr ? "missing" : sim::Narrow(id));
        host->config.SetMissing(nullMissing ? sim::ServConfig::Missing::Null : sim::ServConfig::Missing::NotFoundText);
        if (id == nullptr)
            host->config.Remove(44, L"Desktop");
        else
            host->config.Set(44, L"Desktop", id);
        EXPECT_EQ(probe.GetAppId(L".vpn"), expected);
    }
    host->config.SetMissing(sim::ServConfig::Missing::NotFoundText);

    const std::pair<const char*, bool> bundles[] = {{".soho", true},   {"x.soho", true}, {".soho.soho", true},
                                                    {".sohox", false}, {"x.SOHO", false}, {"xsoho", false},
                                                    {"", false},       {"soh", false}};
    for (const auto& [bundle, soho] : bundles)
        EXPECT_EQ(probe.IsSoho(bundle), soho) << bundle;

    // Server product type, Config (null: none), IsFreeApp, setting 227 given -> allowed.
    const std::tuple<int32_t, const wchar_t*, int64_t, bool, bool> vpn[] = {
        {5, L"VP", kNone, true, true},      {5, L"AV,VP,FW", kNone, true, true}, {5, L"AV,vp", kNone, true, false},
        {5, L"AV, VP", kNone, true, false}, {5, L"VPN", kNone, true, false},     {5, L"", kNone, true, false},
        {2, L"VP", kNone, true, false},     {9, L"VP", kNone, true, false},      {0, L"VP", 1, true, false},
        {0, L"VP", kNone, true, true},      {0, L"VP", 0, true, true},           {0, L"VP", 2, true, false},
        {0, L"VP", kText, true, true},      {5, L"VP", kNone, false, false},     {5, nullptr, kNone, true, false}};
    for (const auto& row : vpn)
    {
        const auto& [type, config, freeApp, setting227, allowed] = row;
        SCOPED_TRACE(::testing::PrintToString(row));
        PutValue(HKEY_LOCAL_MACHINE, kVpnKey, L"Config", config ? kText : kNone, config);
        PutValue(HKEY_LOCAL_MACHINE, kAboutKey, L"IsFreeApp", freeApp);
        if (setting227)
            host->config.Set(227, L"Desktop", kVpnKey);
        else
            host->config.Remove(227, L"Desktop");
        const size_t configReads = Reads("productinfo.GetString 227 ");
        EXPECT_EQ(probe.IsVpnAllowed(type), allowed);
        // A free edition of unknown type is refused before Config is looked for.
        EXPECT_TRUE(type != 0 || freeApp <= 0 || Reads("productinfo.GetString 227 ") == configReads);
    }
}

// In a managed organisation the scheduled check asks for no VPN: the install
// shortcut is deleted instead and the marker set, and a shortcut that cannot
// be deleted is named. (The scenarios vpn_check*.json play the rest of the
// decision through the plugin.)
TEST_F(AppsManagerTest, AManagedOrganisationLosesTheVpnShortcutInstead)
{
    PWSTR folder = nullptr;
    ASSERT_GE(SHGetKnownFolderPath(FOLDERID_PublicDesktop, 0, nullptr, &folder), 0);
    const std::wstring shortcut = std::wstring(folder) + L"\\PcpApps VPN.lnk";
    CoTaskMemFree(folder);
    internal.msp = true;
    host->productAgent.SetModule(kVpn, 1);
    for (const bool heldOpen : {false, true})
    {
        SCOPED_TRACE(heldOpen ? "held open" : "free");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        UniqueFileHandle file(CreateFileW(shortcut.c_str(), GENERIC_WRITE, heldOpen ? 0 : FILE_SHARE_DELETE, nullptr,
                                          CREATE_ALWAYS, 0, nullptr));
        ASSERT_TRUE(file);
        if (!heldOpen)
            file.reset();
        log.Clear();
        probe.CheckVpn();
        EXPECT_EQ(Marker(), 1u);
        EXPECT_EQ(host->productAgent.ModulesHandedOut(), 0u);
        EXPECT_EQ(GetFileAttributesW(shortcut.c_str()) != INVALID_FILE_ATTRIBUTES, heldOpen);
        EXPECT_EQ(log.Messages("ERROR"),
                  heldOpen ? Strings{"CAppsManager::_CheckVPN: Failed to delete vpn install shortcut."} : Strings{});
        file.reset();
        DeleteFileW(shortcut.c_str());
    }
}

// The thread that asks for the VPN module first is held inside
// GetModuleInfo, the state "off" in hand, while the other one runs up to the
// product agent: under vpnMutex the other gets no further until the first
// has switched, then finds the VPN on. Both orders of timer and serial
// execution.
TEST_F(AppsManagerTest, CheckOnTheTimerAndEnableVpnAtOnceSwitchOnce)
{
    const std::string allowedRead = "productinfo.GetString 227 Desktop -> \"" + sim::Narrow(kVpnKey) + "\"";
    const std::string switched = "productagentcommclient.SetConnectAppState com.pcp.vpn on -> 0";
    const std::function<void()> check = [&] { probe.CheckVpn(); }, enable = [&] { apps.EnableVpn(); };
    for (bool timerFirst : {true, false})
    {
        SCOPED_TRACE(timerFirst ? "timer first" : "serial execution first");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        host->productAgent.SetModule(kVpn, 1);
        std::promise<void> open;
        const std::shared_future<void> opened = open.get_future().share();
        std::atomic<size_t> arrivals{0};
        host->productAgent.SetModuleInfoGate([&arrivals, opened](const std::wstring&) {
            if (++arrivals == 1)
                opened.wait_for(10s);
        });
        const size_t before = host->journal.Count(switched);
        auto first = std::async(std::launch::async, timerFirst ? check : enable);
        const bool held = Eventually([&] { return arrivals == 1; });
        const size_t reads = host->journal.Count(allowedRead);
        auto second = std::async(std::launch::async, timerFirst ? enable : check);
        // The second has found the VPN allowed and goes for the module.
        const bool onItsWay = held && host->journal.WaitFor(allowedRead, reads + 1, 10s);
        const bool overtaken = onItsWay && Eventually([&] { return arrivals > 1; }, 500ms);
        open.set_value();
        ASSERT_EQ(first.wait_for(10s), std::future_status::ready);
        ASSERT_EQ(second.wait_for(10s), std::future_status::ready);
        host->productAgent.SetModuleInfoGate(nullptr);
        ASSERT_TRUE(held) << "nobody asked for the VPN module";
        ASSERT_TRUE(onItsWay) << "the second thread never decided on the VPN";
        EXPECT_FALSE(overtaken) << "the second thread reached the product agent while the first was switching";
        EXPECT_EQ(host->journal.Count(switched) - before, 1u);
        EXPECT_EQ(host->productAgent.ModuleState(kVpn), 0);
    }
}

// Alone, the manager gives back "productinfo" when the agent is refused (the
// plugin's own cleanup would hide it; config_run_test has the plugin's rows).
TEST(AppsManagerInit, ARefusedAgentGivesBackWhatWasAcquired)
{
    sim::Host host;
    host.components.FailFrom(L"productagentcommclient", 1, 6);
    Internal internal;
    CAppsManager apps;
    EXPECT_EQ(apps.Init(&internal, &host.components), 6u);
    EXPECT_EQ(host.components.Outstanding(), 0);
}
} // namespace
