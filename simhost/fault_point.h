// A test's hook into the host's calls that return a status: each such call
// of the simulated host asks it first, by the call's name, and fails with
// the status it gives (0: the call goes on as usual). A failed call keeps the
// host's contract: an item handed over is released, out pointers are null.
// Unset, nothing fails.
#pragma once

#include "host/types.h"

namespace sim
{
using FaultPoint = Status (*)(const char* call);

// The names asked: "GetComponent", "CreateSerialExecution", "SetTimer",
// "Post", "GetModuleInfo", "SetConnectAppState", "PerformRequest".
void SetFaultPoint(FaultPoint point);
Status InjectedFailure(const char* call);
} // namespace sim
