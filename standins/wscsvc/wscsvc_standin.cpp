// WscsvcStandin.exe: a service program that tests and the runner install in
// the Wine prefix under the name "wscsvc", in place of Security Center. It
// does nothing but move through the service states:
//
//   WscsvcStandin.exe                    START_PENDING, then RUNNING at once
//   WscsvcStandin.exe --pending EVENT    START_PENDING until the named event
//                                        is set (at most 120 s), then RUNNING
//
// A stop control takes it to STOPPED and the process ends. The service
// manager refuses controls while it is pending, so whoever holds it there
// sets the event before stopping it.
#include <windows.h>

#include <winsvc.h>

#include <cwchar>
#include <string>

#include "support/unique_resource.h"

namespace
{
constexpr DWORD kPendingBoundMs = 120000;

std::wstring pendingEvent;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
UniqueHandle stopRequested;

void Report(DWORD state, DWORD accepted)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = accepted;
    status.dwWaitHint = state == SERVICE_START_PENDING ? kPendingBoundMs : 0;
    SetServiceStatus(statusHandle, &status);
}

DWORD WINAPI Control(DWORD control, DWORD, void*, void*)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        SetEvent(stopRequested.get());
        return NO_ERROR;
    }
    return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

void WINAPI ServiceMain(DWORD, wchar_t**)
{
    statusHandle = RegisterServiceCtrlHandlerExW(L"wscsvc", &Control, nullptr);
    if (statusHandle == nullptr)
        return;
    stopRequested.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Report(SERVICE_START_PENDING, 0);
    if (!pendingEvent.empty())
    {
        const UniqueHandle release(OpenEventW(SYNCHRONIZE, FALSE, pendingEvent.c_str()));
        if (release)
            WaitForSingleObject(release.get(), kPendingBoundMs);
    }
    Report(SERVICE_RUNNING, SERVICE_ACCEPT_STOP);
    WaitForSingleObject(stopRequested.get(), INFINITE);
    Report(SERVICE_STOP_PENDING, 0);
    Report(SERVICE_STOPPED, 0);
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    for (int i = 1; i + 1 < argc; ++i)
    {
        if (std::wcscmp(argv[i], L"--pending") == 0)
            pendingEvent = argv[i + 1];
    }
    wchar_t name[] = L"wscsvc";
    const SERVICE_TABLE_ENTRYW table[] = {{name, &ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
