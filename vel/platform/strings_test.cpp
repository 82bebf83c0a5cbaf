// Where the string family is more than a call of the runtime, and identifiers.
#include <vel/platform/strings.h>

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vel/frame/error.h>
#include <vel/platform/identifiers.h>

namespace {

TEST(Strings, CopiesStayWithinTheirCount) {
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(VELLib::tstrncpy(buffer, "abcd", 3), buffer);
    EXPECT_EQ(std::string(buffer, 4), "abc#");
    VELLib::tstrncpy(buffer, "x", 4);
    EXPECT_EQ(std::string(buffer, 5), std::string("x\0\0\0#", 5));
    EXPECT_STREQ(VELLib::tstrncat(buffer, "yz+", 2), "xyz");
    EXPECT_STREQ(VELLib::tstrcat(buffer, "1234"), "xyz1234");
    EXPECT_STREQ(VELLib::tstrcpy(buffer, ""), "");
}

TEST(Strings, ComparisonsThatIgnoreCase) {
    EXPECT_GT(VELLib::tstricmp("B", "a"), 0);
    EXPECT_EQ(VELLib::tstricmp("HeLLo-1", "hEllO-1"), 0);
    EXPECT_LT(VELLib::tstricmp("abc", "ABCD"), 0);
    EXPECT_LT(VELLib::tstricmp("a", "\xE9"), 0) << "bytes compare unsigned";
    EXPECT_EQ(VELLib::tstrnicmp("ABCx", "abcY", 3), 0);
    EXPECT_LT(VELLib::tstrnicmp("ABCx", "abcY", 4), 0);
    EXPECT_EQ(VELLib::tstrnicmp("a", "b", 0), 0);
}

TEST(Strings, FindGivesAnIndexOrMinusOne) {
    EXPECT_EQ(VELLib::tstrfind("one two two", "two"), 4);
    EXPECT_EQ(VELLib::tstrfind("one", "three"), -1);
    EXPECT_EQ(VELLib::tstrfind("one", ""), 0);
    EXPECT_EQ(VELLib::tstrfind("", ""), -1);
    EXPECT_EQ(VELLib::tstrfind(nullptr, "x"), -1);
}

TEST(Strings, TokensGoOnPerThread) {
    char text[] = ";;a;b,,c;";
    EXPECT_STREQ(VELLib::tstrtok(text, ";,"), "a");
    std::thread([] {
        char other[] = "x y";
        EXPECT_STREQ(VELLib::tstrtok(other, " "), "x");
        EXPECT_STREQ(VELLib::tstrtok(nullptr, " "), "y");
        EXPECT_EQ(VELLib::tstrtok(nullptr, " "), nullptr);
    }).join();
    EXPECT_STREQ(VELLib::tstrtok(nullptr, ";"), "b,,c") << "the set may change between calls";
    EXPECT_EQ(VELLib::tstrtok(nullptr, ";"), nullptr);
    EXPECT_EQ(VELLib::tstrtok(nullptr, ";"), nullptr);
    char none[] = ";;";
    EXPECT_EQ(VELLib::tstrtok(none, ";"), nullptr);
}

TEST(Strings, ChangesInPlace) {
    char text[] = "aB\xC3\x89z";
    EXPECT_STREQ(VELLib::tstrlwr(text), "ab\xC3\x89z");
    EXPECT_STREQ(VELLib::tstrupr(text), "AB\xC3\x89Z");
    char digits[] = "12345";
    EXPECT_STREQ(VELLib::tstrrev(digits), "54321");
    EXPECT_STREQ(VELLib::tstrnset(digits, '.', 2), "..321");
    EXPECT_STREQ(VELLib::tstrnset(digits, '+', 99), "+++++");
    EXPECT_STREQ(VELLib::tstrset(digits, 'x'), "xxxxx");
}

TEST(Strings, NumbersBothWays) {
    EXPECT_EQ(VELLib::tatoi(" -12abc"), -12);
    EXPECT_EQ(VELLib::tatoi("99999999999"), INT_MAX);
    EXPECT_EQ(VELLib::tatoi("-99999999999"), INT_MIN);
    EXPECT_EQ(VELLib::tatoi64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(VELLib::tatoi64("9223372036854775808"), INT64_MAX);

    char buffer[66];
    EXPECT_STREQ(VELLib::itota(-255, buffer, 10), "-255");
    EXPECT_STREQ(VELLib::itota(-1, buffer, 16), "ffffffff");
    EXPECT_STREQ(VELLib::itota(INT_MIN, buffer, 2), "10000000000000000000000000000000");
    EXPECT_STREQ(VELLib::itota(35, buffer, 36), "z");
    EXPECT_STREQ(VELLib::itota(0, buffer, 8), "0");
    EXPECT_STREQ(VELLib::i64tota(INT64_MIN, buffer, 10), "-9223372036854775808");
    EXPECT_EQ(std::strlen(VELLib::i64tota(-1, buffer, 2)), 64u);
    for (const int radix : {-1, 0, 1, 37}) {
        VELLib::SetErrorCode(0);
        EXPECT_EQ(VELLib::itota(5, buffer, radix), nullptr);
        EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    }
}

TEST(Strings, FormatsReturnTheLengthOrMinusOne) {
    char buffer[64];
    EXPECT_EQ(VELLib::tsprintf(buffer, "%s-%03d", "ab", 7), 6);
    EXPECT_STREQ(buffer, "ab-007");
    EXPECT_EQ(VELLib::tsprintf(buffer, "%lc", static_cast<wint_t>(0x110000)), -1) << "no such character";
}

TEST(Identifiers, AreRandomAndOfVersionFour) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        char text[38];
        text[37] = '#';
        ASSERT_EQ(VELLib::genuuid(text, 37), 0);
        const std::string id = text;
        ASSERT_EQ(id.size(), 36u);
        EXPECT_EQ(text[37], '#');
        for (const size_t at : {8, 13, 18, 23}) EXPECT_EQ(id[at], '-');
        EXPECT_EQ(id.find_first_not_of("0123456789abcdef-"), std::string::npos);
        EXPECT_EQ(id[14], '4');
        EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 200u);
    char text[36];
    VELLib::SetErrorCode(0);
    EXPECT_EQ(VELLib::genuuid(text, sizeof text), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 122u);
}

} // namespace
