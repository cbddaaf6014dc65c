// Random interleavings: the real DLL in the simulated host with every kind
// of event arriving on several host threads at once, in an order drawn from
// a seed, and Stop, UnInit and QmDestroyObject at a random point among them.
// Now and then an earlier ProductCfg.exe runs and ends at a random moment.
// After each schedule: no deadlock (a watchdog), no crash, every item run or
// released exactly once, every component, timer, serial execution and sink
// back with the host, no sink entered and no ProductCfg.exe started after
// Stop returned, every start logged recorded by its process, no thread or
// handle of the plugin left. A failing schedule is named with its seed;
// PCP_SCHEDULE=n replays that schedule alone, PCP_SEED=n a whole run, and
// PCP_SCHEDULES=n sets how many schedules a run plays.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "handle_count.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"
#include "support/unique_resource.h"
#include "watchdog.h"

namespace
{
constexpr wchar_t kId[] = L"PCPSCHED";
constexpr wchar_t kBase[] = L"PcpSched";
const std::wstring kProductKey = std::wstring(L"Software\\") + kBase + L"\\Product";
const std::wstring kSubscriptionKey = std::wstring(L".DEFAULT\\SOFTWARE\\Sub_ID_") + kId;
constexpr wchar_t kInstallerEvent[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";
const std::string kLaunch = "CProductConfigurationPlg::_ProductCfgTimer: Restarting ProductCfg.exe with parameters: ";
const std::string kProcessWait =
    "CProductConfigurationPlg::_WaitIfProcessIsRunning: Waiting for productcfg.exe process to close...";
const std::string kTimerStopped = "CProductConfigurationPlg::_ProductCfgTimer: Receive stop event";
const std::string kWaitThreadStopped = "CProductConfigurationPlg::_WaitForEventsAndConfig: Receive stop event";
const std::string kLaunchFailed = "CProductConfigurationPlg::_ProductCfgTimer: Failed to create process, err: ";
// The entries of the plugin's five sinks.
const char* const kSinkEntries[] = {
    "CProductConfigurationPlg::OnSubscriptionStatusChanged: -> ",
    "CProductConfigurationPlg::OnSessionChange: -> ",
    "CProductConfigurationPlg::OnServiceStatusChanged: -> ",
    "CProductConfigurationPlg::OnUserInfoChanged: -> ",
    "CProductConfigurationPlg::OnGetUserInfoExAsync: -> ",
};

uint64_t EnvNumber(const char* name, uint64_t otherwise)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

SubscriptionData RandomRecord(std::mt19937_64& rng)
{
    static const char* const kIds[] = {"", "C1", "C2"};
    static const char* const kAccounts[] = {"", "acc-1"};
    return MakeRecord(static_cast<int32_t>(rng() % 6), static_cast<int32_t>(rng() % 4),
                      static_cast<uint32_t>(rng() % 2), kAccounts[rng() % 2], kIds[rng() % 3]);
}

// One event of any kind, drawn from rng. A host thread waits for the
// plugin's handling of every other delivery, so that its events spread over
// the plugin's work, and fires timers (waiting for the item they run, which
// may wait for an earlier ProductCfg.exe until Stop). The thread that calls
// Stop waits for nothing.
void RandomEvent(sim::Host& host, std::mt19937_64& rng, WTSSESSION_NOTIFICATION& logon, bool hostThread)
{
    static const wchar_t* const kLevels[] = {L"1", L"0", L"null", L""};
    const bool wait = hostThread && rng() % 2 == 0;
    switch (rng() % 8)
    {
    case 0:
    case 1:
        host.subscription.Deliver(RandomRecord(rng), wait);
        break;
    case 2:
        host.sessionChange.Deliver(1, static_cast<uint32_t>(rng() % 2 ? 5 : rng() % 10), &logon, wait);
        break;
    case 3:
        host.serviceStatus.Deliver(0, static_cast<uint32_t>(rng() % 2), wait);
        break;
    case 4:
        host.productAgent.Async().Reply(kLevels[rng() % 4], rng() % 2 ? L"Org" : L"", wait);
        break;
    case 5:
        host.productAgent.DeliverUserInfoChanged(wait);
        break;
    case 6:
        // The configuration and apps timers, the hourly firing, a slow cloud.
        if (hostThread)
            host.queue.Advance(static_cast<uint64_t>(rng() % 3 == 0 ? 3600000 : rng() % 130000));
        else
            host.productAgent.DeliverUserInfoChanged(false);
        break;
    default:
        host.subscription.DeliverNull(wait);
        break;
    }
}

class ScheduleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, std::wstring(L"Software\\") + kBase);
        ASSERT_TRUE(module.Loaded());
        // The first schedule of a process leaves what Wine keeps for the
        // rest of it.
        Play(seed);
    }

    // One schedule; the plugin's life from Create to QmDestroyObject.
    void Play(uint64_t scheduleSeed)
    {
        SCOPED_TRACE("PCP_SCHEDULE=" + std::to_string(scheduleSeed) + " replays this schedule");
        std::mt19937_64 rng(scheduleSeed);
        log.Clear();
        if (rng() % 2) // the marker, or none
            registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"UnregFwWscFailed", 1);
        else
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey.c_str(), L"UnregFwWscFailed");
        // Half the schedules start ProductCfg.exe as soon as the timer runs.
        if (rng() % 2)
            registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 0);
        else
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey.c_str(), L"ProductCfgDelay");
        folder.Write(R"({"app_data":{"commercial_details_id":"C1"}})");
        const size_t threads = ThreadCount();
        {
            auto host = std::make_unique<sim::Host>();
            ConfigureProduct(*host, kId, kBase, kProductKey.c_str());
            host->config.Set(400, L"Desktop", folder.path + L"\\");
            host->subscription.SetRecord(RandomRecord(rng));
            host->connectIntegrator.SetAnswer({R"({"contacts":["a"]})", 0, static_cast<uint32_t>(rng() % 5)});
            for (const wchar_t* app : kApps)
                host->productAgent.SetModule(app, static_cast<uint32_t>(rng() % 2));
            host->serviceStatus.SetStatus(static_cast<uint32_t>(rng() % 2));
            UniqueHandle installer(rng() % 3 == 0 ? CreateEventW(nullptr, TRUE, FALSE, kInstallerEvent) : nullptr);
            WTSSESSION_NOTIFICATION logon{sizeof(WTSSESSION_NOTIFICATION), 1};

            // An earlier ProductCfg.exe in one schedule of four, ended after a
            // random number of the test thread's events.
            std::unique_ptr<standin::HeldProductCfg> earlier;
            if (rng() % 4 == 0)
            {
                earlier = std::make_unique<standin::HeldProductCfg>();
                ASSERT_TRUE(earlier->Started()) << earlier->Problem();
            }
            const size_t recordedBefore = standIns.Recorded();

            watchdog.Begin("the schedule of seed " + std::to_string(scheduleSeed) + " (PCP_SCHEDULE=" +
                           std::to_string(scheduleSeed) + " replays it)");
            IServPlugin* plugin = module.Create();
            ASSERT_NE(plugin, nullptr);
            ASSERT_EQ(plugin->Init(host.get()), 0u);
            ASSERT_EQ(plugin->Start(), 0u);

            // Three host threads of events; the teardown comes after a
            // random number of the test thread's own.
            std::atomic<bool> stopped{false};
            std::vector<std::thread> senders;
            for (int sender = 0; sender < 3; ++sender)
            {
                senders.emplace_back([&host, &logon, &stopped, seed = rng()] {
                    std::mt19937_64 own(seed);
                    for (int n = 0; n < 40 && !(stopped && n % 8 == 0); ++n)
                        RandomEvent(*host, own, logon, true);
                });
            }
            for (uint64_t n = rng() % 30, release = rng() % 40; n > 0; --n)
            {
                if (installer && rng() % 10 == 0)
                    SetEvent(installer.get());
                if (earlier && n == release)
                    earlier->Release();
                RandomEvent(*host, rng, logon, false);
            }
            plugin->Stop();
            const size_t launchesAtStop = log.Count("INFO", kLaunch);
            const size_t sinksAtStop = SinkEntries();
            stopped = true;
            plugin->UnInit();
            module.Destroy(plugin);
            for (std::thread& sender : senders)
                sender.join();
            watchdog.End();
            ExpectNothingLeft(*host);
            EXPECT_EQ(log.Count("INFO", kLaunch), launchesAtStop) << "ProductCfg.exe was started after Stop returned";
            EXPECT_EQ(SinkEntries(), sinksAtStop) << "a sink was entered after Stop returned";
            // Every start that did not fail gives one process, which records
            // itself; the earlier one records nothing.
            const size_t started = launchesAtStop - log.Count("ERROR", kLaunchFailed);
            launches += started;
            waitsForEarlier += log.Count("INFO", kProcessWait);
            stopEvents += log.Count("INFO", kTimerStopped) + log.Count("INFO", kWaitThreadStopped);
            EXPECT_TRUE(Eventually([&] { return standIns.Recorded() >= recordedBefore + started; }));
            EXPECT_EQ(standIns.Recorded(), recordedBefore + started);
            earlier.reset();
            standIns.EndAll();
        }
        EXPECT_EQ(ThreadCount(), threads) << "a thread of the plugin outlived it";
    }

    size_t SinkEntries() const
    {
        size_t entries = 0;
        for (const char* entry : kSinkEntries)
            entries += log.Count("TRACE", entry);
        return entries;
    }

    const uint64_t seed = EnvNumber("PCP_SEED", 20261125);
    size_t launches = 0;
    size_t waitsForEarlier = 0;
    size_t stopEvents = 0;
    LogCapture log;
    ProductCfgStandIns standIns;
    RegistryScratch registry;
    SettingsFolder folder{L"psc"};
    PluginModule module;
    Watchdog watchdog;
};
} // namespace

TEST_F(ScheduleTest, AnyInterleavingOfEventsAndTeardownLeavesNothingBehind)
{
    std::mt19937_64 seeds(seed);
    const uint64_t schedules = EnvNumber("PCP_SCHEDULES", 200);
    if (const uint64_t one = EnvNumber("PCP_SCHEDULE", 0))
        return Play(one);
    const size_t handles = OpenHandleCount();
    for (uint64_t schedule = 0; schedule < schedules && !HasFailure(); ++schedule)
        Play(seeds());
    // Wine's own share of the process grows now and then by a handle or two;
    // a leak of the plugin's grows with every schedule.
    EXPECT_LT(OpenHandleCount(), handles + 8) << "handles grew over " << schedules << " schedules";
    std::printf("%llu schedules: %zu ProductCfg.exe started, %zu waits for a running one, %zu waits ended by Stop\n",
                static_cast<unsigned long long>(schedules), launches, waitsForEarlier, stopEvents);
}
