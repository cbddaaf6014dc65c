#include "support/registry_values.h"

#include <new>

#include "support/error_code.h"

uint32_t get_dword_value(HKEY root, const std::wstring& path, const std::wstring& name, std::error_code& ec) noexcept
{
    static_assert(RRF_RT_REG_DWORD == 0x10, "REG_DWORD only, not a four-byte REG_BINARY");

    // RegGetValueW may fill the buffer even when it rejects the value's type:
    // a failure gives 0, never what the buffer holds.
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(root, path.c_str(), name.c_str(), kDwordValueFlags, nullptr, &value, &size);
    if (status != ERROR_SUCCESS)
    {
        ec = winapi::make_win_error(static_cast<uint32_t>(status));
        return 0;
    }
    ec.clear();
    return value;
}

std::wstring get_string_value(HKEY root, const std::wstring& path, const std::wstring& name,
                              std::error_code& ec) noexcept
{
    static_assert(RRF_RT_REG_SZ == 2, "REG_SZ, and REG_EXPAND_SZ expanded by the platform");

    DWORD size = 0;
    LSTATUS status = RegGetValueW(root, path.c_str(), name.c_str(), RRF_RT_REG_SZ, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS)
    {
        ec = winapi::make_win_error(static_cast<uint32_t>(status));
        return {};
    }
    ec.clear();
    if (size == 0)
        return {};

    try
    {
        std::wstring text(size / sizeof(wchar_t), L'\0');
        // The buffer's own size: an odd byte count reported for a malformed
        // value must not let the read write past the text.
        DWORD read = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        status = RegGetValueW(root, path.c_str(), name.c_str(), RRF_RT_REG_SZ, nullptr, &text[0], &read);
        if (status != ERROR_SUCCESS)
        {
            ec = winapi::make_win_error(static_cast<uint32_t>(status));
            return {};
        }
        // read counts the terminator; a value emptied between the two reads
        // may leave nothing at all.
        text.resize(read >= sizeof(wchar_t) ? read / sizeof(wchar_t) - 1 : 0);
        return text;
    }
    catch (const std::bad_alloc&)
    {
        ec = winapi::make_win_error(ERROR_NOT_ENOUGH_MEMORY);
        return {};
    }
}
