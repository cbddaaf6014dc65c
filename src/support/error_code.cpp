#include "support/error_code.h"

#include <windows.h>

namespace winapi
{
namespace
{
// Stateless; initialised as a constant where the standard library's
// error_category allows it, so it is there from the module's load on.
const details::win_error_category winErrorCategory{};
} // namespace

namespace details
{
const char* win_error_category::name() const noexcept
{
    return "win_error";
}

std::string win_error_category::message(int code) const
{
    constexpr DWORD kCapacity = 32767;
    constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    static_assert(kFlags == 0x1200, "system messages, inserts left alone");

    std::string text(kCapacity, '\0');
    const DWORD length =
        FormatMessageA(kFlags, nullptr, static_cast<DWORD>(code), 0, &text[0], kCapacity, nullptr);
    if (length == 0)
        return "unknown error " + std::to_string(static_cast<uint32_t>(code));
    text.resize(length);
    text.shrink_to_fit();
    return text;
}

std::error_condition win_error_category::default_error_condition(int code) const noexcept
{
    return std::error_condition(code, *this);
}
} // namespace details

const std::error_category& win_category() noexcept
{
    return winErrorCategory;
}
} // namespace winapi
