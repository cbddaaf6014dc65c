// The commercial identifier through the real plugin: a new identifier turns
// into fetched data and a run with contacts_seccenter where the seccenter may
// be shown, change_contacts where it may not, and a subscription event waits
// for a slow cloud answer behind statusMutex without a deadlock.
#include <chrono>
#include <fstream>
#include <future>
#include <string>

#include "plugin_fixture.h"
#include "productcfg_harness.h"
#include "registry_scratch.h"

namespace
{
constexpr wchar_t kProductId[] = L"PCPCOMRUN";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPCOMRUN";
constexpr wchar_t kProductRoot[] = L"Software\\PcpComRun";
constexpr wchar_t kProductKey[] = L"Software\\PcpComRun\\Product";
constexpr auto kBound = std::chrono::seconds(20);

SubscriptionData Record(const char* commercialId, const char* account = "")
{
    SubscriptionData record = MakeRecord(3, 3, 1, account);
    SetFixedText(record.CommercialId, commercialId);
    return record;
}

class CommercialRunTest : public PluginTest, protected ProductCfgStandIns
{
protected:
    void SetUp() override
    {
        folder = NewTempFile(L"pcc");
        DeleteFileW(folder.c_str());
        CreateDirectoryW(folder.c_str(), nullptr);
        CreateDirectoryW((folder + L"\\settings").c_str(), nullptr);
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kProductRoot);
        // The seccenter is not allowed: contacts come as change_contacts.
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"product_config_first_run", 1);
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        ConfigureProduct(*host, kProductId, L"PcpComRun", kProductKey);
        host->config.Set(400, L"Desktop", folder + L"\\");
        PluginTest::SetUp();
    }
    void TearDown() override
    {
        host->connectIntegrator.Unhold();
        if (background.valid())
        {
            EXPECT_EQ(background.wait_for(kBound), std::future_status::ready);
        }
        PluginTest::TearDown();
        DeleteFileW(File().c_str());
        RemoveDirectoryW((folder + L"\\settings").c_str());
        RemoveDirectoryW(folder.c_str());
    }
    std::wstring File() const { return folder + L"\\settings\\bootstrapdata.json"; }
    std::string Content() const
    {
        std::ifstream in(File().c_str(), std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    RegistryScratch registry;
    std::wstring folder;
    std::future<void> background;
};
} // namespace

TEST_F(CommercialRunTest, ASubscriptionEventWaitsForTheCloudAndANewIdentifierEndsInChangeContacts)
{
    host->subscription.SetRecord(Record("C1"));
    host->connectIntegrator.SetAnswer({R"({"contacts":["a"]})"});
    host->connectIntegrator.Hold();
    StartLoaded();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    // The timer's item holds statusMutex while the cloud has not answered.
    background = std::async(std::launch::async, [this] { host->queue.Advance(0); });
    ASSERT_TRUE(host->connectIntegrator.WaitForCalls(1, 20000));
    log.Clear();
    host->subscription.Deliver(Record("C2"), false);
    ASSERT_TRUE(Eventually(
        [this] {
            return log.Count("TRACE", "CProductConfigurationPlg::_SetConfigurationStatus: -> ") > 0;
        },
        kBound))
        << ::testing::PrintToString(log.Messages(""));
    // The status logic's first lock of statusMutex waits.
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_SetConfigurationStatus: CfgStatus"), 0u);

    // The answer comes: the update ends, comStatus becomes 2 and is consumed
    // by the run; then the waiting event finds C2 new against C1.
    host->connectIntegrator.Unhold();
    ASSERT_EQ(background.wait_for(kBound), std::future_status::ready);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));
    EXPECT_EQ(Content(), R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["a"]}})");
    const auto launched = AwaitLaunched();
    ASSERT_EQ(launched.size(), 5u);
    EXPECT_EQ(launched[4], L"\"ProductCfg.exe\" change_contacts");
    StopAndUnInit();
}

TEST_F(CommercialRunTest, WithContactsDisabledTheCommercialStatusNeverChanges)
{
    registry.SetDword(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", 0);
    host->subscription.SetRecord(Record("C1"));
    StartLoaded();
    host->subscription.Deliver(Record(""));
    host->subscription.Deliver(Record("C3"));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 0"), 3u);
    EXPECT_EQ(log.Count("TRACE", "CBootstrap::IsCommercialIdDifferent: -> "), 0u);
    StopAndUnInit();
}

TEST_F(CommercialRunTest, WithTheSeccenterAllowedANewIdentifierEndsInContactsSeccenter)
{
    // An account and no GsShowed: _DoConfig allows the seccenter.
    RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed");
    std::ofstream(File().c_str(), std::ios::binary)
        << R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["old"]},"keep":true})";
    host->subscription.SetRecord(Record("C2", "acc-1"));
    host->connectIntegrator.SetAnswer({R"({"contacts":["b"]})"});
    StartLoaded();
    ASSERT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::_SetCommercialStatus: ComStatus: 1"));

    host->queue.Advance(0);
    const std::vector<sim::CloudCall> calls = host->connectIntegrator.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].params, R"({"commercial_details_id":"C2"})");
    EXPECT_EQ(Content(), R"({"app_data":{"commercial_details_id":"C2"},"commercial_data":{"contacts":["b"]},"keep":true})");
    const auto launched = AwaitLaunched();
    ASSERT_EQ(launched.size(), 5u);
    EXPECT_EQ(launched[4], L"\"ProductCfg.exe\" contacts_seccenter");

    // The update cancelled the timer: an hour later nothing fires.
    host->queue.Advance(3600000);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(host->connectIntegrator.Calls().size(), 1u);
    EXPECT_EQ(Recorded(), 1u);
    StopAndUnInit();
}

TEST_F(CommercialRunTest, AFailedUpdateKeepsTheCommercialStatusAndTheHourlyRetries)
{
    const std::string kTimer = "CProductConfigurationPlg::_ProductCfgTimer: ";
    host->subscription.SetRecord(Record("C1"));
    // A refusal, a reply that is no object, then the data.
    host->connectIntegrator.SetAnswers({{"", 5}, {R"(["c"])"}, {R"({"contacts":["c"]})"}});
    StartLoaded();
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
        EXPECT_EQ(GetFileAttributesW(File().c_str()), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(Recorded(), 0u);
    }

    host->queue.Advance(3600000);
    EXPECT_EQ(Content(), R"({"app_data":{"commercial_details_id":"C1"},"commercial_data":{"contacts":["c"]}})");
    const auto launched = AwaitLaunched();
    ASSERT_EQ(launched.size(), 5u);
    EXPECT_EQ(launched[4], L"\"ProductCfg.exe\" change_contacts");

    // The successful update cancelled the timer.
    host->queue.Advance(3600000);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(host->connectIntegrator.Calls().size(), 3u);
    EXPECT_EQ(Recorded(), 1u);
    StopAndUnInit();
}
