// Byte blocks and byte queues: sharing, offsets, the kept oddities of the queue.
#include <vel/buffers/byte_queue.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/allocator_environment.h>

namespace {

std::string text_of(const VEL_Byte_Block& block) {
    return block.is_null() ? std::string() : std::string(static_cast<const char*>(block.c_ptr(0)), block.size());
}

/// Fails the next `failures` allocations, and counts the blocks that are out.
class CountingAllocator : public VEL_Allocator {
public:
    void* malloc(uint64_t size, bool zero) override {
        if (failures > 0 && failures-- > 0) {
            VELLib::SetErrorCode(8);
            return nullptr;
        }
        ++blocks;
        return VEL_Std_Allocator::instance()->malloc(size, zero);
    }
    void* realloc(void* block, uint64_t size) override {
        if (block == nullptr) return malloc(size, false);
        return VEL_Std_Allocator::instance()->realloc(block, size);
    }
    void free(void* block) override {
        if (block != nullptr) --blocks;
        VEL_Std_Allocator::instance()->free(block);
    }

    int failures = 0;
    int blocks = 0;
};

class ByteBlock : public ::testing::Test {
protected:
    ByteBlock() { VELLib::set_allocator(&allocator_); }
    ~ByteBlock() override {
        EXPECT_EQ(allocator_.blocks, 0);
        VELLib::set_allocator(VEL_Std_Allocator::instance());
    }
    CountingAllocator allocator_;
};

TEST_F(ByteBlock, AdoptsOrAllocates) {
    VEL_Byte_Block block;
    EXPECT_EQ(block.set(nullptr, 10), 0);
    EXPECT_TRUE(block.is_null());
    EXPECT_EQ(block.set(10, nullptr), 0);
    EXPECT_EQ(text_of(block), std::string(10, '\0'));
    EXPECT_EQ(block.set(3, "abc"), 0);
    EXPECT_EQ(text_of(block), "abc");
    EXPECT_EQ(block.set(2, block.c_ptr(1)), 0); // out of its own buffer
    EXPECT_EQ(text_of(block), "bc");
    void* data = VELLib::malloc(4, true);
    EXPECT_EQ(block.set(data, 4), 0);
    EXPECT_EQ(static_cast<void*>(block), data);
    EXPECT_EQ(block.set(0, "x"), 0);
    EXPECT_TRUE(block.is_null());
    EXPECT_EQ(block.c_ptr(7), nullptr);
}

TEST_F(ByteBlock, HandlesShareTheBytesButNotTheOffset) {
    VEL_Byte_Block first(6, "abcdef");
    first.offset(5);
    VEL_Byte_Block second = first;
    EXPECT_EQ(second.offset(), 0u);
    EXPECT_EQ(second, first);
    EXPECT_EQ(first.current_size(), 1u);
    EXPECT_EQ(*static_cast<char*>(first.current()), 'f');

    second.offset(3);
    second = first; // same buffer: only rewinds
    EXPECT_EQ(second.offset(), 0u);
    VEL_Byte_Block& self = first;
    first = self;
    EXPECT_EQ(first.offset(), 0u);

    VEL_Byte_Block copy = first.clone();
    EXPECT_NE(copy, first);
    EXPECT_EQ(text_of(copy), "abcdef");
    EXPECT_TRUE(VEL_Byte_Block().clone().is_null());
    first.reset();
    EXPECT_EQ(text_of(second), "abcdef");
}

TEST_F(ByteBlock, OutOfMemoryLeavesANullBlock) {
    VEL_Byte_Block block(3, "abc");
    allocator_.failures = 3;
    EXPECT_EQ(block.set(5, nullptr), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 8u);
    EXPECT_TRUE(block.is_null());
    EXPECT_THROW(VEL_Byte_Block(5, "hello"), VEL_Exception);
    VEL_Byte_Queue queue;
    EXPECT_EQ(queue.enqueue("x", 1), -1);
    EXPECT_EQ(queue.size(), 0u);
}

class ByteQueue : public ByteBlock {
protected:
    void fill(std::initializer_list<const char*> blocks) {
        for (const char* block : blocks) {
            EXPECT_EQ(queue_.enqueue(block, std::strlen(block)), static_cast<int>(std::strlen(block)));
        }
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
    EXPECT_EQ(queue_.size(), 8u);
    EXPECT_EQ(read(4), "abcd");
    EXPECT_EQ(queue_.size(), 4u);
    EXPECT_EQ(read(0), "");
    EXPECT_EQ(read(9), "efgh");
    EXPECT_EQ(queue_.size(), 0u);
    EXPECT_EQ(read(1), "");
}

TEST_F(ByteQueue, BlockReadOfAFreshHeadSharesItAndKeepsTheCount) {
    VEL_Byte_Block block(3, "abc");
    block.offset(2);
    EXPECT_EQ(queue_.enqueue(block), 3);
    VEL_Byte_Block out;
    EXPECT_EQ(queue_.dequeue(out), 3);
    EXPECT_EQ(out, block);
    EXPECT_EQ(out.offset(), 0u);
    EXPECT_EQ(queue_.size(), 3u);
    EXPECT_EQ(queue_.dequeue(out), 0);
    queue_.reset();
    EXPECT_EQ(queue_.size(), 0u);
}

TEST_F(ByteQueue, BlockReadOfAPartlyReadHeadTakesAsMuchAsOutHadUnread) {
    fill({"abc", "defgh"});
    read(4);
    VEL_Byte_Block empty;
    EXPECT_EQ(queue_.dequeue(empty), 0); // drops "efgh"
    EXPECT_TRUE(empty.is_null());
    EXPECT_EQ(queue_.size(), 4u);

    fill({"klmno", "next"});
    read(1);
    VEL_Byte_Block three(5, nullptr);
    three.offset(2);
    EXPECT_EQ(queue_.dequeue(three), 3);
    EXPECT_EQ(text_of(three), "lmn");
    read(1);
    VEL_Byte_Block longer(50, nullptr);
    EXPECT_EQ(queue_.dequeue(longer), 3); // never beyond the head's end
    EXPECT_EQ(text_of(longer), "ext");
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
