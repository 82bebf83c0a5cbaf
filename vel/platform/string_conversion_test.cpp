// The converters: what is borrowed, what is owned, and how long it stays.
#include <vel/platform/string_conversion.h>

#include <cwchar>
#include <gtest/gtest.h>
#include <string>
#include <vel/frame/error.h>

namespace {

const wchar_t* const hangul = L"\uD55C\uAE00";
const char* const hangul_utf8 = "\xED\x95\x9C\xEA\xB8\x80";

TEST(StringConversion, SameKindIsBorrowed) {
    VEL_Str_Conv converter;
    EXPECT_EQ(static_cast<const char*>(converter), nullptr);
    char own[] = "own";
    EXPECT_EQ(converter.convert_to_char(own), own);
    EXPECT_EQ(static_cast<const char*>(converter), own);
    EXPECT_EQ(converter.convert_to_tchar(own), own);
    EXPECT_EQ(converter.convert_to_wchar(hangul), hangul);
    const VEL_Str_Conv copy = converter;
    EXPECT_EQ(static_cast<const wchar_t*>(copy), hangul) << "a borrowed pointer stays borrowed";
    EXPECT_EQ(static_cast<const char*>(VEL_Str_Conv::text_convert_to_tchar(own)), own);
}

TEST(StringConversion, ResultsAreOwnedAndEndWithTwoZeros) {
    VEL_Str_Conv converter;
    const char* narrow = converter.convert_to_char(hangul);
    EXPECT_EQ(std::string(narrow, 8), hangul_utf8 + std::string(2, '\0'));
    const wchar_t* wide = converter.convert_to_wchar(hangul_utf8);
    EXPECT_EQ(std::wstring(wide, 4), hangul + std::wstring(2, L'\0'));
    wide = converter.convert_to_wchar("");
    EXPECT_EQ(wide[0] | wide[1], 0);
    narrow = converter.convert_to_tchar(L"");
    EXPECT_EQ(narrow[0] | narrow[1], 0);
}

TEST(StringConversion, CopiesOwnTheirOwn) {
    VEL_Str_Conv first;
    first.convert_to_char(hangul);
    VEL_Str_Conv second = first;
    EXPECT_NE(static_cast<const char*>(second), static_cast<const char*>(first));
    first = second;
    first = *&first;
    second.convert_to_char(L"other");
    EXPECT_STREQ(static_cast<const char*>(first), hangul_utf8);
    VEL_Str_Conv third = std::move(first);
    EXPECT_STREQ(static_cast<const char*>(third), hangul_utf8);
    third.convert_to_char("borrowed"); // frees what it owned; the leak checker watches
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_Conv::text_convert_to_char(hangul)), hangul_utf8);
    EXPECT_STREQ(static_cast<const wchar_t*>(VEL_Str_Conv::text_convert_to_wchar(hangul_utf8)), hangul);
}

TEST(StringConversion, Utf8InEveryDirection) {
    VEL_Str_UTF8_Conv converter;
    EXPECT_STREQ(converter.convert_UTF8_to_wchar(hangul_utf8), hangul);
    EXPECT_STREQ(converter.convert_wchar_to_UTF8(hangul), hangul_utf8);
    EXPECT_STREQ(converter.convert_UTF8_to_char("text"), "text");
    EXPECT_STREQ(converter.convert_char_to_UTF8("text"), "text");
    EXPECT_STREQ(converter.convert_UTF8_to_tchar("a\xFFz"), "a\xEF\xBF\xBDz");
    EXPECT_STREQ(converter.convert_tchar_to_UTF8("text"), "text");
    EXPECT_STREQ(converter.convert_wchar_to_UTF8(L"\U0001F600"), "\xF0\x9F\x98\x80");
    EXPECT_STREQ(static_cast<const wchar_t*>(VEL_Str_UTF8_Conv::text_convert_UTF8_to_wchar("a")), L"a");
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_UTF8_Conv::text_convert_UTF8_to_char("a")), "a");
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_UTF8_Conv::text_convert_UTF8_to_tchar("a")), "a");
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_UTF8_Conv::text_convert_tchar_to_UTF8("a")), "a");
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_UTF8_Conv::text_convert_to_UTF8("a")), "a");
    EXPECT_STREQ(static_cast<const char*>(VEL_Str_UTF8_Conv::text_convert_to_UTF8(hangul)), hangul_utf8);
    char text[] = "kept";
    EXPECT_NE(converter.convert_UTF8_to_char(text), text) << "even to the same bytes it is a conversion";
}

TEST(StringConversion, NullIsAnErrorThatLeavesNothing) {
    VEL_Str_Conv converter;
    converter.convert_to_char(hangul);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(converter.convert_to_char(static_cast<const wchar_t*>(nullptr)), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    EXPECT_EQ(static_cast<const char*>(converter), nullptr);
    EXPECT_EQ(converter.convert_to_char(static_cast<const char*>(nullptr)), nullptr);
}

} // namespace
