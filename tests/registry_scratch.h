// Registry keys a test writes, read back and removed when the test ends.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

class RegistryScratch
{
public:
    RegistryScratch() = default;
    ~RegistryScratch()
    {
        for (const auto& key : keys)
            RegDeleteTreeW(key.first, key.second.c_str());
    }
    RegistryScratch(const RegistryScratch&) = delete;
    RegistryScratch& operator=(const RegistryScratch&) = delete;

    // Removes the key now and again when the test ends.
    void Forget(HKEY root, const std::wstring& key)
    {
        RegDeleteTreeW(root, key.c_str());
        keys.emplace_back(root, key);
    }

    void SetDword(HKEY root, const std::wstring& key, const wchar_t* name, DWORD value)
    {
        RegSetKeyValueW(root, key.c_str(), name, REG_DWORD, &value, sizeof(value));
    }

    // The value, or 0xFFFFFFFF when it cannot be read.
    DWORD Dword(HKEY root, const std::wstring& key, const wchar_t* name) const
    {
        DWORD value = 0;
        DWORD size = sizeof(value);
        if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_DWORD, nullptr, &value, &size) != ERROR_SUCCESS)
            return 0xFFFFFFFFu;
        return value;
    }

    // The text, or "<unreadable>" when it cannot be read.
    std::wstring String(HKEY root, const std::wstring& key, const wchar_t* name) const
    {
        DWORD size = 0;
        if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
            return L"<unreadable>";
        std::wstring text(size / sizeof(wchar_t), L'\0');
        if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_SZ, nullptr, &text[0], &size) != ERROR_SUCCESS)
            return L"<unreadable>";
        text.resize(size / sizeof(wchar_t) - 1);
        return text;
    }

private:
    std::vector<std::pair<HKEY, std::wstring>> keys;
};
