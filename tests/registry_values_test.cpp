// The registry readers against the real registry, in a key of their own that
// each case removes again.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/error_code.h"
#include "support/registry_values.h"

namespace
{
const wchar_t kKey[] = L"Software\\PcpRegistryValuesTest";

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

// A writer swaps a short and a long text under the reader; about half the
// reads meet a change. One that grew between the size query and the read
// fails with ERROR_MORE_DATA, one that shrank is read whole and no longer.
TEST_F(RegistryValues, StringThatChangesSizeBetweenTheTwoReads)
{
    const std::wstring texts[] = {L"s", std::wstring(4000, L'b')};
    auto store = [&](size_t i) { // no assertions here: GoogleTest is built without threads
        return RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"moving", REG_SZ, texts[i].c_str(),
                               static_cast<DWORD>(texts[i].size() + 1) * sizeof(wchar_t));
    };
    ASSERT_EQ(0, store(0));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (size_t i = 1; !stop; ++i)
            store(i % 2);
    });
    int grew = 0, read = 0, wrong = 0;
    for (int i = 0; i < 1000; ++i)
    {
        const std::wstring text = get_string_value(HKEY_LOCAL_MACHINE, kKey, L"moving", ec);
        if (!ec && (text == texts[0] || text == texts[1]))
            ++read;
        else if (ec == winapi::make_win_error(ERROR_MORE_DATA) && text.empty())
            ++grew;
        else
            ++wrong;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(grew, 0);
    EXPECT_GT(read, 0);
}
} // namespace
