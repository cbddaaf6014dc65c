// The entries that the host or the system calls: the exports, the plugin
// interface, the sinks, each work item's Run, the system's callbacks and each
// thread of the plugin. An exception that reaches one of them ends there, in
// CallAtBoundary: one level-4 line under the entry's name, then the entry's
// failure value. No exception crosses into the host or the system.
//
//   Status CProductConfigurationPlg::Start()
//   {
//       return CallAtBoundary(L"CProductConfigurationPlg::Start", [&] { return _Start(); },
//                             [&](Status status) { Stop(); return status; });
//   }
#pragma once

#include <type_traits>
#include <utility>

#include "host/types.h"

namespace boundary
{
// Inside a catch: writes "Exception caught: <what>" at level 4 under entry
// and gives the status that stands for the exception, 14 (out of memory) for
// an allocation failure and 31 (general failure) for anything else. Builds
// the line on the stack, so it is written even when memory has run out;
// without the logging library it is lost, and nothing else changes.
Status LogCaughtException(const wchar_t* entry) noexcept;

// Lives for one entry of the plugin's: when the entry returns with no
// exception in flight on its thread, the thread's record of exceptions goes
// back to the runtime's reserve (exception_runtime.cpp).
class EntryScope
{
public:
    EntryScope() = default;
    ~EntryScope();
    EntryScope(const EntryScope&) = delete;
    EntryScope& operator=(const EntryScope&) = delete;
};
} // namespace boundary

// Runs body and gives its result. An exception out of body is logged and
// handed to onException as a status; what onException gives is the entry's
// result. onException must not throw: call only guarded entries from it.
template <class Body, class OnException>
auto CallAtBoundary(const wchar_t* entry, Body&& body, OnException&& onException) noexcept -> decltype(body())
{
    const boundary::EntryScope scope;
    try
    {
        return std::forward<Body>(body)();
    }
    catch (...)
    {
        return std::forward<OnException>(onException)(boundary::LogCaughtException(entry));
    }
}

// For an entry without a result: an exception is logged and ends here.
template <class Body>
void CallAtBoundary(const wchar_t* entry, Body&& body) noexcept
{
    static_assert(std::is_void_v<decltype(body())>, "an entry with a result names its failure value");
    CallAtBoundary(entry, std::forward<Body>(body), [](Status) {});
}
