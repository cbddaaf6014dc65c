// Whether a run of ProductCfg.exe is due: after a running installer has
// ended, and when the status block asks for one.
#include <windows.h>

#include "plugin/product_cfg_plugin.h"
#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

void CProductConfigurationPlg::_TryDoConfig(bool firstLoad)
{
    TraceScope trace(L"CProductConfigurationPlg::_TryDoConfig");
    if (!firstLoad)
    {
        // While waitThread waits for the installer it decides after it.
        if (!installerPending)
            _DoConfig();
        return;
    }
    HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, kInstallDoneEventName);
    installDoneEvent.reset(event);
    if (event == nullptr)
    {
        _DoConfig();
        return;
    }
    installerPending = true;
    try
    {
        waitThread = std::thread(&CProductConfigurationPlg::_WaitThreadEntry, this);
    }
    catch (const std::exception& error)
    {
        // No thread (std::system_error) or no memory for one: as if the wait
        // had failed, the decision is made now.
        logger_stream(logging::LevelError, L"CProductConfigurationPlg::_TryDoConfig")
            << "Cannot start the wait thread: " << error.what();
        _DoConfigAfterInstaller();
    }
}

void CProductConfigurationPlg::_WaitThreadEntry()
{
    CallAtBoundary(L"CProductConfigurationPlg::_WaitForEventsAndConfig", [this] { _WaitForEventsAndConfig(); });
}

void CProductConfigurationPlg::_WaitForEventsAndConfig()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_WaitForEventsAndConfig";
    TraceScope trace(kName);
    logger_stream(logging::LevelInfo, kName) << "Start waiting after installer";
    if (!installDoneEvent)
        return;
    const HANDLE events[] = {installDoneEvent.get(), stopEvent.get()};
    const DWORD result = WaitForMultipleObjects(2, events, FALSE, INFINITE);
    if (result == WAIT_OBJECT_0 + 1)
    {
        logger_stream(logging::LevelInfo, kName) << "Receive stop event";
        return; // Stop closes the installer's event
    }
    _DoConfigAfterInstaller();
}

void CProductConfigurationPlg::_DoConfigAfterInstaller()
{
    // Whether _DoConfig returns or its decision is lost to an exception, the
    // wait is over: from here on _TryDoConfig decides for itself again.
    struct WaitOver
    {
        CProductConfigurationPlg& plugin;
        ~WaitOver()
        {
            plugin.installDoneEvent.reset();
            plugin.installerPending = false;
        }
    } waitOver{*this};
    _DoConfig();
}

void CProductConfigurationPlg::_DoConfig()
{
    TraceScope trace(L"CProductConfigurationPlg::_DoConfig");
    const bool seccenterAllowed = _IsSeccenterAllowedWhenNoAccount();
    ProductCfgStatus snapshot;
    {
        std::lock_guard<SrwMutex> lock(statusMutex);
        productCfgStatus.seccenterAllowed = seccenterAllowed;
        logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_DoConfig")
            << "cfgStatus = " << productCfgStatus.cfgStatus << "; " << "comStatus = " << productCfgStatus.comStatus;
        snapshot = productCfgStatus;
    }
    // statusMutex is free again: a running timer item may hold it while it
    // tries timerMutex, which _StartProductCfgTimer holds.
    if (IsConfigRunDue(snapshot))
        _StartProductCfgTimer();
}

bool CProductConfigurationPlg::_IsSeccenterAllowedWhenNoAccount()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_IsSeccenterAllowedWhenNoAccount";
    {
        std::lock_guard<SrwMutex> lock(subscriptionMutex);
        if (storedSubscription.AccountId[0] == '\0')
        {
            // Without an account the seccenter is granted once: the marker
            // records that it was.
            const wchar_t* productKey = productInfo->GetString(settings::ProductKey.number, settings::ProductKey.section);
            if (IsSettingMissingQuick(productKey))
                return false;
            std::error_code ec;
            get_dword_value(HKEY_LOCAL_MACHINE, productKey, L"product_config_first_run", ec);
            if (!ec)
                return false;
            logger_stream(logging::LevelInfo, kName) << "get_dword_value failed, err:" << ec.value();
            const DWORD marker = 1;
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, productKey, L"product_config_first_run", REG_DWORD, &marker,
                            sizeof(marker));
        }
    }

    if (const auto subscriptionKey = GetSubscriptionKeyPath(productInfo.get()))
    {
        DWORD gsShowed = 0;
        DWORD size = sizeof(gsShowed);
        if (RegGetValueW(HKEY_USERS, subscriptionKey->c_str(), L"GsShowed", kDwordValueFlags, nullptr, &gsShowed,
                         &size) == ERROR_FILE_NOT_FOUND)
            return true;
    }

    const auto onboardingKey = GetOnboardingKeyPath(productInfo.get());
    if (!onboardingKey)
        return false;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, onboardingKey->c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}
