// CWscHandler: finishes the removal of the product's firewall from Windows
// Security Center after an earlier attempt failed. The open job is marked by
// the REG_DWORD UnregFwWscFailed under HKEY_LOCAL_MACHINE at the product key
// path; when it is there, one thread (checkThread) waits until the service
// "wscsvc" is up, calls UnInstall(1) of wsc.dll beside the plugin and removes
// the marker. One attempt per object.
//
// Calling order: Init, any number of UnregisterFirewallIfNeeded (on the
// serial execution), Stop, UnInit (on the host's thread). No lock is used:
// checkStarted is exchanged atomically, and stopEvent and checkThread are
// written by the one caller that won the exchange and read by Stop after the
// serial execution has ended.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "host/components.h"
#include "host/holders.h"
#include "support/log_client.h"
#include "support/unique_resource.h"

// The argument of wsc.dll's UnInstall; the plugin always passes 1.
enum WscUninstallOptions : int32_t
{
};
constexpr WscUninstallOptions kWscUninstallOption = static_cast<WscUninstallOptions>(1);

// wsc.dll's export "UnInstall".
using WscUnInstallFn = int32_t (*)(WscUninstallOptions);

class CWscHandler
{
public:
    // home is the module beside which wsc.dll lies: the plugin's own.
    explicit CWscHandler(HMODULE home = logging::OwnModule());
    // Joins a thread that Stop has not joined (a caller's fault), so that
    // the object never goes with its thread still running.
    ~CWscHandler();

    CWscHandler(const CWscHandler&) = delete;
    CWscHandler& operator=(const CWscHandler&) = delete;

    // Acquires "productinfo". 0, or the status of GetComponent (logged).
    Status Init(IComponentManager* manager);
    // Starts checkThread when the marker is there and no attempt was made by
    // this object yet. Returns at once; never waits for the job.
    void UnregisterFirewallIfNeeded();
    // Ends the wait of checkThread and joins it; a running UnInstall is
    // waited for without a limit. Does nothing when no job was started.
    void Stop();
    // Gives back "productinfo". Stop comes first.
    void UnInit();

private:
    // True when setting 217 names the product key and the marker is there.
    bool _WscUnregisterFailed();
    // Body of checkThread.
    void _CheckWscsvcAndUninstallFw();
    // The thread's entry: _CheckWscsvcAndUninstallFw inside its guard.
    void _CheckThreadEntry();
    // "wscsvc" is starting (2) or running (4).
    bool _IsWscServiceUp();
    // Runs as an APC on checkThread during its alertable wait.
    static void CALLBACK _OnWscsvcNotify(void* parameter);
    // Calls UnInstall(1) of wsc.dll and removes the marker; leaves both when
    // the plugin's directory is unknown.
    void _UninstallFw();
    void _DeleteUnregisterFailValue();

    ComponentHolder<IServConfig> servConfig;
    std::thread checkThread;
    std::atomic<bool> checkStarted{false};
    UniqueHandle stopEvent;
    CLogDLLRef logRef;
    HMODULE home;
};
