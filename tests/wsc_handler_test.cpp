// CWscHandler against the real service control manager ("wscsvc" is
// WscsvcStandin.exe), the recording wsc.dll stand-in and the real registry;
// alone, without the simulated host's threads that would blur the handle
// count. (The scenario security_center_late.json plays it through the
// plugin: one job per object, Stop ending the wait, the next object's job.)
#include <windows.h>

#include <algorithm>
#include <fstream>
#include <optional>

#include "handle_count.h"
#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "wsc/wsc_handler.h"
#include "wscsvc_control.h"

namespace
{
using Strings = std::vector<std::string>;

constexpr wchar_t kTestKey[] = L"Software\\PcpWsc";
constexpr wchar_t kProductKey[] = L"Software\\PcpWsc\\Product";
constexpr wchar_t kMarker[] = L"UnregFwWscFailed";

const std::string kCheckEntry = "CWscHandler::_CheckWscsvcAndUninstallFw: -> ";
const std::string kCheckExit = "CWscHandler::_CheckWscsvcAndUninstallFw: <- ";
const std::string kUpEntry = "CWscHandler::_IsWscServiceUp: -> ";
const std::string kUpExit = "CWscHandler::_IsWscServiceUp: <- ";
const Strings kJobDone = {"attach", "UnInstall 1", "detach"};

// What wsc.dll (the copy loaded under that name) recorded, as "attach",
// "UnInstall <argument>" and "detach", with the thread of each.
class WscRecord
{
public:
    WscRecord() : path(NewTempFile(L"wsc")) { SetEnvironmentVariableW(L"PCP_WSC_RECORD", path.c_str()); }
    ~WscRecord()
    {
        SetEnvironmentVariableW(L"PCP_WSC_RECORD", nullptr);
        DeleteFileW(path.c_str());
    }
    WscRecord(const WscRecord&) = delete;

    // Lines are "wsc.dll", what, its arguments and the thread, tab-separated.
    Strings Lines(Strings* threads = nullptr) const
    {
        std::ifstream in(path.c_str(), std::ios::binary);
        Strings lines;
        for (std::string line; std::getline(in, line);)
        {
            line = line.substr(0, line.find('\r'));
            const size_t last = line.rfind('\t');
            if (line.rfind("wsc.dll\t", 0) != 0 || last == std::string::npos || last <= 8)
                continue;
            std::string what = line.substr(8, last - 8);
            std::replace(what.begin(), what.end(), '\t', ' ');
            lines.push_back(what);
            if (threads != nullptr)
                threads->push_back(line.substr(last + 1));
        }
        return lines;
    }
    void Clear() const { std::ofstream(path.c_str(), std::ios::trunc); }

private:
    std::wstring path;
};

void SetMarker(RegistryScratch& registry) { registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 1); }
bool MarkerThere(const RegistryScratch& registry)
{
    return registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker) != kNoValue;
}

// A folder of its own holding anchor.dll, a module to find wsc.dll beside,
// and optionally a wsc.dll without UnInstall.
class ScratchFolder
{
public:
    explicit ScratchFolder(bool withWscWithoutUnInstall)
    {
        static int counter = 0;
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        folder = std::wstring(temp) + L"pcp-wsc-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(++counter);
        CreateDirectoryW(folder.c_str(), nullptr);
        const std::wstring variant = standin::ExecutableDirectory() + L"\\wsc_without_uninstall.dll";
        CopyFileW(variant.c_str(), Path(L"anchor.dll").c_str(), FALSE);
        if (withWscWithoutUnInstall)
            CopyFileW(variant.c_str(), Path(L"wsc.dll").c_str(), FALSE);
        anchor.reset(LoadLibraryW(Path(L"anchor.dll").c_str()));
    }
    ~ScratchFolder()
    {
        anchor.reset();
        DeleteFileW(Path(L"wsc.dll").c_str());
        DeleteFileW(Path(L"anchor.dll").c_str());
        RemoveDirectoryW(folder.c_str());
    }
    ScratchFolder(const ScratchFolder&) = delete;

    HMODULE Anchor() const { return anchor.get(); }
    std::wstring Path(const wchar_t* name) const { return folder + L"\\" + name; }

private:
    std::wstring folder;
    UniqueModule anchor;
};

class WscHandlerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        components.Register(L"productinfo", ids::ServConfig, static_cast<IServConfig*>(&config));
        config.Set(217, L"Desktop", kProductKey);
    }

    // A handler after Init and its first refresh.
    std::unique_ptr<CWscHandler> Refreshed(HMODULE home = logging::OwnModule())
    {
        auto handler = std::make_unique<CWscHandler>(home);
        EXPECT_EQ(handler->Init(&components), 0u);
        handler->UnregisterFirewallIfNeeded();
        return handler;
    }
    size_t Count(const std::string& prefix) const { return log.Threads(prefix).size(); }
    bool AwaitCount(const std::string& prefix, size_t count) const
    {
        return Eventually([&] { return Count(prefix) >= count; });
    }

    LogCapture log; // named before the handler loads log.dll
    WscRecord wsc;
    RegistryScratch registry;
    sim::Journal journal;
    sim::ServConfig config{journal};
    sim::ComponentManager components{journal};
};
} // namespace

// One attempt per object: the first refresh that finds the marker (a
// REG_DWORD under the key of setting 217) starts checkThread, and no later
// one starts another; without the marker a refresh takes no event, thread or
// handle. A running service gets the job at once on checkThread. A missing
// wsc.dll or UnInstall removes the marker; no "wscsvc", or an unknown folder
// of the module (a handle that names none), leaves it. (The scenarios
// security_center_*.json play a service starting, stopped, and a marker that
// is not a DWORD.)
TEST_F(WscHandlerTest, OneAttemptPerObjectOnTheCheckThreadWhenTheMarkerIsThere)
{
    enum Home { Own, Scratch, ScratchWithLibrary, Unknown };
    struct Row
    {
        const char* what;
        bool marker;
        bool service; // "wscsvc" installed and running
        Home home;
        Strings recorded; // by wsc.dll
        Strings errors;
        bool markerThere; // after the first refresh
    };
    const Strings noUnInstall = {"CWscHandler::_UninstallFw: UnInstall not found in wsc.dll, err: 127"};
    const Row rows[] = {
        {"marker absent", false, false, Own, {}, {}, false},
        {"no wscsvc", true, false, Own, {}, {}, true},
        {"wsc.dll missing", true, true, Scratch, {}, {}, false},
        {"wsc.dll without UnInstall", true, true, ScratchWithLibrary, {"attach", "detach"}, noUnInstall, false},
        {"folder unknown", true, true, Unknown, {}, {}, true},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        log.Clear();
        wsc.Clear();
        std::optional<standin::Wscsvc> service(std::in_place); // installed, replacing any "wscsvc"
        ASSERT_TRUE(service->Installed()) << service->Problem();
        if (!row.service)
            service.reset();
        ASSERT_TRUE(!row.service || (service->Start() && service->AwaitState(SERVICE_RUNNING)));
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        if (row.marker)
            SetMarker(registry);
        ScratchFolder folder(row.home == ScratchWithLibrary);
        ASSERT_NE(folder.Anchor(), nullptr);
        const HMODULE home = row.home == Own       ? logging::OwnModule()
                             : row.home == Unknown ? reinterpret_cast<HMODULE>(uintptr_t{0x10})
                                                   : folder.Anchor();

        auto handler = Refreshed(home); // the first read opens what the registry keeps open
        if (!row.marker)
        {
            // 20 refreshes leave no handle: a few of Wine's own may come and go.
            const size_t handles = OpenHandleCount();
            ASSERT_NE(handles, SIZE_MAX);
            for (int i = 0; i < 20; ++i)
                handler->UnregisterFirewallIfNeeded();
            EXPECT_LT(OpenHandleCount(), handles + 10) << handles << " handles before 20 refreshes";
        }
        EXPECT_TRUE(!row.marker || AwaitCount(kCheckExit, 1));
        EXPECT_EQ(Count(kCheckEntry), row.marker ? 1u : 0u);
        EXPECT_EQ(Count(kUpEntry), row.marker ? 1u : 0u);
        Strings threads;
        EXPECT_EQ(wsc.Lines(&threads), row.recorded);
        EXPECT_EQ(threads, Strings(row.recorded.size(), row.marker ? log.Threads(kCheckEntry).at(0) : ""));
        EXPECT_EQ(log.Messages("ERROR"), row.errors);
        EXPECT_EQ(log.Contains("INFO", "CWscHandler::_UninstallFw: Module loaded"), !row.recorded.empty());
        EXPECT_EQ(MarkerThere(registry), row.markerThere);

        // The marker (again): the object's one attempt is used or still left.
        SetMarker(registry);
        handler->UnregisterFirewallIfNeeded();
        handler->Stop();
        handler->UnInit();
        EXPECT_EQ(Count(kCheckEntry), 1u);
        EXPECT_EQ(Count(kCheckExit), 1u);
        EXPECT_TRUE(MarkerThere(registry));
        EXPECT_EQ(wsc.Lines(), row.recorded);
        EXPECT_EQ(GetModuleHandleW(folder.Path(L"wsc.dll").c_str()), nullptr) << "wsc.dll not freed";
        EXPECT_EQ(components.Outstanding(), 0);
    }
}

// Objects stopped while waiting for a stopped service leave the marker; once
// it runs, their notifications reach nobody and each new object does the job
// once. No round leaves a handle: the least count of rounds 2 to 6 and of the
// last five rounds, since Wine's own notification workers hold a few handles
// now and then; a handle left per round adds more than 20.
TEST_F(WscHandlerTest, StopDuringTheWaitLeavesTheMarkerAndNoRoundLeavesAHandle)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    size_t jobs = 0;
    for (const bool running : {false, true})
    {
        SCOPED_TRACE(running ? "running" : "stopped");
        ASSERT_TRUE(!running || service.StartRunning());
        std::vector<size_t> handles;
        for (int round = 0; round < 30; ++round)
        {
            SetMarker(registry);
            auto handler = Refreshed();
            ASSERT_TRUE(AwaitCount(running ? kCheckExit : kUpExit, ++jobs));
            handler->Stop();
            ASSERT_EQ(Count(kCheckExit), jobs); // Stop has joined the thread
            handler->UnInit();
            handler.reset();
            ASSERT_EQ(MarkerThere(registry), !running);
            ASSERT_EQ(wsc.Lines(), running ? kJobDone : Strings{});
            wsc.Clear();
            handles.push_back(OpenHandleCount());
        }
        const size_t early = *std::min_element(handles.begin() + 1, handles.begin() + 6);
        const size_t late = *std::min_element(handles.end() - 5, handles.end());
        ASSERT_NE(late, SIZE_MAX);
        EXPECT_LT(late, early + 10) << ::testing::PrintToString(handles);
    }
}
