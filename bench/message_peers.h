// What messages are handed over with otherwise, Asio, libuv and a bare queue, and the work that is measured on all of
// them. Every contender carries one heap record a message, a shared payload and a shared receiver; one thread consumes.
#pragma once

#include <asio.hpp>
#include <atomic>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <uv.h>
#include <vector>

namespace bench {

inline constexpr int messages_per_round = 200'000;

struct Payload {
    std::atomic<int> value{0};
};

/// Counts down to the end of a round.
class Countdown {
public:
    explicit Countdown(int count) : left_(count) {}
    void hit() {
        if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) done_.set_value();
    }
    void wait() { done_.get_future().wait(); }

private:
    std::atomic<int> left_;
    std::promise<void> done_;
};

/// Asio with one thread that runs the context.
/// @tparam hint  what the context is told of its threads: 1, or nothing; it locks in both cases
template <int hint>
class AsioReceiver {
public:
    AsioReceiver() : thread_([this] { context_.run(); }) {}
    ~AsioReceiver() {
        work_.reset();
        thread_.join();
    }

    void on_message(std::function<void()> action) { *action_ = std::move(action); }
    void post() {
        asio::post(context_, [payload = payload_, action = action_] {
            payload->value.load(std::memory_order_relaxed);
            (*action)();
        });
    }

private:
    asio::io_context context_{hint};
    asio::executor_work_guard<asio::io_context::executor_type> work_{context_.get_executor()};
    std::shared_ptr<Payload> payload_ = std::make_shared<Payload>();
    std::shared_ptr<std::function<void()>> action_ = std::make_shared<std::function<void()>>();
    std::thread thread_;
};

/// A record on its way through a queue of our own.
struct Record {
    std::shared_ptr<Payload> payload;
    std::shared_ptr<std::function<void()>> action;
};

class UvReceiver {
public:
    UvReceiver() {
        uv_loop_init(&loop_);
        wake_.data = this;
        uv_async_init(&loop_, &wake_, [](uv_async_t* wake) { static_cast<UvReceiver*>(wake->data)->drain(); });
        thread_ = std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); });
    }
    ~UvReceiver() {
        ending_ = true;
        uv_async_send(&wake_);
        thread_.join();
        uv_loop_close(&loop_);
    }

    void on_message(std::function<void()> action) { *action_ = std::move(action); }
    void post() {
        auto record = std::make_unique<Record>(Record{payload_, action_});
        {
            std::lock_guard guard(mutex_);
            queue_.push_back(std::move(record));
        }
        uv_async_send(&wake_);
    }

private:
    void drain() {
        std::deque<std::unique_ptr<Record>> batch;
        {
            std::lock_guard guard(mutex_);
            batch.swap(queue_);
        }
        for (auto& record : batch) (*record->action)();
        if (ending_) uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
    }

    uv_loop_t loop_;
    uv_async_t wake_;
    std::atomic<bool> ending_{false};
    std::mutex mutex_;
    std::deque<std::unique_ptr<Record>> queue_;
    std::shared_ptr<Payload> payload_ = std::make_shared<Payload>();
    std::shared_ptr<std::function<void()>> action_ = std::make_shared<std::function<void()>>();
    std::thread thread_;
};

/// Mutex, condition variable and a list: what a program would write by hand. Wakes only a sleeper.
class BareReceiver {
public:
    BareReceiver() : thread_([this] { run(); }) {}
    ~BareReceiver() {
        {
            std::lock_guard guard(mutex_);
            ending_ = true;
        }
        filled_.notify_one();
        thread_.join();
    }

    void on_message(std::function<void()> action) { *action_ = std::move(action); }
    void post() {
        auto record = std::make_unique<Record>(Record{payload_, action_});
        bool wake = false;
        {
            std::lock_guard guard(mutex_);
            queue_.push_back(std::move(record));
            wake = sleeping_;
        }
        if (wake) filled_.notify_one();
    }

private:
    void run() {
        std::unique_lock guard(mutex_);
        for (;;) {
            while (queue_.empty() && !ending_) {
                sleeping_ = true;
                filled_.wait(guard);
                sleeping_ = false;
            }
            if (queue_.empty()) return;
            std::unique_ptr<Record> record = std::move(queue_.front());
            queue_.pop_front();
            guard.unlock();
            const std::shared_ptr<std::function<void()>> kept = record->action; // as a dispatcher holds its receiver
            (*kept)();
            record.reset();
            guard.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<std::unique_ptr<Record>> queue_;
    bool sleeping_ = false;
    bool ending_ = false;
    std::shared_ptr<Payload> payload_ = std::make_shared<Payload>();
    std::shared_ptr<std::function<void()>> action_ = std::make_shared<std::function<void()>>();
    std::thread thread_;
};

template <class Receiver>
void post_messages(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    Receiver receiver;
    for (auto round : state) {
        (void)round;
        Countdown countdown(messages_per_round);
        receiver.on_message([&] { countdown.hit(); });
        std::vector<std::thread> threads;
        for (int i = 0; i < producers; ++i)
            threads.emplace_back([&] {
                for (int sent = 0; sent < messages_per_round / producers; ++sent) receiver.post();
            });
        countdown.wait();
        for (auto& thread : threads) thread.join();
    }
    state.SetItemsProcessed(state.iterations() * messages_per_round);
}

template <class Receiver>
void ping_pong(benchmark::State& state) {
    const int rounds = static_cast<int>(state.range(0));
    Receiver ping;
    Receiver pong;
    for (auto round : state) {
        (void)round;
        Countdown countdown(rounds);
        int left = rounds; // touched by the ping receiver's thread alone
        pong.on_message([&] { ping.post(); });
        ping.on_message([&] {
            if (--left > 0) pong.post();
            countdown.hit();
        });
        pong.post();
        countdown.wait();
    }
    state.SetItemsProcessed(state.iterations() * rounds);
}

/// Adds `WORK/NAME` with one and four producers and `ping_pong/NAME`.
template <class Receiver>
void add(const std::string& work, const std::string& name) {
    for (const int producers : {1, 4})
        benchmark::RegisterBenchmark((work + "/" + name).c_str(), post_messages<Receiver>)
            ->Arg(producers)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("ping_pong/" + name).c_str(), ping_pong<Receiver>)
        ->Arg(100'000)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

/// Adds the peers.
inline void add_peers(const std::string& work) {
    add<AsioReceiver<1>>(work, "asio");
    add<AsioReceiver<ASIO_CONCURRENCY_HINT_DEFAULT>>(work, "asio_unhinted");
    add<UvReceiver>(work, "libuv");
    add<BareReceiver>(work, "bare_queue");
}

} // namespace bench
