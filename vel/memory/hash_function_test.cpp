// Hash vectors, computed apart from the library.
#include <gtest/gtest.h>
#include <vel/memory/hash_function.h>

namespace {

constexpr uint64_t all = uint64_t{1} << 63; // more buckets than any value here

template <class Key>
uint64_t hash(const Key& key, uint64_t buckets = all) {
    return VEL_HFunc().HashFunc(key, buckets);
}

TEST(HashFunction, NumbersHashByTheirUnsignedBitPattern) {
    EXPECT_EQ(hash(char(-1)), 0xFFu);
    EXPECT_EQ(hash(short(-2)), 0xFFFEu);
    EXPECT_EQ(hash(-1L, 1000), 0xFFFFFFFFFFFFFFFFu % 1000);
    EXPECT_EQ(hash(uint64_t{1} << 40, 67), (uint64_t{1} << 40) % 67);
    EXPECT_EQ(hash(reinterpret_cast<void*>(0x123456789A)), 0x123456789Au);
    EXPECT_EQ(hash(VEL_thread_t(nullptr, 0xFFFFFFFF)), 0xFFFFFFFFu);
    EXPECT_EQ(hash(1.5), 0x3FF8000000000000u);
    EXPECT_EQ(hash(-0.0f), 0x80000000u);
}

TEST(HashFunction, TextIsSampled) {
    EXPECT_EQ(hash(""), 0x811C9DC5u);
    EXPECT_EQ(hash("a"), 0x050C5D7Eu);
    EXPECT_EQ(hash("abcdefghij"), 0x8C1544CEu) << "all ten characters";
    EXPECT_EQ(hash("abcdefghijk"), 0x537B5021u) << "every second one";
    EXPECT_EQ(hash("abcdefghijklmnopqrstuvwxy"), 0xC848967Eu) << "every third one";
    EXPECT_EQ(hash("é"), 0x16769FFDu) << "narrow characters are sign-extended";
    EXPECT_EQ(hash(std::string("abcdefghijk")), hash("abcdefghijk"));
}

TEST(HashFunction, WideTextCountsInSixteenBitUnits) {
    EXPECT_EQ(hash(L"é"), 0x050C5DF6u);
    EXPECT_EQ(hash(std::wstring(L"abcdefghijk")), hash("abcdefghijk"));
    EXPECT_EQ(hash(L"😀x"), 0x1F64508Au) << "a surrogate pair";
    EXPECT_EQ(hash(L"😀😀😀😀😀😀"), 0x3CCA2B7Fu) << "twelve units, every second one";
}

} // namespace
