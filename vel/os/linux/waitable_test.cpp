// Tests of the descriptor behind an event: when it is written, and that a poller is never left asleep.
#include <vel/os/linux/waitable.h>

#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <vel/os/event.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

class WaitableDescriptor : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(create_event(true, false, handle_), 0u);
        event_ = pin_waitable(handle_);
    }
    void TearDown() override {
        HandleTable::unpin(event_);
        close_handle(handle_);
    }
    bool readable(int timeout_ms = 0) {
        pollfd waited{event_->descriptor(), POLLIN, 0};
        return ::poll(&waited, 1, timeout_ms) == 1;
    }
    void* handle_ = nullptr;
    Waitable* event_ = nullptr;
};

TEST_F(WaitableDescriptor, IsWrittenOnlyWhenSomebodyMaySeeIt) {
    event_->set();
    EXPECT_FALSE(readable());
    event_->add_watcher();
    EXPECT_TRUE(readable());
    event_->reset();
    EXPECT_TRUE(readable()); // stale until a watcher settles it
    EXPECT_FALSE(event_->settle());
    EXPECT_FALSE(readable());
    event_->set();
    EXPECT_TRUE(readable());
    EXPECT_TRUE(event_->settle());
    EXPECT_TRUE(readable());
    event_->remove_watcher();
}

TEST_F(WaitableDescriptor, LastSetReachesThePollerWhateverWasSettledMeanwhile) {
    event_->add_watcher();
    std::atomic<bool> stop{false};
    std::thread settlers[2];
    for (std::thread& settler : settlers)
        settler = std::thread([&] {
            while (!stop) event_->settle();
        });
    for (int round = 0; round < 20000; ++round) {
        event_->set();
        ASSERT_TRUE(readable(10000)) << "round " << round;
        event_->reset();
    }
    stop = true;
    for (std::thread& settler : settlers) settler.join();
    event_->settle();
    EXPECT_FALSE(readable());
    event_->remove_watcher();
}

} // namespace
} // namespace vel::os
