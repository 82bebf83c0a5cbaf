// The timer queue against a naive sorted list, its ids, and who has to be woken.
#include <vel/reactor/timer_queue.h>

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

struct Handler {};
using Queue = VEL_Timer_Queue<Handler>;
using Period = VEL_Time_Period<Handler>;

// The order as it is defined: a list sorted by remaining time, searched from the front, in 32-bit arithmetic.
class NaiveQueue {
public:
    void insert(int32_t id, uint32_t interval, uint32_t now, Handler* handler) {
        const auto place = std::find_if(timers_.begin(), timers_.end(),
                                        [=](const Timer& timer) { return timer.period.remaining(now) > interval; });
        timers_.insert(place, {{id, interval, now, handler}, true});
    }

    bool remove(int32_t id, Period& period) {
        const auto found = find(id);
        if (found == timers_.end()) return false;
        period = found->period;
        timers_.erase(found);
        return true;
    }

    void begin_pass() {
        for (Timer& timer : timers_) timer.fresh = false;
    }

    const Period* due(uint32_t now) const {
        const bool ready = !timers_.empty() && !timers_.front().fresh && timers_.front().period.remaining(now) == 0;
        return ready ? &timers_.front().period : nullptr;
    }

    uint32_t wait_ms(uint32_t now) const {
        return timers_.empty() ? VEL_INFINITE : timers_.front().period.remaining(now);
    }

    bool contains(int32_t id) { return find(id) != timers_.end(); }
    size_t size() const { return timers_.size(); }
    int32_t id_at(size_t index) const { return timers_[index].period.timer_id; }

private:
    struct Timer {
        Period period;
        bool fresh; // scheduled since the pass began
    };

    std::vector<Timer>::iterator find(int32_t id) {
        return std::find_if(timers_.begin(), timers_.end(), [id](const Timer& t) { return t.period.timer_id == id; });
    }

    std::vector<Timer> timers_;
};

// Both queues side by side, driven by random steps.
class Duel {
public:
    Duel(uint32_t seed, uint64_t now) : random_(seed), now_(now) {}

    void run(int steps) {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            switch (pick(8)) {
            case 0:
            case 1:
            case 2: schedule(); break;
            case 3: cancel(); break;
            case 4: reschedule(); break;
            case 5: dispatch(); break;
            default: now_ += pick(2) ? pick(40) : 0; break; // standing still makes equal deadlines
            }
            compare();
        }
        drain();
    }

private:
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    uint32_t tick() const { return static_cast<uint32_t>(now_); }
    uint32_t interval() { return pick(20) == 0 ? 0x80000000u + pick(1000) : pick(50); }
    int32_t some_id() { return naive_.size() == 0 ? 77 : naive_.id_at(pick(static_cast<uint32_t>(naive_.size()))); }

    void expect_sooner(bool sooner, uint64_t before) { EXPECT_EQ(sooner, queue_.deadline_ms() < before); }

    void schedule() {
        const uint32_t length = interval();
        Handler* handler = &handlers_[pick(4)];
        const uint64_t before = queue_.deadline_ms();
        bool sooner = false;
        const int32_t id = queue_.schedule(handler, length, now_, sooner);
        ASSERT_GT(id, 0);
        expect_sooner(sooner, before);
        naive_.insert(id, length, tick(), handler);
    }

    void cancel() {
        const int32_t id = some_id();
        Handler* handler = nullptr;
        Period expected{};
        ASSERT_EQ(queue_.cancel(id, handler), naive_.remove(id, expected));
        EXPECT_EQ(handler, expected.handler);
    }

    void reschedule() { restart(some_id(), interval()); }

    void restart(int32_t id, uint32_t length) {
        const uint64_t before = queue_.deadline_ms();
        bool sooner = false;
        Period old{};
        ASSERT_EQ(queue_.reschedule(id, length, now_, sooner), naive_.remove(id, old));
        expect_sooner(sooner, before);
        if (old.timer_id) naive_.insert(id, length, tick(), old.handler);
    }

    void dispatch() {
        const uint64_t pass = queue_.begin_pass();
        naive_.begin_pass();
        Period period;
        while (queue_.next_due(pass, now_, period)) {
            const Period* expected = naive_.due(tick());
            ASSERT_NE(expected, nullptr);
            ASSERT_EQ(period.timer_id, expected->timer_id);
            EXPECT_EQ(period.handler, expected->handler);
            EXPECT_EQ(period.interval, expected->interval);
            EXPECT_EQ(period.start, expected->start);
            restart(period.timer_id, pick(3) ? pick(30) : 0);
            now_ += pick(3);
        }
        EXPECT_EQ(naive_.due(tick()), nullptr);
    }

    void compare() {
        EXPECT_EQ(queue_.wait_ms(now_), naive_.wait_ms(tick()));
        EXPECT_EQ(queue_.size(), naive_.size());
        const int32_t id = static_cast<int32_t>(pick(500));
        EXPECT_EQ(queue_.contains(id), naive_.contains(id));
    }

    void drain() {
        Period period, expected;
        while (naive_.size() > 0) {
            ASSERT_TRUE(queue_.take_first(period));
            ASSERT_EQ(period.timer_id, naive_.id_at(0));
            naive_.remove(period.timer_id, expected);
        }
        EXPECT_FALSE(queue_.take_first(period));
    }

    std::mt19937 random_;
    uint64_t now_;
    Queue queue_;
    NaiveQueue naive_;
    Handler handlers_[4];
};

TEST(TimerQueue, AgreesWithTheSortedListAcrossTheClockWrap) {
    for (uint32_t seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        Duel(seed, (uint64_t{seed} << 32) - 2000).run(2000);
    }
}

TEST(TimerQueue, PassEndsAlthoughATimerRestartsAtOnce) {
    Queue queue;
    Handler rare, eager;
    bool sooner;
    const int32_t first = queue.schedule(&rare, 10, 0, sooner);
    const int32_t second = queue.schedule(&eager, 10, 0, sooner);
    const uint64_t pass = queue.begin_pass();
    std::vector<int32_t> order;
    Period period;
    while (queue.next_due(pass, 10, period)) {
        ASSERT_LT(order.size(), 5u);
        order.push_back(period.timer_id);
        ASSERT_TRUE(queue.reschedule(period.timer_id, period.handler == &eager ? 0 : 1000, 10, sooner));
    }
    EXPECT_EQ(order, (std::vector{first, second}));
    EXPECT_TRUE(queue.next_due(queue.begin_pass(), 10, period));
    EXPECT_EQ(period.timer_id, second);
}

TEST(TimerQueue, IdsComeRoundAndTheFirstOfTwoIsMeant) {
    Queue queue;
    Handler late, soon, *found = nullptr;
    bool sooner;
    queue.set_last_id_for_test(0x7FFFFFFD);
    EXPECT_EQ(queue.schedule(&late, 900, 0, sooner), 0x7FFFFFFE);
    EXPECT_EQ(queue.schedule(&late, 900, 0, sooner), 1);
    queue.set_last_id_for_test(0x7FFFFFFE);
    EXPECT_EQ(queue.schedule(&soon, 100, 0, sooner), 1);
    EXPECT_TRUE(queue.reschedule(1, 2000, 0, sooner)) << "moves the earlier one behind the later";
    ASSERT_TRUE(queue.cancel(1, found));
    EXPECT_EQ(found, &late);
    ASSERT_TRUE(queue.cancel(1, found));
    EXPECT_EQ(found, &soon);
    EXPECT_FALSE(queue.cancel(1, found));
    EXPECT_TRUE(queue.contains(0x7FFFFFFE));
}

TEST(TimerQueue, LongestIntervalIsNoEndlessWait) {
    Queue queue;
    Handler handler;
    bool sooner;
    EXPECT_EQ(queue.wait_ms(5), VEL_INFINITE);
    queue.schedule(&handler, 0xFFFFFFFF, 5, sooner);
    EXPECT_EQ(queue.wait_ms(5), VEL_INFINITE - 1);
    EXPECT_EQ(queue.wait_ms(5 + uint64_t{0xFFFFFFFF}), 0u);
}

TEST(TimerQueue, OneThreadHoldsTheRole) {
    Queue queue;
    EXPECT_TRUE(queue.acquire_role());
    EXPECT_FALSE(queue.acquire_role());
    queue.release_role();
    queue.release_role(); // one too many must not leave a debt
    EXPECT_TRUE(queue.acquire_role());
    EXPECT_FALSE(queue.acquire_role());
}

} // namespace
