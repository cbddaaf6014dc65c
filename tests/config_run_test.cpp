// From a subscription record to a run of ProductCfg.exe through the real
// plugin: the seccenter rule, the timer's delay, the launch and the hourly
// firing, the wait for an earlier ProductCfg.exe, and Stop during that wait.
#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"

namespace
{
constexpr wchar_t kOnboardingKey[] = L"Software\\PcpCfgRun\\Product\\Onboarding";
constexpr wchar_t kMarker[] = L"product_config_first_run";

constexpr char kTimer[] = "CProductConfigurationPlg::_ProductCfgTimer: ";
constexpr char kWait[] = "CProductConfigurationPlg::_WaitIfProcessIsRunning: ";
const std::string kWaiting = std::string(kWait) + "Waiting for productcfg.exe process to close...";
const std::string kRestarting = std::string(kTimer) + "Restarting ProductCfg.exe with parameters: do_config_seccenter";
const std::wstring kDoConfig = L"\"ProductCfg.exe\" do_config_seccenter";

// No commercial identifier; an account only when given.
SubscriptionData Record(int32_t serverType, int32_t localType, const char* account = "")
{
    return MakeRecord(serverType, localType, 1, account);
}

// Without an onboarding key: a record with equal product types arms nothing.
class ConfigRunTest : public QuietRunTest, protected ProductCfgStandIns
{
protected:
    ConfigRunTest() : QuietRunTest(L"PCPCFGRUN", L"PcpCfgRun") {}
    void SetUp() override
    {
        ASSERT_FALSE(UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName)))
            << "another process holds the installer's event";
        QuietRunTest::SetUp();
    }

    void Deliver(const SubscriptionData& record)
    {
        host->subscription.Deliver(record);
        ASSERT_TRUE(host->WaitIdle());
    }
    DWORD Marker() const { return registry.Dword(HKEY_LOCAL_MACHINE, productKey, kMarker); }
    size_t Firings() const { return host->journal.Count("Run _ProductCfgTimer"); }
    bool AwaitLine(const std::string& level, const std::string& line) const
    {
        return Eventually([&] { return log.Contains(level, line); }, std::chrono::seconds(20));
    }
    bool Launched() const { return log.Count("INFO", "ExecuteProcessAsUser: Run ") > 0; }
};

TEST_F(ConfigRunTest, SeccenterRuleArmsTheTimerExactlyWhenItAllows)
{
    struct Row
    {
        const char* what;
        bool account;
        bool productKey; // setting 217
        bool productId;  // setting 44: the subscription key path
        bool marker;     // present as 0, else absent
        int64_t gsShowed;
        bool onboarding;
        bool allowed;
        DWORD markerAfter;
    };
    const Row rows[] = {
        {"no account, no product key", false, false, true, false, kNone, true, false, kNoValue},
        {"no account, marker present", false, true, true, true, kNone, true, false, 0},
        {"no account, first time, no GsShowed", false, true, true, false, kNone, false, true, 1},
        {"no account, first time, GsShowed 0, onboarding", false, true, true, false, 0, true, true, 1},
        {"no account, first time, GsShowed, no onboarding", false, true, true, false, 1, false, false, 1},
        {"no account, first time, GsShowed unreadable", false, true, true, false, kText, false, false, 1},
        {"no account, first time, no subscription key", false, true, false, false, kNone, false, false, 1},
        {"account, no GsShowed", true, true, true, false, kNone, false, true, kNoValue},
        {"account, marker present, no GsShowed", true, true, true, true, kNone, false, true, 0},
        {"account, GsShowed 0, onboarding", true, true, true, false, 0, true, true, kNoValue},
        {"account, GsShowed 0, no onboarding", true, true, true, false, 0, false, false, kNoValue},
        {"account, GsShowed unreadable, no onboarding", true, true, true, false, kText, false, false, kNoValue},
        {"account, no subscription key, onboarding", true, true, false, false, kNone, true, true, kNoValue},
        {"account, no subscription key, no onboarding", true, true, false, false, kNone, false, false, kNoValue},
        {"account, no product key, GsShowed", true, false, true, false, 1, true, false, kNoValue},
        {"account, no product key, no GsShowed", true, false, true, false, kNone, true, true, kNoValue},
    };
    registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", 36000); // never fires here
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        Configure(*host);
        if (!row.productKey)
            host->config.Remove(217, L"Desktop");
        if (!row.productId)
            host->config.Remove(44, L"Desktop");
        PutValue(HKEY_LOCAL_MACHINE, productKey, kMarker, row.marker ? 0 : kNone);
        PutValue(HKEY_USERS, subscriptionKey, L"GsShowed", row.gsShowed); // kText: unreadable
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kOnboardingKey);
        if (row.onboarding)
            registry.SetDword(HKEY_LOCAL_MACHINE, kOnboardingKey, L"Step", 1);

        log.Clear();
        const size_t armings = Armings();
        Deliver(Record(3, 3, row.account ? "account-1" : ""));
        EXPECT_EQ(Armings() - armings, row.allowed ? 1u : 0u);
        EXPECT_EQ(Marker(), row.markerAfter);
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
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), kMarker);
    RegDeleteKeyValueW(HKEY_USERS, subscriptionKey.c_str(), L"GsShowed");
    host->subscription.SetRecord(Record(3, 3));
    ASSERT_NO_FATAL_FAILURE(StartPlugin()); // the first record finds no marker and writes it
    EXPECT_EQ(Marker(), 1u);
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
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), kMarker);
    log.Clear();
    Deliver(Record(3, 3, "account-1"));
    EXPECT_EQ(Armings(), 2u);
    EXPECT_EQ(Marker(), kNoValue);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_IsSeccenterAllowedWhenNoAccount:"), 0u);
}

TEST_F(ConfigRunTest, DelayComesFromTheRegistryInInitAndCountsFromTheArming)
{
    const struct
    {
        const char* what;
        int64_t seconds;
        std::string level;
        std::string line;
        uint32_t delayMs;
    } rows[] = {
        {"absent", kNone, "ERROR", "CProductConfigurationPlg::_GetDelay: get dword value failed, err: 2", 0},
        {"30 seconds", 30, "INFO", "CProductConfigurationPlg::_GetDelay: value is: 30seconds", 30000},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(Renew());
        PutValue(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", row.seconds);
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
    registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", 30);
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
        bool beside;        // the earlier one runs from the host's folder, else from another
        bool switchContext; // an empty text, else no value
        std::string level;
        std::string line;
        bool waits;
    } rows[] = {
        {"host's folder", true, false, "INFO", kWaiting, true},
        {"another folder", false, false, "ERROR", std::string(kWait) + "Could not get pid for productcfg.exe", false},
        {"host's folder, switching context", true, true, "INFO", std::string(kWait) + "Switch context in progress",
         false},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        PutValue(HKEY_USERS, subscriptionKey, L"switch_context", row.switchContext ? kText : kNone, L"");
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
