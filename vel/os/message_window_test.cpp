// Contract of message windows.
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

// Adds up what it is given; destroys the window at message 99.
int64_t add_up(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context) {
    EXPECT_TRUE(message != 99 || destroy_window(window) == error::none);
    return *static_cast<int64_t*>(context) += message + static_cast<int64_t>(wparam) + lparam;
}

class MessageWindows : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(create_window(add_up, &sum_, window_), error::none); }
    void TearDown() override {
        destroy_window(window_);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint32_t post(uint32_t message, uint64_t wparam = 0) { return post_message(window_, message, wparam, -3); }
    uint32_t get(uint32_t timeout_ms = patience_ms) { return get_message(window_, message_, timeout_ms); }
    bool is_readable() {
        int descriptor = -1;
        EXPECT_EQ(window_descriptor(window_, descriptor), error::none);
        return testing::is_readable(descriptor);
    }

    const uint64_t handles_before_ = open_handle_count();
    int64_t sum_ = 0;
    HWND window_ = nullptr;
    WindowMessage message_{};
};

TEST_F(MessageWindows, AreReadableExactlyWhileMessagesAreQueued) {
    EXPECT_FALSE(is_readable());
    EXPECT_EQ(peek_message(window_, message_), error::wait_timeout);
    for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(post(i), error::none) << i;
    EXPECT_EQ(post(1), error::not_enough_quota);
    EXPECT_EQ(peek_message(window_, message_), error::none);
    for (uint32_t i = 0; i <= window_queue_capacity; ++i) {
        ASSERT_TRUE(is_readable()) << i;
        ASSERT_EQ(get(0), error::none);
        ASSERT_EQ(message_.message, i);
        ASSERT_TRUE(i > 0 || post(window_queue_capacity) == error::none);
    }
    EXPECT_FALSE(is_readable());
    const uint64_t before = tick_ms64();
    EXPECT_EQ(get(20), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, 20u);
}

TEST_F(MessageWindows, LoseNothingBetweenPostersAndAWaitingReader) {
    constexpr uint32_t posters = 4, each = 2000; // together fewer than a full queue
    std::vector<std::thread> threads;
    for (uint32_t poster = 0; poster < posters; ++poster)
        threads.emplace_back([this, poster] {
            for (uint32_t i = 0; i < each; ++i) post(poster, i);
        });
    std::vector<uint64_t> next(posters);
    for (uint32_t i = 0; i < posters * each; ++i) {
        ASSERT_EQ(get(), error::none) << "after " << i;
        ASSERT_EQ(message_.wparam, next[message_.message]++);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(is_readable());
}

TEST_F(MessageWindows, BelongToTheirThreadAndEndWithIt) {
    HWND left = nullptr;
    std::thread([this, &left] {
        EXPECT_EQ(get(0), error::access_denied);
        EXPECT_EQ(destroy_window(window_), error::access_denied);
        EXPECT_EQ(create_window(nullptr, nullptr, left), error::none);
    }).join();
    EXPECT_EQ(post_message(left, 1, 0, 0), error::invalid_window);
    std::thread closer([this] { close_handle(window_); });
    EXPECT_EQ(get(), error::invalid_window) << "a wait ends with the window";
    closer.join();
}

TEST_F(MessageWindows, CallTheProcedureWhichMayDestroyTheWindow) {
    int64_t result = 0;
    EXPECT_EQ(dispatch_message(window_, {1, 20, -300}, result), error::none);
    EXPECT_EQ(dispatch_message(window_, {99, 0, 0}, result), error::none);
    EXPECT_EQ(result, -180);
    EXPECT_EQ(post(1), error::invalid_window);
}

} // namespace
} // namespace vel::os
