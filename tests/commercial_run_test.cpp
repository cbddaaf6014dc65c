// The commercial identifier through the real plugin: a subscription event
// waits for a slow cloud answer behind statusMutex without a deadlock, and
// the new identifier ends in change_contacts where the seccenter may not be
// shown. The scenarios commercial_*.json play the rest of the commercial
// update through the runner.
#include <chrono>
#include <future>
#include <string>

#include "plugin_fixture.h"
#include "productcfg_harness.h"

namespace
{
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

    SettingsFolder folder{L"pcc"};
};
} // namespace

TEST_F(CommercialRunTest, ASubscriptionEventWaitsForTheCloudAndANewIdentifierEndsInChangeContacts)
{
    host->subscription.SetRecord(MakeRecord(3, 3, 1, "", "C1"));
    host->connectIntegrator.SetAnswer({R"({"contacts":["a"]})"});
    host->connectIntegrator.Hold();
    StartPlugin();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    // The timer's item holds statusMutex while the cloud has not answered.
    AdvanceInBackground(0);
    ASSERT_TRUE(host->connectIntegrator.WaitForCalls(1, 20000));
    log.Clear();
    host->subscription.Deliver(MakeRecord(3, 3, 1, "", "C2"), false);
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
    const auto launched = AwaitLaunched();
    ASSERT_EQ(launched.size(), 5u);
    EXPECT_EQ(launched[4], L"\"ProductCfg.exe\" change_contacts");
}
