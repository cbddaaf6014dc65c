// The entry points of msvc_host.dll (see msvc_host_api.h). Counters that
// tests read, by name:
//   handed:<item>, run:<item>, release:<item>   items handed over, run, released
//   release.twice:<item>, release.left:<item>   released again (not done), released at the end
//   run.unknown, release.unknown                 items the host never received
//   component.get:<name>, component.release:<name>, component.wrong_id:<name>
//   subscribe.*, unsubscribe.*, observer.*, response.*, serial.*, timer.*
//   list.exercised, list.failures                the plugin's list, checked in GetSubscription
//   module.handed, module.state, module.release   module objects of GetModuleInfo
//   SetConnectAppState.on:<id>, SetConnectAppState.off:<id>, cloud.request_ok, cloud.request_bad,
//   cloud.body_written, cloud.body_grown, cloud.body_fault
//   plugin.query_interface.failures               QueryInterface answers that differ from the contract
#include "simhost/msvc/msvc_host_api.h"

#include "host/plugin.h"
#include "host/subscription_record.h"
#include "simhost/msvc/host_list.h"
#include "simhost/msvc/host_objects.h"
#include "simhost/msvc/list_check.h"

#if defined(__clang__)
#pragma clang diagnostic ignored "-Winvalid-offsetof"
#endif

#define MSVC_HOST_EXPORT extern "C" __declspec(dllexport)

namespace
{
using CreateObjectFunction = Status (*)(const wchar_t* name, const InterfaceId& id, void** out);
using DestroyObjectFunction = void (*)(const wchar_t* name, void* object);

constexpr const wchar_t* kPluginName = L"productconfigplg";

// A record as the service builds it: the shared fields and a list of its own.
struct HostRecord : SubscriptionFields
{
    msvc::HostList<SubscriptionFeatures> Features;
};
static_assert(__builtin_offsetof(HostRecord, Features) == kSubscriptionFeaturesOffset, "record layout");
static_assert(sizeof(HostRecord) == kSubscriptionDataSize, "record layout");

struct Host
{
    msvc::ServMain main;
    void* module = nullptr;
    CreateObjectFunction create = nullptr;
    DestroyObjectFunction destroy = nullptr;
    IServPlugin* plugin = nullptr;
    char sessionInfo[16] = {};
};

Host* host = nullptr;

void CheckQueryInterface(IServPlugin* plugin)
{
    const InterfaceId mixed{ids::ServPluginA.first, ids::ServPluginB.second};
    if (plugin->QueryInterface(ids::ServPluginA) != plugin || plugin->QueryInterface(ids::ServPluginB) != plugin)
        msvc::Count("plugin.query_interface.failures");
    if (plugin->QueryInterface(mixed) != nullptr || plugin->QueryInterface(ids::ServConfig) != nullptr)
        msvc::Count("plugin.query_interface.failures");
}
} // namespace

MSVC_HOST_EXPORT void MsvcHost_SetSetting(uint32_t number, const wchar_t* section, const wchar_t* value)
{
    msvc::SharedSettings().Set(number, section, value);
}

MSVC_HOST_EXPORT uint32_t MsvcHost_Create(const wchar_t* pluginPath)
{
    host = new Host;
    host->module = LoadLibraryW(pluginPath);
    if (host->module == nullptr)
        return 126;
    host->create = reinterpret_cast<CreateObjectFunction>(GetProcAddress(host->module, "QmCreateObject"));
    host->destroy = reinterpret_cast<DestroyObjectFunction>(GetProcAddress(host->module, "QmDestroyObject"));
    if (host->create == nullptr || host->destroy == nullptr)
        return 127;
    void* object = nullptr;
    const Status status = host->create(kPluginName, ids::ServPluginA, &object);
    msvc::Journal("QmCreateObject", nullptr, status);
    if (status != 0)
        return status;
    host->plugin = static_cast<IServPlugin*>(object);
    CheckQueryInterface(host->plugin);
    return 0;
}

MSVC_HOST_EXPORT uint32_t MsvcHost_Init(void)
{
    return host->plugin->Init(&host->main);
}

MSVC_HOST_EXPORT uint32_t MsvcHost_Start(void)
{
    return host->plugin->Start();
}

MSVC_HOST_EXPORT int MsvcHost_RunSerial(void)
{
    int ran = 0;
    while (EqWorkItem* item = host->main.events.serial.Next())
    {
        msvc::Items().Run(item);
        msvc::Items().Release(item);
        ++ran;
    }
    return ran;
}

MSVC_HOST_EXPORT void MsvcHost_ReportServiceLoaded(void)
{
    if (IServiceStatusObserver* observer = host->main.components.serviceStatus.observer)
        observer->OnServiceStatusChanged(0, 1);
}

MSVC_HOST_EXPORT void MsvcHost_DeliverSubscription(const char* accountId, int32_t serverProductType,
                                                    const char* bundleId, const char* commercialId,
                                                    const int32_t* features, int count)
{
    ISubscriptionEvents* sink = host->main.components.subscription.sink;
    if (sink == nullptr)
        return;
    HostRecord* record = new HostRecord;
    record->ProductType = 3;
    record->ServerProductType = serverProductType;
    record->Valid = true;
    msvc::CopyText(record->AccountId, kSubscriptionTextChars, accountId);
    msvc::CopyText(record->BundleId, kSubscriptionTextChars, bundleId);
    msvc::CopyText(record->CommercialId, kSubscriptionTextChars, commercialId);
    for (int i = 0; i < count; ++i)
        record->Features.Append(static_cast<SubscriptionFeatures>(features[i]));
    sink->OnSubscriptionStatusChanged(reinterpret_cast<const SubscriptionData*>(record));
    // The record is the caller's: the plugin kept a copy, so scribbling over
    // this one changes nothing it sees.
    record->Features.Clear();
    record->ServerProductType = -1;
    delete record;
}

MSVC_HOST_EXPORT void MsvcHost_DeliverSessionChange(uint32_t event, int withInfo)
{
    if (ISessionChangeEvents* sink = host->main.components.session.sink)
        sink->OnSessionChange(1234, event, withInfo ? host->sessionInfo : nullptr);
}

MSVC_HOST_EXPORT void MsvcHost_DeliverUserInfoChanged(void)
{
    if (IProductAgentEvents* sink = host->main.components.agent.sink)
        sink->OnUserInfoChanged();
}

MSVC_HOST_EXPORT void MsvcHost_AnswerUserInfo(const wchar_t* level, const wchar_t* text)
{
    IProductAgentResponse* sink = host->main.components.agent.async.sink;
    if (sink == nullptr)
        return;
    msvc::UserInfo info;
    msvc::CopyText(info.level, 64, level);
    msvc::CopyText(info.text, 64, text);
    sink->OnGetUserInfoExAsync(&info);
}

MSVC_HOST_EXPORT int MsvcHost_FireTimer(const wchar_t* name)
{
    EqWorkItem* item = host->main.events.LiveTimer(name);
    if (item == nullptr)
        return 0;
    msvc::Items().Run(item);
    return 1;
}

MSVC_HOST_EXPORT void MsvcHost_Stop(void)
{
    host->plugin->Stop();
}

MSVC_HOST_EXPORT void MsvcHost_UnInit(void)
{
    host->plugin->UnInit();
}

MSVC_HOST_EXPORT void MsvcHost_Destroy(void)
{
    if (host->plugin != nullptr)
        host->destroy(kPluginName, host->plugin);
    host->plugin = nullptr;
    // Whatever the plugin left with the host is released while its code is
    // still loaded, and counted.
    host->main.events.DeleteAll();
    while (EqWorkItem* item = host->main.events.serial.Next())
        msvc::Items().Release(item);
    msvc::Items().ReleaseAll();
    if (host->module != nullptr)
        FreeLibrary(host->module);
    delete host;
    host = nullptr;
}

MSVC_HOST_EXPORT int MsvcHost_Count(const char* name)
{
    return msvc::CountOf(name);
}

MSVC_HOST_EXPORT const char* MsvcHost_Journal(void)
{
    return msvc::JournalText();
}

MSVC_HOST_EXPORT int MsvcHost_ExerciseList(void* list)
{
    return msvc::ExerciseList(*static_cast<qm::IList<SubscriptionFeatures>*>(list));
}

MSVC_HOST_EXPORT void MsvcHost_RunAndRelease(void* item)
{
    auto* workItem = static_cast<EqWorkItem*>(item);
    workItem->Run();
    workItem->Release();
}

MSVC_HOST_EXPORT void MsvcHost_DeleteItem(void* item)
{
    delete static_cast<EqWorkItem*>(item);
}

MSVC_HOST_EXPORT void* MsvcHost_MakeRecord(const char* bundleId, const int32_t* features, int count)
{
    HostRecord* record = new HostRecord;
    msvc::CopyText(record->BundleId, kSubscriptionTextChars, bundleId);
    for (int i = 0; i < count; ++i)
        record->Features.Append(static_cast<SubscriptionFeatures>(features[i]));
    return record;
}

MSVC_HOST_EXPORT void MsvcHost_FreeRecord(void* record)
{
    delete static_cast<HostRecord*>(record);
}

MSVC_HOST_EXPORT void* MsvcHost_CloudClient(void)
{
    return static_cast<IConnectIntegrator*>(&msvc::SharedCloudClient());
}

MSVC_HOST_EXPORT void MsvcHost_SetCloudAnswer(const char* body)
{
    msvc::CloudClient& client = msvc::SharedCloudClient();
    msvc::CopyText(client.answer, sizeof(client.answer), body);
    client.answers = true;
}
