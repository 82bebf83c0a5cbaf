// Bit fields: bit order, spare bits, the text and byte forms.
#include <vel/buffers/bit_field.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/testing/allocator_environment.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(const VEL_Bitfield& bits) {
    const auto* at = static_cast<const uint8_t*>(bits.c_ptr());
    return {at, at + bits.size()};
}

TEST(Bitfield, TextGivesOneBitACharacterHighestFirst) {
    const VEL_Bitfield bits("10100000 1");
    EXPECT_EQ(bits.get_bitcnt(), 10u);
    EXPECT_EQ(bytes_of(bits), (Bytes{0xA0, 0x40}));
    EXPECT_EQ(bits.get_setbitcnt(), 3u);
    EXPECT_TRUE(bits.is_setbit(9));
    EXPECT_FALSE(bits.is_setbit(10));
}

TEST(Bitfield, SpareBitsTravelButDoNotCount) {
    VEL_Bitfield bits(uint64_t{10});
    bits.set_bit(10, true); // beyond the count
    EXPECT_EQ(bytes_of(bits), (Bytes{0, 0}));
    bits.set_all();
    EXPECT_EQ(bits.get_setbitcnt(), 10u);
    VEL_Bitfield copy;
    copy = bits;
    EXPECT_EQ(bytes_of(copy), (Bytes{0xFF, 0xFF}));
    copy.set_bit(0, false);
    EXPECT_FALSE(copy.is_setall());
    EXPECT_TRUE(bits.is_setall()); // the copy has bytes of its own
    EXPECT_EQ(copy.set(static_cast<uint8_t*>(copy.c_ptr()) + 1, 8), 0);
    EXPECT_EQ(bytes_of(copy), Bytes{0xFF});
}

TEST(Bitfield, GettersDemandRoom) {
    const VEL_Bitfield bits("1111000011");
    char text[12] = "xxxxxxxxxxx";
    EXPECT_EQ(bits.get(text, 10), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 122u);
    EXPECT_EQ(bits.get(text, 11), 10);
    EXPECT_STREQ(text, "1111000011x"); // no terminator, as documented
}

} // namespace
