// The registry readers against the real registry, in a key of their own that
// each case removes again.
#include <gtest/gtest.h>

#include <functional>
#include <string>
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

class RegistryValues : public ::testing::Test
{
protected:
    void TearDown() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey); }
    // Every read starts from a stale failure, which a success must clear.
    std::error_code ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
};

// Both readers over each kind of value. RegGetValueW fills the buffer with a
// four-byte REG_BINARY or REG_SZ even as it rejects the type: 0 all the same.
TEST_F(RegistryValues, EachReaderTakesItsOwnTypeOnly)
{
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
        if (row.data != nullptr)
        {
            ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, row.name, row.type, row.data, row.bytes));
        }
        const uint32_t value = get_dword_value(HKEY_LOCAL_MACHINE, kKey, row.name, ec);
        EXPECT_EQ(value, row.dwordStatus == 0 ? number : 0) << row.name;
        EXPECT_EQ(ec, Status(row.dwordStatus)) << row.name;
        ec = winapi::make_win_error(ERROR_ACCESS_DENIED);
        EXPECT_EQ(get_string_value(HKEY_LOCAL_MACHINE, kKey, row.name, ec), row.text) << row.name;
        EXPECT_EQ(ec, Status(row.textStatus)) << row.name;
    }
}

// The text changes size between the reader's size query and its read: the
// test's own RegGetValueW (linked in with --wrap) stores the other text
// right after a size query. One that grew fails with ERROR_MORE_DATA, one
// that shrank is read whole and no longer.
TEST_F(RegistryValues, StringThatChangesSizeBetweenTheTwoReads)
{
    const std::wstring shortText = L"s", longText(4000, L'b');
    const struct
    {
        const std::wstring &before, &after;
        uint32_t status;
        const std::wstring& read;
    } rows[] = {{shortText, longText, ERROR_MORE_DATA, L""}, {longText, shortText, 0, shortText}};
    for (const auto& row : rows)
    {
        auto store = [&](const std::wstring& text) {
            return RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"moving", REG_SZ, text.c_str(),
                                   static_cast<DWORD>(text.size() + 1) * sizeof(wchar_t));
        };
        ASSERT_EQ(0, store(row.before));
        betweenReads = [&] { store(row.after); };
        EXPECT_EQ(get_string_value(HKEY_LOCAL_MACHINE, kKey, L"moving", ec), row.read) << row.before.size();
        EXPECT_EQ(ec, Status(row.status)) << row.before.size();
        EXPECT_FALSE(betweenReads) << "one size query";
    }
}
} // namespace

extern "C" {
decltype(&RegGetValueW) __wrap___imp_RegGetValueW = &RegGetValueThenChange;
}
