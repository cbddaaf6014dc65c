// Starting the stand-ins of build/bin from a test or a benchmark and ending
// them again: InstallerStandin.exe, which holds the installer's named event,
// and ProductCfg.exe held running as an earlier instance. Every process
// started here has ended when its owner goes (asked to, or terminated, then
// waited for with a bound).
#pragma once

#include <windows.h>

#include <atomic>
#include <cwchar>
#include <memory>
#include <optional>
#include <string>

#include "support/unique_resource.h"

namespace standin
{
// Bound of every wait here, in milliseconds.
constexpr DWORD kBoundMs = 20000;

// Exit codes of InstallerStandin.exe.
enum InstallerExit : DWORD
{
    kInstallerFinished = 0,      // the installer's event was set
    kInstallerNeverFinished = 1, // not told to finish within its bound
    kInstallerUsage = 2,         // arguments or events unusable
    kInstallerEventTaken = 3,    // the installer's event exists already
};

// Folder of this process's executable, without a trailing backslash.
inline std::wstring ExecutableDirectory()
{
    wchar_t path[MAX_PATH];
    const std::wstring exe(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return exe.substr(0, exe.rfind(L'\\'));
}

// An auto-reset event of this process under a name no other process uses.
class NamedEvent
{
public:
    explicit NamedEvent(const wchar_t* purpose)
    {
        static std::atomic<unsigned> counter{0};
        name = std::wstring(L"pcp-") + purpose + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
               std::to_wstring(++counter);
        event.reset(CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    }
    HANDLE get() const { return event.get(); }
    const std::wstring& Name() const { return name; }
    void Set() const { SetEvent(event.get()); }

private:
    std::wstring name;
    UniqueHandle event;
};

// A child process, terminated unless it has ended when the owner goes.
class ChildProcess
{
public:
    ChildProcess() = default;
    ~ChildProcess() { End(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts image with the whole commandLine; environment is a block of
    // "NAME=value" texts, each ended by a NUL, or empty for this process's.
    bool Start(const std::wstring& image, std::wstring commandLine, const std::wstring& environment = {})
    {
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION created{};
        std::wstring block = environment.empty() ? std::wstring() : environment + L'\0';
        if (!CreateProcessW(image.c_str(), &commandLine[0], nullptr, nullptr, FALSE,
                            CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT, block.empty() ? nullptr : &block[0],
                            nullptr, &startup, &created))
            return false;
        const UniqueHandle thread(created.hThread);
        process.reset(created.hProcess);
        pid = created.dwProcessId;
        return true;
    }
    HANDLE Handle() const { return process.get(); }
    DWORD Pid() const { return pid; }
    // The exit code once the process has ended within ms, else nothing.
    std::optional<DWORD> WaitExit(DWORD ms) const
    {
        DWORD code = 0;
        if (!process || WaitForSingleObject(process.get(), ms) != WAIT_OBJECT_0 ||
            !GetExitCodeProcess(process.get(), &code))
            return std::nullopt;
        return code;
    }
    // Terminates the process unless it has ended, and waits for it.
    void End()
    {
        if (!process)
            return;
        if (WaitForSingleObject(process.get(), 0) != WAIT_OBJECT_0)
            TerminateProcess(process.get(), 1);
        WaitForSingleObject(process.get(), kBoundMs);
        process.reset();
    }

private:
    UniqueHandle process;
    DWORD pid = 0;
};

// InstallerStandin.exe from this executable's folder: the installer's event
// exists once Started() is true, not signalled until Finish().
class Installer
{
public:
    // Starts the stand-in and waits until it holds the event.
    Installer()
    {
        const std::wstring image = ExecutableDirectory() + L"\\InstallerStandin.exe";
        if (!process.Start(image, L"\"InstallerStandin.exe\" " + ready.Name() + L" " + finish.Name() + L" " +
                                      exit.Name()))
            return;
        const HANDLE either[] = {ready.get(), process.Handle()};
        started = WaitForMultipleObjects(2, either, FALSE, kBoundMs) == WAIT_OBJECT_0;
        if (!started)
            exitCode = process.WaitExit(0);
    }
    // Lets it exit after Finish(), and ends it in any case.
    ~Installer()
    {
        exit.Set();
        process.WaitExit(finished ? kBoundMs : 0);
    }
    Installer(const Installer&) = delete;
    Installer& operator=(const Installer&) = delete;

    bool Started() const { return started; }
    // The stand-in's exit code when it ended before it was ready.
    std::optional<DWORD> EarlyExit() const { return exitCode; }
    // Makes it set the installer's event; it stays until destroyed.
    void Finish()
    {
        finish.Set();
        finished = true;
    }

private:
    NamedEvent ready{L"installer-ready"};
    NamedEvent finish{L"installer-finish"};
    NamedEvent exit{L"installer-exit"};
    ChildProcess process;
    bool started = false;
    bool finished = false;
    std::optional<DWORD> exitCode;
};

// ProductCfg.exe from this executable's folder, held running as an earlier
// instance would be, until Release() or the owner goes. It records nothing:
// PCP_PRODUCTCFG_* variables of this process are not passed on.
class HeldProductCfg
{
public:
    HeldProductCfg()
    {
        std::wstring environment;
        const std::unique_ptr<wchar_t, decltype(&FreeEnvironmentStringsW)> strings(GetEnvironmentStringsW(),
                                                                                  &FreeEnvironmentStringsW);
        for (const wchar_t* entry = strings.get(); entry != nullptr && *entry != L'\0'; entry += wcslen(entry) + 1)
        {
            if (_wcsnicmp(entry, L"PCP_PRODUCTCFG_", 15) != 0)
                environment.append(entry).push_back(L'\0');
        }
        for (const std::wstring& entry : {L"PCP_PRODUCTCFG_HOLD_MS=" + std::to_wstring(kBoundMs * 3),
                                          L"PCP_PRODUCTCFG_READY=" + ready.Name(),
                                          L"PCP_PRODUCTCFG_RELEASE=" + release.Name()})
            environment.append(entry).push_back(L'\0');
        if (!process.Start(ExecutableDirectory() + L"\\ProductCfg.exe", L"\"ProductCfg.exe\"", environment))
        {
            problem = "CreateProcessW failed: " + std::to_string(GetLastError());
            return;
        }
        const HANDLE either[] = {ready.get(), process.Handle()};
        const DWORD wait = WaitForMultipleObjects(2, either, FALSE, kBoundMs);
        started = wait == WAIT_OBJECT_0;
        if (!started)
            problem = "not ready: wait " + std::to_string(wait) + ", exit code " +
                      std::to_string(process.WaitExit(0).value_or(STILL_ACTIVE));
    }
    ~HeldProductCfg() { Release(); }
    HeldProductCfg(const HeldProductCfg&) = delete;
    HeldProductCfg& operator=(const HeldProductCfg&) = delete;

    bool Started() const { return started; }
    // Why it is not started.
    const std::string& Problem() const { return problem; }
    // Lets it end and waits for that; terminated if it does not.
    void Release()
    {
        release.Set();
        process.WaitExit(kBoundMs);
        process.End();
    }

private:
    NamedEvent ready{L"productcfg-ready"};
    NamedEvent release{L"productcfg-release"};
    ChildProcess process;
    bool started = false;
    std::string problem;
};
} // namespace standin
