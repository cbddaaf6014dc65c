// CWscHandler against the real service control manager ("wscsvc" is
// WscsvcStandin.exe), the recording wsc.dll stand-in and the real registry;
// alone, without the simulated host's threads that would blur the handle
// count, and then through the plugin.
#include <windows.h>

#include <algorithm>
#include <fstream>

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
const std::string kRefreshEntry = "CWscHandler::UnregisterFirewallIfNeeded: -> ";
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
    return registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker) != 0xFFFFFFFFu;
}

// The job loaded wsc.dll, called UnInstall and freed it, all on thread, and
// removed the marker.
void ExpectJobDoneOn(const std::string& thread, const WscRecord& wsc, const RegistryScratch& registry)
{
    Strings threads;
    EXPECT_EQ(wsc.Lines(&threads), kJobDone);
    EXPECT_EQ(threads, Strings(3, thread));
    EXPECT_FALSE(MarkerThere(registry));
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
    static void StopAndUnInit(CWscHandler& handler)
    {
        handler.Stop();
        handler.UnInit();
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

TEST_F(WscHandlerTest, WithoutMarkerOrProductKeyNoEventNoThreadHoweverManyRefreshes)
{
    struct Row
    {
        const char* what;
        const wchar_t* setting; // null: the host has no setting 217
        DWORD markerType;       // REG_NONE: no marker
    };
    const Row rows[] = {
        {"marker absent", kProductKey, REG_NONE},
        {"marker not a REG_DWORD", kProductKey, REG_SZ},
        {"setting 217 missing", nullptr, REG_DWORD},
        {"setting 217 \"<error-not-found>\"", L"<error-not-found>", REG_DWORD},
    };
    {
        // No "wscsvc": the attempt at the end of each row ends by itself.
        standin::Wscsvc removedAtOnce;
    }
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        log.Clear();
        if (row.setting != nullptr)
            config.Set(217, L"Desktop", row.setting);
        else
            config.Remove(217, L"Desktop");
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker);
        if (row.markerType == REG_DWORD)
            SetMarker(registry);
        else if (row.markerType == REG_SZ)
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker, REG_SZ, L"1", 4);

        auto handler = Refreshed(); // the first read opens what the registry keeps open
        const size_t handles = OpenHandleCount();
        ASSERT_NE(handles, SIZE_MAX);
        for (int i = 0; i < 20; ++i)
            handler->UnregisterFirewallIfNeeded();
        handler->Stop();
        // A handle of Wine's own may come and go meanwhile; an event or a
        // thread of the handler would stay.
        EXPECT_TRUE(Eventually([&] { return OpenHandleCount() <= handles; }))
            << OpenHandleCount() << " handles after 20 refreshes and Stop, " << handles << " before";
        EXPECT_EQ(Count(kCheckEntry), 0u);

        // The object's one attempt is left; without "wscsvc" the marker stays.
        config.Set(217, L"Desktop", kProductKey);
        SetMarker(registry);
        handler->UnregisterFirewallIfNeeded();
        EXPECT_TRUE(AwaitCount(kCheckExit, 1));
        StopAndUnInit(*handler);
        EXPECT_TRUE(MarkerThere(registry));
        EXPECT_EQ(components.Outstanding(), 0);
    }
    EXPECT_EQ(wsc.Lines(), Strings{});
}

TEST_F(WscHandlerTest, StoppedServiceNothingUntilItRunsThenUnInstallThroughTheNotification)
{
    standin::Wscsvc service(true);
    ASSERT_TRUE(service.Installed()) << service.Problem();
    SetMarker(registry);
    auto handler = Refreshed();
    ASSERT_TRUE(AwaitCount(kUpExit, 1)); // found it stopped

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(service.AwaitState(SERVICE_START_PENDING));
    EXPECT_EQ(wsc.Lines(), Strings{});
    EXPECT_TRUE(MarkerThere(registry));

    service.Release();
    ASSERT_TRUE(service.AwaitState(SERVICE_RUNNING));
    ASSERT_TRUE(AwaitCount(kCheckExit, 1));
    ExpectJobDoneOn(log.Threads(kCheckEntry).at(0), wsc, registry);
    // Asked once: the rest came by the notification, inside the wait.
    EXPECT_EQ(Count(kUpEntry), 1u);
    EXPECT_EQ(log.Threads("CWscHandler::_UninstallFw: -> "), Strings{log.Threads(kCheckEntry).at(0)});
    StopAndUnInit(*handler);
}

// A running or starting service: the job runs at once, on the check thread,
// without waiting for the start to finish, and is the object's only attempt.
// A missing wsc.dll or UnInstall removes the marker; an unknown folder of the
// module (a handle that names none) leaves it.
TEST_F(WscHandlerTest, RunningOrStartingServiceGetsOneAttemptAtOnceOnTheCheckThread)
{
    enum class Home { Own, Scratch, ScratchWithLibrary, Unknown };
    struct Row
    {
        const char* what;
        bool pending;
        Home home;
        Strings recorded;
        Strings errors;
        bool markerStays;
    };
    const Strings noUnInstall = {"CWscHandler::_UninstallFw: UnInstall not found in wsc.dll, err: 127"};
    const Row rows[] = {
        {"RUNNING", false, Home::Own, kJobDone, {}, false},
        {"START_PENDING", true, Home::Own, kJobDone, {}, false},
        {"wsc.dll missing", false, Home::Scratch, {}, {}, false},
        {"wsc.dll without UnInstall", false, Home::ScratchWithLibrary, {"attach", "detach"}, noUnInstall, false},
        {"folder unknown", false, Home::Unknown, {}, {}, true},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        log.Clear();
        wsc.Clear();
        standin::Wscsvc service(row.pending);
        ASSERT_TRUE(service.Installed()) << service.Problem();
        const DWORD state = row.pending ? SERVICE_START_PENDING : SERVICE_RUNNING;
        ASSERT_TRUE(service.Start());
        ASSERT_TRUE(service.AwaitState(state));
        SetMarker(registry);
        ScratchFolder folder(row.home == Home::ScratchWithLibrary);
        ASSERT_NE(folder.Anchor(), nullptr);
        const HMODULE home = row.home == Home::Own       ? logging::OwnModule()
                             : row.home == Home::Unknown ? reinterpret_cast<HMODULE>(uintptr_t{0x10})
                                                         : folder.Anchor();

        auto handler = Refreshed(home);
        ASSERT_TRUE(AwaitCount(kCheckExit, 1));
        Strings threads;
        EXPECT_EQ(wsc.Lines(&threads), row.recorded);
        EXPECT_EQ(threads, Strings(row.recorded.size(), log.Threads(kCheckEntry).at(0)));
        EXPECT_EQ(log.Messages("ERROR"), row.errors);
        EXPECT_EQ(log.Contains("INFO", "CWscHandler::_UninstallFw: Module loaded"), !row.recorded.empty());
        EXPECT_EQ(MarkerThere(registry), row.markerStays);
        EXPECT_EQ(service.State(), state);

        // The marker again, after the first thread ended: no second attempt.
        SetMarker(registry);
        handler->UnregisterFirewallIfNeeded();
        StopAndUnInit(*handler);
        EXPECT_EQ(Count(kCheckEntry), 1u);
        EXPECT_TRUE(MarkerThere(registry));
        EXPECT_EQ(wsc.Lines(), row.recorded);
        EXPECT_EQ(GetModuleHandleW(folder.Path(L"wsc.dll").c_str()), nullptr) << "wsc.dll not freed";
    }
}

// Objects stopped while waiting for a stopped service leave the marker; once
// it runs, their notifications reach nobody and each new object does the job
// once. Wine's own notification workers (a few handles each, coming and
// going) get a slack far below the 25 that a handle left per round adds.
TEST_F(WscHandlerTest, StopDuringTheWaitLeavesTheMarkerAndNoRoundLeavesAHandle)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    size_t jobs = 0;
    for (const bool running : {false, true})
    {
        SCOPED_TRACE(running ? "running" : "stopped");
        ASSERT_TRUE(!running || service.StartRunning());
        auto round = [&] {
            SetMarker(registry);
            auto handler = Refreshed();
            ASSERT_TRUE(AwaitCount(running ? kCheckExit : kUpExit, ++jobs));
            handler->Stop();
            EXPECT_EQ(Count(kCheckExit), jobs); // Stop has joined the thread
            handler->UnInit();
            EXPECT_EQ(MarkerThere(registry), !running);
            EXPECT_EQ(wsc.Lines(), running ? kJobDone : Strings{});
            wsc.Clear();
        };
        round(); // the first round loads what stays loaded
        const size_t handles = OpenHandleCount();
        ASSERT_NE(handles, SIZE_MAX);
        for (int i = 0; i < 25 && !HasFailure(); ++i)
            round();
        const size_t slack = running ? 0 : 4;
        EXPECT_TRUE(Eventually([&] { return OpenHandleCount() <= handles + slack; }))
            << OpenHandleCount() << " handles after 25 rounds, " << handles << " before";
    }
}

// Through the plugin: the first record of _DelayedLoad finds the marker.
class WscPluginTest : public PluginTest
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        ConfigureProduct(*host, L"PCPWSC", L"PcpWsc", kProductKey);
        SetMarker(registry);
        PluginTest::SetUp();
    }

    RegistryScratch registry;
    WscRecord wsc;
};

TEST_F(WscPluginTest, TheFirstRecordStartsTheJobOnItsOwnThreadAndLaterRecordsNone)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    ASSERT_TRUE(service.StartRunning());
    StartLoaded();
    ASSERT_TRUE(Eventually([&] { return !log.Threads(kCheckExit).empty(); }));
    const std::string checkThread = log.Threads(kCheckEntry).at(0);
    ExpectJobDoneOn(checkThread, wsc, registry);
    EXPECT_NE(checkThread, log.Threads(kRefreshEntry).at(0));

    SetMarker(registry);
    log.Clear();
    host->subscription.Deliver(MakeRecord(3, 3));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Threads(kRefreshEntry).size(), 1u);
    // Within the refresh: after the record is logged and stored, before the
    // server's product type goes to the registry.
    const Strings lines = log.Messages("");
    auto at = [&](const std::string& prefix) {
        return std::find_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }) -
               lines.begin();
    };
    const auto written = at("CProductConfigurationPlg::_WriteServerProductType: -> ");
    ASSERT_LT(written, static_cast<std::ptrdiff_t>(lines.size()));
    EXPECT_LT(at("CProductConfigurationPlg::_RefreshSubscription: ServerProductType = 3, ProductType = 3"),
              at(kRefreshEntry));
    EXPECT_LT(at("CWscHandler::UnregisterFirewallIfNeeded: <- "), written);
    StopAndUnInit();
    EXPECT_EQ(log.Threads(kCheckEntry), Strings{}); // no second job
    EXPECT_TRUE(MarkerThere(registry));
}

TEST_F(WscPluginTest, StopDuringTheWaitEndsTheThreadAndLeavesTheMarker)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    StartLoaded();
    ASSERT_TRUE(Eventually([&] { return !log.Threads(kUpExit).empty(); }));
    plugin->Stop();
    EXPECT_EQ(log.Threads(kCheckExit).size(), 1u);
    EXPECT_TRUE(MarkerThere(registry));
    EXPECT_EQ(wsc.Lines(), Strings{});
    plugin->UnInit();
    DestroyPlugin();
    ExpectNothingLeft(*host);
}
