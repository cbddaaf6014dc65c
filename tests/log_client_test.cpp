// The logging client against our log.dll, which appends its lines to the file
// named by QM_LOG_FILE. This program's own client finds build/bin/log.dll
// beside it; log_client_probe.dll, copied into a folder of the test's own,
// holds a second client that finds whatever lies beside that copy.
#include <windows.h>
#include <mmsystem.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/log_client.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

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

const fs::path kProgramFolder = [] {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
}();
const Lines kUnloadLines = {"CALL  LogDeinit()", "CALL  LogUninitDeskMetrics()",
                            "CALL  LogRemoveModule(logging::CLogDLL::~CLogDLL)", "CALL  DLL_PROCESS_DETACH"};

class LogClientTest : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::remove_all(folder);
        fs::create_directories(folder);
        SetEnvironmentVariableW(L"QM_LOG_FILE", logFile.c_str());
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
    size_t Count(const char* line) const
    {
        const Lines lines = LogLines();
        return std::count(lines.begin(), lines.end(), line);
    }

    const fs::path folder = fs::temp_directory_path() / ("pcp_log_client_" + std::to_string(GetCurrentProcessId()));
    const fs::path logFile = folder / "log.txt";
};

// Without users nothing loads and nothing is formatted. The first acquisition loads, the last release unloads; a
// reference gives up all its acquisitions at once, and nothing more later.
TEST_F(LogClientTest, UsersLoadTheLibraryAndTheLastReleaseUnloadsIt)
{
    int formatted = 0;
    {
        TraceScope trace(L"Silent");
        logger_stream stream(logging::LevelInfo, L"Silent");
        stream << Counted{&formatted} << "text" << 1;
        EXPECT_FALSE(stream.IsEnabled());
    }
    EXPECT_EQ(formatted, 0);
    EXPECT_FALSE(fs::exists(logFile));

    CLogDLLRef refs[2];
    const struct
    {
        int ref;
        bool acquire;
        int32_t users;
    } steps[] = {{0, true, 1}, {0, true, 2}, {1, true, 3}, {1, false, 2}, {0, false, 0},
                 {1, false, 0}, {1, true, 1}, {1, false, 0}};
    for (const auto& step : steps)
    {
        SCOPED_TRACE(&step - steps);
        step.acquire ? refs[step.ref].Acquire() : refs[step.ref].Release();
        EXPECT_EQ(refs[step.ref].get() != nullptr, step.acquire);
        EXPECT_EQ(logging::UserCount(), step.users);
        EXPECT_EQ(GetModuleHandleW(L"log.dll") != nullptr, step.users != 0);
        EXPECT_TRUE(!refs[0].get() || !refs[1].get() || refs[0].get() == refs[1].get()) << "one record";
    }
    EXPECT_EQ(Count("CALL  LogInit()"), 2u);
}

// Nested scopes indent, a message keeps its percent signs, the exit line
// comes when its scope ends with the milliseconds spent; while LogIsEnabled
// says no, trace lines still go on and messages format nothing.
TEST_F(LogClientTest, LinesReachTheLibraryBesideThisModuleThenItUnloadsInOrder)
{
    constexpr DWORD kSpent = 40;
    int formatted = 0;
    CLogDLLRef ref;
    ref.Acquire();
    DWORD start = 0;
    {
        TraceScope outer(L"COuter::Run");
        start = outer.StartTime();
        {
            TraceScope block(L"No value in registry", L"COuter::Run");
            logger_stream(logging::LevelWarning, L"COuter::Run")
                << "100%s done " << 42 << L' ' << true << ' ' << std::hex << 255 << std::string(" narrow");
        }
        logger_stream(logging::LevelError, L"COuter::Run");
        while (timeGetTime() - start < kSpent)
            Sleep(1);
        EXPECT_EQ(LogLines().size(), 6u) << "no exit line before the scope ends";
    }
    const DWORD bound = timeGetTime() - start;
    SetEnvironmentVariableW(L"QM_LOG_ENABLED", L"0");
    {
        TraceScope quiet(L"Quiet");
        logger_stream(logging::LevelInfo, L"Quiet") << Counted{&formatted};
    }
    SetEnvironmentVariableW(L"QM_LOG_ENABLED", nullptr);
    ref.Release();
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
    Lines expected = {"CALL  LogInit()",
                      "TRACE COuter::Run: -> COuter::Run()",
                      "TRACE   COuter::Run: -> [No value in registry]",
                      "WARN      COuter::Run: 100%s done 42 1 ff narrow",
                      "TRACE   COuter::Run: <- [No value in registry] [N]",
                      "ERROR   COuter::Run: ",
                      "TRACE COuter::Run: <- COuter::Run() [N]",
                      "TRACE Quiet: -> Quiet()",
                      "TRACE Quiet: <- Quiet() [N]"};
    expected.insert(expected.end(), kUnloadLines.begin(), kUnloadLines.end());
    EXPECT_EQ(LogLines(), expected);
    const std::string exitLine = LogLines(true).at(6), prefix = "TRACE COuter::Run: <- COuter::Run() [";
    ASSERT_EQ(exitLine.rfind(prefix, 0), 0u) << exitLine;
    const unsigned long spent = std::stoul(exitLine.substr(prefix.size()));
    EXPECT_GE(spent, kSpent);
    EXPECT_LE(spent, bound);
    EXPECT_EQ(exitLine, prefix + std::to_string(spent) + "]");
}

// A log.dll the process has loaded is used whatever it lacks: without
// LogWrite nothing is written, without LogIsEnabled messages stay off while
// trace lines go on. Else only a log.dll beside the client's own module is
// loaded, never one on the search path.
TEST_F(LogClientTest, TheLibraryIsTheLoadedOneOrTheOneBesideTheClient)
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
        fs::copy_file(kProgramFolder / row.library, copy);
        UniqueModule hostsCopy(LoadLibraryW(copy.c_str()));
        ASSERT_TRUE(hostsCopy);
        int formatted = 0;
        {
            CLogDLLRef ref;
            ref.Acquire();
            ASSERT_NE(ref.get(), nullptr);
            EXPECT_EQ(ref.get()->module.get(), hostsCopy.get());
            const uint32_t level = logging::LevelInfo;
            EXPECT_EQ(ref.get()->Write(logging::kDepthSame, &level, L"F", L"%s", L"direct"), row.write);
            TraceScope trace(L"Lost");
            logger_stream(logging::LevelError, L"Lost") << Counted{&formatted};
        }
        EXPECT_EQ(formatted, 0);
        EXPECT_EQ(GetModuleHandleW(L"log.dll"), hostsCopy.get());
        hostsCopy.reset(); // the host lets it go
        Lines expected{"CALL  LogInit()"};
        expected.insert(expected.end(), row.written.begin(), row.written.end());
        expected.insert(expected.end(), kUnloadLines.begin(), kUnloadLines.end());
        EXPECT_EQ(LogLines(), expected);
        fs::remove(logFile);
    }

    // build/bin/log.dll lies on this program's search path, not beside the probe.
    for (const bool beside : {false, true})
    {
        const fs::path probeFolder = folder / (beside ? "beside" : "alone");
        fs::create_directories(probeFolder);
        fs::copy_file(kProgramFolder / "log_client_probe.dll", probeFolder / "log_client_probe.dll");
        if (beside)
            fs::copy_file(kProgramFolder / "log.dll", probeFolder / "log.dll");
        const UniqueModule probe(LoadLibraryW((probeFolder / "log_client_probe.dll").c_str()));
        const auto trace = reinterpret_cast<void (*)(const wchar_t*, wchar_t (*)[MAX_PATH])>(
            reinterpret_cast<void (*)()>(GetProcAddress(probe.get(), "ProbeTrace")));
        ASSERT_NE(trace, nullptr);
        wchar_t library[MAX_PATH];
        trace(L"beside", &library);
        EXPECT_TRUE(beside ? fs::equivalent(library, probeFolder / "log.dll") : library[0] == L'\0') << library;
        EXPECT_EQ(Count("INFO    ProbeTrace: beside"), beside ? 1u : 0u);
    }
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);
}

// Holders trace under references of their own, which load and unload the
// library again and again; the others trace whenever it is loaded.
TEST_F(LogClientTest, ThreadsLoadUnloadAndWriteConcurrently)
{
    constexpr size_t kThreads = 4, kRounds = 100;
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([holder = t % 2 == 0] {
            for (size_t i = 0; i < kRounds; ++i)
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
    for (const char* line : {"TRACE Holder: -> Holder()", "TRACE Holder: <- Holder() [N]", "INFO    Holder: round"})
        EXPECT_EQ(Count(line), kThreads / 2 * kRounds) << line;
    EXPECT_GE(Count("CALL  LogInit()"), 1u);
    EXPECT_EQ(Count("CALL  LogInit()"), Count("CALL  LogDeinit()"));
    EXPECT_EQ(Count("CALL  LogInit()"), Count("CALL  DLL_PROCESS_DETACH"));
}

TEST(TraceScopeRecord, NamesAreCutToTheirArraysAndElapsedTimeSurvivesTheWrap)
{
    const size_t rows[][3] = {{257, 257, 257}, {258, 257, 258}, {260, 257, 259}}; // length, displayed, function
    for (const auto& [length, displayed, function] : rows)
    {
        SCOPED_TRACE(length);
        std::wstring name;
        for (size_t i = 0; i < length; ++i)
            name += static_cast<wchar_t>(L'a' + i % 26);
        const TraceScope scope(name.c_str());
        EXPECT_EQ(scope.DisplayName(), name.substr(0, displayed) + L"()");
        EXPECT_EQ(scope.FunctionName(), name.substr(0, function));
        const TraceScope block(name.c_str(), L"F");
        EXPECT_EQ(block.DisplayName(), L"[" + name.substr(0, displayed) + L"]");
        EXPECT_STREQ(block.FunctionName(), L"F");
    }
    EXPECT_EQ(TraceScope::Elapsed(0xFFFFFFF0u, 0x10u), 0x20u);
}
} // namespace
