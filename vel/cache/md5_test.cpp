// Digests against published and independently computed values, resumption, limits of the exported forms.
#include <vel/cache/md5.h>

#include <cstring>
#include <gtest/gtest.h>
#include <vector>
#include <vel/frame/error.h>

namespace {

std::string digest_of(const std::string& text) {
    VEL_MD5 md5;
    md5.update(text.data(), static_cast<uint32_t>(text.size()));
    md5.final();
    return md5.getMD5reshex();
}

// The digest of the first 1,024 bytes of the pattern below.
const char pattern_digest[] = "A66351D9C8F941B70A02EAF9C41E69C3";

std::vector<unsigned char> pattern(size_t size) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

// Runs `call` from a known error code; gives its result and the code that it left.
template <class Call>
std::pair<int, uint32_t> outcome(Call call) {
    VELLib::SetErrorCode(77);
    int result = call();
    return {result, VELLib::GetErrorCode()};
}

using Outcome = std::pair<int, uint32_t>;
const Outcome too_small{-1, 122};
const Outcome wrong_size{-1, 0x20000006};

TEST(Md5, PublishedDigests) {
    EXPECT_EQ(digest_of(""), "D41D8CD98F00B204E9800998ECF8427E");
    EXPECT_EQ(digest_of("a"), "0CC175B9C0F1B6A831C399E269772661");
    EXPECT_EQ(digest_of("abc"), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(digest_of("message digest"), "F96B697D7CB7938D525A2F31AAF161D0");
    EXPECT_EQ(digest_of("abcdefghijklmnopqrstuvwxyz"), "C3FCD3D76192E4007DFB496CCA67E13B");
    EXPECT_EQ(digest_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "D174AB98D277D9F5A5611C2C9F419D9F");
    EXPECT_EQ(digest_of("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57EDF4A22BE3C955AC49DA2E2107B67A");
}

// Every way the padding can fall: the digest of the 301 digests of 0 to 300 bytes, as another implementation has it.
TEST(Md5, EveryPaddingLength) {
    std::vector<unsigned char> data = pattern(300);
    VEL_MD5 all;
    for (uint32_t length = 0; length <= 300; ++length) {
        VEL_MD5 one;
        one.update(data.data(), length);
        one.final();
        unsigned char digest[16];
        ASSERT_EQ(one.getMD5res(digest, 16), 16);
        all.update(digest, 16);
    }
    all.final();
    EXPECT_EQ(all.getMD5reshex(), "BBC8219CE2F09CB1B1235CE3B7EF018C");
}

TEST(Md5, AnySplitAtAnyAlignmentGivesTheSameDigest) {
    std::vector<unsigned char> data = pattern(1025);
    for (uint32_t first = 0; first <= 200; ++first) {
        VEL_MD5 md5;
        md5.update(data.data(), first);
        md5.update(data.data() + first, 0);
        md5.update(data.data() + first, 61);
        md5.update(data.data() + first + 61, 1024 - 61 - first);
        md5.final();
        ASSERT_EQ(md5.getMD5reshex(), pattern_digest) << first;
    }
}

TEST(Md5, ResumesFromSavedStateAfterAnyLength) {
    std::vector<unsigned char> data = pattern(1024);
    for (uint32_t cut = 0; cut <= 130; ++cut) {
        VEL_MD5 before;
        before.update(data.data(), cut);
        unsigned char state[16], count[8], tail[63];
        ASSERT_EQ(before.getMD5(state, 16, count, 8), 0);
        ASSERT_EQ(before.getRemData(tail, sizeof tail), static_cast<int>(cut % 64));

        VEL_MD5 after;
        after.update("other input", 11);
        ASSERT_EQ(after.setMD5(state, 16, count, 8), 0);
        ASSERT_EQ(after.setRemData(tail, cut % 64), static_cast<int>(cut % 64));
        after.update(data.data() + cut, 1024 - cut);
        after.final();
        ASSERT_EQ(after.getMD5reshex(), pattern_digest) << cut;
    }
}

TEST(Md5, StateTextOfAHundredBytes) {
    std::vector<unsigned char> data = pattern(1024);
    VEL_MD5 md5;
    md5.update(data.data(), 100);
    std::string state, count;
    ASSERT_EQ(md5.getMD5(state, count), 0);
    EXPECT_EQ(count, "2003000000000000");
    unsigned char tail[36];
    ASSERT_EQ(md5.getRemData(tail, 36), 36);

    for (char& c : state) c = static_cast<char>(tolower(c)); // either case is read
    VEL_MD5 resumed;
    ASSERT_EQ(resumed.setMD5(state.c_str(), count.c_str()), 0);
    ASSERT_EQ(resumed.setRemData(tail, 36), 36);
    VEL_MD5 copy(resumed);
    resumed.update("x", 1); // must not reach the copy
    copy.update(data.data() + 100, 924);
    copy.final();
    EXPECT_EQ(copy.getMD5reshex(), pattern_digest);
}

TEST(Md5, BitCountCarriesIntoItsHighWord) {
    VEL_MD5 md5;
    ASSERT_EQ(md5.setMD5("0123456789ABCDEFFEDCBA9876543210", "00FEFFFF01000000"), 0); // 64 bytes before the carry
    std::vector<unsigned char> data = pattern(128);
    md5.update(data.data(), 128);
    std::string state, count;
    md5.getMD5(state, count);
    EXPECT_EQ(count, "0002000002000000");
}

TEST(Md5, FinalLeavesNoTailAndDoesNotReset) {
    VEL_MD5 md5;
    md5.update("abc", 3);
    md5.final();
    char tail[64];
    EXPECT_EQ(md5.getRemData(tail, 64), 0);
    EXPECT_EQ(md5.getMD5reshex(), "900150983CD24FB0D6963F7D28E17F72");
    md5.init();
    md5.final();
    EXPECT_EQ(md5.getMD5reshex(), "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(Md5, RefusesBuffersThatAreTooSmall) {
    VEL_MD5 md5;
    md5.update("abc", 3);
    unsigned char bytes[16], count[8];
    char text[33], count_text[17];
    EXPECT_EQ(outcome([&] { return md5.getMD5res(bytes, 15); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getMD5reshex(text, 32); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getMD5(bytes, 15, count, 8); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getMD5(bytes, 16, count, 7); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getMD5(text, 32, count_text, 17); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getMD5(text, 33, count_text, 16); }), too_small);
    EXPECT_EQ(outcome([&] { return md5.getRemData(bytes, 2); }), too_small);

    EXPECT_EQ(outcome([&] { return md5.getMD5reshex(text, 33); }), Outcome(32, 77));
    EXPECT_EQ(outcome([&] { return md5.getMD5(text, 33, count_text, 17); }), Outcome(0, 77));
    EXPECT_STREQ(count_text, "1800000000000000");
}

TEST(Md5, RefusesStateOfAWrongSizeAndStaysAsItWas) {
    const char state[] = "0123456789ABCDEFFEDCBA9876543210";
    const char count[] = "1800000000000000";
    unsigned char bytes[17] = {};
    VEL_MD5 md5;
    md5.update("abc", 3);
    EXPECT_EQ(outcome([&] { return md5.setMD5(state + 1, count); }), wrong_size);
    EXPECT_EQ(outcome([&] { return md5.setMD5(state, count + 1); }), wrong_size);
    EXPECT_EQ(outcome([&] { return md5.setMD5(bytes, 17, bytes, 8); }), wrong_size);
    EXPECT_EQ(outcome([&] { return md5.setMD5(bytes, 16, bytes, 9); }), wrong_size);
    EXPECT_EQ(outcome([&] { return md5.setRemData("abcd", 4); }), wrong_size);
    EXPECT_EQ(outcome([&] { return md5.setRemData("ab", 2); }), wrong_size);
    md5.final();
    EXPECT_EQ(md5.getMD5reshex(), "900150983CD24FB0D6963F7D28E17F72");

    VEL_MD5 no_tail;
    EXPECT_EQ(outcome([&] { return no_tail.setRemData("abcd", 4); }), Outcome(0, 77));
}

TEST(Md5, HexadecimalConversions) {
    char text[9];
    VEL_MD5::Char2Hex(0xA5, text);
    EXPECT_STREQ(text, "A5");
    const unsigned char bytes[] = {0x00, 0x1f, 0xff, 0x80};
    VEL_MD5::Binary2HexStr(bytes, 4, text);
    EXPECT_STREQ(text, "001FFF80");
    VEL_MD5::Binary2HexStr(bytes, 0, text);
    EXPECT_STREQ(text, "");

    struct {
        const char* hex;
        unsigned char value;
    } const pairs[] = {{"fF", 0xff}, {"1g", 0x01}, {"g1", 0x00}, {"7", 0x07}, {"", 0x00}};
    for (const auto& pair : pairs) {
        unsigned char value = 0xEE;
        VEL_MD5::Hex2Char(pair.hex, value);
        EXPECT_EQ(value, pair.value) << pair.hex;
    }

    unsigned char out[4];
    memset(out, 0xEE, sizeof out);
    VEL_MD5::HexStr2Binary("0aB", out, 3); // the odd character stands alone; the rest is cleared
    EXPECT_EQ(0, memcmp(out, "\x0A\x0B\x00\xEE", 4));
    VEL_MD5::HexStr2Binary("01020304", out, 2); // longer text than bytes
    EXPECT_EQ(0, memcmp(out, "\x01\x02\x00\xEE", 4));
}

} // namespace
