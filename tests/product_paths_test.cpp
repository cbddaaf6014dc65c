// Paths from product settings (the simulated host's table), the VPN shortcut
// on the real public desktop and module directories.
#include <gtest/gtest.h>

#include <shlobj.h>
#include <shlwapi.h>

#include <optional>
#include <string>

#include "simhost/serv_config.h"
#include "support/error_code.h"
#include "support/product_paths.h"
#include "support/unique_resource.h"

namespace
{
using Missing = sim::ServConfig::Missing;

// The host's settings, each absent one reported as missing says.
struct Settings
{
    explicit Settings(Missing missing) { config.SetMissing(missing); }
    sim::Journal journal;
    sim::ServConfig config{journal};
};

TEST(ProductPaths, MissingSettingTests)
{
    struct Row
    {
        const wchar_t* setting;
        bool whole, quick;
    };
    for (const Row& row : {Row{nullptr, true, true}, Row{L"<error-not-found>", true, true}, Row{L"", false, false},
                           Row{L"<error-not-foune>", false, true}, Row{L"<error-not-found>x", false, true},
                           Row{L"<error-not-foun", false, true}, Row{L"error-not-found>", false, false}})
    {
        EXPECT_EQ(IsSettingMissing(row.setting), row.whole) << row.setting;
        EXPECT_EQ(IsSettingMissingQuick(row.setting), row.quick) << row.setting;
    }
}

TEST(ProductPaths, KeyPathsAreEmptyOnlyForASettingMissingByTheWholeText)
{
    struct Row
    {
        const wchar_t* setting; // null: not in the table
        Missing missing;
        std::optional<std::wstring> subscription, onboarding;
    };
    for (const Row& row : {Row{L"QM1", Missing::Null, L".DEFAULT\\SOFTWARE\\Sub_ID_QM1", L"QM1\\Onboarding"},
                           Row{L"", Missing::Null, L".DEFAULT\\SOFTWARE\\Sub_ID_", L"\\Onboarding"},
                           Row{L"<error-not-foune>", Missing::Null, L".DEFAULT\\SOFTWARE\\Sub_ID_<error-not-foune>",
                               L"<error-not-foune>\\Onboarding"},
                           Row{L"<error-not-found>", Missing::Null, std::nullopt, std::nullopt},
                           Row{nullptr, Missing::NotFoundText, std::nullopt, std::nullopt},
                           Row{nullptr, Missing::Null, std::nullopt, std::nullopt}})
    {
        Settings settings(row.missing);
        if (row.setting != nullptr)
        {
            settings.config.Set(44, L"Desktop", row.setting);
            settings.config.Set(217, L"Desktop", row.setting);
        }
        EXPECT_EQ(GetSubscriptionKeyPath(&settings.config), row.subscription) << row.setting;
        EXPECT_EQ(GetOnboardingKeyPath(&settings.config), row.onboarding) << row.setting;
    }
}

// The path of name on the public desktop; with attributes, a file created
// there.
std::wstring OnPublicDesktop(const wchar_t* name, DWORD attributes = 0)
{
    PWSTR raw = nullptr;
    EXPECT_EQ(S_OK, SHGetKnownFolderPath(FOLDERID_PublicDesktop, 0, nullptr, &raw));
    const UniqueCoTaskMem<wchar_t> folder(raw);
    const std::wstring path = std::wstring(folder ? folder.get() : L"") + L"\\" + name;
    if (attributes != 0)
    {
        const UniqueFileHandle file(
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr));
        EXPECT_TRUE(file) << GetLastError();
    }
    return path;
}

// Both candidates lie on the desktop; exactly the one named goes.
TEST(ProductPaths, RemoveVpnInstallShortcutDeletesTheOneOfTheBaseName)
{
    const std::wstring acme = OnPublicDesktop(L"Acme VPN.lnk"), quill = OnPublicDesktop(L"Quillmarten VPN.lnk");
    struct Row
    {
        const wchar_t* base; // null: not in the table
        Missing missing;
        const std::wstring &deleted, &kept;
    };
    for (const Row& row : {Row{L"Acme", Missing::Null, acme, quill}, Row{L"", Missing::Null, quill, acme},
                           Row{nullptr, Missing::NotFoundText, quill, acme}, Row{nullptr, Missing::Null, quill, acme}})
    {
        Settings settings(row.missing);
        if (row.base != nullptr)
            settings.config.Set(0, L"BASE", row.base);
        OnPublicDesktop(L"Acme VPN.lnk", FILE_ATTRIBUTE_NORMAL);
        OnPublicDesktop(L"Quillmarten VPN.lnk", FILE_ATTRIBUTE_NORMAL);
        EXPECT_TRUE(RemoveVpnInstallShortcut(&settings.config)) << row.base;
        EXPECT_FALSE(PathFileExistsW(row.deleted.c_str())) << row.base;
        EXPECT_TRUE(RemoveVpnInstallShortcut(&settings.config)) << row.base << ": none left";
        EXPECT_TRUE(DeleteFileW(row.kept.c_str())) << row.base << ": the other one stays";
    }

    Settings settings(Missing::Null);
    OnPublicDesktop(L"Quillmarten VPN.lnk", FILE_ATTRIBUTE_READONLY);
    EXPECT_FALSE(RemoveVpnInstallShortcut(&settings.config)) << "a shortcut that cannot be deleted";
    SetFileAttributesW(quill.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_TRUE(DeleteFileW(quill.c_str()));
}

TEST(ProductPaths, ModuleDirectoryKeepsItsBackslash)
{
    std::error_code ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
    const std::wstring own = GetModuleDirectory(nullptr, ec);
    EXPECT_FALSE(ec);
    EXPECT_TRUE(PathFileExistsW((own + L"product_paths_test.exe").c_str())) << own;

    // A caller's "\name.dll" appended: the doubled backslash loads the module.
    const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    const std::wstring system = GetModuleDirectory(kernel, ec);
    EXPECT_FALSE(ec);
    const std::wstring doubled = system + L"\\kernel32.dll";
    EXPECT_NE(doubled.find(L"\\\\kernel32.dll"), std::wstring::npos) << system;
    EXPECT_EQ(UniqueModule(LoadLibraryW(doubled.c_str())).get(), kernel) << system;

    int local = 0; // an address that is no module
    EXPECT_EQ(GetModuleDirectory(reinterpret_cast<HMODULE>(&local), ec), L"");
    EXPECT_EQ(ec, winapi::make_win_error(ERROR_MOD_NOT_FOUND));
}
} // namespace
