// The client side of the product's logging library, log.dll: the table of its
// entry points, one per process, loaded while it has users, and CLogDLLRef, by
// which long-lived objects keep it loaded. Nothing here fails towards its
// caller; without the library every line goes to a stub and vanishes.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "support/unique_resource.h"

namespace logging
{
// Levels are bits handed to the library by address; the library filters.
enum Level : uint32_t
{
    LevelError = 4,   // an operation failed
    LevelWarning = 8, // a step failed and the caller goes on
    LevelInfo = 16,   // progress and values
    LevelTrace = 32,  // the entry and exit lines of TraceScope, nothing else
};

// Steps of the library's indentation: entry line, exit line, message line.
constexpr uint16_t kDepthEnter = 1;
constexpr uint16_t kDepthLeave = 0xFFFF;
constexpr uint16_t kDepthSame = 0;

using LogWriteFn = HRESULT (*)(uint16_t depth, const uint32_t* level, HMODULE module, const wchar_t* function,
                               const wchar_t* format, va_list args);
using LogIsEnabledFn = uint8_t (*)();
using LogNoArgsFn = void (*)();
using LogRemoveModuleFn = void (*)(const char* name);

// The library's module and its entry points in the order of its table. Only
// the process-wide record (see CLogDLLRef) is ever loaded.
class CLogDLL
{
public:
    CLogDLL() = default;
    // With a module: LogDeinit, LogUninitDeskMetrics, LogRemoveModule(
    // "logging::CLogDLL::~CLogDLL") where present, then FreeLibrary.
    ~CLogDLL();

    CLogDLL(const CLogDLL&) = delete;
    CLogDLL& operator=(const CLogDLL&) = delete;

    // Takes a log.dll the process has loaded already, else the one beside
    // this module, never one on the search path; calls LogInit and resolves
    // the table. Without the library, or without LogWrite, LogWrite is a stub
    // that returns E_NOINTERFACE.
    void Load();

    // Calls LogWrite with this module's handle and the arguments after
    // format as its va_list; gives LogWrite's result. Only after Load.
    HRESULT Write(uint16_t depth, const uint32_t* level, const wchar_t* function, const wchar_t* format, ...) const;

    UniqueModule module;
    FARPROC LogApplySettings = nullptr;
    FARPROC LogSetSettingsFile = nullptr;
    FARPROC LogEnable = nullptr;
    FARPROC LogSetLevel = nullptr;
    FARPROC LogSetPath = nullptr;
    FARPROC LogSetType = nullptr;
    FARPROC LogSetMode = nullptr;
    FARPROC LogSetMaxSize = nullptr;
    FARPROC LogSetDepth = nullptr;
    LogWriteFn LogWrite = nullptr;
    LogIsEnabledFn LogIsEnabled = nullptr;
    FARPROC LogMonitorSettings = nullptr;
    LogNoArgsFn LogUninitDeskMetrics = nullptr;
    FARPROC LogTrackEvent = nullptr;
    FARPROC LogTrackEventData = nullptr;
    LogRemoveModuleFn LogRemoveModule = nullptr;
    FARPROC LogGetLevel = nullptr;
};

// The number of users of the process-wide record, read without the lock:
// 0 means nothing is loaded and scopes and streams stay silent.
int32_t UserCount() noexcept;

// The module this code is linked into: the plugin, or a test program.
HMODULE OwnModule() noexcept;
} // namespace logging

// Keeps the process-wide record loaded. The first acquisition of the process
// loads it, the release of the last one unloads it. Both may run on any
// thread; neither fails.
class CLogDLLRef
{
public:
    CLogDLLRef() = default;
    // Gives up every acquisition still held.
    ~CLogDLLRef() { Release(); }

    CLogDLLRef(const CLogDLLRef&) = delete;
    CLogDLLRef& operator=(const CLogDLLRef&) = delete;

    void Acquire() noexcept;
    // Gives up all acquisitions made through this reference.
    void Release() noexcept;

    // The record while acquired, else null.
    logging::CLogDLL* get() const noexcept { return record; }

private:
    logging::CLogDLL* record = nullptr;
    std::atomic<int32_t> count{0};
};
