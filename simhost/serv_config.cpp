#include "simhost/serv_config.h"

namespace sim
{
namespace
{
const wchar_t kNotFound[] = L"<error-not-found>";
}

void ServConfig::Set(uint32_t number, const std::wstring& section, const std::wstring& value)
{
    std::lock_guard<std::mutex> lock(mutex);
    values[{number, section}] = value;
}

void ServConfig::Remove(uint32_t number, const std::wstring& section)
{
    std::lock_guard<std::mutex> lock(mutex);
    values.erase({number, section});
}

void ServConfig::SetMissing(Missing how)
{
    std::lock_guard<std::mutex> lock(mutex);
    missing = how;
}

const wchar_t* ServConfig::GetString(uint32_t number, const wchar_t* section)
{
    const wchar_t* result = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = section != nullptr ? values.find({number, section}) : values.end();
        if (it != values.end())
            result = it->second.c_str();
        else if (missing == Missing::NotFoundText)
            result = kNotFound;
    }
    journal.Record("productinfo.GetString " + std::to_string(number) + " " + Narrow(section) + " -> " +
                   (result != nullptr ? "\"" + Narrow(result) + "\"" : std::string("null")));
    return result;
}
} // namespace sim
