// CBootstrap's life and its commercial identifier: which identifier the
// stored data belong to, whether a new one differs, and the update that
// fetches the new data and rewrites the file.
#include "bootstrap/bootstrap.h"
#include "bootstrap/json_parse.h"

#include <windows.h>

#include "host/interface_id.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
// The component manager of servMain, asked anew for each component.
IComponentManager* ManagerOf(IServMain* servMain)
{
    return servMain != nullptr ? servMain->GetComponentManager() : nullptr;
}

template <class T>
ComponentHolder<T> AcquireFrom(IServMain* servMain, const wchar_t* name, const InterfaceId& id, Status& status)
{
    IComponentManager* manager = ManagerOf(servMain);
    if (manager == nullptr)
    {
        status = ERROR_GEN_FAILURE;
        return ComponentHolder<T>();
    }
    return ComponentHolder<T>::Acquire(manager, name, id, status);
}
} // namespace

CBootstrap::CBootstrap()
{
    logRef.Acquire();
}

Status CBootstrap::Init(IServMain* servMain)
{
    constexpr wchar_t kName[] = L"CBootstrap::Init";
    TraceScope trace(kName);
    Status status = 0;
    servConfig = AcquireFrom<IServConfig>(servMain, L"productinfo", ids::ServConfig, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "Serv config, err: " << status;
        return status;
    }
    cloudClient = AcquireFrom<IConnectIntegrator>(servMain, L"connect_integrator", ids::ConnectIntegrator, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kName) << "Cloud init failed, err: " << status;
        UnInit();
        return status;
    }
    _ReadContactsEnabled();
    _InitCommercialId();
    return 0;
}

void CBootstrap::UnInit()
{
    TraceScope trace(L"CBootstrap::UnInit");
    cloudClient.Reset();
    servConfig.Reset();
}

void CBootstrap::_ReadContactsEnabled()
{
    TraceScope trace(L"CBootstrap::_ReadContactsEnabled");
    const auto path = GetSubscriptionKeyPath(servConfig.get());
    if (!path)
        return;
    DWORD value = 0;
    DWORD size = sizeof(value);
    const LSTATUS status =
        RegGetValueW(HKEY_USERS, path->c_str(), L"Commercial_Details", kDwordValueFlags, nullptr, &value, &size);
    if (status == ERROR_SUCCESS && value == 0)
        contactsEnabled = false;
}

void CBootstrap::_InitCommercialId()
{
    constexpr wchar_t kName[] = L"CBootstrap::_InitCommercialId";
    TraceScope trace(kName);
    const std::optional<picojson::value> data = _GetBootstrapData();
    if (!data)
    {
        logger_stream(logging::LevelError, kName) << "Get bootstrap data failed";
        return;
    }
    const picojson::value& appData = data->get("app_data");
    if (!appData.is<picojson::object>())
    {
        logger_stream(logging::LevelError, kName) << "No app_data";
        return;
    }
    const picojson::value& id = appData.get("commercial_details_id");
    if (!id.is<std::string>())
    {
        logger_stream(logging::LevelError, kName) << "No commercial_details_id in app_data";
        return;
    }
    // Init runs before any event can arrive: nobody else reads it yet.
    commercialId = id.get<std::string>();
    logger_stream(logging::LevelInfo, kName) << "old commid: " << commercialId;
}

bool CBootstrap::IsCommercialIdDifferent(const std::string& commid)
{
    constexpr wchar_t kName[] = L"CBootstrap::IsCommercialIdDifferent";
    TraceScope trace(kName);
    if (commid.empty())
    {
        logger_stream(logging::LevelError, kName) << "commid empty";
        return false;
    }
    logger_stream(logging::LevelInfo, kName) << "commid: " << commid;
    std::lock_guard<SrwMutex> lock(commercialIdMutex);
    return commid != commercialId;
}

bool CBootstrap::UpdateBootstrapData(const std::string& commid)
{
    TraceScope trace(L"CBootstrap::UpdateBootstrapData");
    // The cloud first: a file that cannot be read or written does not keep
    // the request from being made.
    const std::optional<std::string> reply = _GetCloudData(commid);
    if (!reply)
        return false;

    std::optional<picojson::value> data = _GetBootstrapData();
    picojson::value document = data ? std::move(*data) : picojson::value(picojson::object());
    picojson::object& top = document.get<picojson::object>();
    if (!top["app_data"].is<picojson::object>())
        top["app_data"] = picojson::value(picojson::object());
    top["app_data"].get<picojson::object>()["commercial_details_id"] = picojson::value(commid);

    // Validated before anything is written; an empty reply is a syntax error.
    picojson::value commercialData;
    if (!ParseJson(*reply, commercialData).empty() || !commercialData.is<picojson::object>())
        return false;
    top["commercial_data"] = std::move(commercialData);

    if (!_SaveBootstrapData(document.serialize()))
        return false;
    std::lock_guard<SrwMutex> lock(commercialIdMutex);
    commercialId = commid;
    return true;
}
