// What the host calls on the plugin object.
#pragma once

#include "host/interface_id.h"
#include "host/types.h"

class IServMain;

class IQmBaseInterface
{
public:
    // Gives this object's interface for id, or null. The pointer is borrowed.
    virtual void* QueryInterface(const InterfaceId& id) = 0;
};

class IServPlugin : public IQmBaseInterface
{
public:
    virtual Status Init(IServMain* servMain) = 0;
    virtual void UnInit() = 0;
    virtual Status Start() = 0;
    virtual void Stop() = 0;
};
