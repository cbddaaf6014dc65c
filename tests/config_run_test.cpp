// The real plugin with the simulated host: Init, Start and Stop; records,
// settings and organisation replies, and what they lead to, up to a run of
// ProductCfg.exe.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"

namespace
{
using Strings = std::vector<std::string>;

const std::string kPlugin = "CProductConfigurationPlg::";
const std::string kEvent = kPlugin + "OnSubscriptionStatusChanged: ";
const std::string kTimer = kPlugin + "_ProductCfgTimer: ";
const std::string kWait = kPlugin + "_WaitIfProcessIsRunning: ";
const std::string kWaiting = kWait + "Waiting for productcfg.exe process to close...";

// Init's acquisitions: its own five, then the Security Center handler's,
// CBootstrap's and the apps manager's.
const Strings kAcquisitions = {"SubscriptionCommClient", "sessionchange",          "productinfo",
                               "QmServiceStatusClient",  "productagentcommclient", "productinfo",
                               "productinfo",            "connect_integrator",     "productinfo",
                               "productagentcommclient"};
// The own five go back in this order, after the members' in reverse.
const Strings kOwnReleases = {"QmServiceStatusClient", "SubscriptionCommClient", "sessionchange", "productinfo",
                              "productagentcommclient"};

// The components' record: the first acquired of kAcquisitions had, the next
// one refused, and, with released, all given back once.
Strings ComponentOrder(size_t acquired, bool refused, bool released)
{
    Strings order;
    for (size_t i = 0; i < acquired; ++i)
        order.push_back("+" + kAcquisitions[i]);
    if (refused)
        order.push_back("!" + kAcquisitions[acquired]);
    for (size_t i = acquired; released && i-- > 5;)
        order.push_back("-" + kAcquisitions[i]);
    const auto own = kAcquisitions.begin() + static_cast<long>(std::min<size_t>(acquired, 5));
    for (const std::string& name : kOwnReleases)
        if (released && std::find(kAcquisitions.begin(), own, name) != own)
            order.push_back("-" + name);
    return order;
}

// A record, with the fields of the survey.
SubscriptionData Record(int32_t server, int32_t local, uint32_t status, const char* account,
                        const char* commercial = "", int32_t key = 0, uint32_t days = 0, bool valid = false,
                        const std::string& bundle = "")
{
    SubscriptionData record = MakeRecord(server, local, status, account, commercial);
    record.KeyType = key;
    record.DaysLeft = days;
    record.Valid = valid;
    std::memcpy(record.BundleId, bundle.c_str(), std::min(bundle.size() + 1, kSubscriptionTextChars));
    return record;
}

// ProductCfg.exe has run before and the seccenter has been shown.
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
    bool Launched() const { return log.Count("INFO", "ExecuteProcessAsUser: Run ") > 0; }
    IProductCfgInternal* View() const { return static_cast<CProductConfigurationPlg*>(plugin); }
};
} // namespace

// Each failure logged once, with its status, what was acquired given back;
// after success, by UnInit, once. The serial execution stays to the end.
TEST_F(ConfigRunTest, InitFailsAtEachStepWithItsStatusAndGivesBackWhatItAcquired)
{
    const std::string init = "CProductConfigurationPlg::Init: ";
    struct Row
    {
        std::string error; // the one ERROR line, if any
        std::function<void(sim::Host&)> setUp;
        Status status;
        size_t acquired; // of kAcquisitions
        bool refused;    // the next one is refused
        bool serialKept;
        bool nullServMain = false;
    };
    std::vector<Row> rows = {
        {init + "ServMain is null!", [](sim::Host&) {}, 31, 0, false, false, true},
        {init + "Component manager is null!", [](sim::Host& h) { h.SetComponentManagerNull(true); }, 31, 0, false,
         false},
        {init + "Event queue is null!", [](sim::Host& h) { h.SetEventQueueNull(true); }, 31, 0, false, false},
        {init + "Error creating serial Execution, err: -2147467259",
         [](sim::Host& h) { h.queue.FailCreateSerialExecution(0x80004005u); }, 0x80004005u, 0, false, false},
        {init + "Error creating serial Execution, err: 5", [](sim::Host& h) { h.queue.FailCreateSerialExecution(5, true); },
         5, 0, false, true},
        {"", [](sim::Host&) {}, 0, kAcquisitions.size(), false, true},
    };
    // Each of kAcquisitions refused in turn.
    const std::pair<Status, std::string> refusals[] = {
        {5, init + "Get subscription failed: "},        {1168, init + "Get session change failed: "},
        {1460, init + "Get serv config failed: "},      {2, init + "Get service status client failed, err: "},
        {87, init + "Get IProductAgent failed, err: "}, {5, "CWscHandler::Init: Get serv config failed, err: "},
        {1460, "CBootstrap::Init: Serv config, err: "}, {5, "CBootstrap::Init: Cloud init failed, err: "},
        {6, "CAppsManager::Init: ServConfig, err: "},   {8, "CAppsManager::Init: Product Agent, err: "}};
    for (size_t i = 0; i < kAcquisitions.size(); ++i)
    {
        const std::wstring name(kAcquisitions[i].begin(), kAcquisitions[i].end());
        const size_t earlier = static_cast<size_t>(
            std::count(kAcquisitions.begin(), kAcquisitions.begin() + static_cast<long>(i), kAcquisitions[i]));
        const Status status = refusals[i].first;
        rows.push_back({refusals[i].second + std::to_string(status),
                        [=](sim::Host& h) { h.components.Fail(name, status, earlier); }, status, i, true, true});
    }
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.error.empty() ? "Init succeeds" : row.error);
        ASSERT_NO_FATAL_FAILURE(Renew());
        row.setUp(*host);
        log.Clear();
        EXPECT_EQ(plugin->Init(row.nullServMain ? nullptr : host.get()), row.status);
        Strings errors = row.error.empty() ? Strings{} : Strings{row.error};
        // Past CBootstrap: no data file; at the end, no delay in the registry.
        if (row.acquired >= 8)
            errors.insert(errors.begin(), "CBootstrap::_InitCommercialId: Get bootstrap data failed");
        if (row.status == 0)
            errors.push_back(kPlugin + "_GetDelay: get dword value failed, err: 2");
        EXPECT_EQ(log.Messages("ERROR"), errors);
        EXPECT_EQ(host->components.Order(), ComponentOrder(row.acquired, row.refused, row.status != 0));
        plugin->UnInit();
        plugin->UnInit();
        EXPECT_EQ(host->components.Order(), ComponentOrder(row.acquired, row.refused, true));
        EXPECT_EQ(host->queue.LiveSerialExecutions(), row.serialKept ? 1u : 0u);
        DestroyPlugin();
        EXPECT_EQ(host->queue.LiveSerialExecutions(), 0u);
    }
}

// The observer added before the status is read; loaded, the plugin subscribes
// and then fetches. Stop removes every sink in order, and may come again.
TEST_F(ConfigRunTest, StartWaitsForTheHostServiceAndStopRemovesEverySinkInOrder)
{
    const auto since = [this](size_t from) {
        const Strings lines = host->journal.Lines();
        return Strings(lines.begin() + static_cast<long>(from), lines.end());
    };
    host->serviceStatus.SetStatus(0);
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    size_t before = host->journal.Lines().size();
    ASSERT_EQ(plugin->Start(), 0u);
    EXPECT_EQ(since(before), (Strings{"QmServiceStatusClient.AddObserver", "QmServiceStatusClient.GetStatus 0 -> 0"}));
    host->serviceStatus.Deliver(0, 1);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_GT(host->journal.Find("SubscriptionCommClient.GetSubscription"),
              host->journal.Find("SubscriptionCommClient.Subscribe"));

    const Strings removals = {"QmServiceStatusClient.RemoveObserver", "SubscriptionCommClient.Unsubscribe",
                              "sessionchange.Unsubscribe", "productagentcommclient.Unsubscribe",
                              "productagentcommclient.QueryInterface -> async", "productagent.ClearResponseSink",
                              "ReleaseSerialExecution"};
    before = host->journal.Lines().size();
    plugin->Stop();
    EXPECT_EQ(since(before), removals);
    EXPECT_EQ(SinksOf(*host), Sinks(5, 0));
    before = host->journal.Lines().size();
    plugin->Stop();
    EXPECT_EQ(since(before), Strings(removals.begin(), removals.end() - 1));
    EXPECT_EQ(host->queue.InvalidHandleCalls(), 0u);
    plugin->UnInit();
    plugin->UnInit();
    EXPECT_EQ(host->components.Outstanding(), 0);
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
}

// Bundle texts that no scenario can give: bytes that are not UTF-8 become
// U+FFFD in the survey value, and a text without its terminator is kept
// whole (the host reuses its buffer, so the item works on a copy); the plugin
// answers with the server's product type, not the local one. A null record
// is only traced. (scenarios/subscription_records.json plays the rest.)
TEST_F(ConfigRunTest, BundleTextsNoScenarioCanGiveAndANullRecord)
{
    const struct
    {
        const char* what;
        std::string bundle;
        std::wstring survey;
    } rows[] = {
        {"not utf-8", "\xff\xfeok",
         L"{\"bundle_id\":\"\xfffd\xfffdok\",\"days_left\":1,\"key_type\":0,\"server_product_type\":4,\"valid\":true}"},
        {"no terminator", std::string(kSubscriptionTextChars, 'b'),
         L"{\"bundle_id\":\"" + std::wstring(kSubscriptionTextChars, L'b') +
             L"\",\"days_left\":1,\"key_type\":0,\"server_product_type\":4,\"valid\":true}"},
    };
    registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", 36000); // never fires here
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        host->Serial()->Pause();
        host->subscription.Deliver(Record(4, 3, 1, "", "", 0, 1, true, row.bundle));
        host->Serial()->Resume();
        ASSERT_TRUE(host->WaitIdle());
        EXPECT_EQ(registry.String(HKEY_LOCAL_MACHINE, std::wstring(L"Software\\") + base + L"\\Install",
                                  L"SurveyDataInfo"),
                  row.survey);
        EXPECT_EQ(View()->GetBundleId(), row.bundle.substr(0, kSubscriptionTextChars));
        EXPECT_EQ(View()->GetServerProductType(), 4);
    }
    log.Clear();
    host->subscription.DeliverNull();
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Messages("TRACE").size(), 2u) << "the event's own scope and nothing else";
    EXPECT_EQ(log.Messages("INFO").size() + log.Messages("WARN").size() + log.Messages("ERROR").size(), 0u);
}

// An earlier ProductCfg.exe from the host's folder delays the launch, unless
// the context switches; one from elsewhere does not. Stop ends the wait.
TEST_F(ConfigRunTest, EarlierProductCfgDelaysTheLaunchOnlyFromTheHostsFolderAndWithoutSwitchContext)
{
    const struct
    {
        const char* what;
        bool beside;        // the earlier one runs from the host's folder, else from another
        bool switchContext; // an empty text, else no value
        bool stop;          // Stop during the wait
        std::string line;   // at INFO, or at ERROR for a lookup that fails
    } rows[] = {
        {"host's folder", true, false, false, kWaiting},
        {"another folder", false, false, false, kWait + "Could not get pid for productcfg.exe"},
        {"host's folder, switching context", true, true, false, kWait + "Switch context in progress"},
        {"host's folder, Stop", true, false, true, kTimer + "Receive stop event"},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        PutValue(HKEY_USERS, subscriptionKey, L"switch_context", row.switchContext ? kText : kNone, L"");
        const DWORD earlier = Start(row.beside ? kBeside : workDir + L"\\ProductCfg.exe");
        log.Clear();
        Deliver(Record(4, 3, 1, "")); // arms the timer, due at once
        AdvanceInBackground(0);
        const bool waits = row.beside && !row.switchContext;
        if (waits)
        {
            ASSERT_TRUE(Eventually([&] { return log.Contains("INFO", kWaiting); }, std::chrono::seconds(20)));
            EXPECT_FALSE(Launched()) << "while the earlier one runs";
            if (row.stop)
            {
                // A logon's re-arm waits in the serial execution for the
                // waiting item; Stop ends the wait at once, not after a minute.
                WTSSESSION_NOTIFICATION logon{sizeof(WTSSESSION_NOTIFICATION), 1};
                host->sessionChange.Deliver(1, 5, &logon);
                ASSERT_TRUE(Eventually([&] { return log.Count("TRACE", kPlugin + "_StartProductCfgTimer: ->") == 2; }));
                auto stopped = std::async(std::launch::async, [this] { StopPlugin(); });
                EXPECT_EQ(stopped.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "Stop stalled";
            }
            else
                End(earlier);
        }
        ASSERT_TRUE(BackgroundDone());
        EXPECT_TRUE(log.Contains(row.beside ? "INFO" : "ERROR", row.line));
        EXPECT_EQ(log.Contains("INFO", kWaiting), waits);
        EXPECT_EQ(Running(earlier), !waits || row.stop);
        EXPECT_EQ(Launched(), !row.stop);
        EXPECT_EQ(log.Contains("INFO", kTimer + "Restarting ProductCfg.exe with parameters: do_config_seccenter"),
                  !row.stop);
        if (!row.stop)
        {
            const std::vector<std::wstring> launched = AwaitLaunched();
            EXPECT_EQ(launched[3], kBeside);
            EXPECT_EQ(launched[4], L"\"ProductCfg.exe\" do_config_seccenter");
        }
        EndAll();
    }
}
