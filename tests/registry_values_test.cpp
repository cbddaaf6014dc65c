// The registry readers against the real registry, in a key of their own that
// each case removes again, and the Windows error values they give.
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "support/error_code.h"
#include "support/registry_values.h"

extern "C" decltype(&RegGetValueW) __real___imp_RegGetValueW;

namespace
{
const wchar_t kKey[] = L"Software\\PcpRegistryValuesTest";

// Run once, right after the next size query (a read without a buffer).
std::function<void()> betweenReads;

LSTATUS WINAPI RegGetValueThenChange(HKEY root, LPCWSTR key, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                                     LPDWORD size)
{
    const LSTATUS status = __real___imp_RegGetValueW(root, key, name, flags, type, data, size);
    if (data == nullptr && betweenReads)
        std::exchange(betweenReads, nullptr)();
    return status;
}

std::error_code Status(uint32_t status)
{
    return status == 0 ? std::error_code() : winapi::make_win_error(status);
}

// Both readers over each kind of value; every read starts from a stale
// failure, which a success must clear. RegGetValueW fills the buffer with a
// four-byte REG_BINARY or REG_SZ even as it rejects the type: 0 all the same.
// Then a text changes size between the reader's size query and its read:
// the test's own RegGetValueW (linked in with --wrap) stores the other text
// right after a size query. One that grew fails with ERROR_MORE_DATA, one
// that shrank is read whole and no longer.
TEST(RegistryValues, EachReaderTakesItsOwnTypeAndATextThatChangesSizeBetweenTheTwoReads)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey);
    const DWORD number = 0x12345678;
    wchar_t expanded[MAX_PATH];
    ASSERT_NE(0u, ExpandEnvironmentStringsW(L"%SystemRoot%\\x", expanded, MAX_PATH));
    struct Row
    {
        const wchar_t* name;
        DWORD type;
        const void* data; // null: not stored
        DWORD bytes;
        uint32_t dwordStatus, textStatus;
        std::wstring text;
    };
    const uint32_t type = ERROR_UNSUPPORTED_TYPE, absent = ERROR_FILE_NOT_FOUND;
    for (const Row& row : {Row{L"dword", REG_DWORD, &number, 4, 0, type, L""},
                           Row{L"binary", REG_BINARY, &number, 4, type, type, L""},
                           Row{L"text", REG_SZ, L"xy", 6, type, 0, L"xy"},
                           Row{L"unterminated", REG_SZ, L"xy", 4, type, 0, L"xy"},
                           Row{L"empty", REG_SZ, L"", 2, type, 0, L""},
                           Row{L"no bytes", REG_SZ, L"", 0, type, 0, L""},
                           Row{L"expandable", REG_EXPAND_SZ, L"%SystemRoot%\\x", 30, type, 0, expanded},
                           Row{L"multi", REG_MULTI_SZ, L"a\0b\0", 10, type, type, L""},
                           Row{L"absent", REG_SZ, nullptr, 0, absent, absent, L""}})
    {
        SCOPED_TRACE(row.name);
        if (row.data != nullptr)
        {
            ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, row.name, row.type, row.data, row.bytes));
        }
        std::error_code ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
        EXPECT_EQ(get_dword_value(HKEY_LOCAL_MACHINE, kKey, row.name, ec), row.dwordStatus == 0 ? number : 0);
        EXPECT_EQ(ec, Status(row.dwordStatus));
        ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
        EXPECT_EQ(get_string_value(HKEY_LOCAL_MACHINE, kKey, row.name, ec), row.text);
        EXPECT_EQ(ec, Status(row.textStatus));
    }

    const std::wstring shortText = L"s", longText(4000, L'b');
    const struct
    {
        const std::wstring &before, &after;
        uint32_t status;
        const std::wstring& read;
    } moving[] = {{shortText, longText, ERROR_MORE_DATA, L""}, {longText, shortText, 0, shortText}};
    for (const auto& row : moving)
    {
        SCOPED_TRACE(row.before.size());
        const auto store = [&](const std::wstring& text) {
            return RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"moving", REG_SZ, text.c_str(),
                                   static_cast<DWORD>(text.size() + 1) * sizeof(wchar_t));
        };
        ASSERT_EQ(0, store(row.before));
        betweenReads = [&] { store(row.after); };
        std::error_code ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
        EXPECT_EQ(get_string_value(HKEY_LOCAL_MACHINE, kKey, L"moving", ec), row.read);
        EXPECT_EQ(ec, Status(row.status));
        EXPECT_FALSE(betweenReads) << "one size query";
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey);
}

TEST(WinErrorCategory, TheSystemsTextsOrUnknownErrorAndTheUnsignedCode)
{
    const std::error_category& category = winapi::win_category();
    const std::string text = category.message(5);
    EXPECT_EQ(text.rfind("unknown error", 0), std::string::npos);
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n") << "the system's line end is kept";
    EXPECT_EQ(text.find('\0'), std::string::npos);
    EXPECT_EQ(category.message(-1), "unknown error 4294967295");
}
} // namespace

extern "C" {
decltype(&RegGetValueW) __wrap___imp_RegGetValueW = &RegGetValueThenChange;
}
