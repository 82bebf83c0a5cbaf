// Contract of message windows, typed over the back ends that promise it.
#include <vel/os/message_window.h>

#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/readable.h>

namespace vel::os {
namespace {

constexpr uint32_t patience_ms = 10000;
constexpr uint32_t short_ms = 20;

// The system's own windows. Another back end is a struct with the same names.
struct SystemWindows {
    static constexpr auto create = create_window;
    static constexpr auto destroy = destroy_window;
    static constexpr auto post = post_message;
    static constexpr auto get = get_message;
    static constexpr auto peek = peek_message;
    static constexpr auto dispatch = dispatch_message;

    static bool is_readable(HWND window) {
        int descriptor = -1;
        EXPECT_EQ(window_descriptor(window, descriptor), error::none);
        return testing::is_readable(descriptor);
    }
};

// Adds up what it is given; destroys the window at message 99.
template <class Back>
int64_t add_up(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context) {
    auto& sum = *static_cast<int64_t*>(context);
    EXPECT_TRUE(message != 99 || Back::destroy(window) == error::none);
    return sum += int64_t{message} + static_cast<int64_t>(wparam) + lparam;
}

template <class Back>
class MessageWindows : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Back::create(add_up<Back>, &sum_, window_), error::none); }
    void TearDown() override {
        Back::destroy(window_);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint32_t post(uint32_t message) { return Back::post(window_, message, 0, 0); }
    uint32_t get(uint32_t timeout_ms) { return Back::get(window_, message_, timeout_ms); }

    uint64_t handles_before_ = open_handle_count();
    int64_t sum_ = 0;
    HWND window_ = nullptr;
    WindowMessage message_{};
};

TYPED_TEST_SUITE(MessageWindows, ::testing::Types<SystemWindows>);

TYPED_TEST(MessageWindows, AreReadableExactlyWhileMessagesAreQueuedAndKeepTheirOrder) {
    EXPECT_FALSE(TypeParam::is_readable(this->window_));
    EXPECT_EQ(TypeParam::peek(this->window_, this->message_), error::wait_timeout);
    ASSERT_EQ(TypeParam::post(this->window_, 7, ~uint64_t{0}, -3), error::none);
    ASSERT_EQ(this->post(8), error::none);
    EXPECT_EQ(TypeParam::peek(this->window_, this->message_), error::none);
    EXPECT_EQ(this->message_.message, 7u);
    for (const uint32_t expected : {7u, 8u}) {
        EXPECT_TRUE(TypeParam::is_readable(this->window_));
        ASSERT_EQ(this->get(0), error::none);
        EXPECT_EQ(this->message_.message, expected);
        if (expected != 7) continue;
        EXPECT_EQ(this->message_.wparam, ~uint64_t{0});
        EXPECT_EQ(this->message_.lparam, -3);
    }
    EXPECT_FALSE(TypeParam::is_readable(this->window_));
    const uint64_t before = tick_ms64();
    EXPECT_EQ(this->get(short_ms), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, short_ms);
}

TYPED_TEST(MessageWindows, TakeTenThousandAndThenOneForEachThatIsTaken) {
    for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(this->post(i), error::none) << i;
    EXPECT_EQ(this->post(1), error::not_enough_quota);
    ASSERT_EQ(this->get(0), error::none);
    EXPECT_EQ(this->post(window_queue_capacity), error::none);
    EXPECT_EQ(this->post(1), error::not_enough_quota);
    for (uint32_t i = 1; i <= window_queue_capacity; ++i) {
        ASSERT_EQ(this->get(0), error::none);
        ASSERT_EQ(this->message_.message, i);
    }
    EXPECT_FALSE(TypeParam::is_readable(this->window_));
}

TYPED_TEST(MessageWindows, LoseNothingBetweenPostersAndAWaitingReader) {
    constexpr uint32_t posters = 4, each = 2000; // together fewer than a full queue
    std::vector<std::thread> threads;
    for (uint32_t poster = 0; poster < posters; ++poster)
        threads.emplace_back([this, poster] {
            for (uint32_t i = 0; i < each; ++i) TypeParam::post(this->window_, poster, i, 0);
        });
    std::vector<uint64_t> next(posters);
    for (uint32_t i = 0; i < posters * each; ++i) {
        ASSERT_EQ(this->get(patience_ms), error::none) << "after " << i;
        ASSERT_EQ(this->message_.wparam, next[this->message_.message]++);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(TypeParam::is_readable(this->window_));
}

TYPED_TEST(MessageWindows, CallTheProcedureWhichMayDestroyTheWindow) {
    int64_t result = 0;
    EXPECT_EQ(TypeParam::dispatch(this->window_, {1, 20, -300}, result), error::none);
    EXPECT_EQ(result, -279);
    this->post(5);
    EXPECT_EQ(TypeParam::dispatch(this->window_, {99, 0, 0}, result), error::none);
    EXPECT_EQ(result, -180);
    EXPECT_EQ(TypeParam::dispatch(this->window_, {1, 0, 0}, result), error::invalid_window);
    EXPECT_EQ(this->get(0), error::invalid_window);
    EXPECT_EQ(this->post(1), error::invalid_window);
    HWND plain = nullptr;
    ASSERT_EQ(TypeParam::create(nullptr, nullptr, plain), error::none);
    EXPECT_EQ(TypeParam::dispatch(plain, {1, 0, 0}, result), error::none);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(TypeParam::destroy(plain), error::none);
}

TYPED_TEST(MessageWindows, BelongToTheirThreadAndEndWithIt) {
    HWND left = nullptr;
    std::thread([this, &left] {
        int64_t result = 0;
        EXPECT_EQ(this->get(0), error::access_denied);
        EXPECT_EQ(TypeParam::peek(this->window_, this->message_), error::access_denied);
        EXPECT_EQ(TypeParam::dispatch(this->window_, {1, 0, 0}, result), error::access_denied);
        EXPECT_EQ(TypeParam::destroy(this->window_), error::access_denied);
        EXPECT_EQ(TypeParam::create(nullptr, nullptr, left), error::none);
    }).join();
    EXPECT_EQ(TypeParam::post(left, 1, 0, 0), error::invalid_window);
    EXPECT_EQ(this->post(1), error::none) << "somebody else destroyed it";
}

TYPED_TEST(MessageWindows, AWaitEndsWithTheWindow) {
    std::thread closer([this] { close_handle(this->window_); });
    EXPECT_EQ(this->get(patience_ms), error::invalid_window);
    closer.join();
}

} // namespace
} // namespace vel::os
