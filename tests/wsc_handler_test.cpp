// CWscHandler against the real service control manager: WscsvcStandin.exe is
// installed as "wscsvc" and started early, late, held in START_PENDING or not
// at all; wsc.dll is the stand-in that records its load, its UnInstall calls
// and its unload with their threads; the marker lives in the real registry.
// The handler alone gets "productinfo" from the simulated component manager,
// without the simulated host's threads, whose lazily made synchronisation
// objects would blur the count of this process's handles. Then the same
// through the plugin, where the first record finds the marker.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

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
    WscRecord& operator=(const WscRecord&) = delete;

    Strings Lines(Strings* threads = nullptr) const
    {
        std::ifstream in(path.c_str(), std::ios::binary);
        Strings lines;
        for (std::string line; std::getline(in, line);)
        {
            Strings fields;
            std::istringstream split(line.substr(0, line.find('\r')));
            for (std::string field; std::getline(split, field, '\t');)
                fields.push_back(field);
            if (fields.size() < 3 || fields[0] != "wsc.dll")
                continue;
            std::string what = fields[1];
            for (size_t i = 2; i + 1 < fields.size(); ++i)
                what += " " + fields[i];
            lines.push_back(what);
            if (threads != nullptr)
                threads->push_back(fields.back());
        }
        return lines;
    }
    void Clear() const { std::ofstream(path.c_str(), std::ios::trunc); }

private:
    std::wstring path;
};

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
    ScratchFolder& operator=(const ScratchFolder&) = delete;

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

    void SetMarker() { registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 1); }
    bool MarkerThere() const { return registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker) != 0xFFFFFFFFu; }

    std::unique_ptr<CWscHandler> NewHandler(HMODULE home = logging::OwnModule())
    {
        auto handler = std::make_unique<CWscHandler>(home);
        EXPECT_EQ(handler->Init(&components), 0u);
        return handler;
    }
    size_t Count(const std::string& prefix) const { return log.Threads(prefix).size(); }
    bool AwaitCount(const std::string& prefix, size_t count) const
    {
        return Eventually([&] { return Count(prefix) >= count; });
    }
    // The thread of the n-th job's trace.
    std::string CheckThread(size_t n = 0) const
    {
        const Strings threads = log.Threads(kCheckEntry);
        return n < threads.size() ? threads[n] : "none";
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
            SetMarker();
        else if (row.markerType == REG_SZ)
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kMarker, REG_SZ, L"1", 4);

        CWscHandler handler;
        ASSERT_EQ(handler.Init(&components), 0u);
        handler.UnregisterFirewallIfNeeded(); // the first read opens what the registry keeps open
        const size_t handles = OpenHandleCount();
        ASSERT_NE(handles, SIZE_MAX);
        for (int i = 0; i < 20; ++i)
            handler.UnregisterFirewallIfNeeded();
        handler.Stop();
        // A handle of Wine's own may come and go meanwhile; an event or a
        // thread of the handler would stay.
        EXPECT_TRUE(Eventually([&] { return OpenHandleCount() <= handles; }))
            << OpenHandleCount() << " handles after 20 refreshes and Stop, " << handles << " before";
        EXPECT_EQ(Count(kCheckEntry), 0u);

        // The one attempt of the object is still there: with the setting
        // and the marker in place the next refresh starts it.
        config.Set(217, L"Desktop", kProductKey);
        SetMarker();
        handler.UnregisterFirewallIfNeeded();
        EXPECT_TRUE(AwaitCount(kCheckExit, 1));
        handler.Stop();
        handler.UnInit();
        EXPECT_EQ(components.Outstanding(), 0);
    }
    EXPECT_EQ(wsc.Lines(), Strings{});
}

TEST_F(WscHandlerTest, RunningOrStartingServiceGetsUnInstallAtOnceOnCheckThreadAndOneAttemptOnly)
{
    for (const bool pending : {false, true})
    {
        SCOPED_TRACE(pending ? "START_PENDING" : "RUNNING");
        log.Clear();
        wsc.Clear();
        standin::Wscsvc service(pending);
        ASSERT_TRUE(service.Installed()) << service.Problem();
        ASSERT_TRUE(service.Start());
        ASSERT_TRUE(service.AwaitState(pending ? SERVICE_START_PENDING : SERVICE_RUNNING));
        SetMarker();

        auto handler = NewHandler();
        handler->UnregisterFirewallIfNeeded();
        ASSERT_TRUE(AwaitCount(kCheckExit, 1));
        Strings threads;
        EXPECT_EQ(wsc.Lines(&threads), kJobDone);
        EXPECT_EQ(threads, Strings(3, CheckThread()));
        EXPECT_FALSE(MarkerThere());
        EXPECT_TRUE(log.Contains("INFO", "CWscHandler::_UninstallFw: Module loaded"));
        // The job did not wait for the start to finish.
        EXPECT_EQ(service.State(), DWORD(pending ? SERVICE_START_PENDING : SERVICE_RUNNING));

        // The marker again, after the first thread ended: no second attempt.
        SetMarker();
        handler->UnregisterFirewallIfNeeded();
        handler->Stop();
        handler->UnInit();
        EXPECT_EQ(Count(kCheckEntry), 1u);
        EXPECT_TRUE(MarkerThere());
        EXPECT_EQ(wsc.Lines(), kJobDone);
    }
}

TEST_F(WscHandlerTest, StoppedServiceNothingUntilItRunsThenUnInstallThroughTheNotification)
{
    standin::Wscsvc service(true);
    ASSERT_TRUE(service.Installed()) << service.Problem();
    SetMarker();
    auto handler = NewHandler();
    handler->UnregisterFirewallIfNeeded();
    ASSERT_TRUE(AwaitCount(kUpExit, 1)); // found it stopped

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(service.AwaitState(SERVICE_START_PENDING));
    EXPECT_EQ(wsc.Lines(), Strings{});
    EXPECT_TRUE(MarkerThere());

    service.Release();
    ASSERT_TRUE(service.AwaitState(SERVICE_RUNNING));
    ASSERT_TRUE(AwaitCount(kCheckExit, 1));
    Strings threads;
    EXPECT_EQ(wsc.Lines(&threads), kJobDone);
    EXPECT_EQ(threads, Strings(3, CheckThread()));
    EXPECT_FALSE(MarkerThere());
    // Asked once: the rest came by the notification, inside the wait.
    EXPECT_EQ(Count(kUpEntry), 1u);
    EXPECT_EQ(log.Threads("CWscHandler::_UninstallFw: -> "), Strings{CheckThread()});
    handler->Stop();
    handler->UnInit();
}

TEST_F(WscHandlerTest, StopDuringTheWaitEndsTheThreadAndTheMarkerWaitsForTheNextObject)
{
    {
        // No "wscsvc" at all: nothing to wait for, the thread ends by itself.
        standin::Wscsvc removedAtOnce;
    }
    SetMarker();
    auto absent = NewHandler();
    absent->UnregisterFirewallIfNeeded();
    ASSERT_TRUE(AwaitCount(kCheckExit, 1));
    absent->Stop();
    EXPECT_TRUE(MarkerThere());

    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    auto waiting = NewHandler();
    waiting->UnregisterFirewallIfNeeded();
    ASSERT_TRUE(AwaitCount(kUpExit, 2));
    waiting->Stop();
    // Stop has joined the thread: its exit is logged.
    EXPECT_EQ(Count(kCheckExit), 2u);
    EXPECT_EQ(wsc.Lines(), Strings{});
    EXPECT_TRUE(MarkerThere());
    waiting->UnInit();

    // The service starting afterwards reaches nobody; the next object does
    // the job, once.
    ASSERT_TRUE(service.StartRunning());
    auto next = NewHandler();
    next->UnregisterFirewallIfNeeded();
    ASSERT_TRUE(AwaitCount(kCheckExit, 3));
    next->Stop();
    EXPECT_EQ(wsc.Lines(), kJobDone);
    EXPECT_FALSE(MarkerThere());
}

TEST_F(WscHandlerTest, MissingLibraryOrExportRemovesTheMarkerAnUnknownFolderLeavesIt)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    ASSERT_TRUE(service.StartRunning());

    struct Row
    {
        const char* what;
        bool folderKnown;
        bool withLibrary; // a wsc.dll without UnInstall beside anchor.dll
        Strings recorded;
        Strings errors;
        bool markerStays;
    };
    const Row rows[] = {
        {"wsc.dll missing", true, false, {}, {}, false},
        {"wsc.dll without UnInstall", true, true, {"attach", "detach"},
         {"CWscHandler::_UninstallFw: UnInstall not found in wsc.dll, err: 127"}, false},
        {"folder unknown", false, false, {}, {}, true},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        log.Clear();
        wsc.Clear();
        SetMarker();
        ScratchFolder folder(row.withLibrary);
        ASSERT_NE(folder.Anchor(), nullptr);
        // A handle that names no module: GetModuleFileNameW fails for it.
        const HMODULE home = row.folderKnown ? folder.Anchor() : reinterpret_cast<HMODULE>(uintptr_t{0x10});

        auto handler = NewHandler(home);
        handler->UnregisterFirewallIfNeeded();
        ASSERT_TRUE(AwaitCount(kCheckExit, 1));
        handler->Stop();
        handler->UnInit();
        EXPECT_EQ(wsc.Lines(), row.recorded);
        EXPECT_EQ(log.Messages("ERROR"), row.errors);
        EXPECT_EQ(log.Contains("INFO", "CWscHandler::_UninstallFw: Module loaded"), row.withLibrary);
        EXPECT_EQ(GetModuleHandleW(folder.Path(L"wsc.dll").c_str()), nullptr) << "wsc.dll not freed";
        EXPECT_EQ(MarkerThere(), row.markerStays);
    }
}

TEST_F(WscHandlerTest, NoHandleLeftOverRepeatedJobsAndStops)
{
    auto service = std::make_unique<standin::Wscsvc>();
    ASSERT_TRUE(service->Installed()) << service->Problem();
    ASSERT_TRUE(service->StartRunning());
    size_t jobs = 0;
    auto job = [&] {
        SetMarker();
        auto handler = NewHandler();
        handler->UnregisterFirewallIfNeeded();
        ASSERT_TRUE(AwaitCount(kCheckExit, ++jobs));
        handler->Stop();
        handler->UnInit();
        EXPECT_FALSE(MarkerThere());
    };
    job(); // the first round loads what stays loaded
    size_t handles = OpenHandleCount();
    ASSERT_NE(handles, SIZE_MAX);
    for (int i = 0; i < 25 && !HasFailure(); ++i)
        job();
    EXPECT_EQ(OpenHandleCount(), handles) << "after 25 jobs";

    service.reset(); // before the next is made: a service goes with its last handle
    service = std::make_unique<standin::Wscsvc>(); // stopped
    ASSERT_TRUE(service->Installed()) << service->Problem();
    auto stopped = [&] {
        SetMarker();
        auto handler = NewHandler();
        handler->UnregisterFirewallIfNeeded();
        ASSERT_TRUE(AwaitCount(kUpExit, ++jobs));
        handler->Stop();
        handler->UnInit();
        EXPECT_TRUE(MarkerThere());
    };
    stopped();
    handles = OpenHandleCount();
    for (int i = 0; i < 25 && !HasFailure(); ++i)
        stopped();
    // Wine carries the notifications on worker threads of its own that come
    // and go by themselves, a few handles each: the count is allowed their
    // slack, far below the 25 that one handle left per round would add.
    constexpr size_t kWorkerSlack = 4;
    EXPECT_TRUE(Eventually([&] { return OpenHandleCount() <= handles + kWorkerSlack; }))
        << OpenHandleCount() << " handles after 25 stops during the wait, " << handles << " before";
    EXPECT_EQ(Count(kCheckExit), jobs);
}

// Through the plugin: the first record of _DelayedLoad finds the marker.
class WscPluginTest : public PluginTest
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        ConfigureProduct(*host, L"PCPWSC", L"PcpWsc", kProductKey);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 1);
        PluginTest::SetUp();
    }
    bool MarkerThere() const { return registry.Dword(HKEY_LOCAL_MACHINE, kProductKey, kMarker) != 0xFFFFFFFFu; }

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
    Strings threads;
    EXPECT_EQ(wsc.Lines(&threads), kJobDone);
    EXPECT_EQ(threads, Strings(3, log.Threads(kCheckEntry).at(0)));
    EXPECT_NE(threads[0], log.Threads("CWscHandler::UnregisterFirewallIfNeeded: -> ").at(0));
    EXPECT_FALSE(MarkerThere());

    registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, kMarker, 1);
    log.Clear();
    host->subscription.Deliver(MakeRecord(3, 3));
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Threads("CWscHandler::UnregisterFirewallIfNeeded: -> ").size(), 1u);
    // Within the refresh: after the record is logged and stored, before the
    // server's product type goes to the registry.
    const Strings lines = log.Messages("");
    auto at = [&](const std::string& prefix) {
        const auto found = std::find_if(lines.begin(), lines.end(),
                                        [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
        return found - lines.begin();
    };
    const auto stored = at("CProductConfigurationPlg::_RefreshSubscription: ServerProductType = 3, ProductType = 3");
    const auto entered = at("CWscHandler::UnregisterFirewallIfNeeded: -> ");
    const auto left = at("CWscHandler::UnregisterFirewallIfNeeded: <- ");
    const auto written = at("CProductConfigurationPlg::_WriteServerProductType: -> ");
    ASSERT_LT(written, static_cast<std::ptrdiff_t>(lines.size()));
    EXPECT_LT(stored, entered);
    EXPECT_LT(left, written);
    StopAndUnInit();
    EXPECT_EQ(log.Threads(kCheckEntry), Strings{}); // no second job
    EXPECT_TRUE(MarkerThere());
}

TEST_F(WscPluginTest, StopDuringTheWaitEndsTheThreadAndLeavesTheMarker)
{
    standin::Wscsvc service;
    ASSERT_TRUE(service.Installed()) << service.Problem();
    StartLoaded();
    ASSERT_TRUE(Eventually([&] { return !log.Threads(kUpExit).empty(); }));
    plugin->Stop();
    EXPECT_EQ(log.Threads(kCheckExit).size(), 1u);
    EXPECT_TRUE(MarkerThere());
    EXPECT_EQ(wsc.Lines(), Strings{});
    plugin->UnInit();
    DestroyPlugin();
    ExpectNothingLeft(*host);
}
