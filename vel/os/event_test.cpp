// Contract of events and waiting, typed over the back ends that promise it.
#include <vel/os/event.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/testing/tally.h>

namespace vel::os {
namespace {

constexpr uint32_t long_ms = 10000; // bound of a wait that is expected to succeed
constexpr uint32_t short_ms = 20;   // of one that is expected to time out

// The system's own events. Another back end is a struct with the same names.
struct SystemEvents {
    static constexpr auto create = create_event;
    static constexpr auto set = set_event;
    static constexpr auto reset = reset_event;
    static constexpr auto wait = wait_handle;
    static constexpr auto wait_any = os::wait_any;
};

// The same, set in two steps.
struct TwoStepEvents : SystemEvents {
    static uint32_t set(void* event) {
        uint32_t sleepers = 0;
        const uint32_t code = mark_event(event, sleepers);
        return code == error::none && sleepers != 0 ? wake_event(event, sleepers) : code;
    }
};

template <class Back>
class Events : public ::testing::Test {
protected:
    void* make(bool manual, bool set = false) {
        void* event = nullptr;
        EXPECT_EQ(Back::create(manual, set, event), error::none);
        events_.push_back(event);
        return event;
    }
    void TearDown() override {
        for (void* event : events_) close_handle(event);
    }
    std::vector<void*> events_;
};

using BackEnds = ::testing::Types<SystemEvents, TwoStepEvents>;
TYPED_TEST_SUITE(Events, BackEnds);

TYPED_TEST(Events, ManualStaysSetAutoFreesOneWaitAndTheLowestIndexWins) {
    using E = TypeParam;
    void* manual = this->make(true, true);
    void* automatic = this->make(false, true);
    void* handles[] = {this->make(true), automatic, manual};
    uint32_t index = 99;
    E::set(automatic); // adds nothing to the set it was made with
    for (const uint32_t expected : {1u, 2u, 2u}) {
        EXPECT_EQ(E::wait_any(handles, 3, long_ms, index), error::none);
        EXPECT_EQ(index, expected);
    }
    E::reset(manual);
    const uint64_t before = tick_ms64();
    EXPECT_EQ(E::wait_any(handles, 3, short_ms, index), error::wait_timeout);
    EXPECT_EQ(E::wait(manual, short_ms), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, 2 * short_ms);
}

TYPED_TEST(Events, EachSetWakesExactlyOneOfManyWaiters) {
    using E = TypeParam;
    constexpr int sets = 2000;
    void* event = this->make(false);
    std::atomic<bool> stop{false};
    vel::testing::Tally wakes;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i)
        waiters.emplace_back([&] {
            while (E::wait(event, long_ms) == error::none && !stop) wakes.add();
            E::set(event); // frees the next one
        });
    for (int i = 1; i <= sets; ++i) {
        E::set(event);
        ASSERT_TRUE(wakes.reaches(i)) << "set " << i << " woke nobody";
    }
    EXPECT_FALSE(wakes.reaches(sets + 1, short_ms));
    stop = true;
    E::set(event);
    for (std::thread& waiter : waiters) waiter.join();
}

TYPED_TEST(Events, AClosedEventEndsOrOutlivesItsWaiter) {
    using E = TypeParam;
    for (int round = 0; round < 30; ++round) {
        void* event = nullptr;
        E::create(true, false, event);
        std::atomic<bool> waiting{false};
        std::thread waiter([&] {
            waiting = true;
            const uint32_t code = E::wait(event, short_ms);
            EXPECT_TRUE(code == error::invalid_handle || code == error::wait_timeout) << code;
        });
        while (!waiting) std::this_thread::yield();
        EXPECT_EQ(close_handle(event), error::none);
        EXPECT_EQ(E::set(event), error::invalid_handle);
        waiter.join();
    }
}

} // namespace
} // namespace vel::os
