// Prints how long Stop takes while the plugin's threads wait, against a
// target of 100 ms:
//   - waitThread waits for a running installer (InstallerStandin.exe holds
//     the installer's named event);
//   - a "_ProductCfgTimer" item waits for an earlier ProductCfg.exe of the
//     host's folder (the stand-in held running);
//   - both at once, when a logon arms the timer while the installer runs (a
//     build in which nothing arms the timer then says so and skips it);
//   - checkThread waits for the service "wscsvc" to run (WscsvcStandin.exe
//     installed and stopped, the marker UnregFwWscFailed set).
// Each figure is min / median / max over the runs, in milliseconds, with
// whether the median and the maximum meet the target; nothing is enforced.
//
//   stop_bench [runs per case]        (default 15)
//
// It runs in build/bin, beside ProductCfgPlg.dll, log.dll (its lines go to a
// temporary file) and the stand-ins. The registry keys it writes are removed
// at the end.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "log_capture.h"
#include "simhost/sim_host.h"
#include "standin_control.h"
#include "wscsvc_control.h"

namespace
{
constexpr double kTargetMs = 100.0;
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPSTOPBENCH";
constexpr wchar_t kBenchKey[] = L"Software\\PcpStopBench";
constexpr wchar_t kProductKey[] = L"Software\\PcpStopBench\\Product";
constexpr auto kBound = std::chrono::seconds(10);

using QmCreateObjectFn = Status (*)(const wchar_t*, const InterfaceId&, void**);
using QmDestroyObjectFn = void (*)(const wchar_t*, void*);

// The log library's file, named before the plugin loads it.
class LogFile : public LogCapture
{
public:
    // Whether any line holds text.
    bool Contains(const std::string& text) const
    {
        for (const std::string& line : Messages(""))
            if (line.find(text) != std::string::npos)
                return true;
        return false;
    }
    // Polls until text has been logged; false after the bound.
    bool AwaitLine(const std::string& text) const
    {
        const auto deadline = std::chrono::steady_clock::now() + kBound;
        while (!Contains(text))
        {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }
};

class Plugin
{
public:
    Plugin() : module(LoadLibraryW(L"ProductCfgPlg.dll"))
    {
        if (module)
        {
            create = reinterpret_cast<QmCreateObjectFn>(
                reinterpret_cast<void*>(GetProcAddress(module.get(), "QmCreateObject")));
            destroy = reinterpret_cast<QmDestroyObjectFn>(
                reinterpret_cast<void*>(GetProcAddress(module.get(), "QmDestroyObject")));
        }
    }
    bool Loaded() const { return create != nullptr && destroy != nullptr; }
    IServPlugin* Create() const
    {
        void* out = nullptr;
        return create(L"productconfigplg", ids::ServPluginA, &out) == 0 ? static_cast<IServPlugin*>(out) : nullptr;
    }
    void Destroy(IServPlugin* plugin) const { destroy(L"productconfigplg", plugin); }

private:
    UniqueModule module;
    QmCreateObjectFn create = nullptr;
    QmDestroyObjectFn destroy = nullptr;
};

enum class Case
{
    Installer,
    EarlierProcess,
    Both,
    Wscsvc,
};

SubscriptionData Record(int32_t serverType)
{
    SubscriptionData record;
    record.ServerProductType = serverType;
    record.ProductType = 3;
    SetFixedText(record.AccountId, "acc-bench");
    return record;
}

// What a logon event carries; only tested for null.
WTSSESSION_NOTIFICATION logonInfo{sizeof(WTSSESSION_NOTIFICATION), 1};

// One plugin object brought to the waits of the case, then stopped: the
// milliseconds Stop took, or a negative number when the waits were not
// reached (reachable then tells whether it could have been).
double MeasureOnce(const Plugin& plugin, const LogFile& log, Case which, bool& reachable)
{
    reachable = true;
    log.Clear();
    sim::Host host;
    host.config.Set(44, L"Desktop", L"PCPSTOPBENCH");
    host.config.Set(0, L"BASE", L"PcpStopBench");
    host.config.Set(217, L"Desktop", kProductKey);
    // Without the installer the first record arms the timer at once.
    host.subscription.SetRecord(Record(5));
    const DWORD marker = 1;
    if (which == Case::Wscsvc)
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, L"UnregFwWscFailed", REG_DWORD, &marker, sizeof(marker));
    IServPlugin* object = plugin.Create();
    if (object == nullptr || object->Init(&host) != 0 || object->Start() != 0)
        return -1;

    bool ready = host.WaitIdle();
    if (which == Case::Wscsvc)
        ready = ready && log.AwaitLine("CWscHandler::_IsWscServiceUp: <- ");
    else if (which != Case::EarlierProcess)
        ready = ready && log.AwaitLine("Start waiting after installer");
    if (which == Case::Both)
    {
        host.sessionChange.Deliver(0, WTS_SESSION_LOGON, &logonInfo);
        ready = ready && host.WaitIdle();
        reachable = host.ledger.ReceivedCount("_ProductCfgTimer") != 0;
    }
    std::thread timer;
    if (which != Case::Installer && which != Case::Wscsvc && reachable)
    {
        timer = std::thread([&host] { host.queue.Advance(0); });
        ready = ready && log.AwaitLine("Waiting for productcfg.exe process to close...");
    }

    const auto start = std::chrono::steady_clock::now();
    object->Stop();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (timer.joinable())
        timer.join();
    // Each wait of the case ended by the stop event.
    DWORD value = 0;
    DWORD size = sizeof(value);
    const bool stopped =
        which == Case::Wscsvc
            ? log.Contains("CWscHandler::_CheckWscsvcAndUninstallFw: <- ") &&
                  RegGetValueW(HKEY_LOCAL_MACHINE, kProductKey, L"UnregFwWscFailed", RRF_RT_REG_DWORD, nullptr,
                               &value, &size) == ERROR_SUCCESS
            : (which == Case::EarlierProcess || log.Contains("_WaitForEventsAndConfig: Receive stop event")) &&
                  (which == Case::Installer || log.Contains("_ProductCfgTimer: Receive stop event"));
    object->UnInit();
    plugin.Destroy(object);
    return ready && reachable && stopped ? ms : -1;
}

void Report(const char* what, std::vector<double> figures, int runs)
{
    if (static_cast<int>(figures.size()) != runs)
    {
        std::printf("%-48s %d of %d runs did not reach the waits: no figure\n", what,
                    runs - static_cast<int>(figures.size()), runs);
        return;
    }
    std::sort(figures.begin(), figures.end());
    const double median = figures[figures.size() / 2];
    std::printf("%-48s min %7.2f  median %7.2f  max %7.2f ms   target < %.0f ms: median %s, max %s\n", what,
                figures.front(), median, figures.back(), kTargetMs, median < kTargetMs ? "meets it" : "MISSES it",
                figures.back() < kTargetMs ? "meets it" : "MISSES it");
}

struct RegistryCleanup
{
    ~RegistryCleanup()
    {
        RegDeleteTreeW(HKEY_USERS, kSubscriptionKey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kBenchKey);
    }
};
} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
    RegistryCleanup cleanup;
    // The seccenter is never allowed, the delay is 0, no switch of context.
    const DWORD gsShowed = 1;
    const DWORD delay = 0;
    RegSetKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed", REG_DWORD, &gsShowed, sizeof(gsShowed));
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", REG_DWORD, &delay, sizeof(delay));
    for (const wchar_t* name : {L"PCP_PRODUCTCFG_RECORD", L"PCP_PRODUCTCFG_HOLD_MS", L"PCP_PRODUCTCFG_READY"})
        SetEnvironmentVariableW(name, nullptr);

    LogFile log;
    Plugin plugin;
    if (!plugin.Loaded())
    {
        std::printf("stop_bench: ProductCfgPlg.dll cannot be loaded from this folder\n");
        return 2;
    }
    std::printf("Stop while the plugin waits, %d runs per case (ms)\n", runs);

    struct Row
    {
        Case which;
        const char* what;
    };
    const Row rows[] = {{Case::Installer, "waitThread waits for the installer"},
                        {Case::EarlierProcess, "timer item waits for an earlier ProductCfg.exe"},
                        {Case::Both, "both at once"},
                        {Case::Wscsvc, "checkThread waits for wscsvc"}};
    for (const Row& row : rows)
    {
        std::unique_ptr<standin::Installer> installer;
        std::unique_ptr<standin::HeldProductCfg> earlier;
        std::unique_ptr<standin::Wscsvc> wscsvc;
        if (row.which == Case::Wscsvc)
        {
            wscsvc = std::make_unique<standin::Wscsvc>();
            if (!wscsvc->Installed())
            {
                std::printf("%-48s wscsvc cannot be installed (%s): no figure\n", row.what, wscsvc->Problem().c_str());
                continue;
            }
        }
        else if (row.which != Case::EarlierProcess)
            installer = std::make_unique<standin::Installer>();
        if (row.which != Case::Installer && row.which != Case::Wscsvc)
            earlier = std::make_unique<standin::HeldProductCfg>();
        if ((installer && !installer->Started()) || (earlier && !earlier->Started()))
        {
            std::printf("%-48s the stand-ins did not start: no figure\n", row.what);
            continue;
        }
        std::vector<double> figures;
        bool reachable = true;
        for (int run = 0; run < runs && reachable; ++run)
        {
            const double ms = MeasureOnce(plugin, log, row.which, reachable);
            if (ms >= 0)
                figures.push_back(ms);
        }
        if (!reachable)
            std::printf("%-48s not reachable in this build: a logon does not arm the configuration timer while "
                        "waitThread waits for the installer\n",
                        row.what);
        else
            Report(row.what, figures, runs);
    }
    return 0;
}
