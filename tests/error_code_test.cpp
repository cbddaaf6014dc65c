// Windows error values: the texts of win_error and how its codes compare.
#include <gtest/gtest.h>

#include <string>
#include <system_error>

#include "support/error_code.h"

namespace
{
TEST(WinErrorCategory, MessagesAreTheSystemsTextsOrUnknownErrorWithTheUnsignedCode)
{
    const std::error_category& category = winapi::win_category();
    struct Row
    {
        int code;
        const char* unknownText; // null: the system knows the code
    };
    for (const Row row : {Row{0, nullptr}, Row{5, nullptr}, Row{0x7FFFFFFF, "unknown error 2147483647"},
                          Row{-1, "unknown error 4294967295"}})
    {
        const std::string text = category.message(row.code);
        if (row.unknownText != nullptr)
        {
            EXPECT_EQ(text, row.unknownText);
            continue;
        }
        EXPECT_EQ(text.rfind("unknown error", 0), std::string::npos) << row.code;
        ASSERT_GE(text.size(), 2u) << row.code;
        EXPECT_EQ(text.substr(text.size() - 2), "\r\n") << row.code << ": the system's line end is kept";
        EXPECT_EQ(text.find('\0'), std::string::npos) << row.code;
    }
}

TEST(WinErrorCategory, OneNamedObjectWhoseCodesDifferFromTheSystemCategorys)
{
    const std::error_category& category = winapi::win_category();
    EXPECT_EQ(&category, &winapi::win_category());
    EXPECT_STREQ(category.name(), "win_error");

    const std::error_code failure = winapi::make_win_error(5);
    EXPECT_EQ(failure.value(), 5);
    EXPECT_EQ(&failure.category(), &category);
    EXPECT_NE(failure, std::error_code(5, std::system_category()));
    EXPECT_EQ(category.default_error_condition(5), std::error_condition(5, category));
    EXPECT_TRUE(failure == std::error_condition(5, category));
    EXPECT_FALSE(failure == std::error_condition(5, std::generic_category()));
}
} // namespace
