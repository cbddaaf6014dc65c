// Logons and the managed organisation through the real plugin: the timer a
// logon re-arms, the organisation level, msp_configured in the real registry,
// the VPN work item and the run of ProductCfg.exe that a change leads to.
#include <string>
#include <vector>

#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"

namespace
{
constexpr wchar_t kMsp[] = L"msp_configured";
constexpr wchar_t kFirstRun[] = L"product_config_first_run";

const std::string kReply = "CProductConfigurationPlg::OnGetUserInfoExAsync: ";
const std::string kChange = "CProductConfigurationPlg::_ChangeMspFlagInRegistry: ";
const std::string kDoConfigEntry = "CProductConfigurationPlg::_DoConfig: -> CProductConfigurationPlg::_DoConfig()";
const std::wstring kMspRun = L"\"ProductCfg.exe\" config_msp_status";

std::string IsMspLine(bool msp, bool configured)
{
    return kReply + "isMsp: " + (msp ? "1" : "0") + " _IsProductConfiguredForMsp: " + (configured ? "1" : "0");
}

// With the timer due at once: only mspStatus arms it.
class OrganisationTest : public QuietRunTest, protected ProductCfgStandIns
{
protected:
    OrganisationTest() : QuietRunTest(L"PCPORG", L"PcpOrg") {}
    void SetUp() override
    {
        ASSERT_FALSE(UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName)))
            << "another process holds the installer's event";
        QuietRunTest::SetUp();
        registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", 0);
    }

    void Reply(const wchar_t* level, const wchar_t* text = L"")
    {
        host->productAgent.Async().Reply(level, text);
        ASSERT_TRUE(host->WaitIdle());
    }
    void SetFlag(int64_t value) { PutValue(HKEY_LOCAL_MACHINE, productKey, kMsp, value); }
    DWORD Value(const wchar_t* name) const { return registry.Dword(HKEY_LOCAL_MACHINE, productKey, name); }
    size_t VpnItems() const { return host->journal.Count("Post EnableVpn"); }
    // Fires the configuration timer and gives the command line it started.
    std::wstring FireAndLaunch()
    {
        host->queue.Advance(0);
        const std::vector<std::wstring> launched = AwaitLaunched();
        EndAll();
        return launched[4];
    }
};

TEST_F(OrganisationTest, ReplyActsOnlyWhenTheFlagDiffersFromTheRegistry)
{
    struct Row
    {
        const char* what;
        const wchar_t* level;
        const wchar_t* text;
        int64_t before; // msp_configured
        bool msp;
        bool configured;
        DWORD after; // kNoValue: no DWORD readable
        std::string readLine;
    };
    const std::string read = "CProductConfigurationPlg::_IsProductConfiguredForMsp: ";
    const Row rows[] = {
        {"in, configured", L"1", L"", 1, true, true, 1, read + "Key value: 1"},
        {"out, absent", L"0", L"", kNone, false, false, kNoValue, read + "get_dword_value failed, err:2"},
        {"out, 0", L"2", L"", 0, false, false, 0, read + "Key value: 0"},
        {"out, unreadable", L"", L"", kText, false, false, kNoValue, read + "get_dword_value failed, err:1630"},
        {"in, absent", L"1", L"", kNone, true, false, 1, read + "get_dword_value failed, err:2"},
        {"in, 0", L"null", L"Org", 0, true, false, 1, read + "Key value: 0"},
        {"in, unreadable", L"1", L"", kText, true, false, 1, read + "get_dword_value failed, err:1630"},
        {"out, configured", L"0", L"", 1, false, true, kNoValue, read + "Key value: 1"},
        {"null, blank text", L"null", L" ", kNone, true, false, 1, read + "get_dword_value failed, err:2"},
        {"null, empty text", L"null", L"", kNone, false, false, kNoValue, read + "get_dword_value failed, err:2"},
        {"10", L"10", L"Org", kNone, false, false, kNoValue, read + "get_dword_value failed, err:2"},
        {"NULL", L"NULL", L"Org", kNone, false, false, kNoValue, read + "get_dword_value failed, err:2"},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        SetFlag(row.before);
        log.Clear();
        const size_t armings = Armings();
        const size_t vpn = VpnItems();
        const size_t asked = host->journal.Count("userinfo.GetOrganizationText");
        ASSERT_NO_FATAL_FAILURE(Reply(row.level, row.text));
        const bool change = row.msp != row.configured;

        EXPECT_TRUE(log.Contains("INFO", kReply + "Organization level is " + sim::Narrow(row.level)));
        // The text is asked for exactly when the level is "null".
        EXPECT_EQ(host->journal.Count("userinfo.GetOrganizationText") - asked,
                  std::wstring(row.level) == L"null" ? 1u : 0u);
        EXPECT_TRUE(log.Contains("INFO", IsMspLine(row.msp, row.configured)));
        EXPECT_TRUE(log.Contains("INFO", row.readLine));
        EXPECT_EQ(Value(kMsp), row.after);
        if (!change && row.before == kText)
        {
            EXPECT_EQ(registry.String(HKEY_LOCAL_MACHINE, productKey, kMsp), L"1");
        }
        EXPECT_EQ(log.Contains("INFO", kChange + "result: 0"), change);
        EXPECT_EQ(log.Contains("INFO", kReply + "Not necessary to enable VPN."), change && row.msp);
        EXPECT_EQ(VpnItems() - vpn, change && !row.msp ? 1u : 0u);
        EXPECT_EQ(log.Count("TRACE", "CAppsManager::EnableVpn: -> "), change && !row.msp ? 1u : 0u);
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), change ? 1u : 0u);
        // mspStatus: the timer is armed and its run passes the change on.
        EXPECT_EQ(Armings() - armings, change ? 1u : 0u);
        if (change)
        {
            EXPECT_EQ(FireAndLaunch(), kMspRun);
        }
    }
}

TEST_F(OrganisationTest, IdenticalRepliesActOnceAndWithoutProductKeyEveryReplyCounts)
{
    SetFlag(kNone);
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const wchar_t* level : {L"1", L"0"})
    {
        SCOPED_TRACE(sim::Narrow(level));
        log.Clear();
        const size_t armings = Armings();
        const size_t vpn = VpnItems();
        ASSERT_NO_FATAL_FAILURE(Reply(level));
        ASSERT_NO_FATAL_FAILURE(Reply(level));
        const bool msp = level[0] == L'1';
        EXPECT_TRUE(log.Contains("INFO", IsMspLine(msp, !msp)));
        EXPECT_TRUE(log.Contains("INFO", IsMspLine(msp, msp)));
        EXPECT_EQ(log.Count("TRACE", kChange + "-> "), 1u);
        EXPECT_EQ(Armings() - armings, 1u);
        EXPECT_EQ(VpnItems() - vpn, msp ? 0u : 1u);
        EXPECT_EQ(FireAndLaunch(), kMspRun);
    }

    // No product key: nothing is read or written, and each reply with the
    // flag set sets mspStatus again.
    host->config.Remove(217, L"Desktop");
    for (int round = 0; round < 2; ++round)
    {
        log.Clear();
        ASSERT_NO_FATAL_FAILURE(Reply(L"1"));
        EXPECT_TRUE(log.Contains("INFO", IsMspLine(true, false)));
        EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_IsProductConfiguredForMsp: "), 0u);
        EXPECT_EQ(log.Count("INFO", kChange), 0u);
        EXPECT_EQ(FireAndLaunch(), kMspRun);
    }
    EXPECT_EQ(Value(kMsp), kNoValue);
}

TEST_F(OrganisationTest, ChangeDuringTheInstallerWaitRunsAfterIt)
{
    const struct
    {
        const char* what;
        bool seccenter; // no first-run marker and no GsShowed: allowed once
        std::wstring run;
    } rows[] = {
        {"seccenter not allowed", false, kMspRun},
        {"seccenter allowed", true, L"\"ProductCfg.exe\" show_seccenter config_msp_status"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(Renew());
        if (row.seccenter)
        {
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), kFirstRun);
            RegDeleteKeyValueW(HKEY_USERS, subscriptionKey.c_str(), L"GsShowed");
        }
        SetFlag(1);
        standin::Installer installer;
        ASSERT_TRUE(installer.Started());
        log.Clear();
        ASSERT_NO_FATAL_FAILURE(StartPlugin());
        ASSERT_TRUE(Eventually([&] {
            return log.Contains("INFO", "CProductConfigurationPlg::_WaitForEventsAndConfig: Start waiting after "
                                        "installer");
        }));
        ASSERT_NO_FATAL_FAILURE(Reply(L"0"));
        EXPECT_EQ(Value(kMsp), kNoValue);
        EXPECT_EQ(VpnItems(), 1u);
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 0u);
        EXPECT_EQ(Armings(), 0u);

        installer.Finish();
        ASSERT_TRUE(Eventually([&] { return Armings() == 1; }));
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 1u);
        EXPECT_EQ(FireAndLaunch(), row.run);
        StopPlugin(); // before the installer goes: the other tests expect none
    }
}

TEST_F(OrganisationTest, EarlyReplyDecidesAgainstTheEmptyRecord)
{
    // The record has an account: only a decision taken before it is stored
    // looks at the first-run marker.
    const struct
    {
        const char* what;
        sim::AnswerTiming timing;
        DWORD marker;
    } rows[] = {{"early", sim::AnswerTiming::Early, 1}, {"late", sim::AnswerTiming::Late, kNoValue}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(Renew());
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), kFirstRun);
        SetFlag(kNone);
        host->subscription.SetRecord(MakeRecord(3, 3, 1, "acc-org"));
        host->productAgent.Async().SetAnswer(L"1", L"", row.timing);
        log.Clear();
        ASSERT_NO_FATAL_FAILURE(StartPlugin());
        host->productAgent.Async().AnswerPending();
        ASSERT_TRUE(host->WaitIdle());

        EXPECT_TRUE(log.Contains("INFO", IsMspLine(true, false)));
        EXPECT_EQ(Value(kFirstRun), row.marker);
        const size_t reply = host->journal.Find("productagent -> OnGetUserInfoExAsync \"1\"");
        const size_t fetch = host->journal.Find("SubscriptionCommClient.GetSubscription");
        ASSERT_NE(reply, sim::Journal::npos);
        EXPECT_EQ(reply < fetch, row.timing == sim::AnswerTiming::Early);
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 2u); // the reply's and the record's
    }
}

TEST_F(OrganisationTest, OnlyLogonsWithSessionInformationArmTheTimerAndOneCountsFromTheLast)
{
    registry.SetDword(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", 30);
    WTSSESSION_NOTIFICATION info{sizeof(WTSSESSION_NOTIFICATION), 1};
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (uint32_t event : {1u, 2u, 3u, 4u, 6u, 7u, 11u, 5u})
    {
        for (void* with : {static_cast<void*>(&info), static_cast<void*>(nullptr)})
        {
            if (event == 5 && with != nullptr)
                continue;
            log.Clear();
            host->sessionChange.Deliver(0xFFFFFFFFu, event, with);
            ASSERT_TRUE(host->WaitIdle());
            EXPECT_TRUE(log.Contains("INFO", "CProductConfigurationPlg::OnSessionChange: time=4294967295 event=" +
                                                 std::to_string(event)));
        }
    }
    EXPECT_EQ(host->journal.Count("Post Async_StartProductCfgTimer"), 0u);
    EXPECT_EQ(Armings(), 0u);

    for (uint64_t ms : {0u, 1000u})
    {
        host->queue.Advance(ms);
        host->sessionChange.Deliver(0, 5, &info);
        ASSERT_TRUE(host->WaitIdle());
    }
    EXPECT_EQ(host->journal.Count("Run Async_StartProductCfgTimer"), 2u);
    EXPECT_EQ(Armings(), 2u);
    const auto timers = host->queue.Timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].name, "_ProductCfgTimer");
    EXPECT_EQ(timers[0].due, 31000u);

    log.Clear();
    host->queue.Advance(30000);
    host->queue.Advance(3600000);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_ProductCfgTimer: Config not needed"), 2u);
    EXPECT_EQ(Recorded(), 0u);
}

// The view the apps manager keeps: the latest stored record and the latest
// reply, empty and 0 and false before them.
TEST_F(OrganisationTest, InternalViewFollowsTheStoredRecordAndTheLatestReply)
{
    IProductCfgInternal* view = static_cast<CProductConfigurationPlg*>(plugin);
    SubscriptionData first = MakeRecord(5, 3, 1, "acc-org");
    SetFixedText(first.BundleId, "org.bundle");
    host->subscription.SetRecord(first);
    ASSERT_EQ(plugin->Init(host.get()), 0u);
    running = true;
    EXPECT_EQ(view->GetBundleId(), "");
    EXPECT_EQ(view->GetServerProductType(), 0);
    EXPECT_FALSE(view->IsMsp());

    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(view->GetBundleId(), "org.bundle");
    EXPECT_EQ(view->GetServerProductType(), 5);

    host->subscription.Deliver(MakeRecord(3, 3, 1, "acc-org"));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(view->GetBundleId(), "");
    EXPECT_EQ(view->GetServerProductType(), 3);

    for (const wchar_t* level : {L"1", L"0", L"null"})
    {
        SCOPED_TRACE(sim::Narrow(level));
        ASSERT_NO_FATAL_FAILURE(Reply(level, L"Org"));
        EXPECT_EQ(view->IsMsp(), level[0] != L'0');
    }
}

TEST_F(OrganisationTest, UserInfoChangedAsksAgainOnlyWithTheAsynchronousSide)
{
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    const size_t asked = host->journal.Count("productagent.GetUserInfoExAsync");
    host->productAgent.DeliverUserInfoChanged();
    EXPECT_EQ(host->journal.Count("productagent.GetUserInfoExAsync"), asked + 1);

    host->productAgent.SetAsyncAvailable(false);
    log.Clear();
    host->productAgent.DeliverUserInfoChanged();
    EXPECT_TRUE(log.Contains("ERROR", "CProductConfigurationPlg::OnUserInfoChanged: Failed to get "
                                      "IProductAgentCommClientAsync"));
    EXPECT_EQ(host->journal.Count("productagent.GetUserInfoExAsync"), asked + 1);
}
} // namespace
