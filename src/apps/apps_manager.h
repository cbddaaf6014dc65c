// CAppsManager: brings the companion applications (two parental control
// applications and a VPN), which the product agent knows as modules by
// application identifier, in line with the subscription. Run by the timer
// "apps_check" after an account login, and by "EnableVpn" when the account
// leaves a managed organisation.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "config/product_cfg_internal.h"
#include "host/components.h"
#include "host/holders.h"
#include "support/log_client.h"
#include "support/srw_mutex.h"

class CAppsManager
{
public:
    CAppsManager();

    CAppsManager(const CAppsManager&) = delete;
    CAppsManager& operator=(const CAppsManager&) = delete;

    // Keeps internal; acquires "productinfo" and "productagentcommclient".
    // 0, or the status of the failing acquisition, logged; nothing is held
    // then.
    uint32_t Init(IProductCfgInternal* internal, IComponentManager* manager);
    // Gives both components back; a second call does nothing.
    void UnInit();
    // Parental control off on soho bundles, then the VPN check.
    void CheckApps();
    // Switches the VPN on when the product carries it; reads and writes no
    // marker.
    void EnableVpn();

private:
    friend class AppsManagerProbe;

    // The product identifier (setting 44) without its last component,
    // followed by suffix; "com.quillmarten" + suffix when it has no dot.
    std::wstring _GetAppId(const std::wstring& suffix);
    // Whether IsFreeApp says that the free edition is installed.
    bool _IsAvFreeBootstrap();

    // The scheduled VPN check: at most once per machine, by its marker.
    void _CheckVPN();
    bool _IsVpnAllowed(const int32_t& serverProductType);
    // Under vpnMutex: switches the VPN module on when it is off. 0, or the
    // failing status of the product agent.
    uint32_t _EnableVpn();

    // Switches the application off on a soho bundle.
    void _CheckParentalControl(const wchar_t* suffix);
    bool _IsParentalAllowed(const std::string& bundleId);
    bool _IsSohoProduct(const std::string& bundleId);

    IProductCfgInternal* internal = nullptr;
    ComponentHolder<IServConfig> servConfig;
    ComponentHolder<IProductAgentCommClient> productAgent;
    // Held for the whole of _EnableVpn: the timer's check and "EnableVpn"
    // may both get there at once.
    SrwMutex vpnMutex;
    CLogDLLRef logRef;
};
