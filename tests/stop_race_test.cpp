// Stop at a different moment each time against timer items, records, agent
// replies, _DelayedLoad, an installer and an earlier ProductCfg.exe, all on
// real threads; a Stop that does not return in the bound is a failure.
#include <atomic>
#include <fstream>
#include <future>

#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "standin_control.h"

namespace
{
using namespace std::chrono_literals;

constexpr auto kBound = 10s;
constexpr int kIterations = 50;
constexpr size_t kRoundsPerWorker = 40;
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPSTOPRACE";
constexpr wchar_t kTestKey[] = L"Software\\PcpStopRace";
constexpr wchar_t kProductKey[] = L"Software\\PcpStopRace\\Product";

const std::string kWaitThreadStopped = "CProductConfigurationPlg::_WaitForEventsAndConfig: Receive stop event";
const std::string kWaiting = "CProductConfigurationPlg::_WaitForEventsAndConfig: Start waiting after installer";
const std::string kTimerStopped = "CProductConfigurationPlg::_ProductCfgTimer: Receive stop event";
const std::string kProcessWait =
    "CProductConfigurationPlg::_WaitIfProcessIsRunning: Waiting for productcfg.exe process to close...";
const std::string kLaunch = "CProductConfigurationPlg::_ProductCfgTimer: Restarting ProductCfg.exe with parameters: ";
const std::string kLaunchFailed = "CProductConfigurationPlg::_ProductCfgTimer: Failed to create process, err: ";
const std::string kDoConfigEntry = "CProductConfigurationPlg::_DoConfig: -> CProductConfigurationPlg::_DoConfig()";
const std::string kStopExit = "CProductConfigurationPlg::Stop: <- ";

enum class Kind
{
    RightAfterStart, // Stop races _DelayedLoad
    Busy,            // records, replies and timer items racing
    Installer,       // the same while waitThread waits for the installer
    EarlierProcess,  // the same while a timer item waits for ProductCfg.exe
};
const char* const kKindNames[] = {"right after Start", "busy", "installer running", "earlier ProductCfg.exe running"};

// One record in six asks for a run (cfgStatus 1); the others do not, or
// carry an unknown product type.
SubscriptionData Record(int32_t serverType, uint32_t statusCode = 0)
{
    return MakeRecord(serverType, 3, statusCode, "acc-race");
}
SubscriptionData Cycled(size_t n) { return n % 6 == 0 ? Record(5) : n % 6 == 3 ? Record(0, 7) : Record(3); }

// Calls body on a thread of its own once, then up to cap times until told to
// finish; detached when Finish failed, leaving what it uses alive.
class Worker
{
public:
    Worker(size_t cap, std::function<void()> body)
        : thread([this, cap, body] {
              for (size_t n = 0; n < cap && (n == 0 || !stopping); ++n, ++rounds)
                  body();
              done.set_value();
          })
    {
    }
    ~Worker()
    {
        if (thread.joinable())
            thread.detach();
    }

    size_t Rounds() const { return rounds; }
    // false when the body did not return within the bound.
    bool Finish()
    {
        stopping = true;
        if (finished.wait_for(kBound) != std::future_status::ready)
            return false;
        thread.join();
        return true;
    }

private:
    std::atomic<bool> stopping{false};
    std::atomic<size_t> rounds{0};
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    std::thread thread;
};

// Calls Stop on a thread of its own; false when it has not returned within
// the bound, and the thread is then left running.
bool StopReturns(IServPlugin* plugin)
{
    auto stop = std::make_unique<Worker>(1, [plugin] { plugin->Stop(); });
    if (stop->Finish())
        return true;
    stop.release();
    return false;
}

// The ProductCfg.exe instances launched record themselves in a file of ours.
class Launches
{
public:
    Launches() : path(NewTempFile(L"pcl"))
    {
        SetEnvironmentVariableW(L"PCP_PRODUCTCFG_RECORD", path.c_str());
        for (const wchar_t* name : {L"PCP_PRODUCTCFG_HOLD_MS", L"PCP_PRODUCTCFG_READY", L"PCP_PRODUCTCFG_RELEASE"})
            SetEnvironmentVariableW(name, nullptr);
    }
    ~Launches()
    {
        AwaitEnded(0);
        SetEnvironmentVariableW(L"PCP_PRODUCTCFG_RECORD", nullptr);
        DeleteFileW(path.c_str());
    }
    Launches(const Launches&) = delete;

    // Waits until count more instances have recorded themselves, then until
    // each recorded one has ended; one that does not is terminated.
    bool AwaitEnded(size_t count)
    {
        expected += count;
        std::vector<DWORD> pids;
        bool ok = Eventually([&] {
            pids.clear();
            std::ifstream in(path.c_str(), std::ios::binary);
            for (std::string line; std::getline(in, line);)
                pids.push_back(std::stoul(line));
            return pids.size() >= expected;
        });
        for (; ended < pids.size(); ++ended)
        {
            const UniqueHandle process(OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, pids[ended]));
            if (process && WaitForSingleObject(process.get(), standin::kBoundMs) != WAIT_OBJECT_0)
            {
                TerminateProcess(process.get(), 1);
                WaitForSingleObject(process.get(), standin::kBoundMs);
                ok = false;
            }
        }
        return ok;
    }

private:
    std::wstring path;
    size_t expected = 0;
    size_t ended = 0;
};
class StopRaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.Loaded());
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        // The seccenter is never allowed, so only a record with another
        // server product type arms the timer, due at once.
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 0);
    }

    size_t Count(const char* level, const std::string& prefix) const { return log.Count(level, prefix); }
    bool LaunchesEnded() { return launches.AwaitEnded(Count("INFO", kLaunch) - Count("ERROR", kLaunchFailed)); }

    // One plugin object from Init to QmDestroyObject with Stop racing; false
    // when a bounded wait failed and the objects in use were left alive.
    bool Iteration(int i, Kind kind, standin::HeldProductCfg* earlier);

    LogCapture log;
    PluginModule module;
    RegistryScratch registry;
    Launches launches;
};

bool StopRaceTest::Iteration(int i, Kind kind, standin::HeldProductCfg* earlier)
{
    SCOPED_TRACE("iteration " + std::to_string(i) + ", " + kKindNames[static_cast<int>(kind)]);
    log.Clear();
    auto host = std::make_unique<sim::Host>();
    ConfigureProduct(*host, L"PCPSTOPRACE", L"PcpStopRace", kProductKey);
    // Waiting for an earlier process needs a timer item at once.
    host->subscription.SetRecord(kind == Kind::EarlierProcess ? Record(5) : Record(3));
    IServPlugin* plugin = module.Create();
    EXPECT_NE(plugin, nullptr);
    if (plugin == nullptr)
        return false;
    EXPECT_EQ(plugin->Init(host.get()), 0u);
    EXPECT_EQ(plugin->Start(), 0u);

    std::vector<std::unique_ptr<Worker>> workers;
    auto abandon = [&](const char* what) {
        ADD_FAILURE() << what << " did not return within the bound; the objects in use are left alive";
        for (auto& worker : workers)
            worker.release();
        host.release();
        return false;
    };

    // Right after Start, Stop meets _DelayedLoad queued or running; else it
    // comes after a different number of records each time.
    if (kind == Kind::RightAfterStart)
        EXPECT_TRUE(i % 4 == 0 || host->journal.WaitFor("Run _DelayedLoad"));
    else
    {
        EXPECT_TRUE(host->WaitIdle());
        EXPECT_TRUE(kind != Kind::Installer || Eventually([&] { return Count("INFO", kWaiting) == 1; }));
        sim::Host* h = host.get();
        auto delivered = std::make_shared<std::atomic<size_t>>(0);
        for (std::function<void()> body : std::vector<std::function<void()>>{
                 [h] { h->queue.Advance(3600000); },
                 [h, delivered] { h->subscription.Deliver(Cycled((*delivered)++), false); },
                 [h] { h->productAgent.Async().Reply(L"1", L"Stop race organisation", false); }})
            workers.push_back(std::make_unique<Worker>(kRoundsPerWorker, body));
        EXPECT_TRUE(kind != Kind::EarlierProcess || Eventually([&] { return Count("INFO", kProcessWait) == 1; }));
        EXPECT_TRUE(Eventually([&] { return workers[1]->Rounds() > static_cast<size_t>(i % 7); }));
    }

    if (!StopReturns(plugin))
    {
        if (earlier == nullptr)
            return abandon("Stop");
        // Held up by the earlier process: Stop should return once it ends.
        ADD_FAILURE() << "Stop did not return within the bound while a timer item waited for an earlier "
                         "ProductCfg.exe; the process is ended now";
        earlier->Release();
        if (!Eventually([&] { return Count("TRACE", kStopExit) == 1; }))
            return abandon("Stop, even after the earlier process ended,");
    }
    for (auto& worker : workers)
        if (!worker->Finish())
            return abandon("a worker");

    if (kind == Kind::Installer)
    {
        EXPECT_EQ(Count("INFO", kWaitThreadStopped), 1u);
        EXPECT_EQ(Count("TRACE", kDoConfigEntry), 0u);
    }
    else if (kind == Kind::EarlierProcess)
    {
        // A timer item re-armed by a record may meet the stop event too; none
        // starts a process while the earlier one runs.
        EXPECT_GE(Count("INFO", kTimerStopped), 1u);
        EXPECT_EQ(Count("INFO", kLaunch), 0u);
    }
    else // no installer: waitThread never ran
        EXPECT_EQ(Count("INFO", kWaitThreadStopped), 0u);

    plugin->UnInit();
    module.Destroy(plugin);
    ExpectNothingLeft(*host);
    EXPECT_EQ(host->journal.LinesStartingWith("ERROR"), std::vector<std::string>{});
    EXPECT_TRUE(LaunchesEnded());
    return true;
}
} // namespace

TEST_F(StopRaceTest, StopEndsEverythingWhateverRunsBesideIt)
{
    int i = 0;
    for (; i < 26; ++i)
        if (!Iteration(i, i % 2 == 0 ? Kind::RightAfterStart : Kind::Busy, nullptr))
            return;
    {
        standin::Installer installer;
        ASSERT_TRUE(installer.Started()) << "InstallerStandin.exe exit code "
                                         << installer.EarlyExit().value_or(0xFFFFFFFFu);
        for (; i < 38; ++i)
            if (!Iteration(i, Kind::Installer, nullptr))
                return;
    }
    standin::HeldProductCfg earlier;
    ASSERT_TRUE(earlier.Started()) << earlier.Problem();
    for (; i < kIterations && !HasFailure(); ++i)
        if (!Iteration(i, Kind::EarlierProcess, &earlier))
            return;
}

// Without a race: Stop comes while a record's decision re-arms the timer and
// waits (WaitTimer) for the timer item, which waits for the earlier process.
TEST_F(StopRaceTest, StopEndsTheWaitForAnEarlierProcessWhileARecordReArmsTheTimer)
{
    standin::HeldProductCfg earlier;
    ASSERT_TRUE(earlier.Started()) << earlier.Problem();
    sim::Host host;
    host.config.Set(44, L"Desktop", L"PCPSTOPRACE");
    host.config.Set(217, L"Desktop", kProductKey);
    host.subscription.SetRecord(Record(5));
    IServPlugin* plugin = module.Create();
    ASSERT_NE(plugin, nullptr);
    ASSERT_EQ(plugin->Init(&host), 0u);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host.WaitIdle());
    Worker timer(1, [&host] { host.queue.Advance(0); });
    ASSERT_TRUE(Eventually([&] { return Count("INFO", kProcessWait) == 1; }));
    host.subscription.Deliver(Record(5), false);
    ASSERT_TRUE(host.journal.WaitFor("WaitTimer _ProductCfgTimer"));

    const bool returned = StopReturns(plugin);
    EXPECT_TRUE(returned) << "Stop waits for the serial execution, whose item waits for the timer item, which "
                             "waits for the earlier ProductCfg.exe or the stop event that Stop sets only later";
    if (!returned)
    {
        earlier.Release();
        ASSERT_TRUE(Eventually([&] { return Count("TRACE", kStopExit) == 1; }, 60s));
    }
    ASSERT_TRUE(timer.Finish());
    EXPECT_EQ(Count("INFO", kTimerStopped), returned ? 1u : 0u);
    plugin->UnInit();
    module.Destroy(plugin);
    EXPECT_TRUE(LaunchesEnded());
    ExpectNothingLeft(host);
}

// Stop while _DelayedLoad runs on the serial execution: the item is held at
// its start until Stop has removed every sink, and then registers its own.
TEST_F(StopRaceTest, StopMeetingARunningDelayedLoadLeavesNoSink)
{
    sim::Host host;
    host.journal.SetListener([&host](const std::string& line) {
        if (line == "Run _DelayedLoad")
            host.journal.WaitFor("productagent.ClearResponseSink", 1, kBound);
    });
    IServPlugin* plugin = module.Create();
    ASSERT_NE(plugin, nullptr);
    ASSERT_EQ(plugin->Init(&host), 0u);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host.journal.WaitFor("Run _DelayedLoad"));
    ASSERT_TRUE(StopReturns(plugin));
    EXPECT_EQ(SinksOf(host), Sinks(5, 0));
    plugin->UnInit();
    module.Destroy(plugin);
    ExpectNothingLeft(host);
}
