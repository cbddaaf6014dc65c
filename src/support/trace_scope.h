// TraceScope: the entry and exit lines that a function writes on its first
// line, "-> Name()" and "<- Name() [milliseconds]", at level 32. The names
// lie in fixed arrays on the stack; a scope always pays for copying them and
// one timeGetTime, and writes only while the logging record has users.
//
//   TraceScope trace(L"CWscHandler::Init");                   // a function
//   TraceScope block(L"No value in registry", L"CAppsManager::_CheckVPN");
#pragma once

#include <cstddef>
#include <cstdint>

class TraceScope
{
public:
    static constexpr size_t kNameChars = 260;

    // A function's full name, with its class where it has one. The display
    // name keeps at most 257 characters of it before "()", the function name
    // at most 259.
    explicit TraceScope(const wchar_t* name) noexcept;
    // A sub-step of function: shown as "[label]", the label cut to 257
    // characters; function is passed to the library as for a function.
    TraceScope(const wchar_t* label, const wchar_t* function) noexcept;
    ~TraceScope();

    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;

    uint32_t StartTime() const noexcept { return startTime; }
    const wchar_t* DisplayName() const noexcept { return displayName; }
    const wchar_t* FunctionName() const noexcept { return functionName; }

    // Milliseconds from start to now in unsigned 32-bit arithmetic, true
    // across the wrap of timeGetTime every 49.7 days.
    static uint32_t Elapsed(uint32_t start, uint32_t now) noexcept { return now - start; }

private:
    void _WriteEntry() const noexcept;

    uint32_t startTime;
    wchar_t displayName[kNameChars];
    wchar_t functionName[kNameChars];
};
