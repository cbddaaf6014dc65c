#include "runner/registry_preset.h"

#include <windows.h>

#include <vector>

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
    case scenario::RegistryType::AbsentKey:
    {
        // Named by a subkey path, the key itself goes too.
        const LSTATUS status = RegDeleteTreeW(root, value.key.c_str());
        return status == ERROR_FILE_NOT_FOUND ? 0 : static_cast<Status>(status);
    }
    }
    return ERROR_INVALID_PARAMETER;
}

Status ReadRegistryValue(scenario::RegistryRoot root, const std::wstring& key, const std::wstring& name,
                         scenario::RegistryValue& out)
{
    out = scenario::RegistryValue{root, key, name, scenario::RegistryType::Absent, 0, std::wstring()};
    const HKEY rootKey = RootKey(root);
    const wchar_t* valueName = name.empty() ? nullptr : name.c_str();
    constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    DWORD type = REG_NONE;
    DWORD bytes = 0;
    LSTATUS status = RegGetValueW(rootKey, key.c_str(), valueName, RRF_RT_ANY, &type, nullptr, &bytes);
    if (status == ERROR_FILE_NOT_FOUND)
        return 0;
    if (status != ERROR_SUCCESS)
        return static_cast<Status>(status);
    if (type == REG_DWORD)
    {
        DWORD data = 0;
        bytes = sizeof(data);
        status = RegGetValueW(rootKey, key.c_str(), valueName, RRF_RT_REG_DWORD, nullptr, &data, &bytes);
        if (status != ERROR_SUCCESS)
            return static_cast<Status>(status);
        out.type = scenario::RegistryType::Dword;
        out.dword = data;
        return 0;
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ)
        return ERROR_UNSUPPORTED_TYPE;
    // One character more than asked for, zeroed: the text ends even when it
    // was stored without its NUL.
    std::vector<wchar_t> text(bytes / sizeof(wchar_t) + 1, L'\0');
    bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    status = RegGetValueW(rootKey, key.c_str(), valueName, kFlags, nullptr, text.data(), &bytes);
    if (status != ERROR_SUCCESS)
        return static_cast<Status>(status);
    out.type = scenario::RegistryType::String;
    out.text = text.data();
    return 0;
}
} // namespace runner
