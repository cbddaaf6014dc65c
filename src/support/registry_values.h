// Readers of single registry values by root, key path and value name. A read
// that fails leaves its status in ec (win_error category) and gives 0 or an
// empty text; callers tell a failed read from a stored 0 or a stored empty
// text by ec alone. Nothing here logs or throws.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <system_error>

// RegGetValueW's flags for a read of a REG_DWORD into a four-byte buffer.
// RRF_NOEXPAND: a REG_EXPAND_SZ value is refused as it is instead of being
// expanded first. The result is the same (ERROR_UNSUPPORTED_TYPE), but
// Wine's expansion counts the buffer's bytes as characters and writes twice
// its size: past a DWORD on the stack.
constexpr DWORD kDwordValueFlags = RRF_RT_REG_DWORD | RRF_NOEXPAND;

// A REG_DWORD value. Any other type, a REG_BINARY of four bytes included,
// fails with RegGetValueW's status (ERROR_UNSUPPORTED_TYPE); an absent key or
// value with ERROR_FILE_NOT_FOUND.
uint32_t get_dword_value(HKEY root, const std::wstring& path, const std::wstring& name, std::error_code& ec) noexcept;

// A REG_SZ value without its terminator; a REG_EXPAND_SZ value comes
// expanded, as RegGetValueW gives it, and every other type fails with
// ERROR_UNSUPPORTED_TYPE. A stored empty text, with or without terminator,
// is an empty text and no error. A value that grows between the query of its
// size and the read fails with ERROR_MORE_DATA; out of memory is
// ERROR_NOT_ENOUGH_MEMORY.
std::wstring get_string_value(HKEY root, const std::wstring& path, const std::wstring& name,
                              std::error_code& ec) noexcept;
