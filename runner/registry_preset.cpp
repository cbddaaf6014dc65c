#include "runner/registry_preset.h"

#include <windows.h>

namespace runner
{
namespace
{
HKEY RootKey(scenario::RegistryRoot root)
{
    switch (root)
    {
    case scenario::RegistryRoot::CurrentUser:
        return HKEY_CURRENT_USER;
    case scenario::RegistryRoot::Users:
        return HKEY_USERS;
    case scenario::RegistryRoot::LocalMachine:
        break;
    }
    return HKEY_LOCAL_MACHINE;
}
} // namespace

Status ApplyRegistryValue(const scenario::RegistryValue& value)
{
    const HKEY root = RootKey(value.root);
    const wchar_t* name = value.name.empty() ? nullptr : value.name.c_str();
    switch (value.type)
    {
    case scenario::RegistryType::Dword:
    {
        const DWORD data = value.dword;
        return static_cast<Status>(
            RegSetKeyValueW(root, value.key.c_str(), name, REG_DWORD, &data, static_cast<DWORD>(sizeof(data))));
    }
    case scenario::RegistryType::String:
    {
        const DWORD bytes = static_cast<DWORD>((value.text.size() + 1) * sizeof(wchar_t));
        return static_cast<Status>(RegSetKeyValueW(root, value.key.c_str(), name, REG_SZ, value.text.c_str(), bytes));
    }
    case scenario::RegistryType::Absent:
    {
        const LSTATUS status = RegDeleteKeyValueW(root, value.key.c_str(), name);
        return status == ERROR_FILE_NOT_FOUND ? 0 : static_cast<Status>(status);
    }
    }
    return ERROR_INVALID_PARAMETER;
}
} // namespace runner
