#include "apps/apps_manager.h"

#include <windows.h>

#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kDefaultAppBase[] = L"com.quillmarten";
constexpr wchar_t kDefaultAboutKey[] = L"SOFTWARE\\QuillMarten\\About";
} // namespace

CAppsManager::CAppsManager()
{
    logRef.Acquire();
}

uint32_t CAppsManager::Init(IProductCfgInternal* productCfg, IComponentManager* manager)
{
    constexpr wchar_t kName[] = L"CAppsManager::Init";
    TraceScope trace(kName);
    internal = productCfg;
    Status status = 0;
    servConfig = ComponentHolder<IServConfig>::Acquire(manager, L"productinfo", ids::ServConfig, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "ServConfig, err: " << status;
        return status;
    }
    productAgent = ComponentHolder<IProductAgentCommClient>::Acquire(manager, L"productagentcommclient",
                                                                     ids::ProductAgentCommClient, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "Product Agent, err: " << status;
        UnInit();
        return status;
    }
    return 0;
}

void CAppsManager::UnInit()
{
    TraceScope trace(L"CAppsManager::UnInit");
    productAgent.Reset();
    servConfig.Reset();
}

void CAppsManager::CheckApps()
{
    TraceScope trace(L"CAppsManager::CheckApps");
    _CheckParentalControl(L".familymentor");
    _CheckParentalControl(L".kinguard");
    _CheckVPN();
}

std::wstring CAppsManager::_GetAppId(const std::wstring& suffix)
{
    TraceScope trace(L"CAppsManager::_GetAppId");
    const wchar_t* productId = servConfig->GetString(settings::ProductId.number, settings::ProductId.section);
    // A null setting counts as missing, like "<error-not-found>".
    if (IsSettingMissing(productId))
        return kDefaultAppBase + suffix;
    const std::wstring id = productId;
    const size_t dot = id.rfind(L'.');
    if (id.empty() || dot == std::wstring::npos)
        return kDefaultAppBase + suffix;
    return id.substr(0, dot) + suffix;
}

bool CAppsManager::_IsAvFreeBootstrap()
{
    TraceScope trace(L"CAppsManager::_IsAvFreeBootstrap");
    const wchar_t* key = servConfig->GetString(settings::AboutKey.number, settings::AboutKey.section);
    std::error_code ec;
    const uint32_t value =
        get_dword_value(HKEY_LOCAL_MACHINE, IsSettingMissing(key) ? kDefaultAboutKey : key, L"IsFreeApp", ec);
    return !ec && value != 0;
}
