// The proactor's timers.
#include <vel/testing/proactor_fixture.h>

#include <chrono>

namespace vel::testing {

/// Reaches a single pass over the due timers.
template <int (VEL_Proactor::*Pass)()>
struct RevealPass {
    friend int dispatch_timer_of(VEL_Proactor& proactor) { return (proactor.*Pass)(); }
};
int dispatch_timer_of(VEL_Proactor& proactor);
template struct RevealPass<&VEL_Proactor::dispatch_timer>;

namespace {

using Clock = std::chrono::steady_clock;

using ProactorTimer = ProactorTest;

TEST_F(ProactorTimer, RepeatsWithTheIntervalThatTheHandlerSets) {
    Ref<Handler> handler(new Handler);
    std::vector<Clock::time_point> at{Clock::now()};
    handler->on_timeout = [&](uint32_t& interval_ms) {
        at.push_back(Clock::now());
        if (at.size() == 3) interval_ms = 60;
        return at.size() < 5 ? 0 : -1;
    };
    const int32_t id = proactor->schedule_timer(handler.get(), 100000);
    EXPECT_EQ(proactor->reschedule_timer(id, 20), 0) << "sooner: the waiting thread must hear of it";
    ASSERT_TRUE(handler->closes.reaches(1));
    ASSERT_EQ(at.size(), 5u);
    for (size_t i = 1; i < 5; ++i) EXPECT_GE(at[i] - at[i - 1], std::chrono::milliseconds(i < 3 ? 19 : 59));
    EXPECT_EQ(proactor->cancel_timer(id, true), -1) << "it has ended";
}

TEST_F(ProactorTimer, EndsWithHandleCloseAndItsReference) {
    Ref<Handler> handler(new Handler);
    int32_t ids[3];
    for (int32_t& id : ids) id = proactor->schedule_timer(handler.get(), 100000);
    EXPECT_EQ(handler->references(), 4);
    EXPECT_EQ(proactor->cancel_timer(ids[0], false), 0);
    EXPECT_EQ(proactor->cancel_timer(ids[1], true), 0) << "quiet";
    EXPECT_EQ(handler->closes.count(), 1);
    EXPECT_EQ(handler->last_handle, reinterpret_cast<void*>(intptr_t{ids[0]}));
    proactor->close();
    EXPECT_EQ(handler->closes.count(), 2);
    EXPECT_EQ(handler->last_key, 0u);
    EXPECT_EQ(handler->last_handle, reinterpret_cast<void*>(intptr_t{ids[2]}));
    EXPECT_EQ(handler->references(), 1);
}

TEST_F(ProactorTimer, APassEndsWhereTheTimerThatItBeganWithComesRound) {
    Ref<Handler> blocker(new Handler), first(new Handler), greedy(new Handler);
    Tally inside, go;
    blocker->on_timeout = [&](uint32_t&) {
        inside.add();
        if (inside.count() == 1) go.reaches(1); // the proactor's own thread leaves the passes to this test
        return -1;
    };
    proactor->schedule_timer(blocker.get(), 0);
    ASSERT_TRUE(inside.reaches(1));
    ASSERT_EQ(dispatch_timer_of(*proactor), 1);
    std::string order;
    int32_t first_id = 0;
    first->on_timeout = [&](uint32_t& interval_ms) {
        order += 'f';
        interval_ms = 100000;
        return order.size() == 1 ? 0 : -1;
    };
    greedy->on_timeout = [&](uint32_t&) {
        order += 'g';
        if (order.size() == 5) proactor->reschedule_timer(first_id, 0);
        return 0;
    };
    first_id = proactor->schedule_timer(first.get(), 0);
    proactor->schedule_timer(greedy.get(), 0);
    EXPECT_EQ(dispatch_timer_of(*proactor), 5);
    EXPECT_EQ(dispatch_timer_of(*proactor), 2) << "where the first ends, its place goes to the other one";
    EXPECT_EQ(order, "fggggfg");
    go.add();
    proactor->close(); // the callback is under way still
}

TEST_F(ProactorTimer, OnlyOneThreadDispatches) {
    Ref<Handler> handler(new Handler);
    std::atomic<int> inside{0};
    Tally fired;
    handler->on_timeout = [&](uint32_t&) {
        EXPECT_EQ(++inside, 1);
        std::this_thread::yield();
        --inside;
        return fired.add();
    };
    for (int i = 0; i < 10; ++i) ASSERT_GT(proactor->schedule_timer(handler.get(), 1), 0);
    crew(3, [&](int) {
        for (int pass = 0; pass < 50; ++pass) EXPECT_GE(proactor->handle_timer(2), 0);
    });
    EXPECT_TRUE(fired.reaches(fired.count() + 100)) << "the proactor's own thread goes on when the helpers have left";
    proactor->close(); // a callback may be under way still
}

} // namespace
} // namespace vel::testing
