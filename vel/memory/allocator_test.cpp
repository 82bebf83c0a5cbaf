// The three allocators and the functions that forward to the current one.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>

namespace {

bool filled(const void* block, uint64_t size, uint8_t byte) {
    const auto* bytes = static_cast<const uint8_t*>(block);
    return std::all_of(bytes, bytes + size, [byte](uint8_t b) { return b == byte; });
}

void expect_null(uint32_t code, const void* block) {
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), code);
}

TEST(Allocators, RefuseSizeZeroAndKeepWhatGrows) {
    for (VEL_Allocator* allocator : {static_cast<VEL_Allocator*>(VEL_Std_Allocator::instance()),
                                     static_cast<VEL_Allocator*>(VEL_Virtual_Allocator::instance()),
                                     static_cast<VEL_Allocator*>(VEL_Global_Allocator::instance())}) {
        expect_null(0x2000000B, allocator->malloc(0, true));
        void* block = allocator->malloc(10000, true);
        EXPECT_TRUE(filled(block, 10000, 0));
        std::memset(block, 9, 10000);
        expect_null(0x2000000B, allocator->realloc(block, 0));
        block = allocator->realloc(block, 1000000);
        EXPECT_TRUE(filled(block, 10000, 9));
        allocator->free(block);
        allocator->free(allocator->realloc(nullptr, 10));
    }
}

TEST(VirtualAllocator, NeverShrinksMovesWholePagesAndKnowsItsBlocks) {
    auto* allocator = VEL_Virtual_Allocator::instance();
    auto* block = static_cast<char*>(allocator->malloc(5000, false));
    std::memset(block, 3, 8192); // all of its two pages is usable
    EXPECT_EQ(allocator->realloc(block, 1), block);
    auto* grown = static_cast<char*>(allocator->realloc(block, 8193));
    EXPECT_TRUE(filled(grown, 8192, 3));
    EXPECT_TRUE(filled(grown + 8192, 4096, 0));
    allocator->free(grown);
    int foreign = 0;
    expect_null(87, allocator->realloc(&foreign, 10));
    expect_null(6, VEL_Global_Allocator::instance()->realloc(&foreign, 10));
    expect_null(87, allocator->malloc(uint64_t{1} << 32, false)); // only the low half of a size counts
}

TEST(CurrentAllocator, ForwardsToWhatIsInstalled) {
    ASSERT_EQ(vel::current_allocator(), nullptr) << "nothing is installed at the start";
    expect_null(0x20000002, VELLib::malloc(10, false));
    EXPECT_EQ(VELLib::set_allocator(VEL_Virtual_Allocator::instance()), 0);
    void* block = VELLib::malloc(10, true);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 0u) << "the page allocator's";
    VELLib::free(VELLib::realloc(block, 10000));
    EXPECT_EQ(VELLib::set_allocator(nullptr), 0);
}

} // namespace
