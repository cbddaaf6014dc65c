// ProductCfgPlg.dll loaded the way the host service loads it: by full path
// from the folder of the running executable, with its two exports looked up
// by name, with Control Flow Guard enforced on its indirect calls as Windows
// enforces it. The module is freed when the last owner goes.
#pragma once

#include <optional>
#include <string>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "host/types.h"
#include "simhost/guarded_library.h"

namespace runner
{
class PluginLibrary
{
public:
    using CreateFunction = Status (*)(const wchar_t* name, const InterfaceId& id, void** out);
    using DestroyFunction = void (*)(const wchar_t* name, void* object);

    // Loads fileName from the executable's folder. Empty with error set
    // ("...\\ProductCfgPlg.dll: LoadLibraryW failed: 126") when the module or
    // one of its exports is missing, or its guard record is unusable.
    static std::optional<PluginLibrary> Load(const std::wstring& fileName, std::string& error);

    const std::wstring& Path() const { return path; }
    // Whether the DLL is linked with Control Flow Guard, now enforced.
    bool Guarded() const { return module.Guarded(); }
    // QmCreateObject(name, id, &out).
    Status Create(const wchar_t* name, const InterfaceId& id, IServPlugin*& out) const;
    // QmDestroyObject(name, object).
    void Destroy(const wchar_t* name, IServPlugin* object) const;

private:
    PluginLibrary(sim::GuardedLibrary module, std::wstring path, CreateFunction create, DestroyFunction destroy);

    sim::GuardedLibrary module;
    std::wstring path;
    CreateFunction create = nullptr;
    DestroyFunction destroy = nullptr;
};
} // namespace runner
