// A user's logon re-arms the configuration timer; and the view of the plugin
// object that the apps manager reads.
#include <windows.h>

#include "plugin/product_cfg_plugin.h"
#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
constexpr uint32_t kSessionLogon = 5; // WTS_SESSION_LOGON
}

void CProductConfigurationPlg::OnSessionChange(uint32_t time, uint32_t event, void* info)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::OnSessionChange";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        logger_stream(logging::LevelInfo, kName) << "time=" << time << " event=" << event;
        if (event != kSessionLogon || info == nullptr)
            return;
        // The timer is armed whatever the status block says; the serial
        // execution puts the arming in order with the subscription's items.
        auto item = MakeWorkItem<PlainTask>(L"CProductConfigurationPlg::_StartProductCfgTimer",
                                            &CProductConfigurationPlg::_StartProductCfgTimer, this);
        ISerialExecution* serial = serialExecution.get();
        if (serial == nullptr)
            return; // stopped: the item is freed here
        serial->Post(L"Async_StartProductCfgTimer", nullptr, item.release(), 0, 0, 0);
    });
}

std::string CProductConfigurationPlg::GetBundleId()
{
    std::lock_guard<SrwMutex> lock(subscriptionMutex);
    return FixedText(storedSubscription.BundleId);
}

int32_t CProductConfigurationPlg::GetServerProductType()
{
    std::lock_guard<SrwMutex> lock(subscriptionMutex);
    return storedSubscription.ServerProductType;
}

bool CProductConfigurationPlg::IsMsp()
{
    return isMsp.load();
}
