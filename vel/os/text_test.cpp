// UTF-8 and other code pages.
#include <vel/os/text.h>

#include <gtest/gtest.h>
#include <vel/os/linux/code_page.h>

namespace vel::os {
namespace {

using namespace std::string_literals;

TEST(Utf8, GoodTextRoundTripsAndEveryBrokenPieceBecomesOneReplacement) {
    struct Row {
        std::string narrow;
        std::wstring wide;
    };
    const Row rows[] = {
        {"a\0\xC2\x80\xDF\xBF"s, L"a\0\u0080\u07FF"s},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", L"\u0800\uD7FF\uE000\uFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\U00010000\U0010FFFF"},
        {"a\x80z", L"a\uFFFDz"},                           // a continuation alone
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                     // overlong, two bytes
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},           // a surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // past the last code point
        {"\xE2\x82", L"\uFFFD"},                           // cut off at the end
        {"\xF0\x9F\x98z", L"\uFFFDz"},                     // cut off by another character
        {"\xE2\x82\xE2\x82\xAC", L"\uFFFD\u20AC"},         // cut off by the start of the next
    };
    for (const Row& row : rows) {
        EXPECT_EQ(utf8_to_wide(row.narrow), row.wide);
        const bool good = row.wide.find(0xFFFD) == row.wide.npos;
        EXPECT_EQ(wide_to_utf8(row.wide) == row.narrow, good);
    }
    const std::wstring broken{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
    EXPECT_EQ(wide_to_utf8(broken), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(CodePage, IsNamedByTheEnvironmentConvertsAndReplaces) {
    EXPECT_EQ(code_page_of_environment("", "ko_KR.utf8", "de_DE.ISO-8859-1"), "");
    EXPECT_EQ(code_page_of_environment(nullptr, nullptr, "de_DE.ISO-8859-15@euro"), "ISO-8859-15");
    EXPECT_EQ(code_page_of_environment("xx_XX.no-such-codeset", nullptr, nullptr), "");

    const std::wstring hangul = L"\uD55C\uAE00";
    EXPECT_EQ(wide_to_code_page("EUC-KR", hangul), "\xC7\xD1\xB1\xDB");
    EXPECT_EQ(code_page_to_wide("EUC-KR", "\xC7\xD1\xFFz\xC7"), L"\uD55C\uFFFDz\uFFFD");
    EXPECT_EQ(wide_to_code_page("ISO-8859-1", L"a" + hangul + L"\u00E9\U0001F600"), "a??\xE9?");
    EXPECT_EQ(wide_to_code_page("ISO-2022-KR", hangul).back(), '\x0F') << "must return to its first shift state";
    const std::wstring line(5000, L'\u00FC'); // many buffers long
    EXPECT_EQ(wide_to_code_page("ISO-8859-1", line), std::string(5000, '\xFC'));
    EXPECT_EQ(code_page_to_wide("ISO-8859-1", std::string(5000, '\xFC')), line);
}

} // namespace
} // namespace vel::os
