// The VPN companion: switched on once per machine where the product carries
// it, never for a managed organisation, whose install shortcut goes instead.
// The marker no_auto_enable_vp records that the scheduled check has decided.
#include <windows.h>

#include "apps/apps_manager.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kMarker[] = L"no_auto_enable_vp";
constexpr wchar_t kDefaultProductKey[] = L"Software\\Quillmarten";
constexpr uint32_t kStateOff = 1;
} // namespace

void CAppsManager::_CheckVPN()
{
    constexpr wchar_t kName[] = L"CAppsManager::_CheckVPN";
    TraceScope trace(kName);
    const wchar_t* setting = servConfig->GetString(settings::ProductKey.number, settings::ProductKey.section);
    const std::wstring productKey = IsSettingMissing(setting) ? kDefaultProductKey : setting;
    std::error_code ec;
    get_dword_value(HKEY_LOCAL_MACHINE, productKey, kMarker, ec);
    if (!ec)
        return; // decided on this machine already, whatever the value

    TraceScope block(L"No value in registry", kName);
    const int32_t serverProductType = internal->GetServerProductType();
    if (internal->IsMsp())
    {
        if (!RemoveVpnInstallShortcut(servConfig.get()))
            logger_stream(logging::LevelError, kName) << "Failed to delete vpn install shortcut.";
    }
    else if (_IsVpnAllowed(serverProductType) && _EnableVpn() != 0)
    {
        return; // the product agent failed: the next check tries again
    }
    const DWORD one = 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), kMarker, REG_DWORD, &one, sizeof(one));
}

bool CAppsManager::_IsVpnAllowed(const int32_t& serverProductType)
{
    if (serverProductType == 2 || serverProductType == 9)
        return false;
    if (serverProductType == 0 && _IsAvFreeBootstrap())
        return false;
    const wchar_t* key = servConfig->GetString(settings::VpnConfigKey.number, settings::VpnConfigKey.section);
    if (IsSettingMissing(key))
        return false;
    std::error_code ec;
    const std::wstring features = get_string_value(HKEY_LOCAL_MACHINE, key, L"Config", ec);
    if (ec)
        return false;
    // Tokens between commas, compared exactly: no trimming, case counts.
    size_t start = 0;
    while (start < features.size())
    {
        size_t end = features.find(L',', start);
        if (end == std::wstring::npos)
            end = features.size();
        if (features.compare(start, end - start, L"VP") == 0)
            return true;
        start = end + 1;
    }
    return false;
}

uint32_t CAppsManager::_EnableVpn()
{
    constexpr wchar_t kName[] = L"CAppsManager::_EnableVpn";
    TraceScope trace(kName);
    std::lock_guard<SrwMutex> lock(vpnMutex);
    const std::wstring appId = _GetAppId(L".vpn");
    IModuleInfo* module = nullptr;
    const Status status = productAgent->GetModuleInfo(appId.c_str(), &module);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "GetModuleInfo failed, " << status;
        return status;
    }
    uint32_t result = 0;
    if (module->GetConnectAppState() == kStateOff)
    {
        result = productAgent->SetConnectAppState(appId.c_str(), true);
        logger_stream(logging::LevelInfo, kName) << "SetConnectAppState true err=" << result;
    }
    module->Release();
    return result;
}

void CAppsManager::EnableVpn()
{
    TraceScope trace(L"CAppsManager::EnableVpn");
    const int32_t serverProductType = internal->GetServerProductType();
    if (_IsVpnAllowed(serverProductType))
        _EnableVpn();
}
