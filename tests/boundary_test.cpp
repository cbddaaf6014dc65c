// An exception never leaves the plugin: an allocation of the DLL fails while
// an entry of the host's runs, at each kind of entry, and the entry ends in
// its guard with one level-4 line under its name and its failure value;
// afterwards the next event is handled as usual and Stop and UnInit come down
// cleanly. Failures that throw nothing: a read error on the data file is a
// file that does not open, a wait thread that cannot start a failed wait.
#include <thread>

#include "fault_injector.h"
#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "simhost/guarded_library.h"

namespace
{
class BoundaryTest : public QuietRunTest
{
protected:
    BoundaryTest() : QuietRunTest(L"PCPGUARD", L"PcpGuard") {}
    static void SetUpTestSuite()
    {
        // The DLL stays loaded while the suite runs: the patched table with it.
        keep.emplace(L"ProductCfgPlg.dll");
        installed = *keep && fault::Install(keep->get());
    }
    static void TearDownTestSuite() { keep.reset(); }
    void SetUp() override
    {
        ASSERT_TRUE(installed);
        host->config.Set(400, L"Desktop", folder.path + L"\\");
        QuietRunTest::SetUp();
    }
    void TearDown() override
    {
        fault::Disarm();
        QuietRunTest::TearDown();
    }
    // Runs trigger with the n-th allocation of the DLL failing, n = 1, 2, ...
    // until one failure ends in the guard of entry (the earlier ones are
    // absorbed on the way, as logging absorbs them); false when none does.
    template <class F>
    bool ThrowInto(const std::string& entry, F trigger)
    {
        for (size_t n = 1; n <= 64; ++n)
        {
            fault::Arm("malloc", n, fault::Mode::Transient);
            trigger();
            const bool idle = host->WaitIdle();
            fault::Disarm();
            if (!idle)
                return false;
            if (log.Contains("ERROR", Caught(entry)))
                return true;
        }
        return false;
    }
    std::string Caught(const std::string& entry) const { return entry + ": Exception caught: std::bad_alloc"; }

    static std::optional<sim::GuardedLibrary> keep;
    static bool installed;
    SettingsFolder folder{L"pbt"};
};
std::optional<sim::GuardedLibrary> BoundaryTest::keep;
bool BoundaryTest::installed = false;
} // namespace

TEST_F(BoundaryTest, AThrowAtEachKindOfEntryEndsInItsGuardAndTheNextEventWorks)
{
    // The exports and the plugin interface, with their failure values.
    DestroyPlugin();
    fault::Arm("malloc", 1, fault::Mode::Transient);
    EXPECT_EQ(module.Create(), nullptr) << "no memory for the object";
    fault::Disarm();
    plugin = module.Create();
    ASSERT_NE(plugin, nullptr);
    Status status = 0;
    ASSERT_TRUE(ThrowInto("CProductConfigurationPlg::Init", [&] { status = plugin->Init(host.get()); }));
    EXPECT_EQ(status, static_cast<Status>(ERROR_OUTOFMEMORY));
    EXPECT_EQ(host->components.Outstanding(), 0) << "UnInit gave everything back";
    Renew();
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    running = true;
    ASSERT_TRUE(ThrowInto("CProductConfigurationPlg::Start", [&] { status = plugin->Start(); }));
    EXPECT_EQ(status, static_cast<Status>(ERROR_OUTOFMEMORY));
    Renew();
    StartPlugin();

    // The sinks, a work item on the timer, each then used again.
    WTSSESSION_NOTIFICATION logon{sizeof(WTSSESSION_NOTIFICATION), 1};
    const std::pair<std::string, std::function<void()>> rows[] = {
        {"CProductConfigurationPlg::OnSubscriptionStatusChanged",
         [&] { host->subscription.Deliver(MakeRecord(5, 3, 1, "acc")); }},
        {"CProductConfigurationPlg::OnSessionChange", [&] { host->sessionChange.Deliver(1, 5, &logon); }},
        {"CProductConfigurationPlg::OnGetUserInfoExAsync", [&] { host->productAgent.Async().Reply(L"1", L""); }},
        {"CProductConfigurationPlg::_ProductCfgTimer", [&] { host->queue.Advance(3600000); }},
    };
    for (const auto& [entry, trigger] : rows)
    {
        SCOPED_TRACE(entry);
        log.Clear();
        EXPECT_TRUE(ThrowInto(entry, trigger)) << ::testing::PrintToString(log.Messages("ERROR"));
        log.Clear();
        trigger();
        ASSERT_TRUE(host->WaitIdle());
        EXPECT_EQ(log.Count("ERROR", Caught(entry)), 0u);
        EXPECT_EQ(log.Count("TRACE", entry + ": <- "), 1u) << "the next event works";
    }

    // A thread's record of its exceptions goes back when its entry returns:
    // seventy threads, each with a throw inside an entry, never fill the
    // table of 64 records, past which a record would come from calloc.
    auto* events = static_cast<ISubscriptionEvents*>(static_cast<CProductConfigurationPlg*>(plugin));
    const SubscriptionData record = MakeRecord(5, 3, 1, "acc");
    fault::Arm("malloc", 1, fault::Mode::Persistent);
    for (int i = 0; i < 70; ++i)
        std::thread([&] { events->OnSubscriptionStatusChanged(&record); }).join();
    const size_t heapRecords = fault::Calls("calloc");
    EXPECT_GE(fault::Injected(), 70u);
    fault::Disarm();
    EXPECT_EQ(heapRecords, 0u);
    StopPlugin();
    ExpectNothingLeft(*host);
}

TEST_F(BoundaryTest, AReadErrorIsAMissingFileAndAWaitThreadThatCannotStartAFailedWait)
{
    folder.Write(R"({"app_data":{"commercial_details_id":"C1"}})");
    fault::Arm("_read", 1, fault::Mode::Transient);
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    fault::Disarm();
    running = true;
    const std::vector<std::string> errors = log.Messages("ERROR");
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[0], "CBootstrap::_GetBootstrapData: Failed to open");
    EXPECT_EQ(errors[1], "CBootstrap::_InitCommercialId: Get bootstrap data failed");

    // No thread can be made while the installer is at work: the decision is
    // made at once, as after a failed wait, and the next record decides too.
    host->subscription.SetRecord(MakeRecord(5, 3, 1));
    const UniqueHandle installer(
        CreateEventW(nullptr, TRUE, FALSE, L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6"));
    fault::Arm("_beginthreadex", 1, fault::Mode::Transient);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host->WaitIdle());
    fault::Disarm();
    EXPECT_EQ(log.Count("ERROR", "CProductConfigurationPlg::_TryDoConfig: Cannot start the wait thread: "), 1u);
    EXPECT_EQ(Armings(), 1u);
    host->subscription.Deliver(MakeRecord(5, 3, 1));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(Armings(), 2u);
    StopPlugin();
    ExpectNothingLeft(*host);
}
