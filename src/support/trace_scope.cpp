#include "support/trace_scope.h"

#include <windows.h>
#include <mmsystem.h>

#include "support/log_client.h"

namespace
{
// Copies at most maxChars characters of source and a terminator; a null
// source counts as empty. Gives the number of characters copied.
size_t CopyTruncated(wchar_t* target, const wchar_t* source, size_t maxChars) noexcept
{
    size_t length = 0;
    if (source != nullptr)
    {
        for (; length < maxChars && source[length] != L'\0'; ++length)
            target[length] = source[length];
    }
    target[length] = L'\0';
    return length;
}

constexpr size_t kMaxDisplayed = TraceScope::kNameChars - 3; // and two brackets and the terminator
constexpr size_t kMaxFunction = TraceScope::kNameChars - 1;
constexpr uint32_t kTraceLevel = logging::LevelTrace;
} // namespace

TraceScope::TraceScope(const wchar_t* name) noexcept : startTime(timeGetTime())
{
    const size_t length = CopyTruncated(displayName, name, kMaxDisplayed);
    displayName[length] = L'(';
    displayName[length + 1] = L')';
    displayName[length + 2] = L'\0';
    CopyTruncated(functionName, name, kMaxFunction);
    _WriteEntry();
}

TraceScope::TraceScope(const wchar_t* label, const wchar_t* function) noexcept : startTime(timeGetTime())
{
    displayName[0] = L'[';
    const size_t length = CopyTruncated(displayName + 1, label, kMaxDisplayed);
    displayName[length + 1] = L']';
    displayName[length + 2] = L'\0';
    CopyTruncated(functionName, function, kMaxFunction);
    _WriteEntry();
}

TraceScope::~TraceScope()
{
    if (logging::UserCount() == 0)
        return;
    CLogDLLRef ref;
    ref.Acquire();
    if (const logging::CLogDLL* record = ref.get())
        record->Write(logging::kDepthLeave, &kTraceLevel, functionName, L"<- %s [%d]", displayName,
                      Elapsed(startTime, timeGetTime()));
}

void TraceScope::_WriteEntry() const noexcept
{
    if (logging::UserCount() == 0)
        return;
    CLogDLLRef ref;
    ref.Acquire();
    if (const logging::CLogDLL* record = ref.get())
        record->Write(logging::kDepthEnter, &kTraceLevel, functionName, L"-> %s", displayName);
}
