// The configuration timer: what really starts ProductCfg.exe, after the
// delay, once a user is logged on and an earlier instance has ended, and then
// hourly.
#include <windows.h>

#include "config/active_session.h"
#include "launch/process_launch.h"
#include "launch/process_lookup.h"
#include "plugin/product_cfg_plugin.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
constexpr uint32_t kProductCfgPeriodMs = 3600000;
constexpr DWORD kProcessWaitMs = 60000;
} // namespace

uint32_t CProductConfigurationPlg::_GetDelay()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_GetDelay";
    TraceScope trace(kName);
    const wchar_t* productKey = productInfo->GetString(settings::ProductKey.number, settings::ProductKey.section);
    if (IsSettingMissing(productKey))
    {
        logger_stream(logging::LevelError, kName) << "String not found";
        return 0;
    }
    DWORD seconds = 0;
    DWORD size = sizeof(seconds);
    const LSTATUS status =
        RegGetValueW(HKEY_LOCAL_MACHINE, productKey, L"ProductCfgDelay", kDwordValueFlags, nullptr, &seconds, &size);
    if (status != ERROR_SUCCESS)
    {
        logger_stream(logging::LevelError, kName) << "get dword value failed, err: " << status;
        return 0;
    }
    logger_stream(logging::LevelInfo, kName) << "value is: " << seconds << "seconds";
    return static_cast<uint32_t>(seconds * 1000u);
}

void CProductConfigurationPlg::_StartProductCfgTimer()
{
    TraceScope trace(L"CProductConfigurationPlg::_StartProductCfgTimer");
    std::lock_guard<SrwMutex> lock(timerMutex);
    CancelAndDeleteTimer(productCfgTimer);
    auto item = MakeWorkItem<ProductCfgTimerItem>(L"CProductConfigurationPlg::_ProductCfgTimer", this,
                                                  &CProductConfigurationPlg::_ProductCfgTimer);
    eventQueue->SetTimer(L"_ProductCfgTimer", &productCfgTimer, productCfgDelayMs, kProductCfgPeriodMs, item.release(),
                         0, 0, 0);
}

void CProductConfigurationPlg::_ProductCfgTimer()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_ProductCfgTimer";
    TraceScope trace(kName);
    // Held across the cloud request of the commercial update too: a status
    // change waits for it.
    std::unique_lock<SrwMutex> status(statusMutex);

    if (productCfgStatus.comStatus == 1)
    {
        std::string commercialId;
        {
            std::lock_guard<SrwMutex> lock(subscriptionMutex);
            commercialId = FixedText(storedSubscription.CommercialId);
        }
        if (!commercialId.empty() && bootstrap.UpdateBootstrapData(commercialId))
        {
            // This runs as the timer's own item: cancel only. A busy
            // timerMutex means its holder is about to replace or delete it.
            std::unique_lock<SrwMutex> timer(timerMutex, std::try_to_lock);
            if (timer.owns_lock())
                eventQueue->CancelTimer(productCfgTimer);
            productCfgStatus.comStatus = 2;
        }
    }

    if (!IsOSUserLoggedIn()())
    {
        logger_stream(logging::LevelInfo, kName) << "User not logged in";
        return;
    }
    const std::optional<std::wstring> parameters = _ConvertStatusToParams();
    if (!parameters)
    {
        logger_stream(logging::LevelInfo, kName) << "Config not needed";
        return;
    }
    status.unlock();

    if (_WaitIfProcessIsRunning() == 1)
    {
        logger_stream(logging::LevelInfo, kName) << "Receive stop event";
        return;
    }
    logger_stream(logging::LevelInfo, kName) << "Restarting ProductCfg.exe with parameters: " << *parameters;
    const DWORD session = ResolveActiveSession(productInfo.get());
    const uint32_t result = _ExecuteProcessInSession(session, true, parameters->c_str());
    if (result != 0)
        logger_stream(logging::LevelError, kName) << "Failed to create process, err: " << static_cast<int32_t>(result);
}

std::optional<std::wstring> CProductConfigurationPlg::_ConvertStatusToParams()
{
    TraceScope trace(L"CProductConfigurationPlg::_ConvertStatusToParams");
    return ConvertStatusToParams(productCfgStatus);
}

uint32_t CProductConfigurationPlg::_WaitIfProcessIsRunning()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_WaitIfProcessIsRunning";
    TraceScope trace(kName);

    std::error_code ec;
    const auto subscriptionKey = GetSubscriptionKeyPath(productInfo.get());
    get_string_value(HKEY_USERS, subscriptionKey.value_or(std::wstring()), L"switch_context", ec);
    if (!ec)
    {
        logger_stream(logging::LevelInfo, kName) << "Switch context in progress";
        return 0;
    }

    const std::wstring directory = GetModuleDirectory(nullptr, ec);
    if (ec)
    {
        logger_stream(logging::LevelError, kName) << "Failed to get process path, err=" << ec.value();
        return ERROR_GEN_FAILURE;
    }
    DWORD pid = 0;
    if (GetProcessPid(L"productcfg.exe", pid, directory) != 0)
    {
        logger_stream(logging::LevelError, kName) << "Could not get pid for productcfg.exe";
        return ERROR_GEN_FAILURE;
    }
    const UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
    if (!process)
    {
        const DWORD error = GetLastError(); // before the stream, which calls into the logging library
        logger_stream(logging::LevelError, kName)
            << "Could not open process = productcfg.exe with pid = " << pid << ". Error = " << error;
        return ERROR_GEN_FAILURE;
    }
    logger_stream(logging::LevelInfo, kName) << "Waiting for productcfg.exe process to close...";

    // Stop closes stopEvent while timer items may still run: wait on a
    // duplicate of our own, which stays valid and is set all the same.
    UniqueHandle stop;
    {
        std::lock_guard<SrwMutex> lock(stopEventMutex);
        HANDLE duplicate = nullptr;
        if (stopEvent && DuplicateHandle(GetCurrentProcess(), stopEvent.get(), GetCurrentProcess(), &duplicate,
                                         SYNCHRONIZE, FALSE, 0))
            stop.reset(duplicate);
    }
    if (!stop)
        return 1; // stopped already: the item is about to be cancelled
    const HANDLE handles[] = {process.get(), stop.get()};
    return WaitForMultipleObjects(2, handles, FALSE, kProcessWaitMs);
}

uint32_t CProductConfigurationPlg::_ExecuteProcessInSession(uint32_t dwSessionId, bool bSystem,
                                                            const wchar_t* parameters)
{
    // ExecuteProcessInSession opens the trace scope and logs under this
    // member's name.
    return ExecuteProcessInSession(dwSessionId, bSystem, parameters);
}
