// Starting ProductCfg.exe for real under Wine: the user token, the lookup of a
// running process, the launch and its command line, and that nothing stays open.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "launch/process_launch.h"
#include "launch/process_lookup.h"
#include "launch/sessions.h"
#include "launch/user_token.h"
#include "handle_count.h"
#include "log_capture.h"
#include "productcfg_harness.h"
#include "support/log_client.h"

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

UniqueHandle OwnToken(bool bSystem)
{
    return GetUserToken(GetCurrentProcessId(), GetFirstActiveSessionId(), bSystem);
}

class ProductCfgTest : public ::testing::Test, protected ProductCfgStandIns
{
protected:
    ProductCfgTest()
    {
        logRef.Acquire();
        GetCurrentDirectoryW(MAX_PATH, savedDirectory);
    }
    ~ProductCfgTest() override
    {
        EndAll();
        logRef.Release(); // while its file is still named
        SetCurrentDirectoryW(savedDirectory);
    }
    Lines Messages(const std::string& level) const { return log.Messages(level); }

    LogCapture log;
    wchar_t savedDirectory[MAX_PATH] = {};
    CLogDLLRef logRef;
};

TEST_F(ProductCfgTest, LaunchStartsTheImageBesideTheHostWithTheParametersAsGivenAndLogsIt)
{
    // The current directory holds a copy of the image: the host's folder wins.
    wchar_t elsewhere[MAX_PATH];
    ASSERT_TRUE(SetCurrentDirectoryW(workDir.c_str()));
    GetCurrentDirectoryW(MAX_PATH, elsewhere);
    const std::wstring longest(kCommandLineChars - 1 - 17, L'x'); // the longest line: 32766 characters
    const struct
    {
        bool inSession; // through ExecuteProcessInSession(0, true, ...)
        const wchar_t* parameters;
        std::wstring commandLine;
    } rows[] = {{true, L"show_seccenter", L"\"ProductCfg.exe\" show_seccenter"},
                {false, nullptr, L"\"ProductCfg.exe\""},
                {false, L"", L"\"ProductCfg.exe\" "},
                {false, longest.c_str(), L"\"ProductCfg.exe\" " + longest}};
    for (const auto& row : rows)
    {
        const DWORD result = row.inSession ? ExecuteProcessInSession(0, true, row.parameters)
                                           : ExecuteProcessAsUser(row.parameters, OwnToken(true));
        ASSERT_EQ(result, 0u) << row.commandLine.size();
        const std::vector<std::wstring> started = AwaitLaunched();
        EXPECT_EQ(started[2], elsewhere);
        EXPECT_EQ(started[3], kBeside);
        EXPECT_EQ(started[4], row.commandLine);
    }
    const std::string scope = "CProductConfigurationPlg::_ExecuteProcessInSession: ";
    const std::string run = "ExecuteProcessAsUser: Run ";
    Lines info = Messages("INFO");
    info.resize(5);
    EXPECT_EQ(info, (Lines{scope + "dwSessionId = 0", scope + "bSystem = true",
                           run + "\"ProductCfg.exe\" show_seccenter", run + "\"ProductCfg.exe\"",
                           run + "\"ProductCfg.exe\" "}));
    EXPECT_EQ(Messages("ERROR"), Lines{});
    EXPECT_EQ(ExecuteProcessAsUser((longest + L"x").c_str(), OwnToken(true)), DWORD{ERROR_INSUFFICIENT_BUFFER});
}

TEST(CommandLine, NeverOutgrowsItsBuffer)
{
    constexpr size_t kCapacity = 24; // the quoted image, a blank and 6 characters
    for (const wchar_t* parameters : {L"abcdef", L"abcdefg", L"a long parameter string"})
    {
        wchar_t buffer[kCapacity + 8];
        std::fill(std::begin(buffer), std::end(buffer), L'#');
        EXPECT_EQ(BuildCommandLine(parameters, buffer, kCapacity), parameters[6] == L'\0') << parameters;
        EXPECT_EQ(std::wstring(buffer, kCapacity + 8), L"\"ProductCfg.exe\" " + std::wstring(parameters).substr(0, 6) +
                                                           L'\0' + std::wstring(8, L'#'));
    }
}

TEST_F(ProductCfgTest, LookupFindsTheFirstProcessOfTheNameInTheFolderAskedFor)
{
    const DWORD copied = Start(workDir + L"\\ProductCfg.exe");
    DWORD pid = 0;
    ASSERT_EQ(GetProcessPid(L"productcfg.exe", pid, L""), 0u);
    EXPECT_EQ(pid, copied) << "any folder";

    const DWORD beside = Start(kBeside);
    std::wstring upperWorkDir = workDir;
    CharUpperBuffW(&upperWorkDir[0], static_cast<DWORD>(upperWorkDir.size()));
    const struct
    {
        const wchar_t* name;
        std::wstring directory;
        DWORD result;
        DWORD pid; // 0: either of the two
    } rows[] = {{L"ProductCfg.exe", ExeDirectory(), 0, beside}, // one of these two rows skips the other process
                {L"PRODUCTCFG.EXE", upperWorkDir + L"\\", 0, copied},
                {L"ProductCfg.exe", L"", 0, 0},
                {L"ProductCfg.exe", L"C:\\windows", ERROR_NOT_FOUND, 7},
                {L"NoSuchImage.exe", L"", ERROR_NOT_FOUND, 7},
                {L"", ExeDirectory(), ERROR_INVALID_PARAMETER, 7}};
    for (const auto& row : rows)
    {
        pid = 7; // left alone on failure
        EXPECT_EQ(GetProcessPid(row.name, pid, row.directory), row.result) << row.name << " " << row.directory;
        EXPECT_TRUE(row.pid != 0 ? pid == row.pid : pid == copied || pid == beside) << row.name << " " << pid;
    }

    // Started first, a suspended one comes first in the snapshot; without
    // modules to list, it ends a search by folder.
    End(copied);
    End(beside);
    const DWORD suspended = Start(kBeside, CREATE_SUSPENDED);
    Start(kBeside);
    EXPECT_EQ(GetProcessPid(L"ProductCfg.exe", pid, ExeDirectory()), DWORD{ERROR_GEN_FAILURE});
    EXPECT_EQ(GetProcessPid(L"ProductCfg.exe", pid, L""), 0u);
    EXPECT_EQ(pid, suspended);
}

TEST_F(ProductCfgTest, TokensAndEveryFailureRowLeaveNothingOpenOverRepeatedLookupsAndLaunches)
{
    const DWORD ended = Start(kBeside);
    End(ended);
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_DROP", L"SeDebugPrivilege");
    const DWORD withoutDebug = Start(kBeside);
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_DROP", nullptr);

    // Wine's user is an elevated administrator: without bSystem its limited
    // linked token comes back instead of a primary duplicate.
    DWORD type = 0, elevation = 0, length = 0;
    ASSERT_TRUE(GetTokenInformation(OwnToken(true).get(), TokenType, &type, sizeof(type), &length));
    ASSERT_TRUE(GetTokenInformation(OwnToken(false).get(), TokenElevationType, &elevation, sizeof(elevation), &length));
    EXPECT_EQ(type, DWORD{TokenPrimary});
    EXPECT_EQ(elevation, DWORD{TokenElevationTypeLimited});
    const UniqueHandle queryOnly = [] {
        HANDLE token = nullptr; // CreateProcessAsUserW refuses it with 5
        DuplicateTokenEx(OwnToken(true).get(), TOKEN_QUERY, nullptr, SecurityIdentification, TokenPrimary, &token);
        return UniqueHandle(token);
    }();
    constexpr DWORD kNeverAProcess = 0xFFFFFFF1;
    bool firstRound = true;
    const auto round = [&] {
        DWORD pid = 0;
        EXPECT_EQ(GetProcessPid(L"ProductCfg.exe", pid, ExeDirectory()), 0u);
        EXPECT_EQ(GetProcessPid(L"NoSuchImage.exe", pid, L""), DWORD{ERROR_NOT_FOUND});
        EXPECT_TRUE(OwnToken(false));
        // An ended process's id can be handed to a new process at any time;
        // an odd id is never handed out and fails the same way.
        EXPECT_FALSE(GetUserToken(firstRound ? ended : kNeverAProcess, 1, true));
        EXPECT_FALSE(GetUserToken(withoutDebug, 1, true));
        HANDLE copy = nullptr;
        DuplicateHandle(GetCurrentProcess(), queryOnly.get(), GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        EXPECT_EQ(ExecuteProcessAsUser(L"show_seccenter", UniqueHandle(copy)), DWORD{ERROR_ACCESS_DENIED});
    };
    round(); // the first calls load what they keep for later
    firstRound = false;
    EXPECT_EQ(Messages("ERROR"), (Lines{"GetUserToken: OpenProcess pid=" + std::to_string(ended) + " failed err = 87",
                                        "GetUserToken: AdjustTokenPrivileges failed err = 1300",
                                        "ExecuteProcessAsUser: CreateProcessAsUser failed err=5"}));
    EXPECT_EQ(Messages("WARN"), Lines{});
    logRef.Release(); // thousands of lines would only slow the rounds down

    const size_t handles = OpenHandleCount();
    ASSERT_NE(handles, SIZE_MAX);
    const uint64_t memory = VirtualBytesInUse();
    constexpr int kRounds = 200;
    for (int i = 0; i < kRounds && !HasFailure(); ++i)
        round();
    EXPECT_EQ(OpenHandleCount(), handles) << "after " << kRounds << " rounds";
    EXPECT_LT(VirtualBytesInUse() - memory, kRounds * 2500u) << "an environment block takes over 5 KB";
    for (int i = 0; i < 50 && !HasFailure(); ++i)
    {
        ASSERT_EQ(ExecuteProcessAsUser(L"show_seccenter", OwnToken(true)), 0u);
        End(std::wcstoul(AwaitLaunched()[0].c_str(), nullptr, 10), false);
    }
    EXPECT_EQ(OpenHandleCount(), handles) << "after 50 launches";
}

} // namespace
