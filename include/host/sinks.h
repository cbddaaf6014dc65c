// Interfaces the plugin implements and registers with the host's clients.
// Operations the plugin does not use keep their place as Unused* with an
// empty body in the plugin.
#pragma once

#include "host/abi.h"
#include "host/types.h"

class IUserInfo;

class IServiceStatusObserver
{
public:
    virtual void OnServiceStatusChanged(uint32_t service, uint32_t status) = 0;
};

class ISubscriptionEvents
{
public:
    // data belongs to the caller and is not kept.
    virtual void OnSubscriptionStatusChanged(const SubscriptionData* data) = 0;
};

class ISessionChangeEvents
{
    QM_DESTRUCTOR_SLOT(ISessionChangeEvents)

public:
    virtual void OnSessionChange(uint32_t time, uint32_t event, void* info) = 0;
};

class IProductAgentEvents
{
public:
    virtual void OnUserInfoChanged() = 0;
    virtual void Unused1() = 0;
};

class IProductAgentResponse
{
public:
    virtual void Unused1() = 0;
    virtual void Unused2() = 0;
    virtual void Unused3() = 0;
    // info is borrowed for the length of the call.
    virtual void OnGetUserInfoExAsync(IUserInfo* info) = 0;
    virtual void Unused4() = 0;
};
