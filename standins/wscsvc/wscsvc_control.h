// Installs WscsvcStandin.exe of this executable's folder as the service
// "wscsvc" in the Wine prefix, through the real service control manager,
// starts it when told, can hold it in the start-pending state, and removes it
// again: whatever "wscsvc" was there before is replaced, and the service is
// stopped and deleted when the owner goes. Callers hold the lock "wscsvc".
#pragma once

#include <windows.h>

#include <winsvc.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "standin_control.h"
#include "support/unique_resource.h"

namespace standin
{
class Wscsvc
{
public:
    // Installs the service, stopped. With holdPending its start stays in
    // START_PENDING until Release().
    explicit Wscsvc(bool holdPending = false)
    {
        static std::atomic<unsigned> counter{0};
        const std::wstring releaseName = L"Global\\pcp-wscsvc-release-" + std::to_wstring(GetCurrentProcessId()) +
                                         L"-" + std::to_wstring(++counter);
        release.reset(CreateEventW(nullptr, TRUE, FALSE, releaseName.c_str()));
        manager.reset(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        if (!manager || !release)
        {
            problem = "OpenSCManagerW or CreateEventW failed: " + std::to_string(GetLastError());
            return;
        }
        Remove();
        std::wstring command = L"\"" + ExecutableDirectory() + L"\\WscsvcStandin.exe\"";
        if (holdPending)
            command += L" --pending " + releaseName;
        // A deleted service goes once its last handle is closed; another
        // process of the prefix may still hold one for a moment.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMs);
        for (;;)
        {
            service.reset(CreateServiceW(manager.get(), L"wscsvc", L"wscsvc stand-in", SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                         command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
            const DWORD error = GetLastError();
            if (service || error != ERROR_SERVICE_MARKED_FOR_DELETE || std::chrono::steady_clock::now() > deadline)
            {
                if (!service)
                    problem = "CreateServiceW failed: " + std::to_string(error);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~Wscsvc()
    {
        Remove();
    }
    Wscsvc(const Wscsvc&) = delete;
    Wscsvc& operator=(const Wscsvc&) = delete;

    bool Installed() const { return static_cast<bool>(service); }
    // Why it is not installed.
    const std::string& Problem() const { return problem; }

    // StartServiceW; the state is START_PENDING or RUNNING afterwards.
    bool Start() { return StartServiceW(service.get(), 0, nullptr) != FALSE; }
    // Lets a start held in START_PENDING go on to RUNNING.
    void Release() { SetEvent(release.get()); }

    // The current state, 0 when it cannot be read.
    DWORD State() const
    {
        SERVICE_STATUS status{};
        return QueryServiceStatus(service.get(), &status) ? status.dwCurrentState : 0;
    }
    // True once the service is in state, polled every 2 ms up to the bound.
    bool AwaitState(DWORD state, DWORD ms = kBoundMs) const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (State() != state)
        {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }
    // Starts it and waits until it runs (unless it is held pending).
    bool StartRunning() { return Start() && AwaitState(SERVICE_RUNNING); }

private:
    // Stops and deletes "wscsvc", ours or one left by an earlier run; a
    // process that does not stop is ended.
    void Remove()
    {
        UniqueServiceHandle old(OpenServiceW(manager.get(), L"wscsvc", SERVICE_ALL_ACCESS));
        if (!old)
            return;
        SetEvent(release.get());
        SERVICE_STATUS_PROCESS status{};
        DWORD size = 0;
        QueryServiceStatusEx(old.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                             &size);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMs);
        SERVICE_STATUS plain{};
        while (QueryServiceStatus(old.get(), &plain) && plain.dwCurrentState != SERVICE_STOPPED &&
               std::chrono::steady_clock::now() < deadline)
        {
            if (plain.dwCurrentState == SERVICE_RUNNING)
                ControlService(old.get(), SERVICE_CONTROL_STOP, &plain);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (plain.dwCurrentState != SERVICE_STOPPED && status.dwProcessId != 0)
        {
            const UniqueHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId));
            if (process && TerminateProcess(process.get(), 1))
                WaitForSingleObject(process.get(), kBoundMs);
        }
        DeleteService(old.get());
        if (service)
            service.reset();
    }

    UniqueHandle release;
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
    std::string problem;
};
} // namespace standin
