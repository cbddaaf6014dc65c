// Plays a scenario: sets the simulated host up, drives the plugin through
// the host contract step by step and prints what happened, the host's own
// record of every call and the starts of ProductCfg.exe included. Before
// each step it waits until the host's threads are idle, and after it until
// every ProductCfg.exe it caused has ended, so that the output is the same
// from run to run.
#pragma once

#include <windows.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/plugin.h"
#include "runner/commercial_setup.h"
#include "runner/console.h"
#include "runner/expectations.h"
#include "runner/json_report.h"
#include "runner/launch_record.h"
#include "runner/log_tail.h"
#include "runner/plugin_library.h"
#include "runner/registry_watch.h"
#include "runner/scenario.h"
#include "runner/wsc_record.h"
#include "simhost/sim_host.h"
#include "wscsvc_control.h"

namespace runner
{
// Exit statuses of the runner.
enum ExitStatus : int
{
    kExitClean = 0,       // the scenario ran and every teardown left nothing behind
    kExitCheckFailed = 1, // the scenario ran, a check failed
    kExitUnusable = 2,    // nothing was played: arguments, scenario, plugin or setup unusable
};

class Player
{
public:
    // report, when given, receives the run as a JSON document.
    Player(const scenario::Scenario& scenario, const PluginLibrary& library, Console& console,
           JsonReport* report = nullptr);
    // A plugin object still alive is taken down as "stop" would.
    ~Player();

    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    ExitStatus Play();

private:
    // The overloads std::visit picks for the step kinds.
    void Run(const scenario::InitStep&);
    void Run(const scenario::StartStep&);
    void Run(const scenario::StopStep&);
    void Run(const scenario::ServiceStatusStep& step);
    void Run(const scenario::SessionChangeStep& step);
    void Run(const scenario::UserInfoChangedStep&);
    void Run(const scenario::UserInfoReplyStep& step);
    void Run(const scenario::AdvanceStep& step);
    void Run(const scenario::WaitIdleStep&);
    void Run(const scenario::SetRegistryStep& step);
    void Run(const scenario::ShowRegistryStep& step);
    void Run(const scenario::SubscriptionStep& step);
    void Run(const scenario::WscMarkerStep&);
    void Run(const scenario::StartWscsvcStep&);
    void Run(const scenario::FinishInstallerStep&);

    // Where the plugin object is in its one cycle of the host contract.
    enum class Phase
    {
        None,        // no object
        Created,     // QmCreateObject gave it
        InitFailed,  // Init failed; the plugin has run its own UnInit
        Initialised, // Init gave 0
        StartFailed, // Start failed; the plugin has run its own Stop
        Started,     // Start gave 0
    };

    // false when a registry value cannot be written.
    bool SetUp();
    void Create();
    void Init();
    void Start();
    // Stop, UnInit and QmDestroyObject as far as the phase calls for them,
    // then the teardown check.
    void TearDown();
    void CheckTeardown();
    void WaitIdle(const std::string& when);
    // Delivers the product agent's answers held back during the step.
    void AnswerLateRequests();
    // Prints the starts of ProductCfg.exe recorded since the last call.
    void ReportLaunches();
    // Installs "wscsvc" as the scenario asks; false when it cannot.
    bool SetUpWscsvc();
    // The product key path (setting 217 "Desktop" of the scenario).
    std::optional<std::wstring> ProductKey() const;
    bool MarkerThere() const;
    // After a step that may have let checkThread do its job (a record was
    // refreshed, or wscsvc started) while the marker is there and wscsvc is
    // up, waits (bounded) for the marker to go; then prints what wsc.dll
    // recorded and whether the marker went in the step.
    void ReportWsc(bool jobPossible, bool markerBefore);
    // Sets the product agent's modules up as the scenario asks.
    void SetUpModules();
    // Prints the SetConnectAppState calls made since the last call.
    void ReportModuleChanges();
    // "" when every module object handed out was given back.
    std::string ModuleObjectsLeft() const;
    // The cloud requests of the step and the commercial data file's rewrites.
    void ReportCommercial();
    // After a step's own reports: its log lines and registry changes, then
    // the check of its expectations, and its entry in the JSON report.
    void FinishStep(size_t index, const std::string& name, const std::string& note,
                    const std::optional<scenario::Expectations>& expect);
    void PrintSummary();
    void Say(const std::string& text)
    {
        said.push_back(text);
        console.Line("  " + text);
    }
    void Fail(const std::string& problem);

    const scenario::Scenario& scenario;
    const PluginLibrary& library;
    Console& console;
    // Named in the environment before the plugin can start ProductCfg.exe.
    LaunchRecord launches;
    // Named in the environment before the plugin loads log.dll.
    LogTail logTail;
    RegistryWatch registryWatch;
    JsonReport* report;
    // What the current step did; the host's journal lines come from its
    // threads too.
    StepEffects effects;
    std::mutex hostCallsMutex;
    // The lines said since the last section of the JSON report.
    std::vector<std::string> said;
    WscRecord wscRecord;
    CommercialSetup commercial;
    std::unique_ptr<standin::Wscsvc> wscsvc;
    // The installer's named event while the scenario's installer runs.
    UniqueHandle installer;
    bool installerFinished = false;
    // What a logon event carries; the plugin only tests it for null. Lives
    // longer than the host's threads that pass it on.
    WTSSESSION_NOTIFICATION sessionNotification{sizeof(WTSSESSION_NOTIFICATION), 1};
    sim::Host host;
    IServPlugin* plugin = nullptr;
    Phase phase = Phase::None;
    std::vector<std::string> failures;
    size_t unmetExpectations = 0;
    size_t moduleCallsReported = 0;
};
} // namespace runner
