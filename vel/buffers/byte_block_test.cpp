// Byte blocks and byte queues: sharing, offsets, the kept oddities of the queue.
#include <vel/buffers/byte_queue.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vel/testing/allocator_environment.h>

namespace {

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
