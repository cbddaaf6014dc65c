// Paths from product settings (the simulated host's table), the VPN shortcut
// on the real public desktop and module directories.
#include <gtest/gtest.h>

#include <shlobj.h>
#include <shlwapi.h>

#include "simhost/serv_config.h"
#include "support/error_code.h"
#include "support/product_paths.h"
#include "support/unique_resource.h"

namespace
{

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

// The path of name on the public desktop; with attributes, a file created
// there.
std::wstring OnPublicDesktop(const std::wstring& name, DWORD attributes = 0)
{
    PWSTR raw = nullptr;
    EXPECT_EQ(S_OK, SHGetKnownFolderPath(FOLDERID_PublicDesktop, 0, nullptr, &raw));
    const UniqueCoTaskMem<wchar_t> folder(raw);
    const std::wstring path = std::wstring(folder ? folder.get() : L"") + L"\\" + name + L" VPN.lnk";
    if (attributes != 0)
    {
        const UniqueFileHandle file(
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr));
        EXPECT_TRUE(file) << GetLastError();
    }
    return path;
}

// The product identifier, the product key and the base name all set to one
// text, or all absent (null). Key paths are empty only for a setting missing
// by the whole text; of the two shortcuts on the desktop exactly the one
// named goes, "Quillmarten" for a base name that is empty or missing.
TEST(ProductPaths, KeyPathsAndTheVpnShortcutFollowTheSettings)
{
    struct Row
    {
        const wchar_t* setting; // null: missing
        std::optional<std::wstring> subscription, onboarding;
        const wchar_t *deleted, *kept; // null: no file name
    };
    const wchar_t *acme = L"Acme", *quill = L"Quillmarten";
    for (const Row& row : {Row{acme, L".DEFAULT\\SOFTWARE\\Sub_ID_Acme", L"Acme\\Onboarding", acme, quill},
                           Row{L"", L".DEFAULT\\SOFTWARE\\Sub_ID_", L"\\Onboarding", quill, acme},
                           Row{L"<error-not-foune>", L".DEFAULT\\SOFTWARE\\Sub_ID_<error-not-foune>",
                               L"<error-not-foune>\\Onboarding", nullptr, nullptr},
                           Row{L"<error-not-found>", std::nullopt, std::nullopt, quill, acme},
                           Row{nullptr, std::nullopt, std::nullopt, quill, acme}})
    {
        SCOPED_TRACE(row.setting ? row.setting : L"(null)");
        sim::Journal journal;
        sim::ServConfig config{journal};
        for (const SettingId id : {settings::ProductId, settings::ProductKey, settings::BaseName})
        {
            if (row.setting != nullptr)
                config.Set(id.number, id.section, row.setting);
        }
        EXPECT_EQ(GetSubscriptionKeyPath(&config), row.subscription);
        EXPECT_EQ(GetOnboardingKeyPath(&config), row.onboarding);
        if (row.deleted == nullptr)
            continue;
        OnPublicDesktop(acme, FILE_ATTRIBUTE_NORMAL);
        OnPublicDesktop(quill, FILE_ATTRIBUTE_NORMAL);
        EXPECT_TRUE(RemoveVpnInstallShortcut(&config));
        EXPECT_FALSE(PathFileExistsW(OnPublicDesktop(row.deleted).c_str()));
        EXPECT_TRUE(RemoveVpnInstallShortcut(&config)) << "none left";
        EXPECT_TRUE(DeleteFileW(OnPublicDesktop(row.kept).c_str())) << "the other one stays";
    }
}

TEST(ProductPaths, ModuleDirectoryKeepsItsBackslash)
{
    std::error_code ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
    const std::wstring own = GetModuleDirectory(nullptr, ec);
    EXPECT_FALSE(ec);
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    EXPECT_EQ(own, std::wstring(program, PathFindFileNameW(program)));

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
