// UTF-8, other code pages and random bytes.
#include <vel/os/text.h>

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <vel/os/linux/code_page.h>

namespace vel::os {
namespace {

using namespace std::string_literals;

TEST(Utf8, GoodTextRoundTrips) {
    const std::pair<std::string, std::wstring> rows[] = {
        {"", L""},
        {"plain\0text"s, L"plain\0text"s},
        {"\xC2\x80\xDF\xBF", L"\u0080\u07FF"},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", L"\u0800\uD7FF\uE000\uFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\U00010000\U0010FFFF"},
        {"\xED\x95\x9C\xEA\xB8\x80", L"\uD55C\uAE00"},
    };
    for (const auto& [narrow, wide] : rows) {
        EXPECT_EQ(utf8_to_wide(narrow), wide);
        EXPECT_EQ(wide_to_utf8(wide), narrow);
    }
}

TEST(Utf8, EveryBrokenPieceBecomesOneReplacement) {
    const std::pair<std::string, std::wstring> rows[] = {
        {"a\x80z", L"a\uFFFDz"},                           // a continuation alone
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                     // overlong, two bytes
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},           // overlong, three bytes
        {"\xF0\x82\x82\xAC", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // overlong, four bytes
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},           // a surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // past the last code point
        {"\xF8\xFF\xFE", L"\uFFFD\uFFFD\uFFFD"},           // no first bytes at all
        {"\xE2\x82", L"\uFFFD"},                           // cut off at the end
        {"\xF0\x9F\x98z", L"\uFFFDz"},                     // cut off by another character
        {"\xE2\x82\xE2\x82\xAC", L"\uFFFD\u20AC"},         // cut off by the start of the next
    };
    for (const auto& [narrow, wide] : rows) EXPECT_EQ(utf8_to_wide(narrow), wide);
    const std::wstring surrogate{static_cast<wchar_t>(0xD800), L'a', static_cast<wchar_t>(0x110000),
                                 static_cast<wchar_t>(0x80000000)};
    EXPECT_EQ(wide_to_utf8(surrogate), "\xEF\xBF\xBD"
                                       "a\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(CodePage, EnvironmentNamesIt) {
    EXPECT_EQ(code_page_of_environment(nullptr, nullptr, nullptr), "");
    EXPECT_EQ(code_page_of_environment("", "", "C"), "");
    EXPECT_EQ(code_page_of_environment("POSIX", nullptr, "de_DE.ISO-8859-1"), "");
    EXPECT_EQ(code_page_of_environment("", "ko_KR.utf8", "de_DE.ISO-8859-1"), "");
    EXPECT_EQ(code_page_of_environment(nullptr, nullptr, "de_DE.ISO-8859-15@euro"), "ISO-8859-15");
    EXPECT_EQ(code_page_of_environment(nullptr, "ko_KR.EUC-KR", "C"), "EUC-KR");
    EXPECT_EQ(code_page_of_environment("xx_XX.no-such-codeset", nullptr, nullptr), "");
}

TEST(CodePage, ConvertsAndReplaces) {
    const std::wstring hangul = L"\uD55C\uAE00";
    EXPECT_EQ(wide_to_code_page("EUC-KR", hangul), "\xC7\xD1\xB1\xDB");
    EXPECT_EQ(code_page_to_wide("EUC-KR", "\xC7\xD1\xB1\xDB"), hangul);
    EXPECT_EQ(wide_to_code_page("ISO-8859-1", L"a" + hangul + L"\u00E9\U0001F600"), "a??\xE9?");
    EXPECT_EQ(code_page_to_wide("EUC-KR", "a\xFF"
                                          "b\xC7"),
              L"a\uFFFDb\uFFFD");
    EXPECT_EQ(wide_to_code_page("ISO-2022-KR", hangul).back(), '\x0F') << "must return to its first shift state";

    const std::wstring line(5000, L'\u00FC'); // many buffers long
    EXPECT_EQ(wide_to_code_page("ISO-8859-1", line), std::string(5000, '\xFC'));
    EXPECT_EQ(code_page_to_wide("ISO-8859-1", std::string(5000, '\xFC')), line);
    EXPECT_EQ(code_page_to_wide("", "\xC3\xBC"), L"\u00FC") << "no name is UTF-8";
}

TEST(RandomBytes, FillEveryByte) {
    std::array<unsigned char, 700> first{}, second{};
    ASSERT_EQ(random_bytes(first.data(), first.size() - 1), 0u);
    ASSERT_EQ(random_bytes(second.data(), second.size() - 1), 0u);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.back(), 0) << "wrote past the end";
    EXPECT_LT(std::count(first.begin(), first.end(), 0), 30) << "some of it was not filled";
}

TEST(SystemMessage, OnlyForKnownNumbers) {
    EXPECT_EQ(system_message(40), "Too many levels of symbolic links");
    EXPECT_EQ(system_message(99999), "");
    EXPECT_EQ(system_message(-1), "");
}

} // namespace
} // namespace vel::os
