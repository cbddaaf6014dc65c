#include "apps/apps_manager.h"

#include "support/trace_scope.h"

CAppsManager::CAppsManager()
{
    logRef.Acquire();
}

void CAppsManager::CheckApps()
{
    TraceScope trace(L"CAppsManager::CheckApps");
}

void CAppsManager::EnableVpn()
{
    TraceScope trace(L"CAppsManager::EnableVpn");
}
