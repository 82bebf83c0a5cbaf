// Contract of pages and of named memory.
#include <vel/os/memory.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/object_name.h>

namespace vel::os {
namespace {

using testing::ChildProcess;
using testing::ObjectName;
using testing::Talk;

struct NativeMemory {
    static uint32_t open(const char* name, uint64_t size, void*& mapping, void*& address, uint64_t& mapped) {
        return open_mapping(name, size, mapping, address, mapped);
    }
};

template <class Memory>
class MappingContract : public ::testing::Test {
protected:
    /// An opened block, closed at the end of its scope.
    struct Block {
        Block(const ObjectName& name, uint64_t wanted) {
            code = Memory::open(name.c_str(), wanted, handle, address, size);
        }
        ~Block() { close_handle(handle); }
        char* text() { return static_cast<char*>(address); }
        bool zeroed() {
            return std::all_of(text(), text() + size, [](char c) { return c == 0; });
        }
        uint32_t code;
        void* handle = nullptr;
        void* address = nullptr;
        uint64_t size = 0;
    };
};

using BackEnds = ::testing::Types<NativeMemory>;
TYPED_TEST_SUITE(MappingContract, BackEnds);

TYPED_TEST(MappingContract, EveryOpenerSeesTheFirstOnesBlock) {
    const ObjectName name;
    ChildProcess child([&](Talk& parent) {
        typename TestFixture::Block block(name, 3 * page_size() - 1);
        if (block.size != 3 * page_size() || !block.zeroed()) return 1;
        std::strcpy(block.text(), "from the child");
        parent.tell();
        if (!parent.hear()) return 2;
        return std::strcmp(block.text() + page_size(), "from the parent");
    });
    ASSERT_TRUE(child.talk().hear());
    typename TestFixture::Block block(name, 1);
    ASSERT_EQ(block.code, error::none);
    EXPECT_EQ(block.size, 3 * page_size());
    EXPECT_STREQ(block.text(), "from the child");
    std::strcpy(block.text() + page_size(), "from the parent");
    child.talk().tell();
    EXPECT_EQ(child.wait(), 0);
    typename TestFixture::Block again(name, 5 * page_size());
    EXPECT_EQ(again.size, 3 * page_size()); // still held here
    EXPECT_STREQ(again.text(), "from the child");
}

TYPED_TEST(MappingContract, VanishesWithItsLastOpenerHoweverThatOneEnded) {
    const ObjectName name;
    for (int round = 0; round < 20; ++round) {
        ChildProcess child([&](Talk& parent) {
            typename TestFixture::Block block(name, 2 * page_size());
            if (block.code != error::none || !block.zeroed()) return 1;
            std::memset(block.text(), 'x', block.size);
            parent.tell();
            return parent.hear() ? 0 : 2;
        });
        ASSERT_TRUE(child.talk().hear()) << "old content in round " << round;
        if (round % 2) {
            child.kill();
        } else {
            child.talk().tell();
            ASSERT_EQ(child.wait(), 0);
        }
        if (round % 3 == 0) continue; // the next child comes after the dead one, without a clean end between
        typename TestFixture::Block block(name, page_size());
        EXPECT_EQ(block.size, page_size());
        EXPECT_TRUE(block.zeroed());
    }
}

TYPED_TEST(MappingContract, ASharedHandleKeepsTheViewUntilItsLastClose) {
    const ObjectName name;
    typename TestFixture::Block block(name, 1);
    ASSERT_EQ(share_handle(block.handle), error::none);
    EXPECT_EQ(close_handle(block.handle), error::none);
    block.text()[0] = 'x';
    EXPECT_EQ(typename TestFixture::Block(name, 1).text()[0], 'x');
}

TYPED_TEST(MappingContract, RefusesWhatItCannotMake) {
    const uint64_t before = open_handle_count();
    const ObjectName name;
    EXPECT_EQ(typename TestFixture::Block(name, 0).code, error::invalid_parameter);
    EXPECT_EQ(typename TestFixture::Block(name, UINT64_MAX).code, error::not_enough_memory);
    EXPECT_NE(typename TestFixture::Block(name, uint64_t{1} << 50).code, error::none);
    typename TestFixture::Block block(name, 1);
    EXPECT_EQ(block.size, page_size());
    EXPECT_EQ(open_handle_count(), before + 1);
}

TEST(Pages, AreZeroedRoundedAndKnownByTheirAddress) {
    void* pages = nullptr;
    ASSERT_EQ(allocate_pages(page_size() + 1, pages), error::none);
    uint64_t size = 0;
    EXPECT_EQ(pages_size(pages, size), error::none);
    EXPECT_EQ(size, 2 * page_size());
    char* text = static_cast<char*>(pages);
    EXPECT_TRUE(std::all_of(text, text + size, [](char c) { return c == 0; }));
    std::memset(text, 'x', size);
    EXPECT_EQ(pages_size(text + 1, size), error::invalid_parameter);
    EXPECT_EQ(free_pages(text + 1), error::invalid_parameter);
    EXPECT_EQ(free_pages(pages), error::none);
    EXPECT_EQ(free_pages(pages), error::invalid_parameter);
    EXPECT_EQ(allocate_pages(0, pages), error::invalid_parameter);
    EXPECT_EQ(allocate_pages(UINT64_MAX, pages), error::not_enough_memory);
    EXPECT_EQ(allocate_pages(uint64_t{1} << 62, pages), error::not_enough_memory);
}

} // namespace
} // namespace vel::os
