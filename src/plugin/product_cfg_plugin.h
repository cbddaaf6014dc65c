// CProductConfigurationPlg: the plugin object the host creates through the
// factory and drives through IServPlugin. It owns everything else by value.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "apps/apps_manager.h"
#include "bootstrap/bootstrap.h"
#include "config/product_cfg_internal.h"
#include "config/run_decision.h"
#include "config/subscription_data.h"
#include "host/components.h"
#include "host/holders.h"
#include "host/plugin.h"
#include "host/sinks.h"
#include "host/work_item.h"
#include "support/log_client.h"
#include "support/srw_mutex.h"
#include "support/unique_resource.h"
#include "wsc/wsc_handler.h"

// Name of the event that a running installer creates and sets when it ends.
constexpr wchar_t kInstallDoneEventName[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";
static_assert(sizeof(kInstallDoneEventName) / sizeof(wchar_t) == 57, "56 characters and the terminator");

// Name under which the factory knows the plugin.
constexpr wchar_t kPluginName[] = L"productconfigplg";

class CProductConfigurationPlg : public IServPlugin,
                                 public ISubscriptionEvents,
                                 public ISessionChangeEvents,
                                 public IProductCfgInternal,
                                 public IServiceStatusObserver,
                                 public IProductAgentEvents,
                                 public IProductAgentResponse
{
public:
    // Keeps the logging library loaded for the object's life.
    CProductConfigurationPlg();
    virtual ~CProductConfigurationPlg() = default;

    CProductConfigurationPlg(const CProductConfigurationPlg&) = delete;
    CProductConfigurationPlg& operator=(const CProductConfigurationPlg&) = delete;

    // IServPlugin. Every entry of the host's, here and below, ends an
    // exception in its guard (support/boundary.h): Init and Start give its
    // status after their own UnInit or Stop, the others return.
    void* QueryInterface(const InterfaceId& id) override;
    // 0, or the status of the first failing step; on failure UnInit has run.
    Status Init(IServMain* servMain) override;
    // Gives back every component; a second call does nothing.
    void UnInit() override;
    // 0, or the status of the stop event's creation; on failure Stop has run.
    Status Start() override;
    // Removes the sinks, ends the serial execution, threads and timers.
    void Stop() override;

    // ISubscriptionEvents
    void OnSubscriptionStatusChanged(const SubscriptionData* data) override;
    // ISessionChangeEvents
    QM_IMPLEMENTS_DESTRUCTOR_SLOT(CProductConfigurationPlg)
    // Logs the event; a logon with its session information (event 5) posts
    // "Async_StartProductCfgTimer", every other event ends there.
    void OnSessionChange(uint32_t time, uint32_t event, void* info) override;
    // IProductCfgInternal
    std::string GetBundleId() override;
    int32_t GetServerProductType() override;
    bool IsMsp() override;
    // IServiceStatusObserver: (0, 1) posts _DelayedLoad; others are ignored.
    void OnServiceStatusChanged(uint32_t service, uint32_t status) override;
    // IProductAgentEvents: asks the product agent for the user information.
    void OnUserInfoChanged() override;
    void Unused1() override {}
    // IProductAgentResponse
    void Unused2() override {}
    void Unused3() override {}
    // On the product agent's reply thread: a changed organisation flag goes
    // to the registry and the status block, and may start a run.
    void OnGetUserInfoExAsync(IUserInfo* info) override;
    void Unused4() override {}

private:
    // The bodies of Init, Start and Stop, inside their guards.
    Status _Init(IServMain* servMain);
    Status _Start();
    void _Stop();

    using PlainTask = qm::framework::task<void (CProductConfigurationPlg::*)(), CProductConfigurationPlg*>;
    using SubscriptionTask =
        qm::framework::task<void (CProductConfigurationPlg::*)(SubscriptionData, bool), CProductConfigurationPlg*,
                            const SubscriptionData&, bool>;
    using AppsCheckItem = EqWorkItemMember0<void, CAppsManager>;
    using ProductCfgTimerItem = EqWorkItemMember0<void, CProductConfigurationPlg>;
    using EnableVpnItem = EqWorkItemMember0<void, CProductConfigurationPlg>;

    // A subscription record on the serial execution: firstLoad is true for
    // the one record _DelayedLoad fetches, false for every event.
    void _OnSubscriptionChanged(SubscriptionData data, bool firstLoad);
    bool _IsAfterAccountLogin(SubscriptionData data);
    // Arms "apps_check" 120000 ms from now, replacing a pending one.
    void _ScheduleAppsCheck();
    // Stores the record and updates the status block from it.
    void _RefreshSubscription(const SubscriptionData& data);
    void _WriteServerProductType(int32_t type);
    void _SetConfigurationStatus();
    void _SetCommercialStatus();
    // Writes the record's summary as JSON to the value SurveyDataInfo.
    void _WriteSurveyInfo(const SubscriptionData& data);

    // Decides on a run unless an installer is still at work; with firstLoad,
    // looks for the installer first and waits for it on waitThread.
    void _TryDoConfig(bool firstLoad);
    // Body of waitThread: the installer's end or the stop event.
    void _WaitForEventsAndConfig();
    // The thread's entry: _WaitForEventsAndConfig inside its guard.
    void _WaitThreadEntry();
    // The installer is done, or cannot be waited for: _DoConfig, then the
    // installer's event is closed.
    void _DoConfigAfterInstaller();
    // Works out seccenterAllowed and arms the configuration timer when the
    // status block asks for a run.
    void _DoConfig();
    bool _IsSeccenterAllowedWhenNoAccount();

    // Delay of the timer's first firing in milliseconds; 0 when unreadable.
    uint32_t _GetDelay();
    // (Re)arms "_ProductCfgTimer": productCfgDelayMs, then hourly.
    void _StartProductCfgTimer();
    // Body of the timer's item: turns the status block into a run.
    void _ProductCfgTimer();
    // Needs statusMutex held.
    std::optional<std::wstring> _ConvertStatusToParams();
    // Gives an earlier productcfg.exe of the host's directory up to 60000 ms;
    // 1 when the stop event ended the wait, any other value goes on.
    uint32_t _WaitIfProcessIsRunning();
    uint32_t _ExecuteProcessInSession(uint32_t dwSessionId, bool bSystem, const wchar_t* parameters);

    // Whether msp_configured under the product key is present and not 0.
    bool _IsProductConfiguredForMsp();
    // Writes msp_configured as 1, or deletes it; logs the result.
    void _ChangeMspFlagInRegistry(bool msp);
    // Body of "EnableVpn" on the serial execution.
    void _EnableVpn();

    // Runs once in the object's life, on the serial execution: registers the
    // sinks and asks for the user information.
    void _DelayedLoad();
    void _PostDelayedLoad();
    // The product agent's asynchronous side, borrowed; null when it has none.
    IProductAgentCommClientAsync* _AsyncAgent();
    // Cancels, waits for and deletes the timer; 0 calls nothing.
    void CancelAndDeleteTimer(TimerHandle& handle);

    ComponentHolder<ISubscriptionCommClient> subscriptionClient;
    ComponentHolder<ISessionChangeClient> sessionClient;
    ComponentHolder<IServConfig> productInfo;
    ComponentHolder<IServiceStatusClient> serviceStatusClient;
    ComponentHolder<IProductAgentCommClient> productAgentClient;
    SerialExecutionHolder serialExecution;
    CBootstrap bootstrap;
    CWscHandler wscHandler;
    CAppsManager appsManager;
    IEventQueue* eventQueue = nullptr;
    TimerHandle appsCheckTimer = 0;
    UniqueHandle installDoneEvent;
    // Mirrors installDoneEvent being held, for the threads that only ask
    // whether the plugin still waits for the installer.
    std::atomic<bool> installerPending{false};
    UniqueHandle stopEvent;
    // Guards the value of stopEvent between Stop, which closes it, and a
    // timer item, which takes its own duplicate to wait on. A leaf lock.
    SrwMutex stopEventMutex;
    // Lock order: statusMutex first; subscriptionMutex may be taken under it,
    // timerMutex only tried under it. timerMutex is held across WaitTimer.
    SrwMutex subscriptionMutex;
    SrwMutex timerMutex;
    SrwMutex statusMutex;
    SubscriptionData storedSubscription;
    // Written by an atomic exchange on the reply thread, read without a lock.
    std::atomic<bool> isMsp{false};
    bool delayedLoadDone = false;
    // Set first thing in Stop; _DelayedLoad looks at it after registering.
    std::atomic<bool> stopping{false};
    ProductCfgStatus productCfgStatus;
    std::thread waitThread;
    TimerHandle productCfgTimer = 0;
    uint32_t productCfgDelayMs = 0;
    CLogDLLRef logRef;
};
