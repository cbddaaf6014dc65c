#include "simhost/fault_point.h"

#include <atomic>

namespace sim
{
namespace
{
std::atomic<FaultPoint> faultPoint{nullptr};
}

void SetFaultPoint(FaultPoint point)
{
    faultPoint = point;
}

Status InjectedFailure(const char* call)
{
    const FaultPoint point = faultPoint.load();
    return point != nullptr ? point(call) : 0;
}
} // namespace sim
