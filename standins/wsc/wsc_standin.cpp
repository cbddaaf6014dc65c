// wsc.dll, the product's Security Center library as the plugin uses it. It
// removes nothing; it tells what happened to it. When PCP_WSC_RECORD names a
// file, one line is appended to it, in UTF-8, when the library is loaded,
// when UnInstall is called and when the library is unloaded:
//
//   <module file name> TAB attach TAB <thread id> CR LF
//   <module file name> TAB UnInstall TAB <argument> TAB <thread id> CR LF
//   <module file name> TAB detach TAB <thread id> CR LF
//
// The module file name is the name this copy was loaded under ("wsc.dll"),
// so that copies of it kept for other purposes can be told apart. The
// variant built from wsc_without_uninstall.def exports Install instead of
// UnInstall. UnInstall gives 0.
#include <windows.h>

#include <cstdint>
#include <string>

#include "standin_text.h"
#include "support/unique_resource.h"

namespace
{
HMODULE self = nullptr;

std::wstring ModuleName()
{
    wchar_t path[MAX_PATH + 1] = {};
    const std::wstring full(path, GetModuleFileNameW(self, path, MAX_PATH + 1));
    return full.substr(full.rfind(L'\\') + 1);
}

// One write of the whole line, so that lines of several threads stay whole.
void Record(const std::wstring& what)
{
    const std::wstring path = standin::Variable(L"PCP_WSC_RECORD");
    if (path.empty())
        return;
    const UniqueFileHandle file(CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return;
    const std::string text = standin::ToUtf8(ModuleName() + L'\t' + what + L'\t' +
                                             std::to_wstring(GetCurrentThreadId()) + L"\r\n");
    DWORD written = 0;
    WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}
} // namespace

extern "C" int32_t UnInstall(int32_t option)
{
    Record(L"UnInstall\t" + std::to_wstring(option));
    return 0;
}

// Exported by the variant without UnInstall, so that it has an export.
extern "C" int32_t Install(int32_t)
{
    return 0;
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        self = instance;
        Record(L"attach");
    }
    else if (reason == DLL_PROCESS_DETACH)
    {
        Record(L"detach");
    }
    return TRUE;
}
