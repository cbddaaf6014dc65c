#include "runner/player.h"

#include <windows.h>

#include <algorithm>

#include "config/subscription_data.h"
#include "runner/registry_preset.h"

namespace runner
{
namespace
{
constexpr wchar_t kPluginName[] = L"productconfigplg";
// The event that the product's installer sets at its end.
constexpr wchar_t kInstallerEvent[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";

// The components whose acquisitions and releases the teardown check counts.
constexpr const wchar_t* kComponents[] = {L"SubscriptionCommClient", L"sessionchange",
                                          L"productinfo",            L"QmServiceStatusClient",
                                          L"productagentcommclient", L"connect_integrator"};

std::string Narrow(const std::wstring& text)
{
    return sim::Narrow(text.c_str());
}

std::string Plural(size_t count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The host's record with the fields the scenario gives; all others zero.
SubscriptionData HostRecord(const scenario::SubscriptionRecord& fields)
{
    SubscriptionData record;
    record.KeyType = fields.keyType;
    record.ProductType = fields.productType;
    record.ServerProductType = fields.serverProductType;
    record.StatusCode = fields.statusCode;
    record.Valid = fields.valid;
    record.DaysLeft = fields.daysLeft;
    // The parser has bounded the texts, so none is cut here.
    SetFixedText(record.AccountId, fields.accountId);
    SetFixedText(record.BundleId, fields.bundleId);
    SetFixedText(record.CommercialId, fields.commercialId);
    for (const int32_t feature : fields.features)
        record.Features.Append(static_cast<SubscriptionFeatures>(feature));
    return record;
}

// Holds the plugin's serial execution, if it has one, while a host call or
// event runs: what the call posts runs after it has returned, so the output
// has one order from run to run. The object is looked up again at the end,
// since the call may have released it.
class SerialHold
{
public:
    explicit SerialHold(sim::Host& host) : host(host)
    {
        if (sim::SerialExecution* serial = host.Serial())
            serial->Pause();
    }
    ~SerialHold()
    {
        if (sim::SerialExecution* serial = host.Serial())
            serial->Resume();
    }
    SerialHold(const SerialHold&) = delete;
    SerialHold& operator=(const SerialHold&) = delete;

private:
    sim::Host& host;
};
} // namespace

Player::Player(const scenario::Scenario& scenario, const PluginLibrary& library, Console& console,
               JsonReport* report)
    : scenario(scenario), library(library), console(console), report(report)
{
    host.journal.SetListener([this](const std::string& line) {
        {
            std::lock_guard<std::mutex> lock(hostCallsMutex);
            effects.hostCalls.push_back(line);
        }
        this->console.Line("    host: " + line);
    });
}

Player::~Player()
{
    if (plugin != nullptr)
        TearDown();
}

ExitStatus Player::Play()
{
    if (!scenario.description.empty())
        console.Line("   " + scenario.description);
    if (!SetUp())
        return kExitUnusable;
    WatchScenarioKeys(scenario, registryWatch);
    registryWatch.Reset();
    logTail.TakeNew();
    if (report != nullptr)
        report->Setup(said);

    for (size_t i = 0; i < scenario.steps.size(); ++i)
    {
        const scenario::Step& step = scenario.steps[i];
        WaitIdle("before step " + std::to_string(i));
        {
            std::lock_guard<std::mutex> lock(hostCallsMutex);
            effects = StepEffects{};
        }
        console.Line("== step " + std::to_string(i) + ": " + scenario::Describe(step.action));
        if (!step.note.empty())
            Say("# " + step.note);
        const size_t refreshesBefore = host.ledger.ReceivedCount("_OnSubscriptionChanged");
        const bool markerBefore = MarkerThere();
        std::visit([this](const auto& action) { Run(action); }, step.action);
        AnswerLateRequests();
        ReportCommercial();
        ReportLaunches();
        WaitIdle("after step " + std::to_string(i));
        ReportModuleChanges();
        ReportWsc(host.ledger.ReceivedCount("_OnSubscriptionChanged") != refreshesBefore ||
                      std::holds_alternative<scenario::StartWscsvcStep>(step.action),
                  markerBefore);
        FinishStep(i, scenario::Describe(step.action), step.note, step.expect);
    }
    WaitIdle("after the last step");
    if (plugin != nullptr)
    {
        {
            std::lock_guard<std::mutex> lock(hostCallsMutex);
            effects = StepEffects{};
        }
        console.Line("== end: the plugin object is still alive; the runner stops it");
        TearDown();
        ReportLaunches();
        ReportModuleChanges();
        ReportCommercial();
        FinishStep(scenario.steps.size(), "end", "", std::nullopt);
    }
    PrintSummary();
    const ExitStatus status = failures.empty() ? kExitClean : kExitCheckFailed;
    if (report != nullptr)
        report->Summary(said, failures, status);
    return status;
}

void Player::FinishStep(size_t index, const std::string& name, const std::string& note,
                        const std::optional<scenario::Expectations>& expect)
{
    std::lock_guard<std::mutex> lock(hostCallsMutex);
    std::vector<LogLine> lines = logTail.TakeNew();
    effects.log.insert(effects.log.end(), lines.begin(), lines.end());
    // A first load while the installer runs starts waitThread beside the
    // host's threads: the step is over once it waits.
    if (installer && !installerFinished &&
        std::find(effects.hostCalls.begin(), effects.hostCalls.end(), "Run _DelayedLoad") != effects.hostCalls.end())
    {
        auto waiting = [this] {
            return std::any_of(effects.log.begin(), effects.log.end(), [](const LogLine& line) {
                return line.function == "CProductConfigurationPlg::_WaitForEventsAndConfig" &&
                       line.text == "Start waiting after installer";
            });
        };
        for (const ULONGLONG deadline = GetTickCount64() + 10000; !waiting() && GetTickCount64() < deadline; Sleep(2))
        {
            lines = logTail.TakeNew();
            effects.log.insert(effects.log.end(), lines.begin(), lines.end());
        }
    }
    effects.registry = registryWatch.TakeChanges();
    for (const RegistryChange& change : effects.registry)
        Say("registry: " + change.place + ": " + change.before + " -> " + change.after);
    std::vector<Unmet> unmet;
    if (expect)
        unmet = Check(*expect, effects);
    for (const Unmet& entry : unmet)
    {
        Say("EXPECTED " + entry.what + ":");
        for (const std::string& line : SideBySide(entry))
            Say("  " + line);
        failures.push_back("step " + std::to_string(index) + ": expected " + entry.what + " not met");
        ++unmetExpectations;
    }
    if (report != nullptr)
    {
        report->Step(index, name, note, host.queue.Now(), effects, expect.has_value(), unmet);
        said.clear();
    }
}

bool Player::SetUp()
{
    console.Line("== setup");
    if (!launches.Ready())
    {
        console.Line("cannot make a file for ProductCfg.exe to record its starts in; nothing was played");
        return false;
    }
    Say("ProductCfg.exe records its starts in a file of the runner's own (PCP_PRODUCTCFG_RECORD)");
    if (!logTail.Ready())
    {
        console.Line("cannot make a file for the plugin's log; nothing was played");
        return false;
    }
    Say("log.dll writes the plugin's log to a file of the runner's own too (QM_LOG_FILE, QM_LOG_ECHO=1)");
    host.config.SetMissing(scenario.missingSetting == scenario::MissingSetting::Null
                               ? sim::ServConfig::Missing::Null
                               : sim::ServConfig::Missing::NotFoundText);
    for (const scenario::Setting& setting : scenario.settings)
    {
        host.config.Set(setting.number, setting.section, setting.value);
        Say("productinfo " + std::to_string(setting.number) + " \"" + Narrow(setting.section) + "\" = \"" +
            Narrow(setting.value) + "\"");
    }
    Say(std::string("productinfo gives a missing setting as ") +
        (scenario.missingSetting == scenario::MissingSetting::Null ? "null" : "\"<error-not-found>\""));

    for (const scenario::RegistryValue& value : scenario.registry)
    {
        const Status status = ApplyRegistryValue(value);
        Say("registry " + scenario::Describe(value) + (status == 0 ? "" : " FAILED: " + std::to_string(status)));
        if (status != 0)
        {
            console.Line("cannot preset the registry; nothing was played");
            return false;
        }
    }

    if (!commercial.SetUp(scenario, host, [this](const std::string& line) { Say(line); }))
        return false;
    if (!SetUpWscsvc())
        return false;
    if (scenario.installerRunning)
    {
        installer.reset(CreateEventW(nullptr, TRUE, FALSE, kInstallerEvent));
        if (!installer || GetLastError() == ERROR_ALREADY_EXISTS)
        {
            console.Line("cannot create the installer's event (another installer runs?); nothing was played");
            return false;
        }
        Say("installer: running (its event exists, not set)");
    }

    host.serviceStatus.SetStatus(scenario.hostServiceStatus);
    Say("QmServiceStatusClient.GetStatus(0) answers " + std::to_string(scenario.hostServiceStatus));
    for (const auto& failure : scenario.failComponents)
    {
        host.components.Fail(failure.first, failure.second);
        Say("GetComponent \"" + Narrow(failure.first) + "\" fails with " + std::to_string(failure.second));
    }
    if (scenario.failSerialExecution != 0)
    {
        host.queue.FailCreateSerialExecution(scenario.failSerialExecution);
        Say("CreateSerialExecution fails with " + std::to_string(scenario.failSerialExecution));
    }
    host.productAgent.SetAsyncAvailable(scenario.productAgentAsync);
    if (!scenario.productAgentAsync)
        Say("productagentcommclient offers no IProductAgentCommClientAsync");
    if (scenario.userInfoAnswer)
    {
        const scenario::UserInfoAnswer& answer = *scenario.userInfoAnswer;
        host.productAgent.Async().SetAnswer(answer.level, answer.text,
                                            answer.early ? sim::AnswerTiming::Early : sim::AnswerTiming::Late);
        Say("productagent answers GetUserInfoExAsync with level \"" + Narrow(answer.level) + "\", text \"" +
            Narrow(answer.text) + "\", " + (answer.early ? "before the request returns" : "after the step"));
    }
    SetUpModules();
    if (scenario.subscription)
    {
        host.subscription.SetRecord(HostRecord(*scenario.subscription));
        Say("SubscriptionCommClient.GetSubscription gives " + scenario::Describe(*scenario.subscription));
    }
    host.SetComponentManagerNull(scenario.nullComponentManager);
    if (scenario.nullComponentManager)
        Say("GetComponentManager gives null");
    host.SetEventQueueNull(scenario.nullEventQueue);
    if (scenario.nullEventQueue)
        Say("GetEventQueue gives null");
    return true;
}

void Player::Run(const scenario::InitStep&)
{
    Create();
    if (phase == Phase::Created)
        Init();
}

void Player::Run(const scenario::StartStep&)
{
    Create();
    if (phase == Phase::Created)
        Init();
    if (phase == Phase::Initialised)
        Start();
    else if (phase == Phase::InitFailed)
        Say("Start not called: Init failed, the object is good for QmDestroyObject only");
}

void Player::Run(const scenario::StopStep&)
{
    if (plugin == nullptr)
        Say("nothing to take down: QmCreateObject gave no object");
    TearDown();
}

void Player::Run(const scenario::ServiceStatusStep& step)
{
    SerialHold hold(host);
    host.serviceStatus.Deliver(step.service, step.status);
}

void Player::Run(const scenario::SessionChangeStep& step)
{
    SerialHold hold(host);
    host.sessionChange.Deliver(step.time, step.event, step.info ? &sessionNotification : nullptr);
}

void Player::Run(const scenario::UserInfoChangedStep&)
{
    SerialHold hold(host);
    host.productAgent.DeliverUserInfoChanged();
}

void Player::Run(const scenario::UserInfoReplyStep& step)
{
    SerialHold hold(host);
    host.productAgent.Async().Reply(step.level, step.text);
}

void Player::Run(const scenario::AdvanceStep& step)
{
    const uint64_t before = host.queue.Now();
    host.queue.Advance(step.ms);
    Say("clock " + std::to_string(before) + " -> " + std::to_string(host.queue.Now()) + " ms");
}

void Player::Run(const scenario::WaitIdleStep&)
{
    WaitIdle("at wait_idle");
    Say("host idle");
}

void Player::Run(const scenario::SetRegistryStep& step)
{
    const Status status = ApplyRegistryValue(step.value);
    if (status != 0)
        Fail("set_registry " + scenario::Describe(step.value) + " failed: " + std::to_string(status));
}

void Player::Run(const scenario::ShowRegistryStep& step)
{
    scenario::RegistryValue value;
    const Status status = ReadRegistryValue(step.root, step.key, step.name, value);
    if (status == 0)
        Say("registry " + scenario::Describe(value));
    else
        Fail("show_registry " + scenario::DescribeRegistryPlace(step.root, step.key, step.name) +
             " failed: " + std::to_string(status));
}

void Player::Run(const scenario::SubscriptionStep& step)
{
    SerialHold hold(host);
    host.subscription.Deliver(HostRecord(step.record));
}

void Player::Run(const scenario::WscMarkerStep&)
{
    const std::optional<std::wstring> key = ProductKey();
    if (!key)
        return Fail("wsc_marker: no setting 217 \"Desktop\" names the product key");
    scenario::RegistryValue marker;
    marker.root = scenario::RegistryRoot::LocalMachine;
    marker.key = *key;
    marker.name = L"UnregFwWscFailed";
    marker.dword = 1;
    const Status status = ApplyRegistryValue(marker);
    if (status != 0)
        return Fail("wsc_marker " + scenario::Describe(marker) + " failed: " + std::to_string(status));
    Say("registry " + scenario::Describe(marker));
}

void Player::Run(const scenario::StartWscsvcStep&)
{
    if (!wscsvc)
        return Fail("start_wscsvc: the scenario installs no wscsvc (\"wscsvc\" in the setup)");
    if (scenario.wscsvc == scenario::Wscsvc::StartPending)
        wscsvc->Release();
    else if (!wscsvc->Start())
        return Fail("start_wscsvc: StartServiceW failed: " + std::to_string(GetLastError()));
    if (!wscsvc->AwaitState(SERVICE_RUNNING))
        return Fail("start_wscsvc: wscsvc was not running within 20 s");
    Say("wscsvc: running");
}

void Player::Run(const scenario::FinishInstallerStep&)
{
    if (!installer)
        return Fail("finish_installer: the scenario has no installer (\"installer_running\" in the setup)");
    SetEvent(installer.get());
    installerFinished = true;
    Say("installer: finished (its event set)");
    // waitThread wakes beside the host's threads; its decision is over when
    // _WaitForEventsAndConfig returns.
    const ULONGLONG deadline = GetTickCount64() + 10000;
    for (bool done = false; !done && GetTickCount64() < deadline; Sleep(done ? 0 : 2))
    {
        std::vector<LogLine> lines = logTail.TakeNew();
        for (const LogLine& line : lines)
            done = done || (line.function == "CProductConfigurationPlg::_WaitForEventsAndConfig" &&
                            line.text.rfind("<- ", 0) == 0);
        std::lock_guard<std::mutex> lock(hostCallsMutex);
        effects.log.insert(effects.log.end(), lines.begin(), lines.end());
    }
}

bool Player::SetUpWscsvc()
{
    if (scenario.wscsvc == scenario::Wscsvc::Untouched)
        return true;
    if (!wscRecord.Ready())
    {
        console.Line("cannot make a file for wsc.dll to record its calls in; nothing was played");
        return false;
    }
    Say("wsc.dll records its calls in a file of the runner's own (PCP_WSC_RECORD)");
    wscsvc = std::make_unique<standin::Wscsvc>(scenario.wscsvc == scenario::Wscsvc::StartPending);
    bool ready = wscsvc->Installed();
    const char* state = "stopped";
    if (ready && scenario.wscsvc == scenario::Wscsvc::Running)
    {
        ready = wscsvc->StartRunning();
        state = "running";
    }
    else if (ready && scenario.wscsvc == scenario::Wscsvc::StartPending)
    {
        ready = wscsvc->Start() && wscsvc->AwaitState(SERVICE_START_PENDING);
        state = "start pending until start_wscsvc";
    }
    if (!ready)
    {
        console.Line("cannot install WscsvcStandin.exe as \"wscsvc\" (" +
                     (wscsvc->Problem().empty() ? "it did not reach its state" : wscsvc->Problem()) +
                     "); nothing was played");
        return false;
    }
    Say(std::string("wscsvc: WscsvcStandin.exe installed as \"wscsvc\", ") + state);
    return true;
}

std::optional<std::wstring> Player::ProductKey() const
{
    for (const scenario::Setting& setting : scenario.settings)
    {
        if (setting.number == 217 && setting.section == L"Desktop")
            return setting.value;
    }
    return std::nullopt;
}

bool Player::MarkerThere() const
{
    const std::optional<std::wstring> key = ProductKey();
    if (!key)
        return false;
    DWORD value = 0;
    DWORD size = sizeof(value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, key->c_str(), L"UnregFwWscFailed", RRF_RT_REG_DWORD, nullptr, &value,
                        &size) == ERROR_SUCCESS;
}

void Player::ReportWsc(bool jobPossible, bool markerBefore)
{
    if (!wscsvc)
        return;
    const DWORD state = wscsvc->State();
    if (jobPossible && plugin != nullptr && MarkerThere() &&
        (state == SERVICE_RUNNING || state == SERVICE_START_PENDING))
    {
        // checkThread runs beside the host's threads: its job is over once
        // the marker is gone, wsc.dll freed before that.
        const ULONGLONG deadline = GetTickCount64() + 10000;
        while (MarkerThere() && GetTickCount64() < deadline)
            Sleep(2);
    }
    for (const std::string& line : wscRecord.TakeNew())
    {
        Say("wsc: " + line);
        effects.wsc.push_back(line);
    }
    if (markerBefore && !MarkerThere())
        Say("wsc: marker UnregFwWscFailed removed");
}

void Player::ReportCommercial()
{
    commercial.Report(
        host,
        [this](const std::string& line) {
            Say(line);
            // "cloud: request <path> <method> <parameters>"
            const std::string request = "cloud: request ";
            const std::string rewritten = "bootstrap: settings\\bootstrapdata.json rewritten: ";
            if (line.rfind(rewritten, 0) == 0)
                effects.bootstrap.push_back(line.substr(rewritten.size()));
            if (line.rfind(request, 0) == 0)
            {
                const size_t method = line.find(' ', request.size());
                const size_t parameters = method == std::string::npos ? method : line.find(' ', method + 1);
                effects.cloud.push_back(parameters == std::string::npos ? "" : line.substr(parameters + 1));
            }
        },
        [this](const std::string& line) { Fail(line); });
}

void Player::Create()
{
    if (phase != Phase::None)
        return;
    Say("call QmCreateObject(\"productconfigplg\", ServPluginA)");
    IServPlugin* object = nullptr;
    const Status status = library.Create(kPluginName, ids::ServPluginA, object);
    Say("QmCreateObject -> " + std::to_string(status));
    if (status != 0 || object == nullptr)
    {
        Fail("QmCreateObject gave status " + std::to_string(status) + (object == nullptr ? " and no object" : ""));
        if (object != nullptr)
            library.Destroy(kPluginName, object);
        return;
    }
    plugin = object;
    phase = Phase::Created;
}

void Player::Init()
{
    Say("call Init(ServMain)");
    const Status status = plugin->Init(&host);
    Say("Init -> " + std::to_string(status));
    phase = status == 0 ? Phase::Initialised : Phase::InitFailed;
}

void Player::Start()
{
    SerialHold hold(host);
    Say("call Start()");
    const Status status = plugin->Start();
    Say("Start -> " + std::to_string(status));
    phase = status == 0 ? Phase::Started : Phase::StartFailed;
}

void Player::TearDown()
{
    if (plugin == nullptr)
        return;
    if (phase == Phase::Started)
    {
        Say("call Stop()");
        plugin->Stop();
    }
    else if (phase == Phase::StartFailed)
    {
        Say("Stop not called: Start failed and the plugin has stopped itself");
    }
    if (phase == Phase::Initialised || phase == Phase::Started || phase == Phase::StartFailed)
    {
        Say("call UnInit()");
        plugin->UnInit();
    }
    else if (phase == Phase::InitFailed)
    {
        Say("UnInit not called: Init failed and the plugin has run its own");
    }
    Say("call QmDestroyObject(\"productconfigplg\")");
    library.Destroy(kPluginName, plugin);
    plugin = nullptr;
    phase = Phase::None;
    WaitIdle("after the teardown");
    CheckTeardown();
}

void Player::CheckTeardown()
{
    std::vector<std::string> problems;
    if (const size_t outstanding = host.ledger.Outstanding())
        problems.push_back(Plural(outstanding, "work item", "work items") + " not released");
    if (const size_t doubles = host.ledger.DoubleReleases())
        problems.push_back(Plural(doubles, "work item", "work items") + " released twice");
    for (const wchar_t* name : kComponents)
    {
        const size_t acquired = host.components.Acquired(name);
        const size_t released = host.components.Released(name);
        if (acquired != released)
            problems.push_back("component " + sim::Narrow(name) + ": acquired " + std::to_string(acquired) +
                               ", released " + std::to_string(released));
    }
    for (const auto& timer : host.queue.Timers())
        problems.push_back("timer " + timer.name + " not deleted");
    if (const std::string modules = ModuleObjectsLeft(); !modules.empty())
        problems.push_back(modules);
    if (const size_t serials = host.queue.LiveSerialExecutions())
        problems.push_back(Plural(serials, "serial execution", "serial executions") + " not released");
    const std::pair<const char*, size_t> sinks[] = {
        {"SubscriptionCommClient", host.subscription.SinkCount()},
        {"sessionchange", host.sessionChange.SinkCount()},
        {"QmServiceStatusClient", host.serviceStatus.ObserverCount()},
        {"productagentcommclient", host.productAgent.SinkCount()},
        {"productagent response", host.productAgent.Async().SinkCount()},
    };
    for (const auto& sink : sinks)
    {
        if (sink.second != 0)
            problems.push_back(Plural(sink.second, "sink", "sinks") + " still registered at " + sink.first);
    }

    if (problems.empty())
    {
        Say("teardown check: nothing left behind");
        return;
    }
    for (const std::string& problem : problems)
        Fail("after teardown: " + problem);
}

void Player::AnswerLateRequests()
{
    if (host.productAgent.Async().PendingAnswers() == 0)
        return;
    WaitIdle("before the product agent's answer");
    Say("# the product agent answers the requests of this step");
    SerialHold hold(host);
    host.productAgent.Async().AnswerPending();
}

void Player::WaitIdle(const std::string& when)
{
    if (!host.WaitIdle())
        Fail("the host was not idle within 10 s " + when);
}

void Player::ReportLaunches()
{
    std::vector<uint32_t> still;
    for (const Launch& launch : launches.TakeNew(still))
    {
        Say("launch: " + launch.commandLine + " (session " + std::to_string(launch.session) + ")");
        effects.launches.push_back(launch.commandLine);
        effects.sessions.push_back(launch.session);
    }
    for (const uint32_t pid : still)
        Fail("ProductCfg.exe (pid " + std::to_string(pid) + ") had not ended 10 s after the step");
}

void Player::Fail(const std::string& problem)
{
    failures.push_back(problem);
    Say("CHECK FAILED: " + problem);
}

void Player::PrintSummary()
{
    const size_t contractErrors = host.journal.LinesStartingWith("ERROR").size();
    if (contractErrors != 0)
        failures.push_back(Plural(contractErrors, "host contract error", "host contract errors") +
                           " in the journal (lines starting with ERROR)");

    said.clear();
    console.Line("== summary");
    Say("work items: " + std::to_string(host.ledger.ReceivedCount()) + " received, " +
        std::to_string(host.ledger.ReleasedCount()) + " released, " + std::to_string(host.ledger.Outstanding()) +
        " outstanding, " + std::to_string(host.ledger.DoubleReleases()) + " double releases");
    Say("components still held: " + std::to_string(host.components.Outstanding()));
    Say("live timers: " + std::to_string(host.queue.LiveTimers()));
    Say("live serial executions: " + std::to_string(host.queue.LiveSerialExecutions()));
    Say("launches of ProductCfg.exe: " + std::to_string(launches.Total()));
    Say("SetConnectAppState calls: " + std::to_string(host.productAgent.ConnectStateCalls().size()));
    Say("host contract errors: " + std::to_string(contractErrors));
    Say("expectations not met: " + std::to_string(unmetExpectations));
    Say(library.Guarded() ? "Control Flow Guard: " + std::to_string(sim::GuardCheckedCalls()) +
                                " indirect calls checked, none stopped"
                          : std::string("Control Flow Guard: not in this build of the DLL"));
    if (failures.empty())
    {
        Say("result: ok");
        return;
    }
    Say("result: " + Plural(failures.size(), "check failed", "checks failed"));
    for (const std::string& failure : failures)
        Say("- " + failure);
}
} // namespace runner
