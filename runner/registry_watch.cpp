#include "runner/registry_watch.h"

#include <windows.h>

#include <algorithm>

#include "support/unique_resource.h"

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
    default:
        return HKEY_LOCAL_MACHINE;
    }
}

// A value as ValueText shows a scenario's: "dword 1", "string \"x\"", or
// the type and size of any other kind.
std::string Shown(scenario::RegistryRoot root, const std::wstring& key, const std::wstring& name, DWORD type,
                  const std::vector<BYTE>& data)
{
    scenario::RegistryValue value;
    value.root = root;
    value.key = key;
    value.name = name;
    if (type == REG_DWORD && data.size() == sizeof(DWORD))
    {
        value.type = scenario::RegistryType::Dword;
        std::copy(data.begin(), data.end(), reinterpret_cast<BYTE*>(&value.dword));
        return ValueText(value);
    }
    if (type == REG_SZ || type == REG_EXPAND_SZ)
    {
        value.type = scenario::RegistryType::String;
        value.text.assign(reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
        value.text.resize(std::min(value.text.size(), value.text.find(L'\0')));
        return ValueText(value);
    }
    return "type " + std::to_string(type) + ", " + std::to_string(data.size()) + " bytes";
}
} // namespace

void RegistryWatch::Watch(scenario::RegistryRoot root, const std::wstring& key)
{
    for (const Key& known : keys)
    {
        if (known.root == root && _wcsicmp(known.key.c_str(), key.c_str()) == 0)
            return;
    }
    keys.push_back({root, key});
}

void RegistryWatch::Reset()
{
    last = Snapshot();
}

std::vector<RegistryChange> RegistryWatch::TakeChanges()
{
    std::map<std::string, std::string> now = Snapshot();
    std::vector<RegistryChange> changes;
    for (const auto& value : now)
    {
        const auto before = last.find(value.first);
        if (before == last.end())
            changes.push_back({value.first, "absent", value.second});
        else if (before->second != value.second)
            changes.push_back({value.first, before->second, value.second});
    }
    for (const auto& value : last)
    {
        if (now.find(value.first) == now.end())
            changes.push_back({value.first, value.second, "absent"});
    }
    std::sort(changes.begin(), changes.end(),
              [](const RegistryChange& a, const RegistryChange& b) { return a.place < b.place; });
    last = std::move(now);
    return changes;
}

std::map<std::string, std::string> RegistryWatch::Snapshot() const
{
    std::map<std::string, std::string> values;
    for (const Key& watched : keys)
    {
        HKEY raw = nullptr;
        if (RegOpenKeyExW(RootKey(watched.root), watched.key.c_str(), 0, KEY_QUERY_VALUE, &raw) != ERROR_SUCCESS)
            continue;
        const UniqueRegKey key(raw);
        DWORD count = 0, longestName = 0, longestData = 0;
        if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count, &longestName,
                             &longestData, nullptr, nullptr) != ERROR_SUCCESS)
            continue;
        for (DWORD i = 0; i < count; ++i)
        {
            std::wstring name(longestName + 1, L'\0');
            std::vector<BYTE> data(longestData + sizeof(wchar_t));
            DWORD nameLength = longestName + 1;
            DWORD size = static_cast<DWORD>(data.size());
            DWORD type = 0;
            if (RegEnumValueW(key.get(), i, &name[0], &nameLength, nullptr, &type, data.data(), &size) !=
                ERROR_SUCCESS)
                continue;
            name.resize(nameLength);
            data.resize(size);
            values[scenario::DescribeRegistryPlace(watched.root, watched.key, name)] =
                Shown(watched.root, watched.key, name, type, data);
        }
    }
    return values;
}

void WatchScenarioKeys(const scenario::Scenario& scenario, RegistryWatch& watch)
{
    using scenario::RegistryRoot;
    for (const scenario::Setting& setting : scenario.settings)
    {
        if (setting.number == 217 && setting.section == L"Desktop")
        {
            watch.Watch(RegistryRoot::LocalMachine, setting.value);
            watch.Watch(RegistryRoot::LocalMachine, setting.value + L"\\Onboarding");
        }
        else if (setting.number == 44 && setting.section == L"Desktop")
            watch.Watch(RegistryRoot::Users, L".DEFAULT\\SOFTWARE\\Sub_ID_" + setting.value);
        else if (setting.number == 0 && setting.section == L"BASE")
            watch.Watch(RegistryRoot::LocalMachine, L"Software\\" + setting.value + L"\\Install");
    }
    for (const scenario::RegistryValue& value : scenario.registry)
        watch.Watch(value.root, value.key);
    if (scenario.commercialDetails)
        watch.Watch(scenario.commercialDetails->root, scenario.commercialDetails->key);
    for (const scenario::Step& step : scenario.steps)
    {
        if (const auto* set = std::get_if<scenario::SetRegistryStep>(&step.action))
            watch.Watch(set->value.root, set->value.key);
        else if (const auto* show = std::get_if<scenario::ShowRegistryStep>(&step.action))
            watch.Watch(show->root, show->key);
        if (step.expect)
        {
            for (const scenario::RegistryValue& value : step.expect->registry)
                watch.Watch(value.root, value.key);
        }
    }
}
} // namespace runner
