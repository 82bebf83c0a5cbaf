// Contract of events and waiting.
#include <vel/os/event.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

constexpr uint32_t long_ms = 10000; // bound of a wait that is expected to succeed
constexpr uint32_t short_ms = 20;   // of one that is expected to time out

struct NativeEvents {
    static uint32_t create(bool manual, bool set, void*& event) { return create_event(manual, set, event); }
    static uint32_t set(void* event) { return set_event(event); }
    static uint32_t reset(void* event) { return reset_event(event); }
    static uint32_t wait(void* event, uint32_t timeout_ms) { return wait_handle(event, timeout_ms); }
    static uint32_t wait_any(void* const* handles, uint32_t count, uint32_t timeout_ms, uint32_t& index) {
        return os::wait_any(handles, count, timeout_ms, index);
    }
    static uint32_t close(void* event) { return close_handle(event); }
    static uint64_t open_count() { return open_handle_count(); }
};

template <class Events>
class EventContract : public ::testing::Test {
protected:
    void* make(bool manual, bool set = false) {
        void* event = nullptr;
        EXPECT_EQ(Events::create(manual, set, event), error::none);
        events_.push_back(event);
        return event;
    }
    void TearDown() override {
        for (void* event : events_) Events::close(event);
    }
    std::vector<void*> events_;
};

using BackEnds = ::testing::Types<NativeEvents>;
TYPED_TEST_SUITE(EventContract, BackEnds);

TYPED_TEST(EventContract, ManualStaysSetAutoFreesOneWaiter) {
    using E = TypeParam;
    void* manual = this->make(true, true);
    void* automatic = this->make(false, true);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(E::wait(manual, 0), error::none);
    EXPECT_EQ(E::wait(automatic, 0), error::none);
    EXPECT_EQ(E::wait(automatic, 0), error::wait_timeout);
    E::set(automatic);
    E::set(automatic); // the second one adds nothing
    EXPECT_EQ(E::wait(automatic, long_ms), error::none);
    EXPECT_EQ(E::wait(automatic, 0), error::wait_timeout);
    E::reset(manual);
    E::reset(manual);
    EXPECT_EQ(E::wait(manual, 0), error::wait_timeout);
}

TYPED_TEST(EventContract, TimedWaitNeverEndsEarly) {
    void* event = this->make(true);
    const uint64_t before = tick_ms64();
    EXPECT_EQ(TypeParam::wait(event, short_ms), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, short_ms);
}

TYPED_TEST(EventContract, LowestSignalledIndexWinsAndOnlyItIsTaken) {
    using E = TypeParam;
    void* handles[] = {this->make(true), this->make(false, true), this->make(false, true)};
    uint32_t index = 99;
    EXPECT_EQ(E::wait_any(handles, 3, long_ms, index), error::none);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(E::wait_any(handles, 3, 0, index), error::none);
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(E::wait_any(handles, 3, short_ms, index), error::wait_timeout);
}

TYPED_TEST(EventContract, RefusesBadArguments) {
    using E = TypeParam;
    std::vector<void*> handles(65, this->make(true, true));
    uint32_t index = 99;
    EXPECT_EQ(E::wait_any(handles.data(), 0, 0, index), error::invalid_parameter);
    EXPECT_EQ(E::wait_any(handles.data(), 65, 0, index), error::invalid_parameter);
    EXPECT_EQ(E::wait_any(handles.data(), 64, 0, index), error::none);
    handles[63] = nullptr;
    EXPECT_EQ(E::wait_any(handles.data(), 64, 0, index), error::invalid_handle);
    void* closed = nullptr;
    E::create(true, true, closed);
    E::close(closed);
    for (void* bad : {static_cast<void*>(nullptr), closed, reinterpret_cast<void*>(~uintptr_t{0})}) {
        EXPECT_EQ(E::set(bad), error::invalid_handle);
        EXPECT_EQ(E::reset(bad), error::invalid_handle);
        EXPECT_EQ(E::wait(bad, 0), error::invalid_handle);
    }
}

TYPED_TEST(EventContract, EachSetWakesExactlyOneOfManyWaiters) {
    using E = TypeParam;
    constexpr int sets = 2000;
    void* event = this->make(false);
    void* taken = this->make(false);
    std::atomic<int> wakes{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i)
        waiters.emplace_back([&] {
            while (E::wait(event, long_ms) == error::none && !stop) {
                ++wakes;
                E::set(taken);
            }
            E::set(event); // frees the next one
        });
    for (int i = 0; i < sets; ++i) {
        E::set(event);
        ASSERT_EQ(E::wait(taken, long_ms), error::none) << "set " << i << " woke nobody";
    }
    EXPECT_EQ(E::wait(taken, short_ms), error::wait_timeout);
    EXPECT_EQ(wakes, sets);
    stop = true;
    E::set(event);
    for (std::thread& waiter : waiters) waiter.join();
}

TYPED_TEST(EventContract, NoSetIsLostBetweenSetsAndResets) {
    using E = TypeParam;
    void* event = this->make(true);
    void* seen = this->make(false);
    for (int round = 0; round < 200; ++round) {
        std::thread waiter([&] {
            while (E::wait(event, long_ms) == error::none && E::wait(seen, 0) != error::none) {
            }
        });
        for (int i = 0; i < 100; ++i) {
            E::set(event);
            E::reset(event);
        }
        E::set(seen);
        E::set(event); // the one that must arrive
        waiter.join();
        ASSERT_EQ(E::wait(seen, 0), error::wait_timeout) << "the waiter timed out in round " << round;
        E::reset(event);
        ASSERT_EQ(E::wait(event, 1), error::wait_timeout);
    }
}

TYPED_TEST(EventContract, AClosedEventLivesUntilItsWaiterIsDone) {
    using E = TypeParam;
    const uint64_t before = E::open_count();
    void* event = nullptr;
    E::create(true, false, event);
    void* handles[] = {event, this->make(false)};
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        uint32_t index = 99;
        waiting = true;
        EXPECT_EQ(E::wait_any(handles, 2, long_ms, index), error::none);
        EXPECT_EQ(index, 1u);
    });
    while (!waiting) std::this_thread::yield();
    std::this_thread::yield();
    EXPECT_EQ(E::close(event), error::none);
    EXPECT_EQ(E::set(event), error::invalid_handle);
    E::set(handles[1]);
    waiter.join();
    EXPECT_EQ(E::open_count(), before + 1); // the one that TearDown closes
}

} // namespace
} // namespace vel::os
