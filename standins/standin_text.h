// Texts the stand-ins read from their environment and write as UTF-8.
#pragma once

#include <windows.h>

#include <string>

namespace standin
{
// The value of an environment variable; empty when it is not set.
inline std::wstring Variable(const wchar_t* name)
{
    const DWORD size = GetEnvironmentVariableW(name, nullptr, 0);
    if (size == 0)
        return {};
    std::wstring value(size, L'\0');
    const DWORD length = GetEnvironmentVariableW(name, &value[0], size);
    value.resize(length < size ? length : 0);
    return value;
}

inline std::string ToUtf8(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &result[0], size, nullptr,
                            nullptr);
    return result;
}
} // namespace standin
