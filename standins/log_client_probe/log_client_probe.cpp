// A module holding its own copy of the logging client, as the plugin does.
// Tests copy it into a folder of their own, with or without a log.dll beside
// it, load it, and drive that copy's client through these exports.
#include <windows.h>

#include <cstdint>
#include <new>

#include "support/log_client.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

extern "C" {

// A new acquired reference, or null without memory.
CLogDLLRef* ProbeAcquire()
{
    auto* ref = new (std::nothrow) CLogDLLRef();
    if (ref != nullptr)
        ref->Acquire();
    return ref;
}

void ProbeRelease(CLogDLLRef* ref)
{
    delete ref;
}

// The library the reference keeps loaded, or null.
HMODULE ProbeLibrary(const CLogDLLRef* ref)
{
    const logging::CLogDLL* record = ref->get();
    return record != nullptr ? record->module.get() : nullptr;
}

// What LogWrite gives for a message line with text.
HRESULT ProbeWrite(const CLogDLLRef* ref, const wchar_t* text)
{
    const uint32_t level = logging::LevelInfo;
    return ref->get()->Write(logging::kDepthSame, &level, L"ProbeWrite", L"%s", text);
}

// A trace scope "ProbeTrace" around a message line with text.
void ProbeTrace(const wchar_t* text)
{
    TraceScope trace(L"ProbeTrace");
    logger_stream(logging::LevelInfo, L"ProbeTrace") << text;
}

} // extern "C"
