// A module holding its own copy of the logging client, as the plugin does.
// Tests copy it into a folder of their own, with or without a log.dll beside
// it, load it and call ProbeTrace.
#include <windows.h>

#include "support/log_client.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

// Under a reference of its own, a trace scope "ProbeTrace" around a message
// line with text; library receives the path of the library the reference
// keeps loaded, or an empty text.
extern "C" __declspec(dllexport) void ProbeTrace(const wchar_t* text, wchar_t (*library)[MAX_PATH])
{
    (*library)[0] = L'\0';
    CLogDLLRef ref;
    ref.Acquire();
    if (ref.get() != nullptr && ref.get()->module)
        GetModuleFileNameW(ref.get()->module.get(), *library, MAX_PATH);
    TraceScope trace(L"ProbeTrace");
    logger_stream(logging::LevelInfo, L"ProbeTrace") << text;
}
