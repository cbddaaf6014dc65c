// From a subscription record to a run of ProductCfg.exe through the real
// plugin: the seccenter rule with the real registry, the delay of the
// configuration timer, the launch and the hourly firing, the wait for an
// earlier ProductCfg.exe, and Stop during that wait.
#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"
#include "registry_scratch.h"

namespace
{
constexpr wchar_t kProductId[] = L"PCPCFGRUN";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPCFGRUN";
constexpr wchar_t kProductRoot[] = L"Software\\PcpCfgRun";
constexpr wchar_t kProductKey[] = L"Software\\PcpCfgRun\\Product";
constexpr wchar_t kOnboardingKey[] = L"Software\\PcpCfgRun\\Product\\Onboarding";
constexpr wchar_t kMarker[] = L"product_config_first_run";
constexpr DWORD kAbsent = 0xFFFFFFFFu; // what RegistryScratch::Dword gives for no value
constexpr auto kBound = std::chrono::seconds(20);

constexpr char kTimer[] = "CProductConfigurationPlg::_ProductCfgTimer: ";
constexpr char kWait[] = "CProductConfigurationPlg::_WaitIfProcessIsRunning: ";
const std::string kWaiting = std::string(kWait) + "Waiting for productcfg.exe process to close...";
const std::string kRestarting = std::string(kTimer) + "Restarting ProductCfg.exe with parameters: do_config_seccenter";
const std::wstring kDoConfig = L"\"ProductCfg.exe\" do_config_seccenter";

// A record whose status block is all zero unless the two types differ:
// no commercial identifier, and an account only when given.
SubscriptionData Record(int32_t serverType, int32_t localType, const char* account = "")
{
    return MakeRecord(serverType, localType, 1, account);
}

// The plugin with product settings and registry values of the test's own,
// and ProductCfg.exe stand-ins. The registry starts quiet: without an
// account the seccenter is not allowed (marker and GsShowed present, no
// onboarding key), so a record with equal product types arms nothing.
class ConfigRunTest : public PluginTest, protected ProductCfgStandIns
{
protected:
    void SetUp() override
    {
        // An installer's event held by anyone would make the plugin wait.
        ASSERT_FALSE(UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName)))
            << "another process holds the installer's event";
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kProductRoot);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 1);
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        Configure(*host);
        PluginTest::SetUp();
    }
    void TearDown() override
    {
        StopPlugin(); // ends a timer item's wait, so the clock's thread returns
        if (background.valid())
        {
            EXPECT_EQ(background.wait_for(kBound), std::future_status::ready) << "the timer item never returned";
        }
        PluginTest::TearDown();
    }

    static void Configure(sim::Host& target) { ConfigureProduct(target, kProductId, L"PcpCfgRun", kProductKey); }
    void StartPlugin()
    {
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        running = true;
        ASSERT_EQ(plugin->Start(), 0u);
        ASSERT_TRUE(host->WaitIdle());
    }
    void StopPlugin()
    {
        if (!running)
            return;
        running = false;
        plugin->Stop();
        plugin->UnInit();
    }
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

    void Deliver(const SubscriptionData& record)
    {
        host->subscription.Deliver(record);
        ASSERT_TRUE(host->WaitIdle());
    }
    size_t Armings() const { return host->journal.LinesStartingWith("SetTimer _ProductCfgTimer ").size(); }
    size_t Firings() const { return host->journal.Count("Run _ProductCfgTimer"); }

    // Moves the clock on by ms on a thread of the test: a timer item that
    // waits for an earlier process holds the caller of Advance meanwhile.
    void AdvanceInBackground(uint64_t ms)
    {
        background = std::async(std::launch::async, [this, ms] { host->queue.Advance(ms); });
    }
    bool BackgroundDone() { return background.wait_for(kBound) == std::future_status::ready; }

    bool AwaitLine(const std::string& level, const std::string& line) const
    {
        return Eventually([&] { return log.Contains(level, line); }, kBound);
    }
    bool Launched() const { return log.Count("INFO", "ExecuteProcessAsUser: Run ") > 0; }

    RegistryScratch registry;
    bool running = false;
    std::future<void> background;
};

TEST_F(ConfigRunTest, SeccenterRuleArmsTheTimerExactlyWhenItAllows)
{
    enum class Gs
    {
        Absent,
        Zero,
        One,
        Text, // read as a DWORD it fails with an error other than 2
    };
    struct Row
    {
        const char* what;
        bool account;
        bool productKey; // setting 217
        bool productId;  // setting 44: the subscription key path
        bool marker;     // present as 0, else absent
        Gs gsShowed;
        bool onboarding;
        bool allowed;
        DWORD markerAfter;
    };
    const Row rows[] = {
        {"no account, no product key", false, false, true, false, Gs::Absent, true, false, kAbsent},
        {"no account, marker present", false, true, true, true, Gs::Absent, true, false, 0},
        {"no account, first time, no GsShowed", false, true, true, false, Gs::Absent, false, true, 1},
        {"no account, first time, GsShowed 0, onboarding", false, true, true, false, Gs::Zero, true, true, 1},
        {"no account, first time, GsShowed, no onboarding", false, true, true, false, Gs::One, false, false, 1},
        {"no account, first time, GsShowed unreadable", false, true, true, false, Gs::Text, false, false, 1},
        {"no account, first time, no subscription key", false, true, false, false, Gs::Absent, false, false, 1},
        {"account, no GsShowed", true, true, true, false, Gs::Absent, false, true, kAbsent},
        {"account, marker present, no GsShowed", true, true, true, true, Gs::Absent, false, true, 0},
        {"account, GsShowed 0, onboarding", true, true, true, false, Gs::Zero, true, true, kAbsent},
        {"account, GsShowed 0, no onboarding", true, true, true, false, Gs::Zero, false, false, kAbsent},
        {"account, GsShowed unreadable, no onboarding", true, true, true, false, Gs::Text, false, false, kAbsent},
        {"account, no subscription key, onboarding", true, true, false, false, Gs::Absent, true, true, kAbsent},
        {"account, no subscription key, no onboarding", true, true, false, false, Gs::Absent, false, false, kAbsent},
        {"account, no product key, GsShowed", true, false, true, false, Gs::One, true, false, kAbsent},
        {"account, no product key, no GsShowed", true, false, true, false, Gs::Absent, true, true, kAbsent},
    };
    registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 36000); // never fires here
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        Configure(*host);
        if (!row.productKey)
            host->config.Remove(217, L"Desktop");
        if (!row.productId)
            host->config.Remove(44, L"Desktop");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        if (row.marker)
            registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 0);
        RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed");
        if (row.gsShowed == Gs::Text)
            RegSetKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed", REG_SZ, L"1", 2 * sizeof(wchar_t));
        else if (row.gsShowed != Gs::Absent)
            registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", row.gsShowed == Gs::One ? 1 : 0);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kOnboardingKey);
        if (row.onboarding)
            registry.SetDword(HKEY_LOCAL_MACHINE, kOnboardingKey, L"Step", 1);

        log.Clear();
        const size_t armings = Armings();
        Deliver(Record(3, 3, row.account ? "account-1" : ""));
        EXPECT_EQ(Armings() - armings, row.allowed ? 1u : 0u);
        EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker), row.markerAfter);
        const bool markerMissed = !row.account && row.productKey && !row.marker;
        EXPECT_EQ(log.Contains("INFO", "CProductConfigurationPlg::_IsSeccenterAllowedWhenNoAccount: "
                                 "get_dword_value failed, err:2"),
                  markerMissed);
        EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_DoConfig: cfgStatus = 0; comStatus = 0"));
    }
    // Each arming replaced the timer before: one is left, never fired.
    const auto timers = host->queue.Timers();
    EXPECT_EQ(std::count_if(timers.begin(), timers.end(), [](const auto& t) { return t.name == "_ProductCfgTimer"; }),
              1);
    EXPECT_EQ(Firings(), 0u);
}

TEST_F(ConfigRunTest, WithoutAnAccountTheSeccenterIsAllowedOnceAndAnAccountLeavesTheMarkerAlone)
{
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
    RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed");
    host->subscription.SetRecord(Record(3, 3));
    ASSERT_NO_FATAL_FAILURE(StartPlugin()); // the first record finds no marker and writes it
    EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker), 1u);
    EXPECT_EQ(Armings(), 1u);

    // The second record finds the marker: not allowed, GsShowed missing or
    // not, and the armed timer is left alone.
    Deliver(Record(3, 3));
    EXPECT_EQ(Armings(), 1u);
    EXPECT_EQ(host->journal.Count("DeleteTimer _ProductCfgTimer"), 0u);
    // The allowance of the first record is gone: the firing has nothing to do.
    log.Clear();
    host->queue.Advance(0);
    EXPECT_EQ(Firings(), 1u);
    EXPECT_TRUE(log.Contains("INFO", std::string(kTimer) + "Config not needed"));
    EXPECT_FALSE(Launched());

    // With an account the marker is neither read nor written.
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
    log.Clear();
    Deliver(Record(3, 3, "account-1"));
    EXPECT_EQ(Armings(), 2u);
    EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker), kAbsent);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_IsSeccenterAllowedWhenNoAccount:"), 0u);
}

TEST_F(ConfigRunTest, DelayComesFromTheRegistryInInitAndCountsFromTheArming)
{
    const struct
    {
        const char* what;
        bool present;
        DWORD seconds;
        std::string level;
        std::string line;
        uint32_t delayMs;
    } rows[] = {
        {"absent", false, 0, "ERROR", "CProductConfigurationPlg::_GetDelay: get dword value failed, err: 2", 0},
        {"30 seconds", true, 30, "INFO", "CProductConfigurationPlg::_GetDelay: value is: 30seconds", 30000},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(Renew());
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay");
        if (row.present)
            registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", row.seconds);
        log.Clear();
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        running = true;
        EXPECT_TRUE(log.Contains(row.level, row.line));

        host->queue.Advance(5000); // the clock runs before the first record arrives
        host->subscription.SetRecord(Record(4, 3));
        ASSERT_EQ(plugin->Start(), 0u);
        ASSERT_TRUE(host->WaitIdle());
        EXPECT_TRUE(
            host->journal.Contains("SetTimer _ProductCfgTimer " + std::to_string(row.delayMs) + " 3600000 -> 0"));
        const auto timers = host->queue.Timers();
        ASSERT_EQ(timers.size(), 1u);
        EXPECT_EQ(timers[0].name, "_ProductCfgTimer");
        EXPECT_EQ(timers[0].due, 5000u + row.delayMs);
    }
}

TEST_F(ConfigRunTest, DifferentServerTypeRunsDoConfigAfterTheDelayAndTheHourlyFiringFindsNothingToDo)
{
    registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 30);
    host->subscription.SetRecord(Record(4, 3));
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    host->queue.Advance(29999);
    EXPECT_EQ(Firings(), 0u);
    host->queue.Advance(1);
    ASSERT_EQ(Firings(), 1u);
    const std::vector<std::wstring> launched = AwaitLaunched();
    EXPECT_EQ(launched[3], kBeside);
    EXPECT_EQ(launched[4], kDoConfig);
    EXPECT_TRUE(log.Contains("INFO", kRestarting));
    EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_ExecuteProcessInSession: bSystem = true"));
    EXPECT_TRUE(log.Contains("ERROR", std::string(kWait) + "Could not get pid for productcfg.exe"));

    // The launched one still runs; the hourly firing does not look for it.
    log.Clear();
    AdvanceInBackground(3600000);
    ASSERT_TRUE(BackgroundDone()) << "the hourly firing waits for the first run to end";
    EXPECT_EQ(Firings(), 2u);
    EXPECT_TRUE(log.Contains("INFO", std::string(kTimer) + "Config not needed"));
    EXPECT_FALSE(Launched());
    EXPECT_EQ(Recorded(), 1u);
}

TEST_F(ConfigRunTest, EarlierProductCfgDelaysTheLaunchOnlyFromTheHostsFolderAndWithoutSwitchContext)
{
    const struct
    {
        const char* what;
        bool beside;                  // the earlier one runs from the host's folder, else from another
        const wchar_t* switchContext; // null: no value
        std::string level;
        std::string line;
        bool waits;
    } rows[] = {
        {"host's folder", true, nullptr, "INFO", kWaiting, true},
        {"another folder", false, nullptr, "ERROR", std::string(kWait) + "Could not get pid for productcfg.exe", false},
        {"host's folder, switching context", true, L"", "INFO", std::string(kWait) + "Switch context in progress",
         false},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"switch_context");
        if (row.switchContext != nullptr)
            RegSetKeyValueW(HKEY_USERS, kSubscriptionKey, L"switch_context", REG_SZ, row.switchContext,
                            static_cast<DWORD>((wcslen(row.switchContext) + 1) * sizeof(wchar_t)));
        const DWORD earlier = Start(row.beside ? kBeside : workDir + L"\\ProductCfg.exe");
        log.Clear();
        Deliver(Record(4, 3)); // arms the timer, due at once
        AdvanceInBackground(0);
        if (row.waits)
        {
            ASSERT_TRUE(AwaitLine("INFO", kWaiting));
            EXPECT_FALSE(Launched()) << "while the earlier one runs";
            End(earlier);
        }
        ASSERT_TRUE(BackgroundDone());
        const std::vector<std::wstring> launched = AwaitLaunched();
        EXPECT_EQ(launched[3], kBeside);
        EXPECT_EQ(launched[4], kDoConfig);
        EXPECT_EQ(Running(earlier), !row.waits);
        EXPECT_TRUE(log.Contains(row.level, row.line));
        EXPECT_EQ(log.Contains("INFO", kWaiting), row.waits);
        EXPECT_TRUE(log.Contains("INFO", kRestarting));
        EndAll();
    }
}

TEST_F(ConfigRunTest, StopEndsTheWaitForAnEarlierProductCfgAndNothingStarts)
{
    const DWORD earlier = Start(kBeside);
    host->subscription.SetRecord(Record(4, 3));
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    AdvanceInBackground(0);
    ASSERT_TRUE(AwaitLine("INFO", kWaiting));

    auto stopped = std::async(std::launch::async, [this] { StopPlugin(); });
    if (stopped.wait_for(std::chrono::seconds(2)) != std::future_status::ready)
    {
        ADD_FAILURE() << "Stop waits for the item, which waits up to 60000 ms for the earlier one";
        End(earlier); // so that Stop returns at last
    }
    stopped.wait();
    ASSERT_TRUE(BackgroundDone());

    EXPECT_TRUE(log.Contains("INFO", std::string(kTimer) + "Receive stop event"));
    EXPECT_FALSE(log.Contains("INFO", kRestarting));
    EXPECT_FALSE(Launched());
    EXPECT_TRUE(Running(earlier));
    EXPECT_EQ(Recorded(), 1u);
    DestroyPlugin();
    ExpectNothingLeft(*host);
}
} // namespace
