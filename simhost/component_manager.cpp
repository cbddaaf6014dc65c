#include "simhost/component_manager.h"
#include "simhost/fault_point.h"

#include <windows.h>

namespace sim
{
void ComponentManager::Register(const std::wstring& name, const InterfaceId& id, void* object)
{
    std::lock_guard<std::mutex> lock(mutex);
    Entry& entry = entries[name];
    entry.id = id;
    entry.object = object;
}

void ComponentManager::Fail(const std::wstring& name, Status status, size_t succeedFirst)
{
    std::lock_guard<std::mutex> lock(mutex);
    entries[name].failure = status;
    entries[name].succeedFirst = succeedFirst;
}

void ComponentManager::FailFrom(const std::wstring& name, size_t nth, Status status)
{
    Fail(name, status, nth > 0 ? nth - 1 : 0);
}

Status ComponentManager::GetComponent(const wchar_t* name, const InterfaceId& id, void** out)
{
    Status status = InjectedFailure("GetComponent");
    const std::string text = Narrow(name);
    if (status != 0)
    {
        if (out != nullptr)
            *out = nullptr;
        journal.Record("GetComponent " + text + " -> " + std::to_string(status));
        return status;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = name != nullptr ? entries.find(name) : entries.end();
        if (it == entries.end() || it->second.object == nullptr)
            status = ERROR_NOT_FOUND;
        else if (it->second.failure != 0 && it->second.requested >= it->second.succeedFirst)
            status = it->second.failure;
        else if (it->second.id != id)
            status = ERROR_INVALID_PARAMETER; // asked under the wrong identifier
        if (it != entries.end())
            ++it->second.requested;
        if (status == 0)
        {
            ++it->second.acquired;
            *out = it->second.object;
            order.push_back("+" + text);
        }
        else
        {
            order.push_back("!" + text);
        }
    }
    journal.Record("GetComponent " + text + " -> " + std::to_string(status));
    return status;
}

Status ComponentManager::ReleaseComponent(const wchar_t* name)
{
    const std::string text = Narrow(name);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (name != nullptr)
            ++entries[name].released;
        order.push_back("-" + text);
    }
    journal.Record("ReleaseComponent " + text);
    return 0;
}

size_t ComponentManager::Requested(const std::wstring& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(name);
    return it == entries.end() ? 0 : it->second.requested;
}

size_t ComponentManager::Acquired(const std::wstring& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(name);
    return it == entries.end() ? 0 : it->second.acquired;
}

size_t ComponentManager::Released(const std::wstring& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(name);
    return it == entries.end() ? 0 : it->second.released;
}

long ComponentManager::Outstanding() const
{
    std::lock_guard<std::mutex> lock(mutex);
    long total = 0;
    for (const auto& entry : entries)
        total += static_cast<long>(entry.second.acquired) - static_cast<long>(entry.second.released);
    return total;
}

std::vector<std::string> ComponentManager::Order() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return order;
}
} // namespace sim
