// The decisions of a run of ProductCfg.exe, and the run for real under Wine:
// launch, lookup, user token, session, nothing left open. The imports wrapped
// below (-Wl,--wrap in tests/CMakeLists.txt) call Windows unless told to fail
// their next call, where Wine cannot fail or does not show what it was given.
#include <windows.h>

#include <userenv.h>
#include <wtsapi32.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "config/active_session.h"
#include "config/run_decision.h"
#include "handle_count.h"
#include "launch/process_launch.h"
#include "launch/process_lookup.h"
#include "launch/sessions.h"
#include "launch/user_token.h"
#include "log_capture.h"
#include "productcfg_harness.h"
#include "registry_scratch.h"
#include "simhost/serv_config.h"
#include "support/log_client.h"

namespace
{
// Only the test's own thread calls the wrapped imports.
std::map<std::string, DWORD> armed;             // by import, or class of GetTokenInformation: error
std::vector<std::pair<HANDLE, DWORD>> bindings; // SetTokenInformation(TokenSessionId) calls that reached Windows
std::vector<std::pair<DWORD, bool>> launches;   // CreateProcessAsUserW calls: flags, with an environment block

// True, with the last error set, when a failure was armed; disarms it.
bool Fails(const std::string& name)
{
    const auto it = armed.find(name);
    if (it == armed.end())
        return false;
    const DWORD error = it->second;
    armed.erase(it);
    SetLastError(error);
    return true;
}
} // namespace

// dllimport declarations go through import pointers (__imp_X, wrapped by a
// pointer), the others through thunks (wrapped by functions).
extern "C" {
extern decltype(&OpenProcessToken) __real___imp_OpenProcessToken;
extern decltype(&LookupPrivilegeValueW) __real___imp_LookupPrivilegeValueW;
extern decltype(&GetTokenInformation) __real___imp_GetTokenInformation;
extern decltype(&DuplicateTokenEx) __real___imp_DuplicateTokenEx;
extern decltype(&SetTokenInformation) __real___imp_SetTokenInformation;
extern decltype(&CreateProcessAsUserW) __real___imp_CreateProcessAsUserW;
// GNU ld wraps a thunk by its name; lld points the thunk of a wrapped name
// at the wrapper itself, so with lld (PCP_WRAP_THUNK_POINTERS) the thunks'
// import pointers are wrapped instead.
#if PCP_WRAP_THUNK_POINTERS
extern decltype(&CreateEnvironmentBlock) __real___imp_CreateEnvironmentBlock;
extern decltype(&WTSEnumerateSessionsW) __real___imp_WTSEnumerateSessionsW;
extern decltype(&WTSQuerySessionInformationW) __real___imp_WTSQuerySessionInformationW;
#define REAL(name) __real___imp_##name
#else
WINBOOL WINAPI __real_CreateEnvironmentBlock(LPVOID*, HANDLE, WINBOOL);
WINBOOL WINAPI __real_WTSEnumerateSessionsW(HANDLE, DWORD, DWORD, PWTS_SESSION_INFOW*, DWORD*);
WINBOOL WINAPI __real_WTSQuerySessionInformationW(HANDLE, DWORD, WTS_INFO_CLASS, LPWSTR*, DWORD*);
#define REAL(name) __real_##name
#endif

decltype(&OpenProcessToken) __wrap___imp_OpenProcessToken = [](HANDLE process, DWORD access, PHANDLE token) {
    return WINBOOL{!Fails("OpenProcessToken") && __real___imp_OpenProcessToken(process, access, token)};
};
decltype(&LookupPrivilegeValueW) __wrap___imp_LookupPrivilegeValueW = [](LPCWSTR system, LPCWSTR name, PLUID luid) {
    return WINBOOL{!Fails("LookupPrivilegeValueW") && __real___imp_LookupPrivilegeValueW(system, name, luid)};
};
decltype(&GetTokenInformation) __wrap___imp_GetTokenInformation =
    [](HANDLE token, TOKEN_INFORMATION_CLASS type, LPVOID data, DWORD size, PDWORD length) {
        const char* const names[] = {"TokenElevationType", "TokenLinkedToken"};
        const bool fails = (type == TokenElevationType || type == TokenLinkedToken) &&
                           Fails(names[type == TokenLinkedToken]);
        return WINBOOL{!fails && __real___imp_GetTokenInformation(token, type, data, size, length)};
    };
decltype(&DuplicateTokenEx) __wrap___imp_DuplicateTokenEx =
    [](HANDLE token, DWORD access, LPSECURITY_ATTRIBUTES attributes, SECURITY_IMPERSONATION_LEVEL level,
       TOKEN_TYPE type, PHANDLE duplicate) {
        return WINBOOL{!Fails("DuplicateTokenEx") &&
                       __real___imp_DuplicateTokenEx(token, access, attributes, level, type, duplicate)};
    };
decltype(&SetTokenInformation) __wrap___imp_SetTokenInformation =
    [](HANDLE token, TOKEN_INFORMATION_CLASS type, LPVOID data, DWORD size) -> WINBOOL {
    if (Fails("SetTokenInformation"))
        return FALSE;
    if (type == TokenSessionId && size == sizeof(DWORD))
        bindings.emplace_back(token, *static_cast<const DWORD*>(data));
    return __real___imp_SetTokenInformation(token, type, data, size);
};
decltype(&CreateProcessAsUserW) __wrap___imp_CreateProcessAsUserW =
    [](HANDLE token, LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
       LPSECURITY_ATTRIBUTES thread, WINBOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory,
       LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created) {
        launches.emplace_back(flags, environment != nullptr);
        return __real___imp_CreateProcessAsUserW(token, application, commandLine, process, thread, inherit, flags,
                                                 environment, directory, startup, created);
    };

static WINBOOL WINAPI WrappedCreateEnvironmentBlock(LPVOID* block, HANDLE token, WINBOOL inherit)
{
    return !Fails("CreateEnvironmentBlock") && REAL(CreateEnvironmentBlock)(block, token, inherit);
}
static WINBOOL WINAPI WrappedWTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                                                   PWTS_SESSION_INFOW* list, DWORD* count)
{
    return !Fails("WTSEnumerateSessionsW") && REAL(WTSEnumerateSessionsW)(server, reserved, version, list, count);
}
static WINBOOL WINAPI WrappedWTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS type,
                                                         LPWSTR* text, DWORD* bytes)
{
    return !Fails("WTSQuerySessionInformationW") &&
           REAL(WTSQuerySessionInformationW)(server, session, type, text, bytes);
}
#if PCP_WRAP_THUNK_POINTERS
decltype(&CreateEnvironmentBlock) __wrap___imp_CreateEnvironmentBlock = WrappedCreateEnvironmentBlock;
decltype(&WTSEnumerateSessionsW) __wrap___imp_WTSEnumerateSessionsW = WrappedWTSEnumerateSessionsW;
decltype(&WTSQuerySessionInformationW) __wrap___imp_WTSQuerySessionInformationW = WrappedWTSQuerySessionInformationW;
#else
WINBOOL WINAPI __wrap_CreateEnvironmentBlock(LPVOID* block, HANDLE token, WINBOOL inherit)
{
    return WrappedCreateEnvironmentBlock(block, token, inherit);
}
WINBOOL WINAPI __wrap_WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version, PWTS_SESSION_INFOW* list,
                                            DWORD* count)
{
    return WrappedWTSEnumerateSessionsW(server, reserved, version, list, count);
}
WINBOOL WINAPI __wrap_WTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS type, LPWSTR* text,
                                                  DWORD* bytes)
{
    return WrappedWTSQuerySessionInformationW(server, session, type, text, bytes);
}
#endif
}

namespace
{
using Lines = std::vector<std::string>;

// Address space in use, where Wine's environment blocks live.
uint64_t VirtualBytesInUse()
{
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    GlobalMemoryStatusEx(&status);
    return status.ullTotalVirtual - status.ullAvailVirtual;
}

class LaunchTest : public ::testing::Test, protected ProductCfgStandIns
{
protected:
    LaunchTest() { logRef.Acquire(); }
    ~LaunchTest() override
    {
        SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", nullptr);
        EndAll();
        logRef.Release(); // while its file is still named
    }

    LogCapture log;
    CLogDLLRef logRef;
};

// The image beside the host, not the copy in the current directory, with the
// parameters as given, the token bound to the session (0: the first active
// one), no window, the token's environment or else this process's. Then the
// session a run asks for, and whether a user is logged on.
TEST_F(LaunchTest, LaunchInTheSessionAskedForWithTheParametersAsGiven)
{
    wchar_t saved[MAX_PATH], current[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, saved);
    ASSERT_TRUE(SetCurrentDirectoryW(workDir.c_str()));
    GetCurrentDirectoryW(MAX_PATH, current);
    const DWORD console = WTSGetActiveConsoleSessionId(); // Wine lists no session: the console's stands
    ASSERT_NE(console, 0u);
    const std::wstring longest(kCommandLineChars - 1 - 17, L'x'); // the longest line: 32766 characters
    const struct
    {
        DWORD session;
        const wchar_t* parameters;
        std::wstring commandLine;
        bool environment; // CreateEnvironmentBlock works
    } rows[] = {{0, L"show_seccenter", L"\"ProductCfg.exe\" show_seccenter", true},
                {7, nullptr, L"\"ProductCfg.exe\"", true},
                {7, L"", L"\"ProductCfg.exe\" ", false},
                {7, longest.c_str(), L"\"ProductCfg.exe\" " + longest, true}};
    const std::string scope = "CProductConfigurationPlg::_ExecuteProcessInSession: ";
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.commandLine.size());
        log.Clear();
        bindings.clear();
        launches.clear();
        if (!row.environment)
            armed["CreateEnvironmentBlock"] = ERROR_ACCESS_DENIED;
        ASSERT_EQ(ExecuteProcessInSession(row.session, true, row.parameters), 0u);
        const std::vector<std::wstring> started = AwaitLaunched();
        EXPECT_EQ(started[2], current);
        EXPECT_EQ(started[3], kBeside);
        EXPECT_EQ(started[4], row.commandLine);
        EXPECT_EQ(log.Messages("INFO"),
                  (Lines{scope + "dwSessionId = " + std::to_string(row.session), scope + "bSystem = true",
                         "ExecuteProcessAsUser: Run " + std::string(row.commandLine.begin(), row.commandLine.end())}));
        EXPECT_EQ(log.Messages("ERROR"), Lines{});
        ASSERT_EQ(bindings.size(), 1u);
        EXPECT_EQ(bindings[0].second, row.session != 0 ? row.session : console);
        EXPECT_EQ(launches, (decltype(launches){{row.environment ? 0x8000420u : 0x8000020u, row.environment}}));
    }
    log.Clear();
    EXPECT_EQ(ExecuteProcessAsUser((longest + L"x").c_str(), GetUserToken(GetCurrentProcessId(), 1, true)),
              DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(log.Messages("ERROR"), Lines{"ExecuteProcessAsUser: Command line longer than 32766 characters, not started"});
    SetCurrentDirectoryW(saved); // before the work folder goes

    // ActiveSessionId under setting 3003's key, else the session chosen.
    const std::wstring key = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPSESSIONTEST";
    RegistryScratch registry;
    registry.Forget(HKEY_USERS, key);
    sim::Journal journal;
    sim::ServConfig config(journal);
    const struct
    {
        const wchar_t* suffix; // null: missing
        bool stored;           // ActiveSessionId 5
        int64_t listingFails;  // with this code; -1: the list is had
        DWORD session;
    } sessionRows[] = {{nullptr, true, -1, console}, {L"<error-not-found>", true, -1, console},
                       {L"PCPSESSIONTEST", true, -1, 5},  {L"PCPSESSIONTEST", false, -1, 0},
                       {L"PCPSESSIONTEST", true, RPC_S_SERVER_UNAVAILABLE, 0}, {L"PCPSESSIONTEST", true, 0, 5}};
    for (const auto& row : sessionRows)
    {
        SCOPED_TRACE(sim::Narrow(row.suffix) + (row.stored ? " stored, " : " not stored, ") +
                     std::to_string(row.listingFails));
        if (row.suffix != nullptr)
            config.Set(3003, L"common", row.suffix);
        else
            config.Remove(3003, L"common");
        if (row.stored)
            registry.SetDword(HKEY_USERS, key, L"ActiveSessionId", 5);
        else
            RegDeleteKeyValueW(HKEY_USERS, key.c_str(), L"ActiveSessionId");
        if (row.listingFails >= 0)
            armed["WTSEnumerateSessionsW"] = static_cast<DWORD>(row.listingFails);
        EXPECT_EQ(ResolveActiveSession(&config), row.session);
    }

    // No user name: not logged in, and the query's code, whatever the log
    // library leaves as last error.
    SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", L"4242");
    log.Clear();
    EXPECT_TRUE(IsOSUserLoggedIn()());
    armed["WTSQuerySessionInformationW"] = ERROR_CTX_WINSTATION_NOT_FOUND;
    EXPECT_FALSE(IsOSUserLoggedIn()());
    EXPECT_EQ(log.Messages("INFO"),
              Lines{"IsOSUserLoggedIn::operator (): WTSQuerySessionInformation WTSUserName failed err=7022"});
}

// The lookup by name, in any folder or the one asked for; each token or
// launch step that can fail logs one line with its call's code, whatever the
// log library leaves as last error (QM_LOG_LAST_ERROR); the tokens that come
// back. Nothing is left open over 200 rounds of the rows and 10 launches.
TEST_F(LaunchTest, LookupAndTokenRowsLeaveNothingOpen)
{
    const DWORD copied = Start(workDir + L"\\ProductCfg.exe");
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_DROP", L"SeDebugPrivilege");
    const DWORD beside = Start(kBeside);
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_DROP", nullptr);
    std::wstring upperWorkDir = workDir;
    CharUpperBuffW(&upperWorkDir[0], static_cast<DWORD>(upperWorkDir.size()));
    const struct
    {
        const wchar_t* name;
        std::wstring directory;
        DWORD result;
        DWORD pid; // left alone (7) on failure; 0: either of the two
    } lookups[] = {{L"productcfg.exe", L"", 0, 0},
                   {L"ProductCfg.exe", ExeDirectory(), 0, beside},
                   {L"PRODUCTCFG.EXE", upperWorkDir + L"\\", 0, copied},
                   {L"ProductCfg.exe", L"C:\\windows", ERROR_NOT_FOUND, 7},
                   {L"NoSuchImage.exe", L"", ERROR_NOT_FOUND, 7},
                   {L"", ExeDirectory(), ERROR_INVALID_PARAMETER, 7}};
    const DWORD own = GetCurrentProcessId();
    HANDLE raw = nullptr; // a token that CreateProcessAsUserW refuses with 5
    DuplicateTokenEx(GetUserToken(own, 1, true).get(), TOKEN_QUERY, nullptr, SecurityIdentification, TokenPrimary, &raw);
    const UniqueHandle queryOnly(raw);
    // Nothing, a primary duplicate bound to session 3, the limited linked
    // token of Wine's elevated user; or a launch with queryOnly.
    enum Outcome { kNone, kBound, kLinked, kLaunch };
    const struct
    {
        const char* fails; // the wrapped import, or null
        DWORD error;
        DWORD pid;
        bool bSystem;
        Outcome outcome;
        const char* level; // of the one warning or error, if any
        std::string line;
    } rows[] = {
        {nullptr, 0, own, true, kBound, nullptr, ""},
        {nullptr, 0, own, false, kLinked, nullptr, ""},
        {nullptr, 0, 0xFFFFFFF1, true, kNone, "ERROR", "GetUserToken: OpenProcess pid=4294967281 failed err = 87"},
        {"OpenProcessToken", 5, own, true, kNone, "ERROR",
         "GetUserToken: OpenProcessToken pid=" + std::to_string(own) + " failed err = 5"},
        {"LookupPrivilegeValueW", 1313, own, true, kNone, "ERROR", "GetUserToken: LookupPrivilegeValue failed err = 1313"},
        {"TokenElevationType", 87, own, false, kBound, "WARN", "IsUACEnabled: GetTokenInformation failed err=87"},
        {"TokenLinkedToken", 1312, own, false, kNone, "ERROR", "GetUserToken: GetTokenInformation failed err=1312"},
        {"DuplicateTokenEx", 8, own, true, kNone, "ERROR", "GetUserToken: DuplicateTokenEx failed err = 8"},
        {"SetTokenInformation", 1314, own, true, kNone, "ERROR", "GetUserToken: SetTokenInformation failed err = 1314"},
        {nullptr, 0, beside, true, kNone, "ERROR", "GetUserToken: AdjustTokenPrivileges failed err = 1300"},
        {nullptr, 0, 0, true, kLaunch, "ERROR", "ExecuteProcessAsUser: CreateProcessAsUser failed err=5"},
    };
    SetEnvironmentVariableW(L"QM_LOG_LAST_ERROR", L"4242");
    constexpr int kRounds = 200;
    size_t handles = 0;
    uint64_t memory = 0;
    for (int round = 0; round <= kRounds && !HasFailure(); ++round)
    {
        if (round == 1) // the first round loads what the calls keep for later
        {
            logRef.Release(); // thousands of lines would only slow the rounds down
            handles = OpenHandleCount();
            ASSERT_NE(handles, SIZE_MAX);
            memory = VirtualBytesInUse();
        }
        for (const auto& lookup : lookups)
        {
            if (round > 1) // slow, and one round shows a leak
                break;
            DWORD pid = 7;
            SCOPED_TRACE(sim::Narrow(lookup.name) + " in " + sim::Narrow(lookup.directory.c_str()));
            EXPECT_EQ(GetProcessPid(lookup.name, pid, lookup.directory), lookup.result);
            EXPECT_TRUE(lookup.pid != 0 ? pid == lookup.pid : pid == copied || pid == beside) << pid;
        }
        for (const auto& row : rows)
        {
            SCOPED_TRACE("row " + std::to_string(&row - rows) + ": " + row.line);
            if (round == 0)
                log.Clear();
            bindings.clear();
            if (row.fails != nullptr)
                armed[row.fails] = row.error;
            if (row.outcome == kLaunch)
            {
                HANDLE copy = nullptr;
                DuplicateHandle(GetCurrentProcess(), queryOnly.get(), GetCurrentProcess(), &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS);
                EXPECT_EQ(ExecuteProcessAsUser(L"show_seccenter", UniqueHandle(copy)), DWORD{ERROR_ACCESS_DENIED});
            }
            else
            {
                const UniqueHandle token = GetUserToken(row.pid, 3, row.bSystem);
                ASSERT_EQ(static_cast<bool>(token), row.outcome != kNone);
                TOKEN_ELEVATION_TYPE elevation = TokenElevationTypeDefault;
                TOKEN_TYPE type = TokenImpersonation;
                DWORD length = 0;
                GetTokenInformation(token.get(), TokenElevationType, &elevation, sizeof(elevation), &length);
                GetTokenInformation(token.get(), TokenType, &type, sizeof(type), &length);
                EXPECT_TRUE(row.outcome == kNone || (elevation == TokenElevationTypeLimited) == (row.outcome == kLinked));
                if (row.outcome == kBound)
                {
                    EXPECT_EQ(type, TokenPrimary);
                    EXPECT_EQ(bindings, (decltype(bindings){{token.get(), 3u}}));
                }
            }
            if (round == 0)
            {
                EXPECT_EQ(log.Messages("ERROR").size() + log.Messages("WARN").size(), row.level != nullptr ? 1u : 0u);
                EXPECT_EQ(log.Messages(row.level != nullptr ? row.level : "ERROR"), row.level != nullptr ? Lines{row.line} : Lines{});
            }
        }
    }
    EXPECT_EQ(OpenHandleCount(), handles) << "after " << kRounds << " rounds";
    EXPECT_LT(VirtualBytesInUse() - memory, kRounds * 2500u) << "an environment block takes over 5 KB";
    for (int i = 0; i < 10 && !HasFailure(); ++i)
    {
        ASSERT_EQ(ExecuteProcessAsUser(L"show_seccenter", GetUserToken(own, 1, true)), 0u);
        End(std::wcstoul(AwaitLaunched()[0].c_str(), nullptr, 10), false);
    }
    EXPECT_EQ(OpenHandleCount(), handles) << "after 10 launches";

    // A suspended one, first in the snapshot, has no modules: a search by folder ends.
    EndAll();
    const DWORD suspended = Start(kBeside, CREATE_SUSPENDED);
    Start(kBeside);
    DWORD pid = 0;
    EXPECT_EQ(GetProcessPid(L"ProductCfg.exe", pid, ExeDirectory()), DWORD{ERROR_GEN_FAILURE});
    EXPECT_EQ(GetProcessPid(L"ProductCfg.exe", pid, L""), 0u);
    EXPECT_EQ(pid, suspended);
}

WTS_SESSION_INFOW Session(DWORD id, WTS_CONNECTSTATE_CLASS state)
{
    return WTS_SESSION_INFOW{id, nullptr, state};
}

TEST(RunDecision, StatusBlocksAndSessionLists)
{
    // Each block with mspStatus 0 and 1 (due, "config_msp_status" after the
    // parameter); all of it is consumed but the comStatus given.
    struct Row
    {
        uint32_t cfg;
        bool seccenter;
        uint32_t com;
        bool due; // with mspStatus 0
        const wchar_t* parameter;
        uint32_t comAfter;
    };
    const Row rows[] = {
        {1, false, 0, true, L"do_config_seccenter", 0}, {1, true, 2, true, L"do_config_seccenter", 0},
        {1, true, 1, true, L"do_config_seccenter", 0},  {1, false, 1, true, L"do_config_seccenter", 0},
        {0, true, 0, true, L"show_seccenter", 0},
        {0, true, 1, true, L"show_seccenter", 1}, // the fetch goes on hourly
        {0, true, 2, true, L"contacts_seccenter", 0},   {0, false, 2, true, L"change_contacts", 0},
        {0, false, 1, true, nullptr, 1},                {0, false, 0, false, nullptr, 0},
        {0, false, 3, false, nullptr, 3},
    };
    for (const Row& row : rows)
        for (uint32_t msp : {0u, 1u})
        {
            ProductCfgStatus status{row.cfg, msp, row.com, row.seccenter};
            SCOPED_TRACE(::testing::Message() << "cfg " << row.cfg << " msp " << msp << " com " << row.com
                                              << (row.seccenter ? " seccenter" : ""));
            EXPECT_EQ(IsConfigRunDue(status), row.due || msp == 1);
            std::wstring expected = row.parameter != nullptr ? row.parameter : L"";
            if (msp == 1)
                expected += expected.empty() ? L"config_msp_status" : L" config_msp_status";
            EXPECT_EQ(ConvertStatusToParams(status).value_or(L"<none>"), expected.empty() ? L"<none>" : expected);
            EXPECT_EQ(std::make_tuple(status.cfgStatus, status.mspStatus, status.comStatus, status.seccenterAllowed),
                      std::make_tuple(0u, 0u, row.comAfter, false));
        }

    // The console being 1: the plugin's choice, and the launch's for session 0.
    struct SessionRow
    {
        const char* what;
        std::vector<WTS_SESSION_INFOW> sessions;
        DWORD chosen;
        DWORD first;
    };
    const SessionRow sessionRows[] = {
        {"empty list", {}, 1, 1},
        {"none active", {Session(0, WTSDisconnected), Session(1, WTSConnected), Session(65536, WTSListen)}, 1, 1},
        {"the active console wins over earlier ones", {Session(3, WTSActive), Session(1, WTSActive), Session(4, WTSActive)},
         1, 3},
        {"console first", {Session(1, WTSActive), Session(3, WTSActive)}, 1, 1},
        {"last active one before the console entry",
         {Session(3, WTSActive), Session(5, WTSActive), Session(1, WTSDisconnected), Session(7, WTSActive)}, 5, 3},
        {"console not listed", {Session(5, WTSIdle), Session(7, WTSActive), Session(2, WTSActive)}, 2, 7},
        {"console listed first, not active", {Session(1, WTSDisconnected), Session(4, WTSActive)}, 1, 4},
    };
    for (const SessionRow& row : sessionRows)
    {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(ChooseActiveSession(row.sessions.data(), row.sessions.size(), 1), row.chosen);
        EXPECT_EQ(FirstActiveSessionId(row.sessions.data(), row.sessions.size(), 1), row.first);
    }
}
} // namespace
