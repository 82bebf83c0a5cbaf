// Byte blocks, bit fields and byte queues: sharing, offsets, bit order, the kept oddities of the queue.
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_queue.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/expect_failure.h>

namespace {

using Bytes = std::vector<uint8_t>;

std::string text_of(const VEL_Byte_Block& block) {
    return block.is_null() ? std::string() : std::string(static_cast<const char*>(block.c_ptr(0)), block.size());
}

TEST(ByteBlock, HandlesShareTheBytesButNotTheOffset) {
    VEL_Byte_Block first(6, "abcdef"), copy = first.clone();
    EXPECT_NE(copy, first);
    first.offset(5);
    VEL_Byte_Block second = first;
    EXPECT_EQ(second, first);
    EXPECT_EQ(second.offset(), 0u);
    second.offset(3);
    second = first; // same buffer: only rewinds
    EXPECT_EQ(second.offset(), 0u);
    EXPECT_EQ(first.set(2, first.c_ptr(1)), 0) << "out of its own buffer";
    EXPECT_EQ(text_of(first), "bc");
    EXPECT_EQ(text_of(second), "abcdef");
    EXPECT_EQ(text_of(copy), "abcdef");
}

Bytes bytes_of(const VEL_Bitfield& bits) {
    const auto* at = static_cast<const uint8_t*>(bits.c_ptr());
    return {at, at + bits.size()};
}

TEST(Bitfield, TextGivesOneBitACharacterHighestFirst) {
    const VEL_Bitfield bits("10100000 1");
    EXPECT_EQ(bits.get_bitcnt(), 10u);
    EXPECT_EQ(bytes_of(bits), (Bytes{0xA0, 0x40}));
    char text[12] = "xxxxxxxxxxx";
    vel::testing::expect_failure(122, bits.get(text, 10));
    EXPECT_EQ(bits.get(text, 11), 10);
    EXPECT_STREQ(text, "1010000001x"); // no terminator, as documented
    EXPECT_EQ(bits.get_setbitcnt(), 3u);
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

class ByteQueue : public ::testing::Test {
protected:
    void fill(std::initializer_list<const char*> blocks) {
        for (const char* block : blocks) queue_.enqueue(block, std::strlen(block));
    }
    std::string read(uint64_t size) {
        std::string text(size, '?');
        text.resize(static_cast<uint64_t>(queue_.dequeue(text.data(), size)));
        return text;
    }
    VEL_Byte_Queue queue_;
};

TEST_F(ByteQueue, ReadsBytesAcrossBlocksAndIntoABlockInPlace) {
    fill({"abc", "", "defgh", "ijklmn"});
    EXPECT_EQ(read(4), "abcd");
    EXPECT_EQ(queue_.size(), 10u);
    EXPECT_EQ(read(4), "efgh");
    VEL_Byte_Block out(4, "wxyz"), shared = out;
    EXPECT_EQ(queue_.dequeue(out, 2), 2);
    EXPECT_EQ(text_of(shared), "ijyz");
    EXPECT_EQ(queue_.dequeue(out, 5), 4) << "too small, so that it gets a buffer of its own";
    EXPECT_EQ(text_of(out), std::string("klmn\0", 5));
    EXPECT_EQ(text_of(shared), "ijyz");
    EXPECT_EQ(read(1), "");
}

TEST_F(ByteQueue, BlockReadSharesAFreshHeadAndTakesFromAReadOneAsMuchAsOutHadUnread) {
    VEL_Byte_Block block(3, "abc"), out, empty, three(5, nullptr);
    block.offset(2);
    three.offset(2);
    EXPECT_EQ(queue_.enqueue(block), 3);
    EXPECT_EQ(queue_.dequeue(out), 3);
    EXPECT_EQ(out, block);
    EXPECT_EQ(out.offset(), 0u);
    EXPECT_EQ(queue_.size(), 3u) << "stays as it is";
    fill({"klmno", "defg"});
    read(1);
    EXPECT_EQ(queue_.dequeue(three), 3);
    EXPECT_EQ(text_of(three), "lmn");
    read(1);
    EXPECT_EQ(queue_.dequeue(empty), 0) << "drops the rest";
}

} // namespace
