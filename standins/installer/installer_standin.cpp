// A product installer at work, as the plugin sees one: it holds the named
// event "Global\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6" from its
// start, not signalled, and sets it when the installation "ends".
//
//   InstallerStandin.exe READY FINISH [EXIT]
//
//   READY   a named event, set once the installer's event exists
//   FINISH  a named event; when it is set the stand-in sets the installer's
//           event
//   EXIT    a named event the stand-in waits for after that before it exits;
//           without it the stand-in exits right after setting
//
// Each wait is bounded by kBoundMs, so a stand-in whose driver went away
// never holds the event for long.
//
// Exit codes (standin_control.h has them too):
//   0  finished: the installer's event was set
//   1  FINISH did not come within the bound; the event was never set
//   2  wrong arguments, or READY, FINISH or EXIT cannot be opened
//   3  the installer's event exists already (another installer runs) or
//      cannot be created
#include <windows.h>

#include "support/unique_resource.h"

namespace
{
constexpr wchar_t kInstallDoneEventName[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";
constexpr DWORD kBoundMs = 60000;

enum ExitCode : int
{
    kFinished = 0,
    kNeverFinished = 1,
    kUsage = 2,
    kEventUnavailable = 3,
};

UniqueHandle OpenNamedEvent(const wchar_t* name, DWORD access)
{
    return UniqueHandle(OpenEventW(access, FALSE, name));
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3 && argc != 4)
        return kUsage;
    const UniqueHandle ready = OpenNamedEvent(argv[1], EVENT_MODIFY_STATE);
    const UniqueHandle finish = OpenNamedEvent(argv[2], SYNCHRONIZE);
    const UniqueHandle exit = argc == 4 ? OpenNamedEvent(argv[3], SYNCHRONIZE) : UniqueHandle();
    if (!ready || !finish || (argc == 4 && !exit))
        return kUsage;

    // Manual reset, as an installer makes it: once set, every waiter sees it.
    SetLastError(0);
    const UniqueHandle installDone(CreateEventW(nullptr, TRUE, FALSE, kInstallDoneEventName));
    if (!installDone || GetLastError() == ERROR_ALREADY_EXISTS)
        return kEventUnavailable;
    SetEvent(ready.get());

    if (WaitForSingleObject(finish.get(), kBoundMs) != WAIT_OBJECT_0)
        return kNeverFinished;
    SetEvent(installDone.get());
    if (exit)
        WaitForSingleObject(exit.get(), kBoundMs);
    return kFinished;
}
