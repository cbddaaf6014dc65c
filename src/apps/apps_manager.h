// CAppsManager: brings the companion applications in line with the
// subscription after an account login. Run by the timer "apps_check".
#pragma once

#include "support/log_client.h"

class CAppsManager
{
public:
    CAppsManager();

    CAppsManager(const CAppsManager&) = delete;
    CAppsManager& operator=(const CAppsManager&) = delete;

    // The check of the companion applications; it has no work yet.
    void CheckApps();
    // Switches the VPN on when the product carries it; run when the account
    // leaves a managed organisation.
    void EnableVpn();

private:
    CLogDLLRef logRef;
};
