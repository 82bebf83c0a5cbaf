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

TEST(ByteBlock, TakesACopyEvenOfItself) {
    VEL_Byte_Block block;
    EXPECT_EQ(block.set(10, nullptr), 0);
    EXPECT_EQ(text_of(block), std::string(10, '\0'));
    EXPECT_EQ(block.set(3, "abc"), 0);
    EXPECT_EQ(text_of(block), "abc");
    EXPECT_EQ(block.set(2, block.c_ptr(1)), 0); // out of its own buffer
    EXPECT_EQ(text_of(block), "bc");
}

TEST(ByteBlock, HandlesShareTheBytesButNotTheOffset) {
    VEL_Byte_Block first(6, "abcdef");
    first.offset(5);
    VEL_Byte_Block second = first;
    EXPECT_EQ(second.offset(), 0u);
    EXPECT_EQ(second, first);

    second.offset(3);
    second = first; // same buffer: only rewinds
    EXPECT_EQ(second.offset(), 0u);

    VEL_Byte_Block copy = first.clone();
    EXPECT_NE(copy, first);
    EXPECT_EQ(text_of(copy), "abcdef");
    first.reset();
    EXPECT_EQ(text_of(second), "abcdef");
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

TEST_F(ByteQueue, ReadsBytesAcrossBlocks) {
    fill({"abc", "", "defgh"});
    EXPECT_EQ(read(4), "abcd");
    EXPECT_EQ(queue_.size(), 4u);
    EXPECT_EQ(read(9), "efgh");
    EXPECT_EQ(read(1), "");
}

TEST_F(ByteQueue, BlockReadOfAFreshHeadSharesItAndKeepsTheCount) {
    VEL_Byte_Block block(3, "abc"), out;
    block.offset(2);
    EXPECT_EQ(queue_.enqueue(block), 3);
    EXPECT_EQ(queue_.dequeue(out), 3);
    EXPECT_EQ(out, block);
    EXPECT_EQ(out.offset(), 0u);
    EXPECT_EQ(queue_.size(), 3u);
    EXPECT_EQ(queue_.dequeue(out), 0);
}

TEST_F(ByteQueue, BlockReadOfAPartlyReadHeadTakesAsMuchAsOutHadUnread) {
    fill({"abc", "defgh"});
    read(4);
    VEL_Byte_Block empty;
    EXPECT_EQ(queue_.dequeue(empty), 0); // drops "efgh"
    EXPECT_EQ(queue_.size(), 4u);

    fill({"klmno", "next"});
    read(1);
    VEL_Byte_Block three(5, nullptr);
    three.offset(2);
    EXPECT_EQ(queue_.dequeue(three), 3);
    EXPECT_EQ(text_of(three), "lmn");
}

TEST_F(ByteQueue, SizedBlockReadUsesALargeEnoughBufferInPlace) {
    fill({"abcdef"});
    VEL_Byte_Block out(4, "wxyz");
    VEL_Byte_Block shared = out;
    EXPECT_EQ(queue_.dequeue(out, 2), 2);
    EXPECT_EQ(text_of(shared), "abyz");
    EXPECT_EQ(queue_.dequeue(out, 5), 4);
    EXPECT_EQ(text_of(out), std::string("cdef\0", 5));
    EXPECT_EQ(text_of(shared), "abyz");
}

} // namespace
