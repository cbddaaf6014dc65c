// Parental control is not allowed on soho products: on a soho bundle a
// parental control application that is on is switched off. The check never
// switches one on.
#include <windows.h>

#include "apps/apps_manager.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
constexpr char kSohoSuffix[] = ".soho";
constexpr size_t kSohoLength = sizeof(kSohoSuffix) - 1;
constexpr uint32_t kStateOff = 1;
} // namespace

void CAppsManager::_CheckParentalControl(const wchar_t* suffix)
{
    constexpr wchar_t kName[] = L"CAppsManager::_CheckParentalControl";
    TraceScope trace(kName);
    const std::wstring appId = _GetAppId(suffix);
    logger_stream(logging::LevelInfo, kName) << "Appid: " << appId;
    IModuleInfo* module = nullptr;
    const Status status = productAgent->GetModuleInfo(appId.c_str(), &module);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "get module info failed, " << status;
        return;
    }
    const std::string bundleId = internal->GetBundleId();
    if (!_IsParentalAllowed(bundleId) && module->GetConnectAppState() != kStateOff)
    {
        const Status result = productAgent->SetConnectAppState(appId.c_str(), false);
        logger_stream(logging::LevelInfo, kName) << "SetConnectAppState: " << result;
    }
    module->Release();
}

bool CAppsManager::_IsParentalAllowed(const std::string& bundleId)
{
    TraceScope trace(L"CAppsManager::_IsParentalAllowed");
    return !_IsSohoProduct(bundleId);
}

bool CAppsManager::_IsSohoProduct(const std::string& bundleId)
{
    TraceScope trace(L"CAppsManager::_IsSohoProduct");
    if (bundleId.size() < kSohoLength)
        return false;
    const size_t last = bundleId.rfind(kSohoSuffix, bundleId.size() - kSohoLength);
    return last != std::string::npos && last == bundleId.size() - kSohoLength;
}
