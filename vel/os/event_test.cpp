// Contract of events and waiting; an event is set in one step or in two.
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

uint32_t set_in_two_steps(void* event) {
    uint32_t sleepers = 0;
    const uint32_t code = mark_event(event, sleepers);
    return code == error::none && sleepers != 0 ? wake_event(event, sleepers) : code;
}

class Events : public OsTest, public ::testing::WithParamInterface<uint32_t (*)(void*)> {
protected:
    static uint32_t set(void* event) { return GetParam()(event); }
};
INSTANTIATE_TEST_SUITE_P(OneStepOrTwo, Events, ::testing::Values(set_event, set_in_two_steps));

TEST_P(Events, ManualStaysSetAutoFreesOneWaitAndTheLowestIndexWins) {
    void* manual = make_event(true, true);
    void* automatic = make_event(false, true);
    void* handles[] = {make_event(true), automatic, manual};
    uint32_t index = 99;
    set(automatic); // adds nothing to the set it was made with
    for (const uint32_t expected : {1u, 2u, 2u}) {
        EXPECT_EQ(wait_any(handles, 3, patience_ms, index), error::none);
        EXPECT_EQ(index, expected);
    }
    reset_event(manual);
    const uint64_t before = tick_ms64();
    EXPECT_EQ(wait_any(handles, 3, short_ms, index), error::wait_timeout);
    EXPECT_EQ(wait_handle(manual, short_ms), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, 2 * short_ms);
}

TEST_P(Events, EachSetWakesExactlyOneOfManyWaiters) {
    constexpr int sets = 2000;
    void* event = make_event(false);
    std::atomic<bool> stop{false};
    Tally wakes;
    const auto waiters = crew(8, [&](int) {
        while (wait_handle(event, patience_ms) == error::none && !stop) wakes.add();
        set(event); // frees the next one
    });
    for (int i = 1; i <= sets && !HasFailure(); ++i) {
        set(event);
        EXPECT_TRUE(wakes.reaches(i)) << "set " << i << " woke nobody";
    }
    EXPECT_FALSE(wakes.reaches(sets + 1, short_ms));
    stop = true;
    set(event);
}

TEST_P(Events, AClosedEventEndsOrOutlivesItsWaiter) {
    for (int round = 0; round < 30; ++round) {
        void* event = make_event(true);
        std::atomic<bool> waiting{false};
        const auto waiter = crew(1, [&](int) {
            waiting = true;
            const uint32_t code = wait_handle(event, short_ms);
            EXPECT_TRUE(code == error::invalid_handle || code == error::wait_timeout) << code;
        });
        while (!waiting) std::this_thread::yield();
        EXPECT_EQ(close_handle(event), error::none);
        EXPECT_EQ(set(event), error::invalid_handle);
    }
}

} // namespace
} // namespace vel::os::testing
