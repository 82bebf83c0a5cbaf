// Timers of proactor and reactor against Asio, libuv and libevent: schedule and cancel, schedule and fire, among live
// timers.
//
// The live timers are due in one to two hours. VEL's queue is ordered by contract, locked and counted. In schedule_fire
// everybody schedules on the thread that fires, as a server does in its callbacks; that one is the proactor's own, so
// there the last shot of a round schedules the next round. In schedule_fire_elsewhere one thread schedules while the
// loop of another fires; of the peers only Asio allows it.
#include <asio.hpp>
#include <atomic>
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <map>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <uv.h>
#include <vector>
#include <vel/vel.h>

namespace {

constexpr int fired_per_round = 1000;
constexpr int rounds = 20; // so many that the proactor's change of threads before and after them does not count

class Far {
public:
    uint32_t next_ms() { return std::uniform_int_distribution<uint32_t>(3'600'000, 7'200'000)(random_); }

private:
    std::mt19937 random_{42};
};

class VelTimers {
public:
    explicit VelTimers(int64_t live) : handler_(new Handler) {
        if (VELLib::initialize() != 0 || proactor_.open(1) != 0) std::abort();
        for (int64_t i = 0; i < live; ++i) proactor_.schedule_timer(handler_, far_.next_ms());
    }
    ~VelTimers() {
        proactor_.close();
        handler_->release();
    }

    void schedule_and_cancel() { proactor_.cancel_timer(proactor_.schedule_timer(handler_, far_.next_ms()), true); }

    void schedule_and_fire(int count) {
        handler_->left = 1;
        handler_->rounds = count;
        proactor_.schedule_timer(handler_, 0);
        handler_->done.acquire();
    }

    void run() {} // its timer thread does
    void stop() {}

    void schedule_elsewhere() {
        handler_->left = fired_per_round;
        for (int i = 0; i < fired_per_round; ++i) proactor_.schedule_timer(handler_, 0);
        handler_->done.acquire();
    }

private:
    struct Handler : VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
        int left = 0; // shots of this round
        int rounds = 0;
        std::binary_semaphore done{0};
        int handle_timeout(int32_t, uint32_t&, VEL_Proactor* proactor) override {
            if (--left > 0) return -1;
            if (rounds == 0) {
                done.release();
                return -1;
            }
            --rounds;
            left = fired_per_round;
            for (int i = 0; i < fired_per_round; ++i) proactor->schedule_timer(this, 0);
            return -1;
        }
    };

    VEL_Proactor proactor_;
    Handler* handler_;
    Far far_;
};

class ReactorTimers {
public:
    explicit ReactorTimers(int64_t live) : handler_(new Handler) {
        if (VELLib::initialize() != 0) std::abort();
        for (int64_t i = 0; i < live; ++i) reactor_.schedule_timer(handler_, far_.next_ms());
    }
    ~ReactorTimers() {
        reactor_.close();
        handler_->release();
    }

    void schedule_and_cancel() { reactor_.cancel_timer(reactor_.schedule_timer(handler_, far_.next_ms()), true); }

    void schedule_and_fire() {
        handler_->fired = 0;
        for (int i = 0; i < fired_per_round; ++i) reactor_.schedule_timer(handler_, 0);
        while (handler_->fired < fired_per_round) reactor_.handle_event(VEL_INFINITE);
    }

    void run() {
        handler_->tells = true;
        while (!stopped_) reactor_.handle_event(VEL_INFINITE);
        handler_->tells = false;
        stopped_ = false;
    }

    void stop() {
        handler_->fired = 0;
        stopped_ = true;
        reactor_.schedule_timer(handler_, 0);
    }

    void schedule_elsewhere() {
        handler_->fired = 0;
        for (int i = 0; i < fired_per_round; ++i) reactor_.schedule_timer(handler_, 0);
        handler_->done.acquire();
    }

private:
    struct Handler : VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
        int fired = 0;
        bool tells = false; // the scheduling thread waits
        std::binary_semaphore done{0};
        int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override {
            if (++fired == fired_per_round && tells) done.release();
            return -1;
        }
    };

    VEL_Reactor reactor_;
    Handler* handler_;
    std::atomic<bool> stopped_{false};
    Far far_;
};

class AsioTimers {
public:
    explicit AsioTimers(int64_t live) {
        for (int64_t i = 0; i < live; ++i) {
            live_.push_back(std::make_unique<asio::steady_timer>(context_, std::chrono::milliseconds(far_.next_ms())));
            live_.back()->async_wait([](asio::error_code) {});
        }
    }

    void schedule_and_cancel() {
        timer_.expires_after(std::chrono::milliseconds(far_.next_ms()));
        timer_.async_wait([](asio::error_code) {});
        timer_.cancel();
        context_.poll(); // delivers the cancelled wait, which frees it
    }

    void schedule_and_fire() {
        int fired = 0;
        std::vector<asio::steady_timer> timers;
        timers.reserve(fired_per_round);
        for (int i = 0; i < fired_per_round; ++i) {
            timers.emplace_back(context_, std::chrono::milliseconds(0));
            timers.back().async_wait([&](asio::error_code) { ++fired; });
        }
        while (fired < fired_per_round) context_.run_one();
    }

    void run() {
        context_.run();
        context_.restart(); // from the stop
    }

    void stop() { context_.stop(); }

    void schedule_elsewhere() {
        int fired = 0;
        std::vector<asio::steady_timer> timers;
        timers.reserve(fired_per_round);
        for (int i = 0; i < fired_per_round; ++i) {
            timers.emplace_back(context_, std::chrono::milliseconds(0));
            timers.back().async_wait([&](asio::error_code) {
                if (++fired == fired_per_round) done_.release();
            });
        }
        done_.acquire();
    }

private:
    asio::io_context context_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_{context_.get_executor()}; // or it stops when idle
    asio::steady_timer timer_{context_};
    std::vector<std::unique_ptr<asio::steady_timer>> live_;
    std::binary_semaphore done_{0};
    Far far_;
};

class UvTimers {
public:
    explicit UvTimers(int64_t live) : live_(static_cast<size_t>(live)), firing_(fired_per_round) {
        uv_loop_init(&loop_);
        uv_timer_init(&loop_, &timer_);
        for (auto& timer : firing_) uv_timer_init(&loop_, &timer);
        for (auto& timer : live_) {
            uv_timer_init(&loop_, &timer);
            uv_timer_start(
                &timer, [](uv_timer_t*) {}, far_.next_ms(), 0);
        }
    }
    ~UvTimers() {
        uv_walk(
            &loop_, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }

    void schedule_and_cancel() {
        uv_timer_start(
            &timer_, [](uv_timer_t*) {}, far_.next_ms(), 0);
        uv_timer_stop(&timer_);
    }

    void schedule_and_fire() {
        int fired = 0;
        for (auto& timer : firing_) {
            timer.data = &fired;
            uv_timer_start(
                &timer, [](uv_timer_t* due) { ++*static_cast<int*>(due->data); }, 0, 0);
        }
        while (fired < fired_per_round) uv_run(&loop_, UV_RUN_NOWAIT); // any other mode waits for a live timer
    }

private:
    uv_loop_t loop_;
    uv_timer_t timer_;
    std::vector<uv_timer_t> live_;
    std::vector<uv_timer_t> firing_;
    Far far_;
};

class EventTimers {
public:
    explicit EventTimers(int64_t live) : base_(event_base_new()), timer_(make()) {
        for (int64_t i = 0; i < live; ++i) {
            live_.push_back(make());
            start(live_.back(), far_.next_ms());
        }
        for (int i = 0; i < fired_per_round; ++i) firing_.push_back(make());
    }
    ~EventTimers() {
        for (auto* timer : live_) event_free(timer);
        for (auto* timer : firing_) event_free(timer);
        event_free(timer_);
        event_base_free(base_);
    }

    void schedule_and_cancel() {
        start(timer_, far_.next_ms());
        evtimer_del(timer_);
    }

    void schedule_and_fire() {
        fired_ = 0;
        for (auto* timer : firing_) start(timer, 0);
        while (fired_ < fired_per_round) event_base_loop(base_, EVLOOP_ONCE);
    }

private:
    event* make() {
        return evtimer_new(
            base_, [](evutil_socket_t, short, void* self) { ++static_cast<EventTimers*>(self)->fired_; }, this);
    }
    static void start(event* timer, uint32_t ms) {
        const timeval after{ms / 1000, static_cast<suseconds_t>(ms % 1000) * 1000};
        evtimer_add(timer, &after);
    }

    event_base* base_;
    event* timer_;
    std::vector<event*> live_;
    std::vector<event*> firing_;
    int fired_ = 0;
    Far far_;
};

/// The contender with that many live timers; made once, since that takes longer than the work to be measured.
template <class Timers>
Timers& with_live(int64_t count) {
    static std::map<int64_t, Timers> made;
    return made.try_emplace(count, count - 1).first->second; // one more is live while it is measured
}

template <class Timers>
void schedule_cancel(benchmark::State& state) {
    auto& timers = with_live<Timers>(state.range(0));
    for (auto round : state) {
        (void)round;
        timers.schedule_and_cancel();
    }
}

template <class Timers>
void fire_rounds(Timers& timers) {
    for (int round = 0; round < rounds; ++round) timers.schedule_and_fire();
}

void fire_rounds(VelTimers& timers) { timers.schedule_and_fire(rounds); }

template <class Timers>
void schedule_fire(benchmark::State& state) {
    auto& timers = with_live<Timers>(state.range(0));
    for (auto round : state) {
        (void)round;
        fire_rounds(timers);
    }
    state.SetItemsProcessed(state.iterations() * rounds * fired_per_round);
}

template <class Timers>
void schedule_fire_elsewhere(benchmark::State& state) {
    auto& timers = with_live<Timers>(state.range(0));
    std::thread loop([&] { timers.run(); });
    timers.schedule_elsewhere(); // the loop runs by then
    for (auto round : state) {
        (void)round;
        timers.schedule_elsewhere();
    }
    timers.stop();
    loop.join();
    state.SetItemsProcessed(state.iterations() * fired_per_round);
}

using Work = void (*)(benchmark::State&);

void add(const std::string& name, Work work) {
    benchmark::RegisterBenchmark(name.c_str(), work)->Arg(1)->Arg(1000)->Arg(100'000)->UseRealTime();
}

template <class Timers>
void add(const std::string& contender) {
    add("schedule_cancel/" + contender, schedule_cancel<Timers>);
    add("schedule_fire/" + contender, schedule_fire<Timers>);
    if constexpr (requires(Timers & timers) { timers.schedule_elsewhere(); })
        add("schedule_fire_elsewhere/" + contender, schedule_fire_elsewhere<Timers>);
}

const bool added = [] {
    add<VelTimers>("vel");
    add<ReactorTimers>("vel_reactor");
    add<AsioTimers>("asio");
    add<UvTimers>("libuv");
    add<EventTimers>("libevent");
    return true;
}();

} // namespace
