// Error values: the standard error_code pair. No error is value 0 in the
// standard system category (a default error_code); a failure is the Windows
// code in the one category of Windows errors, winapi's "win_error".
#pragma once

#include <cstdint>
#include <string>
#include <system_error>

namespace winapi
{
namespace details
{
class win_error_category final : public std::error_category
{
public:
    ~win_error_category() override = default;

    // "win_error", the same text on every call.
    const char* name() const noexcept override;
    // The system's text for code through FormatMessageA, kept as the system
    // gives it (line end included); for a code the system does not know,
    // "unknown error " and the code as an unsigned decimal number.
    std::string message(int code) const override;
    // The same code in this category.
    std::error_condition default_error_condition(int code) const noexcept override;
};
} // namespace details

// The one category object of Windows errors, alive from the module's load.
const std::error_category& win_category() noexcept;

// The failure state for a Windows error code (or a host status).
inline std::error_code make_win_error(uint32_t code) noexcept
{
    return std::error_code(static_cast<int>(code), win_category());
}
} // namespace winapi
