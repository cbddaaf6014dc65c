// Scalar types that cross the host contract.
#pragma once

#include <stdint.h>

// Status of a host or plugin operation: 0 for success, otherwise a Windows
// error number or the host's own status, passed on unchanged.
using Status = uint32_t;

// Opaque timer handle written by IEventQueue::SetTimer; 0 means no timer.
using TimerHandle = uintptr_t;

// Period of a timer that fires once.
constexpr uint32_t kNoRepeat = 0xFFFFFFFFu;

// Time-out of IEventQueue::WaitTimer that waits without limit.
constexpr uint32_t kWaitForever = 0xFFFFFFFFu;

// Records defined with the parts of the plugin that use them; the host
// contract only passes them by address.
struct SubscriptionData;
struct CloudRequest;
struct CloudResponse;

// Result of IConnectIntegrator::PerformRequest, returned by value.
struct CloudStatus
{
    uint32_t Word0;
    uint32_t Error; // 0 for success
};
static_assert(sizeof(CloudStatus) == 8, "CloudStatus is eight bytes");
