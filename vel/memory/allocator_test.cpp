// The three allocators and the functions that forward to the current one.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>

namespace {

VEL_Allocator* const allocators[] = {VEL_Std_Allocator::instance(), VEL_Virtual_Allocator::instance(),
                                     VEL_Global_Allocator::instance()};

bool filled(const void* block, uint64_t size, uint8_t byte) {
    const auto* bytes = static_cast<const uint8_t*>(block);
    return std::all_of(bytes, bytes + size, [byte](uint8_t b) { return b == byte; });
}

class EveryAllocator : public ::testing::TestWithParam<VEL_Allocator*> {};
INSTANTIATE_TEST_SUITE_P(Allocators, EveryAllocator, ::testing::ValuesIn(allocators));

TEST_P(EveryAllocator, RefusesSizeZeroAndKeepsWhatGrows) {
    VEL_Allocator& allocator = *GetParam();
    VELLib::SetErrorCode(0);
    EXPECT_EQ(allocator.malloc(0, true), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x2000000Bu);
    void* block = allocator.malloc(10000, true);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(filled(block, 10000, 0));
    std::memset(block, 9, 10000);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(allocator.realloc(block, 0), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x2000000Bu);
    block = allocator.realloc(block, 1000000);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(filled(block, 10000, 9));
    allocator.free(block);
    allocator.free(allocator.realloc(nullptr, 10));
}

TEST(VirtualAllocator, NeverShrinksAndMovesWholePages) {
    auto* allocator = VEL_Virtual_Allocator::instance();
    auto* block = static_cast<char*>(allocator->malloc(5000, false));
    ASSERT_NE(block, nullptr);
    std::memset(block, 3, 8192); // all of its two pages is usable
    EXPECT_EQ(allocator->realloc(block, 1), block);
    auto* grown = static_cast<char*>(allocator->realloc(block, 8193));
    ASSERT_NE(grown, nullptr);
    EXPECT_TRUE(filled(grown, 8192, 3));
    EXPECT_TRUE(filled(grown + 8192, 4096, 0));
    allocator->free(grown);
}

TEST(PageAndGlobalAllocator, KnowTheirBlocksAndCountSizesModulo32Bits) {
    int foreign = 0;
    EXPECT_EQ(VEL_Virtual_Allocator::instance()->realloc(&foreign, 10), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    EXPECT_EQ(VEL_Global_Allocator::instance()->realloc(&foreign, 10), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 6u);
    EXPECT_EQ(VEL_Virtual_Allocator::instance()->malloc(uint64_t{1} << 32, false), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
}

TEST(CurrentAllocator, ForwardsToWhatIsInstalled) {
    ASSERT_EQ(vel::current_allocator(), nullptr) << "nothing is installed at the start";
    EXPECT_EQ(VELLib::malloc(10, false), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000002u);
    EXPECT_EQ(VELLib::set_allocator(VEL_Virtual_Allocator::instance()), 0);
    void* block = VELLib::malloc(10, true);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 0u) << "the page allocator's";
    VELLib::free(VELLib::realloc(block, 10000));
    EXPECT_EQ(VELLib::set_allocator(nullptr), 0);
}

} // namespace
