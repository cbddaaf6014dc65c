// "productinfo": product settings from a table. A missing setting is given as
// null or as "<error-not-found>", as the test or scenario selects.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "host/components.h"
#include "simhost/journal.h"

namespace sim
{
class ServConfig final : public IServConfig
{
public:
    enum class Missing
    {
        Null,
        NotFoundText,
    };

    explicit ServConfig(Journal& journal) : journal(journal) {}

    void Set(uint32_t number, const std::wstring& section, const std::wstring& value);
    void Remove(uint32_t number, const std::wstring& section);
    void SetMissing(Missing how);

    void Reserved1() override {}
    const wchar_t* GetString(uint32_t number, const wchar_t* section) override;

private:
    Journal& journal;
    std::mutex mutex;
    // Texts stay where they are until the component goes: the plugin keeps
    // the pointers it was given.
    std::map<std::pair<uint32_t, std::wstring>, std::wstring> values;
    Missing missing = Missing::Null;
};
} // namespace sim
