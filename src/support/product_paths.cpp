#include "support/product_paths.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <cwchar>
#include <new>

#include "support/error_code.h"
#include "support/unique_resource.h"

namespace
{
const wchar_t kSubscriptionKeyPrefix[] = L".DEFAULT\\SOFTWARE\\Sub_ID_";
const wchar_t kOnboardingSubkey[] = L"\\Onboarding";
const wchar_t kDefaultBaseName[] = L"Quillmarten";
const wchar_t kVpnShortcutSuffix[] = L" VPN.lnk";

// Long enough for any path GetModuleFileNameW can give.
constexpr DWORD kModulePathCapacity = 32767;

const wchar_t* GetSetting(IServConfig* config, SettingId id)
{
    return config->GetString(id.number, id.section);
}
} // namespace

bool IsSettingMissing(const wchar_t* setting) noexcept
{
    return setting == nullptr || std::wcscmp(setting, kSettingNotFound) == 0;
}

bool IsSettingMissingQuick(const wchar_t* setting) noexcept
{
    return setting == nullptr || setting[0] == L'<';
}

std::optional<std::wstring> GetSubscriptionKeyPath(IServConfig* config)
{
    const wchar_t* productId = GetSetting(config, settings::ProductId);
    if (IsSettingMissing(productId))
        return std::nullopt;
    return kSubscriptionKeyPrefix + std::wstring(productId);
}

std::optional<std::wstring> GetOnboardingKeyPath(IServConfig* config)
{
    const wchar_t* productKey = GetSetting(config, settings::ProductKey);
    if (IsSettingMissing(productKey))
        return std::nullopt;
    return productKey + std::wstring(kOnboardingSubkey);
}

bool RemoveVpnInstallShortcut(IServConfig* config)
{
    // FOLDERID_PublicDesktop is {C4AA340D-F20F-4863-AFEF-F87EF2E6BA25}. The
    // text is ours to free whatever the result.
    PWSTR rawFolder = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_PublicDesktop, 0, nullptr, &rawFolder);
    const UniqueCoTaskMem<wchar_t> folder(rawFolder);
    if (FAILED(result))
        return false;

    const wchar_t* baseName = GetSetting(config, settings::BaseName);
    if (IsSettingMissing(baseName) || baseName[0] == L'\0')
        baseName = kDefaultBaseName;

    std::wstring shortcut(folder.get());
    shortcut += L'\\';
    shortcut += baseName;
    shortcut += kVpnShortcutSuffix;
    if (PathFileExistsW(shortcut.c_str()) && !DeleteFileW(shortcut.c_str()))
        return false;
    return true;
}

std::wstring GetModuleDirectory(HMODULE module, std::error_code& ec) noexcept
{
    try
    {
        std::wstring path(kModulePathCapacity, L'\0');
        // A full buffer means a cut path only when the call says so.
        SetLastError(ERROR_SUCCESS);
        const DWORD length = GetModuleFileNameW(module, &path[0], kModulePathCapacity);
        const DWORD error = GetLastError();
        if (length == 0 || (length == kModulePathCapacity && error != ERROR_SUCCESS))
        {
            // A failure is never stored as 0.
            ec = winapi::make_win_error(error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE);
            return {};
        }

        const size_t lastBackslash = path.rfind(L'\\', length - 1);
        if (lastBackslash == std::wstring::npos)
        {
            ec = winapi::make_win_error(ERROR_GEN_FAILURE);
            return {};
        }
        // A copy of the directory alone, without the buffer's spare room.
        std::wstring directory = path.substr(0, lastBackslash + 1);
        ec.clear();
        return directory;
    }
    catch (const std::bad_alloc&)
    {
        ec = winapi::make_win_error(ERROR_NOT_ENOUGH_MEMORY);
        return {};
    }
}
