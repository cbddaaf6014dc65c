// The road of a subscription record: the quick part on the host's thread, the
// hand-over to the serial execution, and what follows there.
#include <windows.h>

#include "plugin/product_cfg_plugin.h"
#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

void CProductConfigurationPlg::OnSubscriptionStatusChanged(const SubscriptionData* data)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::OnSubscriptionStatusChanged";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        if (data == nullptr)
            return;

        if (const auto path = GetSubscriptionKeyPath(productInfo.get()))
        {
            DWORD gsShowed = 0;
            DWORD size = sizeof(gsShowed);
            const LSTATUS read =
                RegGetValueW(HKEY_USERS, path->c_str(), L"GsShowed", kDwordValueFlags, nullptr, &gsShowed, &size);
            if (read == ERROR_FILE_NOT_FOUND)
                logger_stream(logging::LevelInfo, kName) << "No gs showed in registry";
        }

        if (data->ServerProductType == 0)
        {
            logger_stream(logging::LevelWarning, kName) << "Product type unknown";
            _WriteSurveyInfo(*data);
            if (data->StatusCode == 0)
                return;
        }

        // The record belongs to the caller: the item carries a copy of its own.
        auto item = MakeWorkItem<SubscriptionTask>(L"CProductConfigurationPlg::_OnSubscriptionChanged",
                                                   &CProductConfigurationPlg::_OnSubscriptionChanged, this, *data, false);
        ISerialExecution* serial = serialExecution.get();
        if (serial == nullptr)
            return; // stopped: the item is freed here
        serial->Post(L"_OnSubscriptionChanged", nullptr, item.release(), 0, 0, 0);
    });
}

void CProductConfigurationPlg::_OnSubscriptionChanged(SubscriptionData data, bool firstLoad)
{
    TraceScope trace(L"CProductConfigurationPlg::_OnSubscriptionChanged");
    _RefreshSubscription(data);
    SubscriptionData copy = data;
    if (_IsAfterAccountLogin(copy))
        _ScheduleAppsCheck();
    _TryDoConfig(firstLoad);
}

bool CProductConfigurationPlg::_IsAfterAccountLogin(SubscriptionData data)
{
    TraceScope trace(L"CProductConfigurationPlg::_IsAfterAccountLogin");
    std::lock_guard<SrwMutex> lock(subscriptionMutex);
    return data.AccountId[0] != '\0' && storedSubscription.AccountId[0] != '\0';
}

void CProductConfigurationPlg::_ScheduleAppsCheck()
{
    TraceScope trace(L"CProductConfigurationPlg::_ScheduleAppsCheck");
    CancelAndDeleteTimer(appsCheckTimer);
    auto item = MakeWorkItem<AppsCheckItem>(L"CAppsManager::CheckApps", &appsManager, &CAppsManager::CheckApps);
    const Status status =
        eventQueue->SetTimer(L"apps_check", &appsCheckTimer, 120000, kNoRepeat, item.release(), 0, 0, 0);
    logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_ScheduleAppsCheck")
        << "Set timer: " << static_cast<int32_t>(status);
}
