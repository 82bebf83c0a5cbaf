// Digests against independently computed values, resumption, limits of the exported forms.
#include <vel/cache/md5.h>

#include <cstring>
#include <gtest/gtest.h>
#include <vector>
#include <vel/testing/expect_failure.h>

namespace {

using vel::testing::expect_failure;

// The digest of the first 1,024 bytes of the pattern below.
const char pattern_digest[] = "A66351D9C8F941B70A02EAF9C41E69C3";

std::vector<unsigned char> pattern(size_t size) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

constexpr uint32_t too_small = 122, wrong_size = 0x20000006;

// Every way the padding can fall: the digest of the 301 digests of 0 to 300 bytes, computed apart from the library.
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

TEST(Md5, ResumesFromSavedStateAfterAnyLength) {
    std::vector<unsigned char> data = pattern(1024);
    for (uint32_t cut = 0; cut <= 130; ++cut) {
        VEL_MD5 before;
        before.update(data.data(), cut);
        unsigned char state[16], count[8], tail[63];
        ASSERT_EQ(before.getMD5(state, 16, count, 8), 0);
        ASSERT_EQ(before.getRemData(tail, sizeof tail), static_cast<int>(cut % 64));

        VEL_MD5 after;
        ASSERT_EQ(after.setMD5(state, 16, count, 8), 0);
        ASSERT_EQ(after.setRemData(tail, cut % 64), static_cast<int>(cut % 64));
        after.update(data.data() + cut, 1024 - cut);
        after.final();
        ASSERT_EQ(after.getMD5reshex(), pattern_digest) << cut;
    }
}

TEST(Md5, StateAsText) {
    VEL_MD5 md5, resumed;
    md5.update(pattern(1024).data(), 64);
    std::string state, count;
    ASSERT_EQ(md5.getMD5(state, count), 0);
    EXPECT_EQ(count, "0002000000000000");
    for (char& c : state) c = static_cast<char>(tolower(c)); // either case is read
    ASSERT_EQ(resumed.setMD5(state.c_str(), count.c_str()), 0);
    resumed.update(pattern(1024).data() + 64, 960);
    resumed.final();
    EXPECT_EQ(resumed.getMD5reshex(), pattern_digest);
}

TEST(Md5, RefusesWrongSizesAndStaysAsItWas) {
    VEL_MD5 md5;
    md5.update("abc", 3);
    unsigned char bytes[16] = {}, count[9] = {};
    char text[33], count_text[17];
    expect_failure(too_small, md5.getMD5res(bytes, 15));
    expect_failure(too_small, md5.getMD5(bytes, 16, count, 7));
    expect_failure(too_small, md5.getMD5(text, 33, count_text, 16));
    expect_failure(too_small, md5.getRemData(bytes, 2));
    expect_failure(wrong_size, md5.setMD5("0123456789ABCDEF", "1800000000000000"));
    expect_failure(wrong_size, md5.setMD5(bytes, 16, count, 9));
    expect_failure(wrong_size, md5.setRemData("abcd", 4));
    md5.final();
    EXPECT_EQ(md5.getMD5reshex(), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(Md5, HexadecimalOfOddLengthAndOtherCharacters) {
    unsigned char value = 0xEE, out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    VEL_MD5::Hex2Char("1g", value);
    EXPECT_EQ(value, 0x01);
    VEL_MD5::HexStr2Binary("0aB", out, 3); // the odd character stands alone; the rest is cleared
    EXPECT_EQ(0, memcmp(out, "\x0A\x0B\x00\xEE", 4));
}

} // namespace
