// The three allocators and the functions that forward to the current one.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEL_SANITIZED 1
#endif
#endif

namespace {

VEL_Allocator* const allocators[] = {VEL_Std_Allocator::instance(), VEL_Virtual_Allocator::instance(),
                                     VEL_Global_Allocator::instance()};

bool filled(const void* block, uint64_t size, uint8_t byte) {
    const auto* bytes = static_cast<const uint8_t*>(block);
    return std::all_of(bytes, bytes + size, [byte](uint8_t b) { return b == byte; });
}

class EveryAllocator : public ::testing::TestWithParam<VEL_Allocator*> {};
INSTANTIATE_TEST_SUITE_P(Allocators, EveryAllocator, ::testing::ValuesIn(allocators));

TEST_P(EveryAllocator, RefusesSizeZeroAndLeavesTheBlock) {
    VELLib::SetErrorCode(0);
    EXPECT_EQ(GetParam()->malloc(0, true), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x2000000Bu);
    void* block = GetParam()->malloc(100, true);
    ASSERT_NE(block, nullptr);
    std::memset(block, 7, 100);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(GetParam()->realloc(block, 0), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x2000000Bu);
    EXPECT_TRUE(filled(block, 100, 7));
    GetParam()->free(block);
    GetParam()->free(nullptr);
}

TEST_P(EveryAllocator, ZeroesAndKeepsWhatGrows) {
    void* block = GetParam()->malloc(10000, true);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(filled(block, 10000, 0));
    std::memset(block, 9, 10000);
    block = GetParam()->realloc(block, 1000000);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(filled(block, 10000, 9));
    GetParam()->free(block);
    block = GetParam()->realloc(nullptr, 10);
    ASSERT_NE(block, nullptr);
    GetParam()->free(block);
}

TEST(StdAllocator, KeepsTheBlockWhenMemoryIsShort) {
#ifdef VEL_SANITIZED
    GTEST_SKIP() << "the sanitizer ends the process at an absurd size";
#endif
    auto* allocator = VEL_Std_Allocator::instance();
    EXPECT_EQ(allocator, VEL_Std_Allocator::instance());
    EXPECT_EQ(allocator->malloc(uint64_t{1} << 62, false), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 8u);
    void* block = allocator->malloc(10, true);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(allocator->realloc(block, uint64_t{1} << 62), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 8u);
    EXPECT_TRUE(filled(block, 10, 0));
    allocator->free(block);
}

TEST(VirtualAllocator, NeverShrinksAndMovesWholePages) {
    auto* allocator = VEL_Virtual_Allocator::instance();
    auto* block = static_cast<char*>(allocator->malloc(5000, false));
    ASSERT_NE(block, nullptr);
    std::memset(block, 3, 8192); // all of its two pages is usable
    EXPECT_EQ(allocator->realloc(block, 1), block);
    EXPECT_EQ(allocator->realloc(block, 8192), block);
    auto* grown = static_cast<char*>(allocator->realloc(block, 8193));
    ASSERT_NE(grown, nullptr);
    EXPECT_TRUE(filled(grown, 8192, 3));
    EXPECT_TRUE(filled(grown + 8192, 4096, 0));
    allocator->free(grown);
}

TEST(VirtualAllocator, SizesCountModulo32Bits) {
    auto* allocator = VEL_Virtual_Allocator::instance();
    const uint64_t wrap = uint64_t{1} << 32;
    EXPECT_EQ(allocator->malloc(wrap, false), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    void* block = allocator->malloc(wrap + 10000, false);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(allocator->realloc(block, wrap + 4096), nullptr) << "one page cannot take the three of the block";
    EXPECT_EQ(VELLib::GetErrorCode(), 8u);
    EXPECT_TRUE(filled(block, 10000, 0));
    allocator->free(block);
    int foreign = 0;
    EXPECT_EQ(allocator->realloc(&foreign, 10), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
}

TEST(GlobalAllocator, KnowsItsBlocks) {
    auto* allocator = VEL_Global_Allocator::instance();
    int foreign = 0;
    EXPECT_EQ(allocator->realloc(&foreign, 10), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 6u);
    allocator->free(&foreign);
    const uint64_t wrap = uint64_t{1} << 32;
    auto* block = allocator->malloc(wrap + 16, true);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(allocator->realloc(block, wrap), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    EXPECT_TRUE(filled(block, 16, 0)) << "still valid after the failure";
    block = allocator->realloc(block, 8);
    EXPECT_TRUE(filled(block, 8, 0));
    allocator->free(block);
}

class CountingAllocator : public VEL_Std_Allocator {
public:
    void* malloc(uint64_t size, bool zero) override {
        last_zero = zero;
        return ++calls, VEL_Std_Allocator::malloc(size, zero);
    }
    void* realloc(void* block, uint64_t size) override { return ++calls, VEL_Std_Allocator::realloc(block, size); }
    void free(void* block) override { ++calls, VEL_Std_Allocator::free(block); }
    static int add(VEL_Allocator* allocator) { return add_allocator_instance(allocator); }
    int calls = 0;
    bool last_zero = false;
};

TEST(CurrentAllocator, ForwardsToWhatIsInstalled) {
    ASSERT_EQ(vel::current_allocator(), nullptr) << "nothing is installed at the start";
    EXPECT_EQ(VELLib::malloc(10, false), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000002u);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(VELLib::realloc(nullptr, 10), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000002u);
    int foreign = 0;
    VELLib::free(&foreign);

    CountingAllocator counting;
    EXPECT_EQ(VELLib::set_allocator(&counting), 0);
    void* block = VELLib::malloc(10, true);
    EXPECT_TRUE(counting.last_zero);
    block = VELLib::realloc(block, 1000);
    VELLib::free(block);
    EXPECT_EQ(counting.calls, 3);
    EXPECT_EQ(VELLib::set_allocator(nullptr), 0);
    EXPECT_EQ(VELLib::malloc(10, false), nullptr);
}

TEST(AllocatorRegistry, RefusesNullAndTakesAnInstanceOnce) {
    static CountingAllocator counting;
    VELLib::SetErrorCode(0);
    EXPECT_EQ(CountingAllocator::add(nullptr), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    EXPECT_EQ(CountingAllocator::add(&counting) + CountingAllocator::add(&counting), 0);
}

} // namespace
