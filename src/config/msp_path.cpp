// The managed organisation: the product agent says that the user information
// changed, the plugin asks for it, and the reply's organisation level sets
// isMsp. A change goes to the registry value msp_configured and to mspStatus,
// may bring the VPN back, and may start a run of ProductCfg.exe.
#include <windows.h>

#include "plugin/product_cfg_plugin.h"
#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kMspConfigured[] = L"msp_configured";

// The organisation flag of a reply; the comparisons are exact. The second
// text is asked for only when the level is "null".
bool IsMspReply(IUserInfo& info, const std::wstring& level)
{
    if (level == L"1")
        return true;
    if (level != L"null")
        return false;
    const wchar_t* text = info.GetOrganizationText();
    return text != nullptr && text[0] != L'\0';
}
} // namespace

void CProductConfigurationPlg::OnUserInfoChanged()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::OnUserInfoChanged";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        IProductAgentCommClientAsync* async = _AsyncAgent();
        if (async == nullptr)
        {
            logger_stream(logging::LevelError, kName) << "Failed to get IProductAgentCommClientAsync";
            return;
        }
        async->GetUserInfoExAsync();
    });
}

void CProductConfigurationPlg::OnGetUserInfoExAsync(IUserInfo* info)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::OnGetUserInfoExAsync";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        if (info == nullptr)
        {
            logger_stream(logging::LevelError, kName) << "No user information";
            return;
        }
        const wchar_t* levelText = info->GetOrganizationLevel();
        // A null level is taken as the empty text: no managed organisation.
        const std::wstring level = levelText != nullptr ? levelText : L"";
        logger_stream(logging::LevelInfo, kName) << "Organization level is " << level;

        const bool msp = IsMspReply(*info, level);
        isMsp.exchange(msp);
        const bool configured = _IsProductConfiguredForMsp();
        logger_stream(logging::LevelInfo, kName)
            << "isMsp: " << static_cast<int>(msp) << " _IsProductConfiguredForMsp: " << static_cast<int>(configured);
        if (msp == configured)
            return;

        _ChangeMspFlagInRegistry(msp);
        {
            std::lock_guard<SrwMutex> lock(statusMutex);
            productCfgStatus.mspStatus = 1;
        }
        if (msp)
        {
            logger_stream(logging::LevelInfo, kName) << "Not necessary to enable VPN.";
        }
        else
        {
            auto item = MakeWorkItem<EnableVpnItem>(L"CProductConfigurationPlg::_EnableVpn", this,
                                                    &CProductConfigurationPlg::_EnableVpn);
            // ClearResponseSink in Stop waits for this call before the serial
            // execution goes.
            if (ISerialExecution* serial = serialExecution.get())
                serial->Post(L"EnableVpn", nullptr, item.release(), 0, 0, 0);
        }
        _TryDoConfig(false);
    });
}

bool CProductConfigurationPlg::_IsProductConfiguredForMsp()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_IsProductConfiguredForMsp";
    TraceScope trace(kName);
    const wchar_t* productKey = productInfo->GetString(settings::ProductKey.number, settings::ProductKey.section);
    if (IsSettingMissingQuick(productKey))
        return false;
    std::error_code ec;
    const uint32_t value = get_dword_value(HKEY_LOCAL_MACHINE, productKey, kMspConfigured, ec);
    if (ec)
    {
        logger_stream(logging::LevelInfo, kName) << "get_dword_value failed, err:" << ec.value();
        return false;
    }
    logger_stream(logging::LevelInfo, kName) << "Key value: " << value;
    return value != 0;
}

void CProductConfigurationPlg::_ChangeMspFlagInRegistry(bool msp)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_ChangeMspFlagInRegistry";
    TraceScope trace(kName);
    const wchar_t* productKey = productInfo->GetString(settings::ProductKey.number, settings::ProductKey.section);
    if (IsSettingMissingQuick(productKey))
        return;
    LSTATUS result = ERROR_SUCCESS;
    if (msp)
    {
        const DWORD one = 1;
        result = RegSetKeyValueW(HKEY_LOCAL_MACHINE, productKey, kMspConfigured, REG_DWORD, &one, sizeof(one));
    }
    else
    {
        result = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey, kMspConfigured);
    }
    logger_stream(logging::LevelInfo, kName) << "result: " << result;
}

void CProductConfigurationPlg::_EnableVpn()
{
    TraceScope trace(L"CProductConfigurationPlg::_EnableVpn");
    appsManager.EnableVpn();
}
