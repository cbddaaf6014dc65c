// The work item as the host sees it: a heap object with Run and Release,
// handed to ISerialExecution::Post and IEventQueue::SetTimer.
#pragma once

#include "host/abi.h"

class EqWorkItem
{
    // Frees the item when called with bit 0 set.
    QM_DESTRUCTOR_SLOT(EqWorkItem)

public:
    // Deletes the item through its destructor; the host's last call on it.
    virtual void Release() = 0;
    virtual void Run() = 0;
};
