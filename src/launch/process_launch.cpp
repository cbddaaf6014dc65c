#include "launch/process_launch.h"

#include <memory>
#include <new>
#include <utility>

#include "launch/sessions.h"
#include "launch/user_token.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
// Appends text at buffer[length], keeping room for the terminator. Gives the
// new length; stops at capacity - 1 and sets cut when text did not fit.
size_t AppendBounded(wchar_t* buffer, size_t capacity, size_t length, const wchar_t* text, bool& cut) noexcept
{
    for (; *text != L'\0'; ++text)
    {
        if (length + 1 >= capacity)
        {
            cut = true;
            break;
        }
        buffer[length++] = *text;
    }
    buffer[length] = L'\0';
    return length;
}

constexpr DWORD kCreationFlags = CREATE_NO_WINDOW | NORMAL_PRIORITY_CLASS;
static_assert(kCreationFlags == 0x8000020, "no window, normal priority");
static_assert((kCreationFlags | CREATE_UNICODE_ENVIRONMENT) == 0x8000420, "and a wide environment block");
} // namespace

bool BuildCommandLine(const wchar_t* parameters, wchar_t* buffer, size_t capacity) noexcept
{
    if (capacity == 0)
        return false;
    bool cut = false;
    size_t length = AppendBounded(buffer, capacity, 0, L"\"", cut);
    length = AppendBounded(buffer, capacity, length, kProductCfgImage, cut);
    length = AppendBounded(buffer, capacity, length, L"\"", cut);
    if (parameters != nullptr)
    {
        length = AppendBounded(buffer, capacity, length, L" ", cut);
        AppendBounded(buffer, capacity, length, parameters, cut);
    }
    return !cut;
}

DWORD ExecuteProcessAsUser(const wchar_t* parameters, UniqueHandle token)
{
    TraceScope trace(L"ExecuteProcessAsUser");

    // A failure leaves the block null and the launch goes on with the
    // environment of this process; it is not logged.
    UniqueEnvironmentBlock environment;
    {
        void* block = nullptr;
        if (CreateEnvironmentBlock(&block, token.get(), TRUE))
            environment.reset(block);
    }
    const DWORD flags = environment ? kCreationFlags | CREATE_UNICODE_ENVIRONMENT : kCreationFlags;

    const std::unique_ptr<wchar_t[]> commandLine(new (std::nothrow) wchar_t[kCommandLineChars]());
    if (!commandLine)
        return ERROR_NOT_ENOUGH_MEMORY;
    if (!BuildCommandLine(parameters, commandLine.get(), kCommandLineChars))
    {
        logger_stream(logging::LevelError, L"ExecuteProcessAsUser")
            << "Command line longer than " << (kCommandLineChars - 1) << " characters, not started";
        return ERROR_INSUFFICIENT_BUFFER;
    }
    logger_stream(logging::LevelInfo, L"ExecuteProcessAsUser") << "Run " << commandLine.get();

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    static_assert(sizeof(STARTUPINFOW) == 104, "no desktop, no show flag, no standard handles");
    PROCESS_INFORMATION created{};
    DWORD result = ERROR_SUCCESS;
    if (!CreateProcessAsUserW(token.get(), nullptr, commandLine.get(), nullptr, nullptr, FALSE, flags,
                              environment.get(), nullptr, &startup, &created))
    {
        result = GetLastError();
        logger_stream(logging::LevelError, L"ExecuteProcessAsUser") << "CreateProcessAsUser failed err=" << result;
    }
    UniqueHandle process(created.hProcess);
    UniqueHandle thread(created.hThread);

    // The environment, then the process and thread handles (nobody waits on
    // them), then the token.
    environment.reset();
    process.reset();
    thread.reset();
    token.reset();
    return result;
}

DWORD ExecuteProcessInSession(DWORD dwSessionId, bool bSystem, const wchar_t* parameters)
{
    constexpr wchar_t kFunction[] = L"CProductConfigurationPlg::_ExecuteProcessInSession";
    TraceScope trace(kFunction);

    logger_stream(logging::LevelInfo, kFunction) << "dwSessionId = " << dwSessionId;
    logger_stream(logging::LevelInfo, kFunction) << "bSystem = " << (bSystem ? "true" : "false");
    if (dwSessionId == 0)
        dwSessionId = GetFirstActiveSessionId();

    UniqueHandle token;
    const DWORD pid = GetCurrentProcessId();
    if (pid == 0)
        logger_stream(logging::LevelError, L"GetUserToken") << "GetProcessPid for " << "system" << " failed";
    else
        token = GetUserToken(pid, dwSessionId, bSystem);
    if (!token)
    {
        logger_stream(logging::LevelWarning, L"ExecuteProcessInSession") << "get user token failed";
        return ERROR_GEN_FAILURE;
    }
    return ExecuteProcessAsUser(parameters, std::move(token));
}
