// Token and launch steps that Wine cannot make fail or does not show, through
// the seam at the Windows imports (launch_seam.h), with real stand-ins of
// ProductCfg.exe where a launch happens.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/active_session.h"
#include "handle_count.h"
#include "launch/process_launch.h"
#include "launch/sessions.h"
#include "launch/user_token.h"
#include "launch_seam.h"
#include "log_capture.h"
#include "productcfg_harness.h"
#include "registry_scratch.h"
#include "simhost/serv_config.h"
#include "support/log_client.h"

namespace
{
using Lines = std::vector<std::string>;

UniqueHandle OwnToken(bool bSystem)
{
    return GetUserToken(GetCurrentProcessId(), GetFirstActiveSessionId(), bSystem);
}

class ProductCfgTest : public ::testing::Test, protected ProductCfgStandIns
{
protected:
    ProductCfgTest()
    {
        seam::Reset();
        logRef.Acquire();
    }
    ~ProductCfgTest() override
    {
        SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", nullptr);
        seam::Reset();
        EndAll();
        logRef.Release(); // while its file is still named
    }
    Lines Messages(const std::string& level) const { return log.Messages(level); }

    LogCapture log;
    CLogDLLRef logRef;
};

// Where Wine cannot make a step fail, the seam does. The logging library
// leaves another last error behind (QM_LOG_LAST_ERROR): each line carries
// the failing call's code all the same. What was opened is closed.
TEST_F(ProductCfgTest, GetUserTokenFailureRowsLogTheirCodeAndCloseWhatWasOpened)
{
    using seam::Api;
    const DWORD pid = GetCurrentProcessId();
    const std::string own = std::to_string(pid);
    const struct
    {
        Api api;
        DWORD error;
        bool bSystem;
        const char* level;
        std::string line;
        bool token; // the call goes on and gives a bound duplicate
    } rows[] = {
        {Api::OpenProcessToken, 5, true, "ERROR", "GetUserToken: OpenProcessToken pid=" + own + " failed err = 5", false},
        {Api::LookupPrivilegeValueW, 1313, true, "ERROR", "GetUserToken: LookupPrivilegeValue failed err = 1313", false},
        {Api::TokenElevationType, 87, false, "WARN", "IsUACEnabled: GetTokenInformation failed err=87", true},
        {Api::TokenLinkedToken, 1312, false, "ERROR", "GetUserToken: GetTokenInformation failed err=1312", false},
        {Api::DuplicateTokenEx, 8, true, "ERROR", "GetUserToken: DuplicateTokenEx failed err = 8", false},
        {Api::SetTokenInformation, 1314, true, "ERROR", "GetUserToken: SetTokenInformation failed err = 1314", false},
    };
    SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", L"4242");
    size_t handles = 0;
    // The first pass loads what the calls and the log keep for later.
    for (int pass = 0; pass < 2; ++pass)
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.line);
        if (pass == 1 && &row == &rows[0])
            handles = OpenHandleCount();
        log.Clear();
        seam::Reset();
        seam::FailNext(row.api, row.error);
        {
            const UniqueHandle token = GetUserToken(pid, 3, row.bSystem);
            ASSERT_EQ(static_cast<bool>(token), row.token);
            if (row.token)
            {
                DWORD type = 0, length = 0;
                ASSERT_TRUE(GetTokenInformation(token.get(), TokenType, &type, sizeof(type), &length));
                EXPECT_EQ(type, DWORD{TokenPrimary});
                ASSERT_EQ(seam::SessionBindings().size(), 1u);
                EXPECT_EQ(seam::SessionBindings()[0].token, token.get());
            }
        }
        EXPECT_EQ(Messages(row.level), Lines{row.line});
        EXPECT_EQ(Messages("ERROR").size() + Messages("WARN").size(), 1u);
        if (pass == 1)
        {
            EXPECT_EQ(OpenHandleCount(), handles);
        }
    }

    // A process that cannot be opened, for real.
    log.Clear();
    const DWORD ended = Start(kBeside);
    End(ended);
    EXPECT_FALSE(GetUserToken(ended, 3, true));
    EXPECT_EQ(Messages("ERROR"), Lines{"GetUserToken: OpenProcess pid=" + std::to_string(ended) + " failed err = 87"});
}

// Wine ignores the session at launch: the call that binds it is what shows.
TEST_F(ProductCfgTest, TheDuplicateIsBoundToTheSessionAndLaunchedWithoutAWindow)
{
    {
        const UniqueHandle token = GetUserToken(GetCurrentProcessId(), 7, true);
        ASSERT_TRUE(token);
        const std::vector<seam::SessionBinding> bindings = seam::SessionBindings();
        ASSERT_EQ(bindings.size(), 1u);
        EXPECT_EQ(bindings[0].token, token.get());
        EXPECT_EQ(bindings[0].session, 7u);
    }
    // Without an environment block the launch goes on, with this process's.
    for (const bool environmentFails : {false, true})
    {
        if (environmentFails)
            seam::FailNext(seam::Api::CreateEnvironmentBlock, ERROR_ACCESS_DENIED);
        ASSERT_EQ(ExecuteProcessAsUser(L"show_seccenter", OwnToken(true)), 0u);
        EXPECT_EQ(AwaitLaunched()[4], L"\"ProductCfg.exe\" show_seccenter");
        const std::vector<seam::Launch> launches = seam::Launches();
        ASSERT_FALSE(launches.empty());
        EXPECT_EQ(launches.back().flags, environmentFails ? 0x8000020u : 0x8000420u);
        EXPECT_EQ(launches.back().environment, !environmentFails);
    }
    EXPECT_EQ(Messages("ERROR"), Lines{});
}

TEST_F(ProductCfgTest, TheLaunchSessionIsActiveSessionIdOrTheChosenSession)
{
    const std::wstring key = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPSESSIONTEST";
    RegistryScratch registry;
    registry.Forget(HKEY_USERS, key);
    sim::Journal journal;
    sim::ServConfig config(journal);
    // Wine lists no session: the console session stands.
    const DWORD console = WTSGetActiveConsoleSessionId();
    const struct
    {
        const char* what;
        const wchar_t* suffix; // null: missing
        bool stored;           // ActiveSessionId 5
        bool listingFails;
        DWORD listingError;
        DWORD session;
    } rows[] = {{"setting missing", nullptr, true, false, 0, console},
                {"setting not found", L"<error-not-found>", true, false, 0, console},
                {"value read", L"PCPSESSIONTEST", true, false, 0, 5},
                {"value absent", L"PCPSESSIONTEST", false, false, 0, 0},
                {"listing fails", L"PCPSESSIONTEST", true, true, RPC_S_SERVER_UNAVAILABLE, 0},
                {"listing fails without a code", L"PCPSESSIONTEST", true, true, 0, 5}};
    for (const auto& row : rows)
    {
        if (row.suffix != nullptr)
            config.Set(3003, L"common", row.suffix);
        else
            config.Remove(3003, L"common");
        if (row.stored)
            registry.SetDword(HKEY_USERS, key, L"ActiveSessionId", 5);
        else
            RegDeleteKeyValueW(HKEY_USERS, key.c_str(), L"ActiveSessionId");
        if (row.listingFails)
            seam::FailNext(seam::Api::WTSEnumerateSessionsW, row.listingError);
        EXPECT_EQ(ResolveActiveSession(&config), row.session) << row.what;
    }

    // The user name cannot be had: not logged in, with the query's code
    // whatever the logging library leaves behind.
    SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", L"4242");
    EXPECT_TRUE(IsOSUserLoggedIn()());
    seam::FailNext(seam::Api::WTSQuerySessionInformationW, ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_FALSE(IsOSUserLoggedIn()());
    EXPECT_EQ(Messages("INFO"),
              Lines{"IsOSUserLoggedIn::operator (): WTSQuerySessionInformation WTSUserName failed err=7022"});
}
} // namespace
