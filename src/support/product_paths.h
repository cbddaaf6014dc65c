// Where the product keeps its facts: the registry paths built from the host's
// product settings, the tests for a missing setting, the VPN's install
// shortcut on the public desktop and the directory of a module.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

#include "host/components.h"

// A product setting: IServConfig::GetString(number, section).
struct SettingId
{
    uint32_t number;
    const wchar_t* section;
};

namespace settings
{
// Path of the product key under HKEY_LOCAL_MACHINE, used unchanged.
inline constexpr SettingId ProductKey{217, L"Desktop"};
// The product identifier, suffix of the subscription key path.
inline constexpr SettingId ProductId{44, L"Desktop"};
// Suffix of the key that holds ActiveSessionId.
inline constexpr SettingId SessionKeySuffix{3003, L"common"};
// The product's base name: the VPN shortcut's name and the survey key.
inline constexpr SettingId BaseName{0, L"BASE"};
// Path of the VPN's Config value under HKEY_LOCAL_MACHINE.
inline constexpr SettingId VpnConfigKey{227, L"Desktop"};
// Path of the IsFreeApp value under HKEY_LOCAL_MACHINE.
inline constexpr SettingId AboutKey{203, L"app"};
// Folder of the settings files.
inline constexpr SettingId SettingsFolder{400, L"Desktop"};
} // namespace settings

// The text by which the host reports a setting it does not have (17
// characters); it may also give null.
inline constexpr wchar_t kSettingNotFound[] = L"<error-not-found>";

// Whole-text test: null, or equal to kSettingNotFound in length and in every
// character. "<error-not-found>x" and "" are settings like any other.
bool IsSettingMissing(const wchar_t* setting) noexcept;

// Quick test: null, or the first character is '<'.
bool IsSettingMissingQuick(const wchar_t* setting) noexcept;

// ".DEFAULT\SOFTWARE\Sub_ID_" followed directly by the product identifier,
// under HKEY_USERS: the profile every user shares. Empty when the identifier
// is missing by the whole-text test; an empty identifier gives the prefix
// alone. config must not be null.
std::optional<std::wstring> GetSubscriptionKeyPath(IServConfig* config);

// The product key path + "\Onboarding", under HKEY_LOCAL_MACHINE. Empty when
// the product key path is missing by the whole-text test. config must not be
// null.
std::optional<std::wstring> GetOnboardingKeyPath(IServConfig* config);

// Deletes "<base name> VPN.lnk" from the public desktop, "Quillmarten VPN.lnk"
// when the base name is empty or missing by the whole-text test. True when no
// such shortcut is left, none having been there included; false when the
// public desktop is unknown or the file cannot be deleted. config must not be
// null.
bool RemoveVpnInstallShortcut(IServConfig* config);

// The directory of module (null: the process's executable) with its trailing
// backslash, so "\wsc.dll" appended gives a doubled backslash, which the
// platform accepts. On failure empty, and ec holds GetModuleFileNameW's error,
// ERROR_GEN_FAILURE for a path without a backslash, or
// ERROR_NOT_ENOUGH_MEMORY.
std::wstring GetModuleDirectory(HMODULE module, std::error_code& ec) noexcept;
