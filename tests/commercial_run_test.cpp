// The commercial identifier through the real plugin: a new identifier turns
// into fetched data and a run with contacts_seccenter where the seccenter may
// be shown, change_contacts where it may not, and a subscription event waits
// for a slow cloud answer behind statusMutex without a deadlock.
#include <chrono>
#include <future>
#include <string>

#include "plugin_fixture.h"
#include "productcfg_harness.h"

namespace
{
SubscriptionData Record(const char* commercialId, const char* account = "")
{
    SubscriptionData record = MakeRecord(3, 3, 1, account);
    SetFixedText(record.CommercialId, commercialId);
    return record;
}

// Contacts come as change_contacts unless a test allows the seccenter.
class CommercialRunTest : public QuietRunTest, protected ProductCfgStandIns
{
protected:
    CommercialRunTest() : QuietRunTest(L"PCPCOMRUN", L"PcpComRun") {}
    void SetUp() override
    {
        host->config.Set(400, L"Desktop", folder.path + L"\\");
        QuietRunTest::SetUp();
    }
    void TearDown() override
    {
        host->connectIntegrator.Unhold();
        QuietRunTest::TearDown();
    }
    std::wstring LaunchedCommandLine()
    {
        const auto launched = AwaitLaunched();
        return launched.size() == 5 ? launched[4] : L"<no launch>";
    }

    SettingsFolder folder{L"pcc"};
};
} // namespace

TEST_F(CommercialRunTest, ASubscriptionEventWaitsForTheCloudAndANewIdentifierEndsInChangeContacts)
{
    host->subscription.SetRecord(Record("C1"));
    host->connectIntegrator.SetAnswer({R"({"contacts":["a"]})"});
    host->connectIntegrator.Hold();
    StartPlugin();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    // The timer's item holds statusMutex while the cloud has not answered.
    AdvanceInBackground(0);
    ASSERT_TRUE(host->connectIntegrator.WaitForCalls(1, 20000));
    log.Clear();
    host->subscription.Deliver(Record("C2"), false);
    ASSERT_TRUE(Eventually(
        [this] { return log.Count("TRACE", "CProductConfigurationPlg::_SetConfigurationStatus: -> ") > 0; },
        std::chrono::seconds(20)))
        << ::testing::PrintToString(log.Messages(""));
    // The status logic's first lock of statusMutex waits.
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_SetConfigurationStatus: CfgStatus"), 0u);

    // The answer comes: the update ends, comStatus becomes 2 and is consumed
    // by the run; then the waiting event finds C2 new against C1.
    host->connectIntegrator.Unhold();
    ASSERT_TRUE(BackgroundDone());
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));
    EXPECT_EQ(folder.Read(), R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["a"]}})");
    EXPECT_EQ(LaunchedCommandLine(), L"\"ProductCfg.exe\" change_contacts");
}

TEST_F(CommercialRunTest, WithContactsDisabledTheCommercialStatusNeverChanges)
{
    registry.SetDword(HKEY_USERS, subscriptionKey, L"Commercial_Details", 0);
    host->subscription.SetRecord(Record("C1"));
    StartPlugin();
    host->subscription.Deliver(Record(""));
    host->subscription.Deliver(Record("C3"));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 0"), 3u);
    EXPECT_EQ(log.Count("TRACE", "CBootstrap::IsCommercialIdDifferent: -> "), 0u);
}

TEST_F(CommercialRunTest, WithTheSeccenterAllowedANewIdentifierEndsInContactsSeccenter)
{
    // An account and no GsShowed: _DoConfig allows the seccenter.
    RegDeleteKeyValueW(HKEY_USERS, subscriptionKey.c_str(), L"GsShowed");
    folder.Write(R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["old"]},"keep":true})");
    host->subscription.SetRecord(Record("C2", "acc-1"));
    host->connectIntegrator.SetAnswer({R"({"contacts":["b"]})"});
    StartPlugin();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    host->queue.Advance(0);
    const std::vector<sim::CloudCall> calls = host->connectIntegrator.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].params, R"({"commercial_details_id":"C2"})");
    EXPECT_EQ(folder.Read(), R"({"app_data":{"commercial_details_id":"C2"},"commercial_data":{"contacts":["b"]},"keep":true})");
    EXPECT_EQ(LaunchedCommandLine(), L"\"ProductCfg.exe\" contacts_seccenter");

    // The update cancelled the timer: an hour later nothing fires.
    host->queue.Advance(3600000);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(host->connectIntegrator.Calls().size(), 1u);
    EXPECT_EQ(Recorded(), 1u);
}

TEST_F(CommercialRunTest, AFailedUpdateKeepsTheCommercialStatusAndTheHourlyRetries)
{
    const std::string kTimer = "CProductConfigurationPlg::_ProductCfgTimer: ";
    host->subscription.SetRecord(Record("C1"));
    // A refusal, a reply that is no object, then the data.
    host->connectIntegrator.SetAnswers({{"", 5}, {R"(["c"])"}, {R"({"contacts":["c"]})"}});
    StartPlugin();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    // Each failed firing leaves comStatus at 1: nothing to run, no file, and
    // the timer still due an hour later.
    for (size_t firing = 1; firing <= 2; ++firing)
    {
        SCOPED_TRACE(firing);
        host->queue.Advance(firing == 1 ? 0 : 3600000);
        ASSERT_TRUE(host->WaitIdle());
        EXPECT_EQ(host->connectIntegrator.Calls().size(), firing);
        EXPECT_EQ(log.Count("INFO", kTimer + "Config not needed"), firing);
        EXPECT_EQ(GetFileAttributesW(folder.File().c_str()), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(Recorded(), 0u);
    }

    host->queue.Advance(3600000);
    EXPECT_EQ(folder.Read(), R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["c"]}})");
    EXPECT_EQ(LaunchedCommandLine(), L"\"ProductCfg.exe\" change_contacts");

    // The successful update cancelled the timer.
    host->queue.Advance(3600000);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(host->connectIntegrator.Calls().size(), 3u);
    EXPECT_EQ(Recorded(), 1u);
}
