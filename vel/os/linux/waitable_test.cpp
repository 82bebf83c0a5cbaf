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

TEST(WaitableDescriptor, LastSetReachesThePollerWhateverWasSettledMeanwhile) {
    void* handle = nullptr;
    ASSERT_EQ(create_event(true, false, handle), 0u);
    Waitable* event = pin_waitable(handle);
    const auto readable = [&](int timeout_ms) {
        pollfd waited{event->descriptor(), POLLIN, 0};
        return ::poll(&waited, 1, timeout_ms) == 1;
    };
    event->set();
    EXPECT_FALSE(readable(0)) << "written though nobody watches";
    event->add_watcher();
    EXPECT_TRUE(readable(0));
    std::atomic<bool> stop{false};
    std::thread settlers[2];
    for (std::thread& settler : settlers)
        settler = std::thread([&] {
            while (!stop) event->settle();
        });
    for (int round = 0; round < 20000; ++round) {
        event->set();
        ASSERT_TRUE(readable(10000)) << "round " << round;
        event->reset();
    }
    stop = true;
    for (std::thread& settler : settlers) settler.join();
    event->settle();
    EXPECT_FALSE(readable(0));
    event->remove_watcher();
    HandleTable::unpin(event);
    close_handle(handle);
}

} // namespace
} // namespace vel::os
