// Digests against independently computed values, resumption, limits of the exported forms.
#include <vel/cache/md5.h>

#include <gtest/gtest.h>
#include <vector>
#include <vel/testing/expect_failure.h>

namespace {

using vel::testing::expect_failure;

constexpr uint32_t too_small = 122, wrong_size = 0x20000006;
constexpr char pattern_digest[] = "A66351D9C8F941B70A02EAF9C41E69C3"; // of the pattern's 1,024 bytes

struct Md5 : ::testing::Test {
    Md5() {
        for (size_t i = 0; i < sizeof pattern; ++i) pattern[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    unsigned char pattern[1024];
};

// Every way the padding can fall: the digest of the 301 digests of 0 to 300 bytes, computed apart from the library.
TEST_F(Md5, EveryPaddingLength) {
    VEL_MD5 all;
    for (uint32_t length = 0; length <= 300; ++length) {
        VEL_MD5 one;
        one.update(pattern, length);
        one.final();
        unsigned char digest[16];
        ASSERT_EQ(one.getMD5res(digest, 16), 16);
        all.update(digest, 16);
    }
    all.final();
    EXPECT_EQ(all.getMD5reshex(), "BBC8219CE2F09CB1B1235CE3B7EF018C");
}

TEST_F(Md5, ResumesFromSavedStateAfterAnyLength) {
    for (uint32_t cut = 0; cut <= 130; ++cut) {
        VEL_MD5 before, after, from_text;
        before.update(pattern, cut);
        unsigned char state[16], count[8], tail[63];
        ASSERT_EQ(before.getMD5(state, 16, count, 8), 0);
        ASSERT_EQ(before.getRemData(tail, sizeof tail), static_cast<int>(cut % 64));
        ASSERT_EQ(after.setMD5(state, 16, count, 8), 0);

        std::string state_text, count_text;
        ASSERT_EQ(before.getMD5(state_text, count_text), 0);
        EXPECT_EQ(count_text == "0002000000000000", cut == 64);
        for (char& c : state_text) c = static_cast<char>(tolower(c)); // either case is read
        ASSERT_EQ(from_text.setMD5(state_text.c_str(), count_text.c_str()), 0);
        for (VEL_MD5* md5 : {&after, &from_text}) {
            ASSERT_EQ(md5->setRemData(tail, cut % 64), static_cast<int>(cut % 64));
            md5->update(pattern + cut, 1024 - cut);
            md5->final();
            ASSERT_EQ(md5->getMD5reshex(), pattern_digest) << cut;
        }
    }
}

TEST_F(Md5, RefusesWrongSizesAndStaysAsItWas) {
    VEL_MD5 md5;
    md5.update("abc", 3);
    unsigned char bytes[16] = {};
    expect_failure(too_small, md5.getMD5(bytes, 16, bytes, 7));
    expect_failure(too_small, md5.getRemData(bytes, 2));
    expect_failure(wrong_size, md5.setMD5("0123456789ABCDEF", "1800000000000000"));
    expect_failure(wrong_size, md5.setRemData("abcd", 4));
    md5.final();
    EXPECT_EQ(md5.getMD5reshex(), "900150983CD24FB0D6963F7D28E17F72");
}

} // namespace
