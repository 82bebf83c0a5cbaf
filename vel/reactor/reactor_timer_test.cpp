// The reactor's timers, on a clock that the tests put forward.
#include <vel/testing/reactor_fixture.h>

namespace vel::testing {
namespace {

struct ReactorTimerTest : ReactorTest {
    /// Lets time go by and runs one cycle; its words.
    std::string after(uint64_t ms) {
        os::set_tick_offset_for_test(offset += ms);
        reactor->handle_event(0);
        return journal.read();
    }

    Recorder& timed(const std::string& name, uint32_t interval_ms) {
        Recorder& self = recorder(name);
        EXPECT_GT(reactor->schedule_timer(&self, interval_ms), 0);
        return self;
    }

    uint64_t offset = 0;
};

TEST_F(ReactorTimerTest, RepeatsInOrderUntilRefused) {
    Recorder& a = timed("a", 100000);
    timed("b", 100000);
    Recorder& c = timed("c", 50000);
    timed("d", 0xFFFFFFFF);
    EXPECT_EQ(after(49000), "");
    c.on["timeout"] = [&] { return *c.interval = 300000, 0; };
    EXPECT_EQ(after(2000), "c.timeout");
    a.on["timeout"] = [] { return -1; };
    EXPECT_EQ(after(50000), "a.timeout a.close32 b.timeout");
    EXPECT_EQ(a.ended, reinterpret_cast<void*>(intptr_t{a.timer_id}));
    EXPECT_EQ(a.references(), 1);
    EXPECT_EQ(after(99000), "");
    EXPECT_EQ(after(2000), "b.timeout");
    EXPECT_EQ(after(140000), "b.timeout") << "not c, which asked for more";
    EXPECT_EQ(after(0xFFFFFFFF - 345000), "c.timeout b.timeout") << "beyond the wrap, d not yet";
    EXPECT_EQ(after(3000), "d.timeout");
}

TEST_F(ReactorTimerTest, WithIntervalZeroRunsOnceACycle) {
    Recorder& a = timed("a", 0);
    EXPECT_EQ(reactor->handle_event(VEL_INFINITE), 1);
    connected("s", VEL_INPUT_EVENT).peer.send("x", 1);
    EXPECT_EQ(reactor->handle_event(patience_ms), 2) << "timers and sockets are counted together";
    EXPECT_EQ(journal.read(), "a.timeout a.timeout s.input");
    EXPECT_EQ(reactor->cancel_timer(a.timer_id, true), 0);
    EXPECT_EQ(quiet(), "");
}

TEST_F(ReactorTimerTest, IsCancelledAndRescheduledByItsIdAlsoInItsOwnCall) {
    Recorder& a = timed("a", 10);
    a.on["timeout"] = [&] {
        EXPECT_EQ(reactor->cancel_timer(a.timer_id, false), 0);
        EXPECT_EQ(a.references(), 2);
        return reactor->schedule_timer(&a, 100000) > 0 ? 0 : -1;
    };
    EXPECT_EQ(after(11), "a.timeout a.close32");
    const int32_t loud = reactor->schedule_timer(&a, 100000), quiet = reactor->schedule_timer(&a, 100000);
    EXPECT_EQ(a.references(), 4);
    EXPECT_EQ(reactor->cancel_timer(loud, false) + reactor->cancel_timer(quiet, true), 0);
    EXPECT_EQ(journal.read(), "a.close32");
    EXPECT_EQ(a.references(), 2);
    expect_failure(error::invalid_parameter, reactor->reschedule_timer(loud, 1));
    expect_failure(0x12345, reactor->cancel_timer(loud, false));

    Recorder& last = timed("b", 200000);
    EXPECT_EQ(reactor->reschedule_timer(reactor->schedule_timer(&last, 200000), 5), 0);
    last.on["timeout"] = [&] { return reactor->close(), 0; };
    EXPECT_EQ(after(6), "b.timeout b.close32 a.close32 b.close32");
    expect_failure(error::object_closed, reactor->schedule_timer(&last, 1));
}

} // namespace
} // namespace vel::testing
