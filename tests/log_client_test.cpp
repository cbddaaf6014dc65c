// The logging client against our log.dll, which appends its lines to the file
// named by QM_LOG_FILE. This program's own client finds build/bin/log.dll
// beside it; log_client_probe.dll, copied into a folder of the test's own,
// holds a second client that finds whatever lies beside that copy.
#include <windows.h>
#include <mmsystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_client.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"
#include "support/unique_resource.h"

namespace
{
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using testing::Contains;

// Counts how often it is formatted.
struct Counted
{
    int* calls;
};

std::wostream& operator<<(std::wostream& out, const Counted& counted)
{
    ++*counted.calls;
    return out << L"counted";
}

fs::path ModulePath(HMODULE module)
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(module, path, MAX_PATH);
    return path;
}

const fs::path& ProgramFolder()
{
    static const fs::path folder = ModulePath(nullptr).parent_path();
    return folder;
}

const std::string kUnloadLines[] = {"CALL  LogDeinit()", "CALL  LogUninitDeskMetrics()",
                                    "CALL  LogRemoveModule(logging::CLogDLL::~CLogDLL)"};

// A copy of log_client_probe.dll in folder, and its exports.
struct Probe
{
    explicit Probe(const fs::path& folder) : module(LoadCopy(folder)) {}

    static HMODULE LoadCopy(const fs::path& folder)
    {
        fs::copy_file(ProgramFolder() / "log_client_probe.dll", folder / "log_client_probe.dll");
        return LoadLibraryW((folder / "log_client_probe.dll").c_str());
    }

    template <class Fn>
    Fn Export(const char* name) const
    {
        return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(module.get(), name)));
    }

    UniqueModule module;
    CLogDLLRef* (*acquire)() = Export<CLogDLLRef* (*)()>("ProbeAcquire");
    void (*release)(CLogDLLRef*) = Export<void (*)(CLogDLLRef*)>("ProbeRelease");
    HMODULE (*library)(const CLogDLLRef*) = Export<HMODULE (*)(const CLogDLLRef*)>("ProbeLibrary");
    HRESULT (*write)(const CLogDLLRef*, const wchar_t*) = Export<HRESULT (*)(const CLogDLLRef*, const wchar_t*)>("ProbeWrite");
    void (*trace)(const wchar_t*) = Export<void (*)(const wchar_t*)>("ProbeTrace");
};

class LogClientTest : public testing::Test
{
protected:
    void SetUp() override
    {
        folder = fs::temp_directory_path() / ("pcp_log_client_" + std::to_string(GetCurrentProcessId()));
        fs::remove_all(folder);
        fs::create_directories(folder / "alone");
        fs::create_directories(folder / "beside");
        logFile = folder / "log.txt";
        SetEnvironmentVariableW(L"QM_LOG_FILE", logFile.c_str());
        SetEnvironmentVariableW(L"QM_LOG_ENABLED", nullptr);
    }

    void TearDown() override
    {
        EXPECT_EQ(logging::UserCount(), 0);
        SetEnvironmentVariableW(L"QM_LOG_FILE", nullptr);
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    // The log's lines without time and thread id; the milliseconds of exit
    // lines read [N] unless kept.
    Lines LogLines(bool keepMilliseconds = false) const
    {
        Lines lines;
        std::ifstream file(logFile);
        for (std::string line; std::getline(file, line);)
        {
            line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
            line.erase(0, line.find(' ', line.find(' ') + 1) + 1);
            if (!keepMilliseconds && line.find(": <- ") != std::string::npos)
                line.replace(line.rfind(" ["), std::string::npos, " [N]");
            lines.push_back(line);
        }
        return lines;
    }

    fs::path folder;
    fs::path logFile;
};

TEST_F(LogClientTest, WithoutUsersNothingLoadsNothingIsFormattedAndTimeIsKept)
{
    int formatted = 0;
    const DWORD before = timeGetTime();
    {
        TraceScope trace(L"Silent");
        EXPECT_LE(trace.StartTime() - before, timeGetTime() - before);
        logger_stream stream(logging::LevelInfo, L"Silent");
        stream << Counted{&formatted} << "text" << 1;
        EXPECT_FALSE(stream.IsEnabled());
    }
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
    EXPECT_FALSE(fs::exists(logFile));
}

TEST_F(LogClientTest, TraceAndMessagesReachTheLibraryBesideThisModuleThenItUnloadsInOrder)
{
    CLogDLLRef ref;
    ref.Acquire();
    ASSERT_NE(ref.get(), nullptr);
    EXPECT_TRUE(fs::equivalent(ModulePath(ref.get()->module.get()), ProgramFolder() / "log.dll"));
    {
        TraceScope outer(L"COuter::Run");
        {
            TraceScope block(L"No value in registry", L"COuter::Run");
            logger_stream(logging::LevelWarning, L"COuter::Run")
                << "100%s done " << 42 << L' ' << true << ' ' << std::hex << 255 << std::string(" narrow");
        }
        logger_stream(logging::LevelError, L"COuter::Run");
    }
    ref.Release();
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
    EXPECT_EQ(LogLines(), (Lines{"CALL  LogInit()",
                                 "TRACE COuter::Run: -> COuter::Run()",
                                 "TRACE   COuter::Run: -> [No value in registry]",
                                 "WARN      COuter::Run: 100%s done 42 1 ff narrow",
                                 "TRACE   COuter::Run: <- [No value in registry] [N]",
                                 "ERROR   COuter::Run: ",
                                 "TRACE COuter::Run: <- COuter::Run() [N]",
                                 kUnloadLines[0], kUnloadLines[1], kUnloadLines[2],
                                 "CALL  DLL_PROCESS_DETACH"}));
}

TEST_F(LogClientTest, LastReleaseUnloadsAndAReferenceGivesUpAllItsAcquisitions)
{
    CLogDLLRef first;
    CLogDLLRef second;
    first.Acquire();
    first.Acquire();
    second.Acquire();
    EXPECT_EQ(logging::UserCount(), 3);
    EXPECT_EQ(first.get(), second.get());

    second.Release();
    EXPECT_EQ(second.get(), nullptr);
    EXPECT_EQ(logging::UserCount(), 2);
    EXPECT_NE(GetModuleHandleW(L"log.dll"), nullptr);

    first.Release();
    EXPECT_EQ(logging::UserCount(), 0);
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);

    second.Release(); // nothing left to give up: no effect, now or later
    second.Acquire();
    EXPECT_NE(GetModuleHandleW(L"log.dll"), nullptr);
    second.Release();
    EXPECT_EQ(logging::UserCount(), 0);
    const Lines lines = LogLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "CALL  LogInit()"), 2);
}

// Without LogIsEnabled messages stay off while trace lines still reach LogWrite.
TEST_F(LogClientTest, AnAlreadyLoadedLibraryIsUsedWhateverItLacks)
{
    const struct
    {
        const char* library;
        HRESULT write;
        Lines written; // between LogInit and the unloading
    } rows[] = {{"log_without_write.dll", E_NOINTERFACE, {}},
                {"log_without_is_enabled.dll", S_OK,
                 {"INFO  F: direct", "TRACE Lost: -> Lost()", "TRACE Lost: <- Lost() [N]"}}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.library);
        const fs::path copy = folder / fs::path(row.library).stem() / "log.dll";
        fs::create_directories(copy.parent_path());
        fs::copy_file(ProgramFolder() / row.library, copy);
        UniqueModule hostsCopy(LoadLibraryW(copy.c_str()));
        ASSERT_TRUE(hostsCopy);
        int formatted = 0;
        {
            CLogDLLRef ref;
            ref.Acquire();
            ASSERT_NE(ref.get(), nullptr);
            EXPECT_EQ(ref.get()->module.get(), hostsCopy.get());
            EXPECT_EQ(ref.get()->LogIsEnabled, nullptr);
            const uint32_t level = logging::LevelInfo;
            EXPECT_EQ(ref.get()->Write(logging::kDepthSame, &level, L"F", L"%s", L"direct"), row.write);
            TraceScope trace(L"Lost");
            logger_stream stream(logging::LevelError, L"Lost");
            stream << Counted{&formatted};
            EXPECT_FALSE(stream.IsEnabled());
        }
        EXPECT_EQ(formatted, 0);
        EXPECT_EQ(GetModuleHandleW(L"log.dll"), hostsCopy.get());
        hostsCopy.reset(); // the host lets it go
        Lines expected{"CALL  LogInit()"};
        expected.insert(expected.end(), row.written.begin(), row.written.end());
        expected.insert(expected.end(), std::begin(kUnloadLines), std::end(kUnloadLines));
        expected.push_back("CALL  DLL_PROCESS_DETACH");
        EXPECT_EQ(LogLines(), expected);
        fs::remove(logFile);
    }
}

TEST_F(LogClientTest, TheExitLineIsWrittenWhenTheScopeEndsWithTheMillisecondsSpent)
{
    constexpr DWORD kSpent = 40;
    CLogDLLRef ref;
    ref.Acquire();
    DWORD start = 0;
    {
        TraceScope trace(L"Timed");
        start = trace.StartTime();
        while (timeGetTime() - start < kSpent)
            Sleep(1);
        EXPECT_EQ(LogLines(), (Lines{"CALL  LogInit()", "TRACE Timed: -> Timed()"}));
    }
    const DWORD bound = timeGetTime() - start;
    ref.Release();
    const Lines lines = LogLines(true);
    ASSERT_GE(lines.size(), 3u);
    const std::string prefix = "TRACE Timed: <- Timed() [";
    ASSERT_EQ(lines[2].rfind(prefix, 0), 0u) << lines[2];
    const unsigned long spent = std::stoul(lines[2].substr(prefix.size()));
    EXPECT_GE(spent, kSpent);
    EXPECT_LE(spent, bound);
    EXPECT_EQ(lines[2], prefix + std::to_string(spent) + "]");
}

TEST_F(LogClientTest, MessagesStayOffWhenTheLibrarySaysSoWhileTraceLinesGoOn)
{
    SetEnvironmentVariableW(L"QM_LOG_ENABLED", L"0");
    int formatted = 0;
    {
        CLogDLLRef ref;
        ref.Acquire();
        TraceScope trace(L"Quiet");
        logger_stream(logging::LevelInfo, L"Quiet") << Counted{&formatted};
    }
    EXPECT_EQ(formatted, 0);
    const Lines lines = LogLines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Lines(lines.begin() + 1, lines.begin() + 3),
              (Lines{"TRACE Quiet: -> Quiet()", "TRACE Quiet: <- Quiet() [N]"}));
}

TEST_F(LogClientTest, OnlyALibraryBesideTheClientsOwnModuleIsLoaded)
{
    {
        // build/bin/log.dll lies on this program's search path, not beside the probe.
        const Probe alone(folder / "alone");
        CLogDLLRef* ref = alone.acquire();
        EXPECT_EQ(alone.library(ref), nullptr);
        EXPECT_EQ(alone.write(ref, L"lost"), E_NOINTERFACE);
        alone.trace(L"lost");
        EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
        alone.release(ref);
        EXPECT_FALSE(fs::exists(logFile));
    }
    fs::copy_file(ProgramFolder() / "log.dll", folder / "beside" / "log.dll");
    const Probe beside(folder / "beside");
    CLogDLLRef* ref = beside.acquire();
    EXPECT_TRUE(fs::equivalent(ModulePath(beside.library(ref)), folder / "beside" / "log.dll"));
    beside.trace(L"beside");
    beside.release(ref);
    EXPECT_THAT(LogLines(), Contains("INFO    ProbeTrace: beside"));
}

TEST_F(LogClientTest, ThreadsLoadUnloadAndWriteConcurrently)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    // Holders trace under references of their own, which load and unload
    // the library again and again; the others trace whenever it is loaded.
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([holder = t % 2 == 0] {
            for (int i = 0; i < kRounds; ++i)
            {
                const wchar_t* name = holder ? L"Holder" : L"Visitor";
                CLogDLLRef ref;
                if (holder)
                    ref.Acquire();
                TraceScope trace(name);
                logger_stream(logging::LevelInfo, name) << "round";
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
    const Lines lines = LogLines();
    const auto count = [&lines](const char* line) { return std::count(lines.begin(), lines.end(), line); };
    EXPECT_EQ(count("TRACE Holder: -> Holder()"), kThreads / 2 * kRounds);
    EXPECT_EQ(count("TRACE Holder: <- Holder() [N]"), kThreads / 2 * kRounds);
    EXPECT_EQ(count("INFO    Holder: round"), kThreads / 2 * kRounds);
    EXPECT_GE(count("CALL  LogInit()"), 1);
    EXPECT_EQ(count("CALL  LogInit()"), count("CALL  LogDeinit()"));
    EXPECT_EQ(count("CALL  LogInit()"), count("CALL  DLL_PROCESS_DETACH"));
}

TEST(TraceScopeRecord, NamesAreCutToTheirArraysAndElapsedTimeSurvivesTheWrap)
{
    struct Row
    {
        size_t length, displayed, function;
    };
    for (const Row row : {Row{0, 0, 0}, Row{257, 257, 257}, Row{258, 257, 258}, Row{260, 257, 259}, Row{300, 257, 259}})
    {
        std::wstring name;
        for (size_t i = 0; i < row.length; ++i)
            name += static_cast<wchar_t>(L'a' + i % 26);
        const TraceScope scope(name.c_str());
        EXPECT_EQ(scope.DisplayName(), name.substr(0, row.displayed) + L"()") << row.length;
        EXPECT_EQ(scope.FunctionName(), name.substr(0, row.function)) << row.length;
        const TraceScope block(name.c_str(), L"F");
        EXPECT_EQ(block.DisplayName(), L"[" + name.substr(0, row.displayed) + L"]") << row.length;
        EXPECT_STREQ(block.FunctionName(), L"F");
    }
    EXPECT_EQ(TraceScope::Elapsed(0xFFFFFFF0u, 0x10u), 0x20u);
    EXPECT_EQ(TraceScope::Elapsed(7u, 7u), 0u);
}
} // namespace
