// Where the string family is more than a call of the runtime, the texts that ask for room, and the converters.
#include <vel/platform/strings.h>

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vel/platform/directories.h>
#include <vel/platform/identifiers.h>
#include <vel/platform/string_conversion.h>
#include <vel/testing/expect_failure.h>

namespace {

TEST(Strings, ComparisonsSearchesAndChangesInPlace) {
    EXPECT_EQ(VELLib::tstricmp("HeLLo-1", "hEllO-1"), 0);
    EXPECT_LT(VELLib::tstricmp("a", "\xE9"), 0) << "bytes compare unsigned";
    EXPECT_EQ(VELLib::tstrfind("", ""), -1);
    EXPECT_EQ(VELLib::tstrfind(nullptr, "x"), -1);
    char text[] = "aB\xC3\x89z", digits[] = "12345";
    EXPECT_STREQ(VELLib::tstrupr(text), "AB\xC3\x89Z");
    EXPECT_STREQ(VELLib::tstrnset(digits, '+', 99), "+++++");
}

TEST(Strings, TokensGoOnPerThread) {
    char text[] = ";;a;b,,c;";
    EXPECT_STREQ(VELLib::tstrtok(text, ";,"), "a");
    std::thread([] {
        char other[] = "x";
        EXPECT_STREQ(VELLib::tstrtok(other, " "), "x");
        EXPECT_EQ(VELLib::tstrtok(nullptr, " "), nullptr);
    }).join();
    EXPECT_STREQ(VELLib::tstrtok(nullptr, ";"), "b,,c") << "the set may change between calls";
    EXPECT_EQ(VELLib::tstrtok(nullptr, ";"), nullptr);
}

TEST(Strings, NumbersBothWays) {
    EXPECT_EQ(VELLib::tatoi("99999999999"), INT_MAX);
    char buffer[66];
    EXPECT_STREQ(VELLib::i64tota(INT64_MIN, buffer, 10), "-9223372036854775808");
    EXPECT_EQ(std::string(VELLib::i64tota(-1, buffer, 2)), std::string(64, '1'));
    for (const int radix : {-1, 0, 1, 37}) EXPECT_EQ(VELLib::itota(5, buffer, radix), nullptr);
}

TEST(Texts, NeedRoomForTheirTerminator) {
    char text[300];
    const uint64_t length = VELLib::getmodpath(text, sizeof text);
    EXPECT_EQ(length, std::string(text).size());
    EXPECT_EQ(VELLib::getmodpath(text, length + 1), length);
    EXPECT_EQ(VELLib::getmodpath(text, length), 0u);
    ASSERT_EQ(VELLib::genuuid(text, 37), 0);
    EXPECT_EQ(std::string(text).size(), 36u);
    EXPECT_EQ(text[14], '4') << "random, so version four";
    vel::testing::expect_failure(122, VELLib::genuuid(text, 36));
}

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

    VEL_Str_UTF8_Conv converter;
    EXPECT_NE(converter.convert_UTF8_to_char(own), own) << "converted even to the same bytes";
    EXPECT_STREQ(converter.convert_UTF8_to_wchar(hangul_utf8), hangul);
}

} // namespace
