// The wait for a running installer, whose named event InstallerStandin.exe
// holds, through the real plugin.
#include <string>
#include <vector>

#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "standin_control.h"

namespace
{
constexpr wchar_t kInstallDoneEventName[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPINSTALLERWAIT";
constexpr wchar_t kTestKey[] = L"Software\\PcpInstallerWait";
constexpr wchar_t kProductKey[] = L"Software\\PcpInstallerWait\\Product";

const std::string kDoConfigEntry = "CProductConfigurationPlg::_DoConfig: -> CProductConfigurationPlg::_DoConfig()";
const std::string kWaiting = "CProductConfigurationPlg::_WaitForEventsAndConfig: Start waiting after installer";
const std::string kStopped = "CProductConfigurationPlg::_WaitForEventsAndConfig: Receive stop event";
const std::string kWaitEnded = "CProductConfigurationPlg::_WaitForEventsAndConfig: <- ";
const std::string kRecordEntry =
    "CProductConfigurationPlg::_OnSubscriptionChanged: -> CProductConfigurationPlg::_OnSubscriptionChanged()";

// With an account, cfgStatus follows the two product types alone.
SubscriptionData Record(int32_t serverType, int32_t localType, uint32_t statusCode = 0)
{
    return MakeRecord(serverType, localType, statusCode, "acc-installer");
}

class InstallerWaitTest : public PluginTest
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        ConfigureProduct(*host, L"PCPINSTALLERWAIT", L"PcpInstallerWait", kProductKey);
        // The seccenter is not allowed: a decision arms the timer, never due
        // here, exactly when cfgStatus is 1.
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 36000);
        host->subscription.SetRecord(Record(3, 3));
        PluginTest::SetUp();
    }

    void StartWithInstaller()
    {
        ASSERT_TRUE(installer.Started()) << "InstallerStandin.exe exit code "
                                         << installer.EarlyExit().value_or(0xFFFFFFFFu);
        StartLoaded();
        ASSERT_TRUE(Eventually([&] { return Count(kWaiting) == 1; }));
    }

    void Deliver(const SubscriptionData& record)
    {
        host->subscription.Deliver(record);
        ASSERT_TRUE(host->WaitIdle());
    }

    // Lines at INFO or TRACE that start with line.
    size_t Count(const std::string& line) const { return log.Count("INFO", line) + log.Count("TRACE", line); }
    std::vector<std::string> Decisions() const
    {
        std::vector<std::string> found;
        for (const std::string& line : log.Messages("INFO"))
            if (line.rfind("CProductConfigurationPlg::_DoConfig: ", 0) == 0)
                found.push_back(line.substr(37));
        return found;
    }
    size_t TimersArmed() const { return host->ledger.ReceivedCount("_ProductCfgTimer"); }

    RegistryScratch registry;
    standin::Installer installer;
};
} // namespace

TEST_F(InstallerWaitTest, RecordsWaitForTheInstallerThenOneDecisionOnTheLatestStatus)
{
    StartWithInstaller();
    for (const SubscriptionData& record : {Record(5, 3), Record(3, 3), Record(0, 3, 7), Record(4, 3)})
        Deliver(record);
    EXPECT_EQ(host->ledger.ReceivedCount("_OnSubscriptionChanged"), 4u); // taken, not decided
    EXPECT_EQ(Count(kDoConfigEntry), 0u);
    EXPECT_EQ(TimersArmed(), 0u);

    installer.Finish();
    ASSERT_TRUE(Eventually([&] { return !log.Threads(kWaitEnded).empty(); }));
    EXPECT_EQ(TimersArmed(), 1u);
    const std::string waitThread = log.Threads(kWaiting).at(0);
    EXPECT_EQ(log.Threads(kDoConfigEntry), std::vector<std::string>{waitThread});

    // The installer is done: a record decides on the serial execution again.
    // The first decision, on the latest status, was waitThread's.
    Deliver(Record(3, 3));
    EXPECT_EQ(Decisions(), (std::vector<std::string>{"cfgStatus = 1; comStatus = 0", "cfgStatus = 0; comStatus = 0"}));
    const std::vector<std::string> doConfig = log.Threads(kDoConfigEntry);
    ASSERT_EQ(doConfig.size(), 2u);
    EXPECT_EQ(doConfig[1], log.Threads(kRecordEntry).back());
    EXPECT_NE(doConfig[1], waitThread);

    StopAndUnInit();
    EXPECT_EQ(Count(kStopped), 0u); // the wait had ended
}

TEST_F(InstallerWaitTest, InstallerDoneBeforeTheLoadButStillThereGivesOneDecisionOnWaitThread)
{
    installer.Finish(); // the event exists and is set already
    const UniqueHandle done(OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName));
    ASSERT_TRUE(done);
    ASSERT_EQ(WaitForSingleObject(done.get(), standin::kBoundMs), WAIT_OBJECT_0);
    StartWithInstaller();
    ASSERT_TRUE(Eventually([&] { return !log.Threads(kWaitEnded).empty(); }));
    EXPECT_EQ(log.Threads(kDoConfigEntry), log.Threads(kWaiting)); // once, on waitThread
    EXPECT_EQ(Decisions(), std::vector<std::string>{"cfgStatus = 0; comStatus = 0"});
    StopAndUnInit();
}

TEST_F(InstallerWaitTest, StopDuringTheWaitEndsItWithoutADecision)
{
    StartWithInstaller();
    Deliver(Record(5, 3));
    plugin->Stop(); // joins waitThread, whose last words are logged
    EXPECT_EQ(log.Threads(kStopped), log.Threads(kWaiting));
    EXPECT_EQ(TimersArmed(), 0u);
    installer.Finish(); // finds nobody waiting
    plugin->UnInit();
    DestroyPlugin();
    EXPECT_EQ(Count(kDoConfigEntry), 0u);
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
}
