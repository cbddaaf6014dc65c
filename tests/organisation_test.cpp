// Logons and the managed organisation through the real plugin: the timer
// re-armed by a logon, the organisation level of the product agent's reply,
// the value msp_configured in the real registry, the VPN work item and the
// run of ProductCfg.exe that a change leads to.
#include <string>
#include <vector>

#include "plugin/product_cfg_plugin.h"
#include "plugin_fixture.h"
#include "productcfg_harness.h"
#include "registry_scratch.h"

namespace
{
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPORG";
constexpr wchar_t kProductRoot[] = L"Software\\PcpOrg";
constexpr wchar_t kProductKey[] = L"Software\\PcpOrg\\Product";
constexpr wchar_t kMsp[] = L"msp_configured";
constexpr wchar_t kFirstRun[] = L"product_config_first_run";
constexpr DWORD kAbsent = 0xFFFFFFFFu;

const std::string kReply = "CProductConfigurationPlg::OnGetUserInfoExAsync: ";
const std::string kChange = "CProductConfigurationPlg::_ChangeMspFlagInRegistry: ";
const std::string kDoConfigEntry = "CProductConfigurationPlg::_DoConfig: -> CProductConfigurationPlg::_DoConfig()";
const std::string kSession = "CProductConfigurationPlg::OnSessionChange: ";
const std::wstring kMspRun = L"\"ProductCfg.exe\" config_msp_status";

std::string IsMspLine(bool msp, bool configured)
{
    return kReply + "isMsp: " + (msp ? "1" : "0") + " _IsProductConfiguredForMsp: " + (configured ? "1" : "0");
}

// What msp_configured holds before a reply.
enum class Flag
{
    Absent,
    Zero,
    One,
    Text, // a string of that name: unreadable as a DWORD
};

// The quiet registry of the run tests: without an account the seccenter is
// not allowed, so only mspStatus arms the timer, due at once.
class OrganisationTest : public PluginTest, protected ProductCfgStandIns
{
protected:
    void SetUp() override
    {
        ASSERT_FALSE(UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName)))
            << "another process holds the installer's event";
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kProductRoot);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kFirstRun, 1);
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 0);
        ConfigureProduct(*host, L"PCPORG", L"PcpOrg", kProductKey);
        PluginTest::SetUp();
    }
    void TearDown() override
    {
        if (running)
            StopAndUnInit();
        running = false;
        PluginTest::TearDown();
    }
    void StartPlugin()
    {
        running = true;
        StartLoaded();
    }
    void Renew()
    {
        if (running)
            StopAndUnInit();
        running = false;
        DestroyPlugin();
        host = std::make_unique<sim::Host>();
        ConfigureProduct(*host, L"PCPORG", L"PcpOrg", kProductKey);
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
    }

    void Reply(const wchar_t* level, const wchar_t* text = L"")
    {
        host->productAgent.Async().Reply(level, text);
        ASSERT_TRUE(host->WaitIdle());
    }
    void SetFlag(Flag flag)
    {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMsp);
        if (flag == Flag::Text)
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMsp, REG_SZ, L"1", 2 * sizeof(wchar_t));
        else if (flag != Flag::Absent)
            registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMsp, flag == Flag::One ? 1 : 0);
    }
    size_t Armings() const { return host->journal.LinesStartingWith("SetTimer _ProductCfgTimer ").size(); }
    size_t VpnItems() const { return host->journal.Count("Post EnableVpn"); }
    // Fires the configuration timer and gives the command line it started.
    std::wstring FireAndLaunch()
    {
        host->queue.Advance(0);
        const std::vector<std::wstring> launched = AwaitLaunched();
        EndAll();
        return launched[4];
    }

    RegistryScratch registry;
    bool running = false;
};

TEST_F(OrganisationTest, ReplyActsOnlyWhenTheFlagDiffersFromTheRegistry)
{
    struct Row
    {
        const char* what;
        const wchar_t* level;
        const wchar_t* text;
        Flag before;
        bool msp;
        bool configured;
        DWORD after; // kAbsent: no DWORD readable
        std::string readLine;
    };
    const std::string read = "CProductConfigurationPlg::_IsProductConfiguredForMsp: ";
    const Row rows[] = {
        {"in, configured", L"1", L"", Flag::One, true, true, 1, read + "Key value: 1"},
        {"out, absent", L"0", L"", Flag::Absent, false, false, kAbsent, read + "get_dword_value failed, err:2"},
        {"out, 0", L"2", L"", Flag::Zero, false, false, 0, read + "Key value: 0"},
        {"out, unreadable", L"", L"", Flag::Text, false, false, kAbsent, read + "get_dword_value failed, err:1630"},
        {"in, absent", L"1", L"", Flag::Absent, true, false, 1, read + "get_dword_value failed, err:2"},
        {"in, 0", L"null", L"Org", Flag::Zero, true, false, 1, read + "Key value: 0"},
        {"in, unreadable", L"1", L"", Flag::Text, true, false, 1, read + "get_dword_value failed, err:1630"},
        {"out, configured", L"0", L"", Flag::One, false, true, kAbsent, read + "Key value: 1"},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        SetFlag(row.before);
        log.Clear();
        const size_t armings = Armings();
        const size_t vpn = VpnItems();
        ASSERT_NO_FATAL_FAILURE(Reply(row.level, row.text));
        const bool change = row.msp != row.configured;

        EXPECT_TRUE(log.Contains("INFO", IsMspLine(row.msp, row.configured)));
        EXPECT_TRUE(log.Contains("INFO", row.readLine));
        EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMsp), row.after);
        if (!change && row.before == Flag::Text)
        {
            EXPECT_EQ(registry.String(HKEY_LOCAL_MACHINE, kProductKey, kMsp), L"1");
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

TEST_F(OrganisationTest, LevelDecidesTheFlagByExactComparison)
{
    const struct
    {
        const wchar_t* level;
        const wchar_t* text;
        bool msp;
        bool textAsked;
    } rows[] = {
        {L"1", L"Org", true, false},  {L"null", L" ", true, true}, {L"null", L"", false, true},
        {L"10", L"Org", false, false}, {L"2", L"Org", false, false}, {L"NULL", L"Org", false, false},
        {L"0", L"Org", false, false},  {L"", L"Org", false, false},
    };
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    for (const auto& row : rows)
    {
        SCOPED_TRACE(sim::Narrow(row.level));
        SetFlag(Flag::Absent);
        log.Clear();
        const size_t asked = host->journal.Count("userinfo.GetOrganizationText");
        ASSERT_NO_FATAL_FAILURE(Reply(row.level, row.text));
        EXPECT_TRUE(log.Contains("INFO", kReply + "Organization level is " + sim::Narrow(row.level)));
        EXPECT_TRUE(log.Contains("INFO", IsMspLine(row.msp, false)));
        EXPECT_EQ(host->journal.Count("userinfo.GetOrganizationText") - asked, row.textAsked ? 1u : 0u);
    }
}

TEST_F(OrganisationTest, IdenticalRepliesActOnceAndWithoutProductKeyEveryReplyCounts)
{
    SetFlag(Flag::Absent);
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
    EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMsp), kAbsent);
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
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kFirstRun);
            RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed");
        }
        SetFlag(Flag::One);
        standin::Installer installer;
        ASSERT_TRUE(installer.Started());
        log.Clear();
        ASSERT_NO_FATAL_FAILURE(StartPlugin());
        ASSERT_TRUE(Eventually([&] {
            return log.Contains("INFO", "CProductConfigurationPlg::_WaitForEventsAndConfig: Start waiting after "
                                        "installer");
        }));
        ASSERT_NO_FATAL_FAILURE(Reply(L"0"));
        EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMsp), kAbsent);
        EXPECT_EQ(VpnItems(), 1u);
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 0u);
        EXPECT_EQ(Armings(), 0u);

        installer.Finish();
        ASSERT_TRUE(Eventually([&] { return Armings() == 1; }));
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 1u);
        EXPECT_EQ(FireAndLaunch(), row.run);
        // Stop before the installer goes, as the other tests expect none.
        StopAndUnInit();
        running = false;
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
    } rows[] = {{"early", sim::AnswerTiming::Early, 1}, {"late", sim::AnswerTiming::Late, kAbsent}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(Renew());
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kFirstRun);
        SetFlag(Flag::Absent);
        host->subscription.SetRecord(MakeRecord(3, 3, 1, "acc-org"));
        host->productAgent.Async().SetAnswer(L"1", L"", row.timing);
        log.Clear();
        ASSERT_NO_FATAL_FAILURE(StartPlugin());
        host->productAgent.Async().AnswerPending();
        ASSERT_TRUE(host->WaitIdle());

        EXPECT_TRUE(log.Contains("INFO", IsMspLine(true, false)));
        EXPECT_EQ(registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kFirstRun), row.marker);
        const size_t reply = host->journal.Find("productagent -> OnGetUserInfoExAsync \"1\"");
        const size_t fetch = host->journal.Find("SubscriptionCommClient.GetSubscription");
        ASSERT_NE(reply, sim::Journal::npos);
        EXPECT_EQ(reply < fetch, row.timing == sim::AnswerTiming::Early);
        EXPECT_EQ(log.Count("TRACE", kDoConfigEntry), 2u); // the reply's and the record's
    }
}

TEST_F(OrganisationTest, OnlyALogonWithItsSessionInformationArmsTheTimer)
{
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
            EXPECT_TRUE(log.Contains("INFO", kSession + "time=4294967295 event=" + std::to_string(event)));
        }
    }
    EXPECT_EQ(host->journal.Count("Post Async_StartProductCfgTimer"), 0u);
    EXPECT_EQ(Armings(), 0u);
}

TEST_F(OrganisationTest, LogonsLeaveOneTimerCountingFromTheLastAndItFindsNothingToDo)
{
    registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 30);
    WTSSESSION_NOTIFICATION info{sizeof(WTSSESSION_NOTIFICATION), 1};
    ASSERT_NO_FATAL_FAILURE(StartPlugin());
    host->sessionChange.Deliver(0, 5, &info);
    ASSERT_TRUE(host->WaitIdle());
    host->queue.Advance(1000);
    host->sessionChange.Deliver(0, 5, &info);
    ASSERT_TRUE(host->WaitIdle());
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
