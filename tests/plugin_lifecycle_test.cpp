// The plugin object's life through the real exports: Init's failures in
// order, Start and the run-once _DelayedLoad, Stop and UnInit repeated, and
// every work item released exactly once.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "plugin_fixture.h"

namespace
{
using Strings = std::vector<std::string>;

const Strings kAllFive = {"SubscriptionCommClient", "sessionchange", "productinfo", "QmServiceStatusClient",
                          "productagentcommclient"};

// UnInit gives the components back in this order.
const Strings kReleaseOrder = {"QmServiceStatusClient", "SubscriptionCommClient", "sessionchange", "productinfo",
                               "productagentcommclient"};

struct InitCase
{
    const char* what;
    std::string message; // "function: text", logged at level 4
    std::function<void(sim::Host&)> setUp;
    Status status;
    size_t acquiredBeforeFailure; // of kAllFive; 5 with no failing component
    bool failsAtComponent;        // at the next of kAllFive, or at CWscHandler's "productinfo" after all five
    bool serialCreated;
    bool nullServMain = false;
};

const std::string kInitScope = "CProductConfigurationPlg::Init: ";

std::wstring Wide(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

std::vector<InitCase> InitCases()
{
    std::vector<InitCase> cases = {
        {"servMain null", kInitScope + "ServMain is null!", [](sim::Host&) {}, 31, 0, false, false, true},
        {"component manager null", kInitScope + "Component manager is null!",
         [](sim::Host& h) { h.SetComponentManagerNull(true); }, 31, 0, false, false},
        {"event queue null", kInitScope + "Event queue is null!", [](sim::Host& h) { h.SetEventQueueNull(true); }, 31,
         0, false, false},
        {"serial execution refused", kInitScope + "Error creating serial Execution, err: -2147467259",
         [](sim::Host& h) { h.queue.FailCreateSerialExecution(0x80004005u); }, 0x80004005u, 0, false, false},
        // An object that comes with a failure is kept, and released by the destructor.
        {"serial execution refused with an object", kInitScope + "Error creating serial Execution, err: 5",
         [](sim::Host& h) { h.queue.FailCreateSerialExecution(5, true); }, 5, 0, false, true},
        // The Security Center handler's own holder of "productinfo".
        {"CWscHandler::Init", "CWscHandler::Init: Get serv config failed, err: 5",
         [](sim::Host& h) { h.components.Fail(L"productinfo", 5, 1); }, 5, 5, true, true},
    };
    const Status statuses[] = {5, 1168, 1460, 2, 87};
    const char* messages[] = {"Get subscription failed: ", "Get session change failed: ", "Get serv config failed: ",
                              "Get service status client failed, err: ", "Get IProductAgent failed, err: "};
    for (size_t i = 0; i < kAllFive.size(); ++i)
    {
        const std::wstring name = Wide(kAllFive[i]);
        const Status status = statuses[i];
        cases.push_back({"component fails", kInitScope + messages[i] + std::to_string(status),
                         [name, status](sim::Host& h) { h.components.Fail(name, status); }, status, i, true, true});
    }
    return cases;
}

// The five acquisitions as "+name", in order.
Strings AcquiredFive()
{
    Strings order;
    for (const std::string& name : kAllFive)
        order.push_back("+" + name);
    return order;
}

// A fresh host and plugin object in place of the test's own.
class LifecycleTest : public PluginTest
{
protected:
    void Renew()
    {
        DestroyPlugin();
        host = std::make_unique<sim::Host>();
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
    }
};
} // namespace

TEST_F(LifecycleTest, InitFailuresGiveTheirStatusAndGiveBackWhatWasAcquired)
{
    for (const InitCase& row : InitCases())
    {
        SCOPED_TRACE(row.what + std::string(" / status ") + std::to_string(row.status));
        Renew();
        row.setUp(*host);
        log.Clear();
        EXPECT_EQ(plugin->Init(row.nullServMain ? nullptr : host.get()), row.status);
        EXPECT_EQ(log.Messages("ERROR"), Strings{row.message});

        // Asked in order up to the failing name, never beyond it; what was
        // acquired is given back once, in UnInit's order.
        Strings expected = AcquiredFive();
        expected.resize(row.acquiredBeforeFailure);
        if (row.failsAtComponent)
            expected.push_back("!" + (row.acquiredBeforeFailure < kAllFive.size() ? kAllFive[row.acquiredBeforeFailure]
                                                                                 : std::string("productinfo")));
        for (const std::string& name : kReleaseOrder)
            if (std::count(expected.begin(), expected.end(), "+" + name) != 0)
                expected.push_back("-" + name);
        EXPECT_EQ(host->components.Order(), expected);
        EXPECT_EQ(host->components.Outstanding(), 0);
        // The serial execution object stays until the destructor.
        EXPECT_EQ(host->queue.LiveSerialExecutions(), row.serialCreated ? 1u : 0u);

        // UnInit again finds nothing to give back.
        const size_t calls = host->journal.Lines().size();
        plugin->UnInit();
        EXPECT_EQ(host->journal.Lines().size(), calls);
        DestroyPlugin();
        EXPECT_EQ(host->queue.LiveSerialExecutions(), 0u);
    }
}

TEST_F(LifecycleTest, CBootstrapsFailuresEndInitAfterTheFiveAreAcquired)
{
    const struct
    {
        const char* name;
        size_t succeedFirst;
        Status status;
        std::string message;
        Strings bootstrapOrder; // its requests and releases, behind the five acquisitions
    } rows[] = {
        {"productinfo", 2, 1460, "CBootstrap::Init: Serv config, err: 1460", {"!productinfo"}},
        {"connect_integrator", 0, 5, "CBootstrap::Init: Cloud init failed, err: 5",
         {"+productinfo", "!connect_integrator", "-productinfo"}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        Renew();
        host->components.Fail(Wide(row.name), row.status, row.succeedFirst);
        log.Clear();
        EXPECT_EQ(plugin->Init(host.get()), row.status);
        EXPECT_EQ(log.Messages("ERROR"), Strings{row.message});
        // The Security Center handler's "productinfo" comes before
        // CBootstrap's requests and goes back after them.
        Strings expected = AcquiredFive();
        expected.push_back("+productinfo");
        expected.insert(expected.end(), row.bootstrapOrder.begin(), row.bootstrapOrder.end());
        expected.push_back("-productinfo");
        for (const std::string& name : kReleaseOrder)
            expected.push_back("-" + name);
        EXPECT_EQ(host->components.Order(), expected);
        EXPECT_EQ(host->components.Outstanding(), 0);
    }
}

TEST_F(LifecycleTest, InitAcquiresInOrderAndUnInitGivesBackOnceMembersFirst)
{
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    // The five, then the Security Center handler's "productinfo", CBootstrap's
    // "productinfo" and "connect_integrator", the apps manager's
    // "productinfo" and "productagentcommclient".
    Strings expected = AcquiredFive();
    for (const char* name : {"+productinfo", "+productinfo", "+connect_integrator", "+productinfo",
                             "+productagentcommclient"})
        expected.push_back(name);
    EXPECT_EQ(host->components.Order(), expected);
    EXPECT_EQ(host->queue.LiveSerialExecutions(), 1u);
    plugin->UnInit();
    plugin->UnInit();
    // Members first (the apps manager, CBootstrap, the handler), then the
    // plugin's own.
    for (const char* name : {"-productagentcommclient", "-productinfo", "-connect_integrator", "-productinfo",
                             "-productinfo"})
        expected.push_back(name);
    for (const std::string& name : kReleaseOrder)
        expected.push_back("-" + name);
    EXPECT_EQ(host->components.Order(), expected);
    EXPECT_EQ(host->components.Outstanding(), 0);
}

TEST_F(LifecycleTest, NothingButTheObserverUntilLoadedThenDelayedLoadRunsOnce)
{
    host->serviceStatus.SetStatus(0);
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host->WaitIdle());
    // The observer is added before the status is read.
    const size_t added = host->journal.Find("QmServiceStatusClient.AddObserver");
    ASSERT_NE(added, sim::Journal::npos);
    EXPECT_NE(host->journal.Find("QmServiceStatusClient.GetStatus 0 -> 0", added), sim::Journal::npos);
    EXPECT_EQ(SinksOf(*host), (Sinks{0, 0, 0, 0, 1}));
    EXPECT_EQ(host->ledger.ReceivedCount(), 0u);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::Start: Orbhub service is not loaded yet"), 1u);

    host->serviceStatus.Deliver(0, 1);
    host->serviceStatus.Deliver(0, 1);
    host->serviceStatus.Deliver(1, 1); // other service: ignored
    host->serviceStatus.Deliver(0, 0); // not loaded: ignored
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(host->ledger.ReceivedCount("_DelayedLoad"), 2u);
    EXPECT_EQ(host->journal.Count("Run _DelayedLoad"), 2u);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_DelayedLoad: Already initialized"), 1u);
    EXPECT_EQ(SinksOf(*host), (Sinks{1, 1, 1, 1, 1}));
    EXPECT_EQ(host->journal.Count("productagent.GetUserInfoExAsync"), 1u);

    StopAndUnInit();
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
    EXPECT_EQ(host->ledger.ReleasedCount("_DelayedLoad"), 2u);
    EXPECT_EQ(host->ledger.DoubleReleases(), 0u);
}

TEST_F(LifecycleTest, DelayedLoadGoesOnWithoutTheAsynchronousAgent)
{
    host->productAgent.SetAsyncAvailable(false);
    host->subscription.SetRecord(MakeRecord(4, 3));
    StartLoaded();
    EXPECT_EQ(SinksOf(*host), (Sinks{1, 1, 1, 0, 1}));
    EXPECT_EQ(host->journal.Count("productagent.GetUserInfoExAsync"), 0u);
    // The record is still fetched and processed.
    EXPECT_EQ(host->journal.Count("SubscriptionCommClient.GetSubscription"), 1u);
    EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_RefreshSubscription: ServerProductType = 4, ProductType = 3"));
    EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetConfigurationStatus: CfgStatus: 1"));
    plugin->Stop();
    EXPECT_EQ(host->journal.Count("productagent.ClearResponseSink"), 0u);
    plugin->UnInit();
}

TEST_F(LifecycleTest, StopRemovesEverySinkInOrderAndRepeatsSafely)
{
    StartLoaded();
    const size_t before = host->journal.Lines().size();
    plugin->Stop();

    const Strings expected = {"QmServiceStatusClient.RemoveObserver",
                              "SubscriptionCommClient.Unsubscribe",
                              "sessionchange.Unsubscribe",
                              "productagentcommclient.Unsubscribe",
                              "productagentcommclient.QueryInterface -> async",
                              "productagent.ClearResponseSink",
                              "ReleaseSerialExecution"};
    Strings lines = host->journal.Lines();
    EXPECT_EQ(Strings(lines.begin() + static_cast<long>(before), lines.end()), expected);
    EXPECT_EQ(SinksOf(*host), Sinks(5, 0));
    EXPECT_EQ(host->queue.LiveSerialExecutions(), 0u);

    // A second Stop repeats the removals and finds the serial execution gone.
    const size_t afterFirst = host->journal.Lines().size();
    plugin->Stop();
    lines = host->journal.Lines();
    EXPECT_EQ(Strings(lines.begin() + static_cast<long>(afterFirst), lines.end()),
              Strings(expected.begin(), expected.end() - 1));
    EXPECT_EQ(host->queue.InvalidHandleCalls(), 0u);

    plugin->UnInit();
    plugin->UnInit();
    EXPECT_EQ(host->components.Outstanding(), 0);
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
    EXPECT_EQ(host->queue.LiveTimers(), 0u);

    // The run-once flag died with the old object: a new one loads again.
    Renew();
    StartLoaded();
    EXPECT_EQ(SinksOf(*host), (Sinks{1, 1, 1, 1, 1}));
    StopAndUnInit();
}

// Stopped before _DelayedLoad has run: the removals all the same, no timer
// to end, the queued items released unrun.
TEST_F(LifecycleTest, StopBeforeDelayedLoadRemovesAllAndReleasesQueuedItemsUnrun)
{
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    sim::SerialExecution* serial = host->Serial();
    ASSERT_NE(serial, nullptr);
    serial->Pause();
    ASSERT_EQ(plugin->Start(), 0u);
    host->serviceStatus.Deliver(0, 1);
    host->serviceStatus.Deliver(0, 1);
    EXPECT_EQ(host->ledger.ReceivedCount("_DelayedLoad"), 3u);

    plugin->Stop();
    for (const char* removal : {"SubscriptionCommClient.Unsubscribe", "sessionchange.Unsubscribe",
                                "productagentcommclient.Unsubscribe"})
        EXPECT_EQ(host->journal.Count(removal), 1u) << removal;
    EXPECT_TRUE(host->journal.LinesStartingWith("CancelTimer").empty());
    EXPECT_TRUE(host->journal.LinesStartingWith("DeleteTimer").empty());
    EXPECT_EQ(host->journal.Count("Run _DelayedLoad"), 0u);
    EXPECT_EQ(host->journal.Count("Release _DelayedLoad (not run)"), 3u);
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
    EXPECT_EQ(host->ledger.DoubleReleases(), 0u);
    EXPECT_EQ(SinksOf(*host), Sinks(5, 0));
    StopAndUnInit();
    EXPECT_EQ(host->components.Outstanding(), 0);
}
