#include "support/logger_stream.h"

#include <new>

logger_stream::logger_stream(uint32_t level, const wchar_t* function)
    : enabled(_AskEnabled()), level(level), function(function)
{
}

logger_stream::~logger_stream()
{
    if (!enabled || logging::UserCount() == 0)
        return;
    try
    {
        const std::wstring text = str();
        CLogDLLRef ref;
        ref.Acquire();
        if (const logging::CLogDLL* record = ref.get())
            record->Write(logging::kDepthSame, &level, function, L"%s", text.c_str());
    }
    catch (const std::bad_alloc&)
    {
        // A line that cannot be copied out is dropped: logging never fails
        // towards its caller.
    }
}

void logger_stream::_WriteNarrow(std::string_view text)
{
    for (const char c : text)
        put(widen(c));
}

logger_stream& logger_stream::operator<<(std::wostream& (*manipulator)(std::wostream&))
{
    if (enabled)
        manipulator(*this);
    return *this;
}

logger_stream& logger_stream::operator<<(std::ios_base& (*manipulator)(std::ios_base&))
{
    if (enabled)
        manipulator(*this);
    return *this;
}

bool logger_stream::_AskEnabled() noexcept
{
    if (logging::UserCount() == 0)
        return false;
    CLogDLLRef ref;
    ref.Acquire();
    const logging::CLogDLL* record = ref.get();
    return record != nullptr && record->module && record->LogIsEnabled != nullptr && record->LogIsEnabled() != 0;
}
