// Prints what OnSubscriptionStatusChanged costs on the host's thread for an
// ordinary record (server product type known, an account, three features),
// as a ratio against a floor measured in the same run: one RegGetValueW of
// the value the plugin reads (GsShowed under the subscription key) plus
// allocating a work item that carries a record of the same size and posting
// it to a serial execution of the simulated host. The target is a ratio of
// at most 1.25, and 1.5 with the stand-in log.dll writing the plugin's lines
// to a file; the figure is printed, never enforced.
//
//   subscription_bench [pairs per batch]        (default 250)
//
// The plugin is loaded through its exports and driven by the simulated host,
// in three set-ups, each with a floor of its own:
//   - no log.dll: the copy of ProductCfgPlg.dll beside this program, where
//     no log.dll lies, so trace lines go to the logging client's stub;
//   - log.dll: ProductCfgPlg.dll in ..\bin beside the stand-in log.dll, its
//     lines appended to a temporary file;
//   - log.dll with QM_LOG_ENABLED=0: the same, with LogIsEnabled answering
//     false (trace lines are still written).
//
// Each figure is the median over every call of eight batches, in microseconds
// per event, with the 10th percentile beside it: on a shared machine the
// spread is wide, and the low percentile is closer to the cost unloaded. The
// target is judged on the medians.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config/subscription_data.h"
#include "host/components.h"
#include "host/interface_id.h"
#include "host/plugin.h"
#include "host/sinks.h"
#include "host/work_item.h"
#include "simhost/sim_host.h"

namespace
{
// Targets of the ratio: the plugin's own work, and with the stand-in log.dll
// writing its trace lines to a file.
constexpr double kTarget = 1.25;
constexpr double kTargetWithLog = 1.5;
constexpr int kBatches = 8;
// Pause after a batch has drained: under Wine a registry read right after a
// burst of registry writes (the plugin's items write two values each) takes
// several times as long for some milliseconds.
constexpr DWORD kSettleMs = 50;
// The product this benchmark plays, so that it touches no key of a test or
// scenario: its subscription key and its survey key are removed at the end.
constexpr wchar_t kProductId[] = L"SubscriptionBench";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_SubscriptionBench";
constexpr wchar_t kBaseKey[] = L"Software\\SubscriptionBench";

double NowMicroseconds()
{
    LARGE_INTEGER counter;
    LARGE_INTEGER frequency;
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(counter.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
}

SubscriptionData OrdinaryRecord()
{
    SubscriptionData record;
    record.KeyType = 2;
    record.ProductType = 3;
    record.ServerProductType = 5;
    record.Valid = true;
    record.DaysLeft = 365;
    SetFixedText(record.AccountId, "acc-7f3a");
    SetFixedText(record.BundleId, "qm-total");
    for (const int32_t feature : {1, 4, 9})
        record.Features.Append(static_cast<SubscriptionFeatures>(feature));
    return record;
}

// The host's subscription client as the plugin sees it, keeping the sink the
// plugin subscribes so that the benchmark can call it directly.
class SinkKeeper final : public ISubscriptionCommClient
{
public:
    explicit SinkKeeper(sim::SubscriptionClient& client) : client(client) {}

    void Reserved1() override {}
    Status Subscribe(ISubscriptionEvents* s) override
    {
        sink = s;
        return client.Subscribe(s);
    }
    Status Unsubscribe(ISubscriptionEvents* s) override
    {
        sink = nullptr;
        return client.Unsubscribe(s);
    }
    Status GetSubscription(SubscriptionData* data) override { return client.GetSubscription(data); }

    ISubscriptionEvents* Sink() const { return sink; }

private:
    sim::SubscriptionClient& client;
    std::atomic<ISubscriptionEvents*> sink{nullptr};
};

// The target of the floor's items; what they run is no part of the figure.
class FloorTarget
{
public:
    void OnRecord(SubscriptionData /*data*/, bool /*firstLoad*/) {}
};
// The plugin's item type for a record: the object, a copy of the record and
// the flag, in one heap record of the item's own.
using FloorTask = qm::framework::task<void (FloorTarget::*)(SubscriptionData, bool), FloorTarget*,
                                      const SubscriptionData&, bool>;

using QmCreateObjectFn = Status (*)(const wchar_t*, const InterfaceId&, void**);
using QmDestroyObjectFn = void (*)(const wchar_t*, void*);

// One plugin object, created through the exports of the DLL at path, given
// the host, started and loaded; stopped, destroyed and unloaded at the end.
class StartedPlugin
{
public:
    StartedPlugin(const std::wstring& path, sim::Host& host) : module(LoadLibraryW(path.c_str()))
    {
        if (module == nullptr)
        {
            problem = "LoadLibraryW failed: " + std::to_string(GetLastError());
            return;
        }
        create = reinterpret_cast<QmCreateObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmCreateObject")));
        destroy =
            reinterpret_cast<QmDestroyObjectFn>(reinterpret_cast<void*>(GetProcAddress(module, "QmDestroyObject")));
        void* object = nullptr;
        if (create == nullptr || destroy == nullptr || create(L"productconfigplg", ids::ServPluginA, &object) != 0)
        {
            problem = "QmCreateObject is missing or failed";
            return;
        }
        plugin = static_cast<IServPlugin*>(object);
        // A failed Init has run UnInit itself, a failed Start its own Stop.
        if (plugin->Init(&host) != 0)
        {
            problem = "Init failed";
            return;
        }
        initialised = true;
        if (plugin->Start() != 0)
        {
            problem = "Start failed";
            return;
        }
        started = true;
        if (!host.WaitIdle())
            problem = "the host did not become idle after Start";
    }
    ~StartedPlugin()
    {
        if (started)
            plugin->Stop();
        if (initialised)
            plugin->UnInit();
        if (plugin != nullptr)
            destroy(L"productconfigplg", plugin);
        if (module != nullptr)
            FreeLibrary(module);
    }
    StartedPlugin(const StartedPlugin&) = delete;
    StartedPlugin& operator=(const StartedPlugin&) = delete;

    // Empty when the plugin is started and its delayed load has run.
    const std::string& Problem() const { return problem; }

private:
    HMODULE module;
    QmCreateObjectFn create = nullptr;
    QmDestroyObjectFn destroy = nullptr;
    IServPlugin* plugin = nullptr;
    bool initialised = false;
    bool started = false;
    std::string problem;
};

// A serial execution of the host's queue for the floor, released at the end.
class FloorSerial
{
public:
    explicit FloorSerial(sim::EventQueue& queue) : queue(queue)
    {
        ISerialExecution* created = nullptr;
        if (queue.CreateSerialExecution(&created) == 0)
            serial = static_cast<sim::SerialExecution*>(created);
    }
    ~FloorSerial()
    {
        if (serial != nullptr)
            queue.ReleaseSerialExecution(serial);
    }
    FloorSerial(const FloorSerial&) = delete;
    FloorSerial& operator=(const FloorSerial&) = delete;

    sim::SerialExecution* get() const { return serial; }

private:
    sim::EventQueue& queue;
    sim::SerialExecution* serial = nullptr;
};

// Microseconds of every call of the floor and of the plugin, each call
// timed on its own.
struct Samples
{
    std::vector<double> floor;
    std::vector<double> plugin;
};

template <class Event>
double TimedMicroseconds(Event& event)
{
    const double start = NowMicroseconds();
    event();
    return NowMicroseconds() - start;
}

// One batch: floor and plugin take turns call by call (each goes first in
// every other pair), so that both meet the same load of a shared machine.
// The serial executions that receive the posts are paused meanwhile: their
// work (the plugin's registry writes and log lines) would otherwise compete
// for the second core and for wineserver while the calls are timed. They run
// and drain after the batch, outside the timing, so that items never pile up;
// then the batch waits kSettleMs.
template <class FloorEvent, class PluginEvent>
void RunBatch(sim::Host& host, sim::SerialExecution& floorSerial, sim::SerialExecution& pluginSerial, long pairs,
              FloorEvent& floorEvent, PluginEvent& pluginEvent, Samples& samples)
{
    floorSerial.Pause();
    pluginSerial.Pause();
    for (long i = 0; i < pairs; ++i)
    {
        if (i % 2 == 0)
        {
            samples.floor.push_back(TimedMicroseconds(floorEvent));
            samples.plugin.push_back(TimedMicroseconds(pluginEvent));
        }
        else
        {
            samples.plugin.push_back(TimedMicroseconds(pluginEvent));
            samples.floor.push_back(TimedMicroseconds(floorEvent));
        }
    }
    floorSerial.Resume();
    pluginSerial.Resume();
    floorSerial.WaitIdle();
    host.WaitIdle();
    host.journal.Clear();
    Sleep(kSettleMs);
}

// The value below which the given fraction of values lies.
double Percentile(std::vector<double> values, double fraction)
{
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(values.size() - 1) * fraction);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

// Measures the floor and the plugin in one set-up and prints both. false when
// the plugin could not be set up, or log.dll is not as the set-up says.
bool Report(const char* setup, const std::wstring& pluginPath, bool withLog, long pairs)
{
    std::printf("%s\n", setup);
    sim::Host host;
    host.config.Set(44, L"Desktop", kProductId);
    host.config.Set(0, L"BASE", kProductId);
    SinkKeeper keeper(host.subscription);
    host.components.Register(L"SubscriptionCommClient", ids::SubscriptionCommClient,
                             static_cast<ISubscriptionCommClient*>(&keeper));

    StartedPlugin plugin(pluginPath, host);
    sim::SerialExecution* pluginSerial = host.Serial();
    ISubscriptionEvents* sink = keeper.Sink();
    if (!plugin.Problem().empty() || pluginSerial == nullptr || sink == nullptr)
    {
        std::printf("  skipped: %s\n", plugin.Problem().empty() ? "the plugin subscribed no sink"
                                                                  : plugin.Problem().c_str());
        return false;
    }
    if ((GetModuleHandleW(L"log.dll") != nullptr) != withLog)
    {
        std::printf("  skipped: log.dll is %s\n", withLog ? "not loaded" : "loaded");
        return false;
    }
    FloorSerial floorSerial(host.queue);
    if (floorSerial.get() == nullptr)
    {
        std::printf("  skipped: CreateSerialExecution failed for the floor\n");
        return false;
    }

    const SubscriptionData record = OrdinaryRecord();
    FloorTarget target;
    const std::wstring path = kSubscriptionKey;
    auto floorEvent = [&] {
        DWORD gsShowed = 0;
        DWORD size = sizeof(gsShowed);
        RegGetValueW(HKEY_USERS, path.c_str(), L"GsShowed", RRF_RT_REG_DWORD, nullptr, &gsShowed, &size);
        auto item = MakeWorkItem<FloorTask>(L"FloorTarget::OnRecord", &FloorTarget::OnRecord, &target, record, false);
        floorSerial.get()->Post(L"_OnSubscriptionChanged", nullptr, item.release(), 0, 0, 0);
    };
    // Called directly on this thread, as the host's client thread would call
    // it: the figure is the plugin's own work on the caller's thread, without
    // the hand-over to a client thread that the floor does not pay either.
    auto pluginEvent = [&] { sink->OnSubscriptionStatusChanged(&record); };

    Samples samples;
    for (int batch = 0; batch < kBatches; ++batch)
        RunBatch(host, *floorSerial.get(), *pluginSerial, pairs, floorEvent, pluginEvent, samples);
    const double floor = Percentile(samples.floor, 0.5);
    const double cost = Percentile(samples.plugin, 0.5);
    const double ratio = cost / floor;
    const double floorLow = Percentile(samples.floor, 0.1);
    const double costLow = Percentile(samples.plugin, 0.1);
    std::printf("  floor: RegGetValueW + item posted  %8.1f us  (10th percentile %6.1f us)\n", floor, floorLow);
    std::printf("  OnSubscriptionStatusChanged        %8.1f us  (10th percentile %6.1f us)\n", cost, costLow);
    const double limit = withLog ? kTargetWithLog : kTarget;
    std::printf("  ratio %.2f x floor (target %.2f: %s); at the 10th percentile %.2f\n", ratio, limit,
                ratio <= limit ? "met" : "NOT met", costLow / floorLow);
    return true;
}

std::wstring FolderOfThisProgram()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length < MAX_PATH ? length : 0);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

std::wstring FullPath(const std::wstring& path)
{
    wchar_t full[MAX_PATH];
    const DWORD length = GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    return length != 0 && length < MAX_PATH ? std::wstring(full, length) : path;
}

// GsShowed present (as on a machine where it was shown), so that the
// ordinary event logs nothing; the benchmark's keys go at the end.
class BenchKeys
{
public:
    BenchKeys()
    {
        const DWORD gsShowed = 1;
        status = RegSetKeyValueW(HKEY_USERS, kSubscriptionKey, L"GsShowed", REG_DWORD, &gsShowed, sizeof(gsShowed));
    }
    ~BenchKeys()
    {
        RegDeleteTreeW(HKEY_USERS, kSubscriptionKey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kBaseKey);
    }
    BenchKeys(const BenchKeys&) = delete;
    BenchKeys& operator=(const BenchKeys&) = delete;

    LSTATUS status;
};

// QM_LOG_FILE names a temporary file for the stand-in's lines while it
// lives; the file goes at the end.
class LogFile
{
public:
    LogFile()
    {
        wchar_t folder[MAX_PATH];
        wchar_t file[MAX_PATH];
        if (GetTempPathW(MAX_PATH, folder) != 0 && GetTempFileNameW(folder, L"sbl", 0, file) != 0)
            path = file;
        SetEnvironmentVariableW(L"QM_LOG_FILE", path.empty() ? nullptr : path.c_str());
    }
    ~LogFile()
    {
        SetEnvironmentVariableW(L"QM_LOG_FILE", nullptr);
        if (!path.empty())
            DeleteFileW(path.c_str());
    }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

private:
    std::wstring path;
};
} // namespace

int main(int argc, char** argv)
{
    const long pairs = argc > 1 ? std::max(1L, std::atol(argv[1])) : 250L;
    std::printf("subscription_bench: %d batches of %ld calls of the floor and of the plugin in turn, medians\n",
                kBatches, pairs);

    const BenchKeys keys;
    if (keys.status != ERROR_SUCCESS)
    {
        std::printf("cannot write GsShowed: %ld\n", static_cast<long>(keys.status));
        return 1;
    }
    const std::wstring folder = FolderOfThisProgram();
    bool all = Report("no log.dll beside the plugin:", folder + L"\\ProductCfgPlg.dll", false, pairs);
    {
        const LogFile log;
        const std::wstring besideLog = FullPath(folder + L"\\..\\bin\\ProductCfgPlg.dll");
        all = Report("log.dll beside the plugin, lines to a file:", besideLog, true, pairs) && all;
        SetEnvironmentVariableW(L"QM_LOG_ENABLED", L"0");
        all = Report("log.dll beside the plugin, QM_LOG_ENABLED=0:", besideLog, true, pairs) && all;
        SetEnvironmentVariableW(L"QM_LOG_ENABLED", nullptr);
    }
    return all ? 0 : 1;
}
