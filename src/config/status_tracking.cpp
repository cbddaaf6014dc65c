// The status block: what a new subscription record leaves for the next run
// of ProductCfg.exe.
#include <windows.h>

#include "plugin/product_cfg_plugin.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/trace_scope.h"

void CProductConfigurationPlg::_RefreshSubscription(const SubscriptionData& data)
{
    TraceScope trace(L"CProductConfigurationPlg::_RefreshSubscription");
    logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_RefreshSubscription")
        << "ServerProductType = " << data.ServerProductType << ", ProductType = " << data.ProductType;
    {
        std::lock_guard<SrwMutex> lock(subscriptionMutex);
        storedSubscription = data;
    }
    wscHandler.UnregisterFirewallIfNeeded();
    _WriteServerProductType(data.ServerProductType);
    _WriteSurveyInfo(data);
    _SetConfigurationStatus();
    _SetCommercialStatus();
}

void CProductConfigurationPlg::_WriteServerProductType(int32_t type)
{
    TraceScope trace(L"CProductConfigurationPlg::_WriteServerProductType");
    const auto path = GetSubscriptionKeyPath(productInfo.get());
    if (!path)
        return;
    const DWORD value = static_cast<DWORD>(type);
    const LSTATUS status =
        RegSetKeyValueW(HKEY_USERS, path->c_str(), L"ServerProductType", REG_DWORD, &value, sizeof(value));
    if (status != ERROR_SUCCESS)
        logger_stream(logging::LevelError, L"CProductConfigurationPlg::_WriteServerProductType")
            << "Failed to write server product type: " << status;
}

void CProductConfigurationPlg::_SetConfigurationStatus()
{
    TraceScope trace(L"CProductConfigurationPlg::_SetConfigurationStatus");
    int32_t serverType = 0;
    int32_t localType = 0;
    {
        std::lock_guard<SrwMutex> lock(subscriptionMutex);
        serverType = storedSubscription.ServerProductType;
        localType = storedSubscription.ProductType;
    }
    std::lock_guard<SrwMutex> lock(statusMutex);
    if (serverType != 0)
        productCfgStatus.cfgStatus = serverType != localType ? 1 : 0;
    logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_SetConfigurationStatus")
        << "CfgStatus: " << productCfgStatus.cfgStatus;
}

void CProductConfigurationPlg::_SetCommercialStatus()
{
    TraceScope trace(L"CProductConfigurationPlg::_SetCommercialStatus");
    std::string commercialId;
    {
        std::lock_guard<SrwMutex> lock(subscriptionMutex);
        commercialId = FixedText(storedSubscription.CommercialId);
    }
    // commercialIdMutex of bootstrap is taken under statusMutex, never the
    // other way round.
    std::lock_guard<SrwMutex> lock(statusMutex);
    if (bootstrap.contactsEnabled)
    {
        if (commercialId.empty())
            productCfgStatus.comStatus = 0;
        else if (bootstrap.IsCommercialIdDifferent(commercialId))
            productCfgStatus.comStatus = 1;
    }
    logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_SetCommercialStatus")
        << "ComStatus: " << productCfgStatus.comStatus;
}
