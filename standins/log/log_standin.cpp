// A log.dll of our own with every entry point the plugin resolves, for tests
// and for the runner. LogWrite expands its wide format as the Windows C
// runtime does (in a wide format %s takes a wide string) and writes one line
// per call, indented two spaces per level of depth of the calling thread:
//
//   HH:MM:SS.mmm <thread id> <LEVEL> <indent><function>: <text>
//
// LEVEL is ERROR (4), WARN (8), INFO (16), TRACE (32) or the number. The
// calls of LogInit, LogDeinit, LogUninitDeskMetrics and LogRemoveModule, and
// the library's unloading by FreeLibrary, are lines of their own:
//
//   HH:MM:SS.mmm <thread id> CALL  LogRemoveModule(logging::CLogDLL::~CLogDLL)
//
// Lines go to standard error, or are appended to the file named by the
// environment variable QM_LOG_FILE, in UTF-8 with CR LF; with QM_LOG_ECHO=1
// they go to standard error as well. QM_LOG_ENABLED=0
// makes LogIsEnabled answer false; QM_LOG_LAST_ERROR=<n> makes it leave n as
// the calling thread's last error, as a library that calls the system may.
// The other entry points do nothing.
//
// The same source built with log_without_write.def is a log.dll without
// LogWrite and LogIsEnabled.
#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <mutex>
#include <string>

#include "standin_text.h"
#include "support/unique_resource.h"

namespace
{
using standin::ToUtf8;
using standin::Variable;

constexpr wchar_t kFileVariable[] = L"QM_LOG_FILE";
constexpr wchar_t kEnabledVariable[] = L"QM_LOG_ENABLED";
constexpr wchar_t kLastErrorVariable[] = L"QM_LOG_LAST_ERROR";
constexpr wchar_t kEchoVariable[] = L"QM_LOG_ECHO";

// Per-thread depth, in a TLS slot of this library's lifetime.
DWORD depthSlot = TLS_OUT_OF_INDEXES;
// Keeps lines of different threads whole.
std::mutex writeMutex;



// "HH:MM:SS.mmm <thread id> <LEVEL> " with the level name padded to five.
std::string Prefix(const char* levelName)
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    char prefix[64];
    std::snprintf(prefix, sizeof(prefix), "%02u:%02u:%02u.%03u %lu %-5s ", now.wHour, now.wMinute, now.wSecond,
                  now.wMilliseconds, static_cast<unsigned long>(GetCurrentThreadId()), levelName);
    return prefix;
}

// The file of QM_LOG_FILE, opened at its first line and kept open for the
// library's lifetime; opened anew when the variable names another file or
// the file was deleted (a test may make a new one under the same name).
// Every line is one WriteFile straight to the system, so a crash of the
// process loses none.
struct OpenLog
{
    std::wstring path;
    UniqueFileHandle file;
};
OpenLog openLog;

void WriteLine(std::string line)
{
    line += "\r\n";
    const DWORD size = static_cast<DWORD>(line.size());
    DWORD written = 0;
    const std::wstring path = Variable(kFileVariable);
    std::lock_guard<std::mutex> lock(writeMutex);
    if (path.empty() || Variable(kEchoVariable) == L"1")
        WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), size, &written, nullptr);
    if (path.empty())
        return;
    FILE_STANDARD_INFO info{};
    if (path != openLog.path || !openLog.file ||
        !GetFileInformationByHandleEx(openLog.file.get(), FileStandardInfo, &info, sizeof(info)) ||
        info.DeletePending || info.NumberOfLinks == 0)
    {
        openLog.file.reset(CreateFileW(path.c_str(), FILE_APPEND_DATA,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
        openLog.path = path;
    }
    if (openLog.file)
        WriteFile(openLog.file.get(), line.data(), size, &written, nullptr);
}

void WriteCall(const std::wstring& call)
{
    WriteLine(Prefix("CALL") + ToUtf8(call));
}

// The Windows C runtime's expansion: _vscwprintf and _vsnwprintf are the
// runtime's own in every mingw stdio variant, and give %s of a wide format
// a wide string. A format the runtime rejects is shown as it stands.
std::wstring Expand(const wchar_t* format, va_list args)
{
    va_list counting;
    va_copy(counting, args);
    const int length = _vscwprintf(format, counting);
    va_end(counting);
    if (length < 0)
        return format;
    std::wstring text(static_cast<size_t>(length) + 1, L'\0');
    _vsnwprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string LevelName(const uint32_t* level)
{
    if (level == nullptr)
        return "?";
    switch (*level)
    {
    case 4: return "ERROR";
    case 8: return "WARN";
    case 16: return "INFO";
    case 32: return "TRACE";
    default: return std::to_string(*level);
    }
}

int Depth()
{
    return depthSlot == TLS_OUT_OF_INDEXES ? 0 : static_cast<int>(reinterpret_cast<intptr_t>(TlsGetValue(depthSlot)));
}

void SetDepth(int depth)
{
    if (depthSlot != TLS_OUT_OF_INDEXES)
        TlsSetValue(depthSlot, reinterpret_cast<void*>(static_cast<intptr_t>(depth < 0 ? 0 : depth)));
}
} // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        depthSlot = TlsAlloc();
    }
    else if (reason == DLL_PROCESS_DETACH)
    {
        if (reserved == nullptr) // FreeLibrary, not the end of the process
        {
            WriteCall(L"DLL_PROCESS_DETACH");
            openLog.file.reset();
        }
        if (depthSlot != TLS_OUT_OF_INDEXES)
            TlsFree(depthSlot);
    }
    return TRUE;
}

void LogInit()
{
    WriteCall(L"LogInit()");
}

void LogDeinit()
{
    WriteCall(L"LogDeinit()");
}

void LogUninitDeskMetrics()
{
    WriteCall(L"LogUninitDeskMetrics()");
}

void LogRemoveModule(const char* name)
{
    std::wstring call = L"LogRemoveModule(";
    for (const char* c = name; c != nullptr && *c != '\0'; ++c)
        call += static_cast<wchar_t>(static_cast<unsigned char>(*c));
    WriteCall(call + L")");
}

HRESULT LogWrite(uint16_t depth, const uint32_t* level, HMODULE, const wchar_t* function, const wchar_t* format,
                 va_list args)
{
    const std::wstring text = Expand(format != nullptr ? format : L"", args);
    // A step out (0xFFFF is minus one) applies before its line, a step in after.
    const int16_t step = static_cast<int16_t>(depth);
    if (step < 0)
        SetDepth(Depth() + step);
    WriteLine(Prefix(LevelName(level).c_str()) + std::string(2 * static_cast<size_t>(Depth()), ' ') +
              ToUtf8(function != nullptr ? function : L"") + ": " + ToUtf8(text));
    if (step > 0)
        SetDepth(Depth() + step);
    return S_OK;
}

uint8_t LogIsEnabled()
{
    const uint8_t enabled = Variable(kEnabledVariable) == L"0" ? 0 : 1;
    const std::wstring lastError = Variable(kLastErrorVariable);
    if (!lastError.empty())
        SetLastError(static_cast<DWORD>(std::wcstoul(lastError.c_str(), nullptr, 10)));
    return enabled;
}

// Entry points the plugin resolves and never calls.
int32_t LogApplySettings() { return 0; }
int32_t LogSetSettingsFile() { return 0; }
int32_t LogEnable() { return 0; }
int32_t LogSetLevel() { return 0; }
int32_t LogSetPath() { return 0; }
int32_t LogSetType() { return 0; }
int32_t LogSetMode() { return 0; }
int32_t LogSetMaxSize() { return 0; }
int32_t LogSetDepth() { return 0; }
int32_t LogMonitorSettings() { return 0; }
int32_t LogTrackEvent() { return 0; }
int32_t LogTrackEventData() { return 0; }
int32_t LogGetLevel() { return 0; }

} // extern "C"
