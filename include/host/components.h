// The host components the plugin asks for by name, and the host objects they
// hand out. Operations the plugin never calls keep their place as Reserved*.
#pragma once

#include "host/abi.h"
#include "host/plugin.h"
#include "host/types.h"

class ISubscriptionEvents;
class ISessionChangeEvents;
class IServiceStatusObserver;
class IProductAgentEvents;
class IProductAgentResponse;

// "productinfo": numbered product settings.
class IServConfig
{
public:
    virtual void Reserved1() = 0;
    // The text belongs to the component. A missing setting is null or
    // "<error-not-found>".
    virtual const wchar_t* GetString(uint32_t number, const wchar_t* section) = 0;
};

// "SubscriptionCommClient".
class ISubscriptionCommClient
{
public:
    virtual void Reserved1() = 0;
    virtual Status Subscribe(ISubscriptionEvents* sink) = 0;
    virtual Status Unsubscribe(ISubscriptionEvents* sink) = 0;
    virtual Status GetSubscription(SubscriptionData* data) = 0;
};

// "sessionchange".
class ISessionChangeClient
{
public:
    virtual void Reserved1() = 0;
    virtual Status Subscribe(ISessionChangeEvents* sink) = 0;
    virtual Status Unsubscribe(ISessionChangeEvents* sink) = 0;
};

// "QmServiceStatusClient".
class IServiceStatusClient
{
public:
    virtual void Reserved1() = 0;
    virtual Status AddObserver(IServiceStatusObserver* observer) = 0;
    virtual Status RemoveObserver(IServiceStatusObserver* observer) = 0;
    // 1 when the service (0: the host service) has finished loading.
    virtual uint32_t GetStatus(uint32_t service) = 0;
};

// What GetModuleInfo hands out; the caller gives it back with Release.
class IModuleInfo
{
public:
    virtual void Reserved1() = 0;
    virtual void Release() = 0;
    virtual void Reserved2() = 0;
    // 1 means switched off; every other value counts as switched on.
    virtual uint32_t GetConnectAppState() = 0;
};

// "productagentcommclient".
class IProductAgentCommClient : public IQmBaseInterface
{
public:
    virtual void Reserved1() = 0;
    virtual Status GetModuleInfo(const wchar_t* appId, IModuleInfo** out) = 0;
    virtual void Reserved2() = 0;
    virtual Status SetConnectAppState(const wchar_t* appId, bool on) = 0;
    virtual Status Subscribe(IProductAgentEvents* sink) = 0;
    virtual Status Unsubscribe(IProductAgentEvents* sink) = 0;
};

// Asked of "productagentcommclient" by QueryInterface.
class IProductAgentCommClientAsync
{
public:
    virtual void Reserved1() = 0;
    // The answer arrives later at IProductAgentResponse::OnGetUserInfoExAsync.
    virtual Status GetUserInfoExAsync() = 0;
    virtual void Reserved2() = 0;
    virtual Status SetResponseSink(IProductAgentResponse* sink) = 0;
    virtual Status ClearResponseSink(IProductAgentResponse* sink) = 0;
};

// The user information that OnGetUserInfoExAsync lends the plugin.
class IUserInfo
{
public:
    virtual void Reserved1() = 0;
    virtual const wchar_t* GetOrganizationText() = 0;
    virtual void Reserved2() = 0;
    virtual const wchar_t* GetOrganizationLevel() = 0;
};

// "connect_integrator": the host's cloud client.
class IConnectIntegrator
{
public:
    virtual void Reserved1() = 0;
    virtual void Reserved2() = 0;
    // Blocks until the reply is there or the request has failed. Returns the
    // status record by value, through the host's hidden result pointer.
    QM_RECORD_RESULT(CloudStatus, PerformRequest,
                     (CloudRequest & request, CloudResponse & response, uint32_t flag), (request, response, flag))
};
