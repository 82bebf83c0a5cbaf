// The converters: what is borrowed, what is owned, and how long it stays.
#include <vel/platform/string_conversion.h>

#include <gtest/gtest.h>
#include <string>

namespace {

const wchar_t* const hangul = L"\uD55C\uAE00";
const char* const hangul_utf8 = "\xED\x95\x9C\xEA\xB8\x80";

TEST(StringConversion, SameKindIsBorrowedAndTheRestIsOwned) {
    VEL_Str_Conv first;
    char own[] = "own";
    EXPECT_EQ(first.convert_to_char(own), own);
    EXPECT_EQ(first.convert_to_wchar(hangul), hangul);
    EXPECT_EQ(std::string(first.convert_to_char(hangul), 8), hangul_utf8 + std::string(2, '\0'));

    VEL_Str_Conv second = first;
    EXPECT_NE(static_cast<const char*>(second), static_cast<const char*>(first));
    first = second;
    second.convert_to_char(L"other");
    VEL_Str_Conv third = std::move(first);
    EXPECT_STREQ(static_cast<const char*>(third), hangul_utf8);
    third.convert_to_char("borrowed"); // frees what it owned; the leak checker watches
    EXPECT_EQ(second.convert_to_char(static_cast<const wchar_t*>(nullptr)), nullptr);
    EXPECT_EQ(static_cast<const char*>(second), nullptr) << "an error leaves nothing";
}

TEST(StringConversion, Utf8InEveryDirection) {
    VEL_Str_UTF8_Conv converter;
    EXPECT_STREQ(converter.convert_UTF8_to_wchar(hangul_utf8), hangul);
    EXPECT_STREQ(converter.convert_UTF8_to_tchar("a\xFFz"), "a\xEF\xBF\xBDz");
    char text[] = "kept";
    EXPECT_NE(converter.convert_UTF8_to_char(text), text) << "even to the same bytes it is a conversion";
}

} // namespace
