// Every interface that crosses between the host and the plugin, used once so
// that the compiler lays out its table; compiled only to dump those layouts
// (see vtable_check.sh), never linked.
#include "host/components.h"
#include "host/counted_string_layout.h"
#include "host/eq_work_item.h"
#include "host/list.h"
#include "host/plugin.h"
#include "host/services.h"
#include "host/sinks.h"
#include "host/subscription_record.h"

using Features = SubscriptionFeatures;

void LayOutTables(IServMain* servMain, IComponentManager* manager, IEventQueue* queue, ISerialExecution* serial,
                  IServConfig* config, ISubscriptionCommClient* subscription, ISessionChangeClient* session,
                  IServiceStatusClient* status, IProductAgentCommClient* agent, IProductAgentCommClientAsync* async,
                  IUserInfo* user, IModuleInfo* module, IConnectIntegrator* cloud, IServPlugin* plugin,
                  IServiceStatusObserver* observer, ISubscriptionEvents* events, ISessionChangeEvents* sessionEvents,
                  IProductAgentEvents* agentEvents, IProductAgentResponse* response, EqWorkItem* item,
                  qm::IList<Features>* list, qm::IListEnum<Features>* enumerator,
                  qm::IConstListEnum<Features>* constEnumerator, CloudRequest* request, CloudResponse* reply,
                  qm::IMemMgr* memory)
{
    // A base first: its own slots are listed only when it is laid out before
    // the interfaces derived from it.
    static_cast<IQmBaseInterface*>(plugin)->QueryInterface(InterfaceId{0, 0});
    servMain->GetEventQueue();
    manager->ReleaseComponent(nullptr);
    queue->DeleteTimer(0);
    serial->Post(nullptr, nullptr, nullptr, 0, 0, 0);
    config->GetString(0, nullptr);
    subscription->GetSubscription(nullptr);
    session->Subscribe(nullptr);
    status->GetStatus(0);
    agent->Subscribe(nullptr);
    async->GetUserInfoExAsync();
    user->GetOrganizationLevel();
    module->GetConnectAppState();
    CloudStatus result = cloud->PerformRequest(*request, *reply, 1);
    (void)result;
    plugin->Stop();
    observer->OnServiceStatusChanged(0, 0);
    events->OnSubscriptionStatusChanged(nullptr);
    sessionEvents->OnSessionChange(0, 0, nullptr);
    agentEvents->OnUserInfoChanged();
    response->OnGetUserInfoExAsync(nullptr);
    item->Run();
    list->Count();
    enumerator->Next();
    constEnumerator->Next();
    memory->Release();
}
