#include "runner/plugin_library.h"

#include <windows.h>

#include <utility>

#include "simhost/journal.h"

namespace runner
{
namespace
{
// The folder of this executable with its trailing backslash, or "" when
// GetModuleFileNameW fails.
std::wstring ExecutableFolder()
{
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = GetModuleFileNameW(nullptr, &buffer[0], static_cast<DWORD>(buffer.size()));
        if (length == 0)
            return std::wstring();
        if (length < buffer.size())
        {
            buffer.resize(length);
            break;
        }
        if (buffer.size() >= 32768)
            return std::wstring();
        buffer.resize(buffer.size() * 2);
    }
    const size_t slash = buffer.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : buffer.substr(0, slash + 1);
}

// GetProcAddress as a typed function pointer. The detour through void (*)()
// is the conversion between function pointer types that GCC accepts
// without a cast-function-type warning.
template <class Function>
Function Export(HMODULE module, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}
} // namespace

PluginLibrary::PluginLibrary(sim::GuardedLibrary module, std::wstring path, CreateFunction create, DestroyFunction destroy)
    : module(std::move(module)), path(std::move(path)), create(create), destroy(destroy)
{
}

std::optional<PluginLibrary> PluginLibrary::Load(const std::wstring& fileName, std::string& error)
{
    const std::wstring folder = ExecutableFolder();
    if (folder.empty())
    {
        error = "GetModuleFileNameW failed: " + std::to_string(GetLastError());
        return std::nullopt;
    }
    std::wstring path = folder + fileName;
    sim::GuardedLibrary module(path.c_str());
    if (!module)
    {
        error = sim::Narrow(path.c_str()) + ": " + module.Error();
        return std::nullopt;
    }
    auto create = Export<CreateFunction>(module.get(), "QmCreateObject");
    auto destroy = Export<DestroyFunction>(module.get(), "QmDestroyObject");
    if (create == nullptr || destroy == nullptr)
    {
        error = sim::Narrow(path.c_str()) + " lacks the export " +
                (create == nullptr ? "QmCreateObject" : "QmDestroyObject");
        return std::nullopt;
    }
    return PluginLibrary(std::move(module), std::move(path), create, destroy);
}

Status PluginLibrary::Create(const wchar_t* name, const InterfaceId& id, IServPlugin*& out) const
{
    void* object = nullptr;
    const Status status = create(name, id, &object);
    out = static_cast<IServPlugin*>(object);
    return status;
}

void PluginLibrary::Destroy(const wchar_t* name, IServPlugin* object) const
{
    destroy(name, object);
}
} // namespace runner
