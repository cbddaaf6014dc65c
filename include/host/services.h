// The host's service objects: ServMain, the component manager, the event
// queue and its serial execution objects. Operations the plugin never calls
// keep their place in each table as Reserved*.
#pragma once

#include "host/interface_id.h"
#include "host/types.h"

class EqWorkItem;
class IComponentManager;
class IEventQueue;
class ISerialExecution;

class IServMain
{
public:
    virtual void Reserved1() = 0;
    virtual IComponentManager* GetComponentManager() = 0;
    virtual void Reserved2() = 0;
    virtual IEventQueue* GetEventQueue() = 0;
};

class IComponentManager
{
public:
    // On status 0, *out holds the component until ReleaseComponent(name).
    virtual Status GetComponent(const wchar_t* name, const InterfaceId& id, void** out) = 0;
    virtual Status ReleaseComponent(const wchar_t* name) = 0;
};

class IEventQueue
{
public:
    virtual void Reserved1() = 0;
    // Ownership of item passes with the call, whatever the result.
    virtual Status SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t firstDelayMs, uint32_t periodMs,
                            EqWorkItem* item, uint64_t reserved1, uint32_t reserved2, uint32_t reserved3) = 0;
    virtual void Reserved2() = 0;
    virtual Status WaitTimer(TimerHandle handle, uint32_t timeoutMs) = 0;
    virtual Status CancelTimer(TimerHandle handle) = 0;
    virtual Status DeleteTimer(TimerHandle handle) = 0;
    virtual void Reserved3() = 0;
    virtual Status CreateSerialExecution(ISerialExecution** out) = 0;
    virtual Status ReleaseSerialExecution(ISerialExecution* serial) = 0;
};

class ISerialExecution
{
public:
    // Ownership of item passes with the call, whatever the result.
    virtual Status Post(const wchar_t* name, TimerHandle* unused, EqWorkItem* item, uint64_t reserved1,
                        uint32_t reserved2, uint32_t reserved3) = 0;
};
