// The simulated component manager: hands out registered components by name
// and identifier, counts acquisitions and releases per name, records their
// order and can be told to fail a name with a given status.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/services.h"
#include "simhost/journal.h"

namespace sim
{
class ComponentManager final : public IComponentManager
{
public:
    explicit ComponentManager(Journal& journal) : journal(journal) {}

    // GetComponent(name, id) gives object while name is not failed.
    void Register(const std::wstring& name, const InterfaceId& id, void* object);
    // Every later GetComponent(name) gives status, after the first
    // succeedFirst of them have succeeded; status 0 clears the failure.
    void Fail(const std::wstring& name, Status status, size_t succeedFirst = 0);
    // The request for name numbered nth (from 1) and every later one give
    // status, the earlier ones succeed.
    void FailFrom(const std::wstring& name, size_t nth, Status status);

    Status GetComponent(const wchar_t* name, const InterfaceId& id, void** out) override;
    Status ReleaseComponent(const wchar_t* name) override;

    size_t Requested(const std::wstring& name) const; // GetComponent calls, failed ones too
    size_t Acquired(const std::wstring& name) const;  // GetComponent calls that gave 0
    size_t Released(const std::wstring& name) const;
    // Acquired minus released, over all names.
    long Outstanding() const;
    // "+name" for each acquisition, "-name" for each release, "!name" for a
    // refused request, in call order.
    std::vector<std::string> Order() const;

private:
    struct Entry
    {
        InterfaceId id{};
        void* object = nullptr;
        Status failure = 0;
        size_t succeedFirst = 0;
        size_t requested = 0;
        size_t acquired = 0;
        size_t released = 0;
    };

    Journal& journal;
    mutable std::mutex mutex;
    std::map<std::wstring, Entry> entries;
    std::vector<std::string> order;
};
} // namespace sim
