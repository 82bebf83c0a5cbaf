// The timer queue against a naive sorted list, its ids, and who has to be woken.
#include <vel/reactor/timer_queue.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

struct Handler {};
using Queue = VEL_Timer_Queue<Handler>;
using Period = VEL_Time_Period<Handler>;

// The queue, and beside it the order as it is defined: a list sorted by remaining time, searched from the front, in
// 32-bit arithmetic. Random steps drive both.
class Duel {
public:
    Duel(uint32_t seed, uint64_t now) : random_(seed), now_(now) {}

    void run(int steps) {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            const int32_t id = list_.empty() || pick(9) == 0 ? -77 : list_[pick(list_.size())].timer_id;
            switch (pick(6)) {
            case 0: cancel(id); break;
            case 1: reschedule(id); break;
            case 2: dispatch(); break;
            case 3: now_ += pick(2) ? pick(40) : 0; break; // standing still makes equal deadlines
            default: schedule(); break;
            }
            EXPECT_EQ(queue_.wait_ms(now_), list_.empty() ? VEL_INFINITE : std::min(remaining(), VEL_INFINITE - 1));
        }
        Period period;
        while (queue_.take_first(period)) EXPECT_EQ(take(list_.empty() ? 0 : first()).timer_id, period.timer_id);
        EXPECT_TRUE(list_.empty());
    }

private:
    uint32_t pick(size_t below) { return static_cast<uint32_t>(random_() % below); }
    uint32_t tick() const { return static_cast<uint32_t>(now_); }
    uint32_t interval() { return pick(20) != 0 ? pick(50) : pick(2) ? 0x80000000u + pick(1000) : 0xFFFFFFFF; }
    int32_t first() const { return list_.front().timer_id; }
    uint32_t remaining() const { return list_.front().remaining(tick()); }

    void insert(const Period& fresh) {
        const auto later = [&](const Period& timer) { return timer.remaining(fresh.start) > fresh.interval; };
        list_.insert(std::find_if(list_.begin(), list_.end(), later), fresh);
    }

    Period take(int32_t id) {
        const auto found = std::find_if(list_.begin(), list_.end(), [id](auto& timer) { return timer.timer_id == id; });
        if (found == list_.end()) return Period{};
        const Period period = *found;
        list_.erase(found);
        return period;
    }

    void schedule() {
        const uint32_t length = interval();
        Handler* const handler = &handlers_[pick(4)];
        const uint64_t before = queue_.deadline_ms();
        bool sooner = false;
        if (pick(30) == 0) queue_.set_last_id_for_test(0x7FFFFFFE - 20); // soon they name two timers each
        const int32_t id = queue_.schedule(handler, length, now_, sooner);
        ASSERT_TRUE(id > 0 && id < 0x7FFFFFFF) << "they come round";
        EXPECT_EQ(sooner, queue_.deadline_ms() < before);
        insert({id, length, tick(), handler});
    }

    void cancel(int32_t id) {
        Handler* handler = nullptr;
        const Period expected = take(id);
        EXPECT_EQ(queue_.contains(id), expected.timer_id != 0);
        EXPECT_EQ(queue_.cancel(id, handler), expected.timer_id != 0);
        EXPECT_EQ(handler, expected.handler);
    }

    void reschedule(int32_t id) {
        const uint32_t length = interval();
        const uint64_t before = queue_.deadline_ms();
        bool sooner = false;
        const Period old = take(id);
        EXPECT_EQ(queue_.reschedule(id, length, now_, sooner), old.timer_id != 0);
        EXPECT_EQ(sooner, queue_.deadline_ms() < before);
        if (old.timer_id != 0) insert({id, length, tick(), old.handler});
    }

    void dispatch() {
        Period period;
        const auto clock = [this] { return now_; };
        uint64_t read = now_ - pick(2);
        for (int most = 20, pass = 0; most > 0 && queue_.next_due(clock, read, pass, period); --most, pass = 0) {
            EXPECT_EQ(period.timer_id, first());
            reschedule(period.timer_id);
        }
    }

    std::mt19937 random_;
    uint64_t now_;
    Queue queue_;
    std::vector<Period> list_;
    Handler handlers_[4];
};

TEST(TimerQueue, AgreesWithTheSortedListWhereClockAndIdsComeRound) {
    for (uint32_t seed = 1; seed <= 30; ++seed) Duel(seed, (uint64_t{seed} << 32) - 2000).run(2000);
}

} // namespace
