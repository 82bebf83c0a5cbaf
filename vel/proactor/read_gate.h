// The way past a lock for those who only read what it guards (internal).
#pragma once

#include <atomic>
#include <cstdint>

namespace vel {

/// Lets readers in without a lock and, so that they do not get into each other's way, without a memory line that all
/// of them write. Who changes what they read holds the lock and shuts the gate for that long; readers that find it shut
/// take the lock instead.
///
/// A reader enters before it looks whether the gate is shut, and who shuts it looks for readers afterwards: so one of
/// the two sees the other.
///
/// Threads:   readers are any; a gate is shut and opened under the lock.
/// Limits:    a reader neither shuts the gate nor waits for somebody who does.
class ReadGate {
    struct Lane;

public:
    /// Shut at first.
    ReadGate() = default;
    ReadGate(const ReadGate&) = delete;
    ReadGate& operator=(const ReadGate&) = delete;

    void open() { shut_.store(false, std::memory_order_seq_cst); }

    /// Returns when the last reader has left. True when the gate was open before.
    bool shut() {
        const bool was_open = !shut_.exchange(true, std::memory_order_seq_cst);
        for (Lane& lane : lanes_)
            while (const int inside = lane.readers.load(std::memory_order_seq_cst)) lane.readers.wait(inside);
        return was_open;
    }

    /// A reader's stay.
    class Pass {
    public:
        explicit Pass(ReadGate& gate) : gate_(gate), lane_(gate.lane_of_thread()) {
            lane_.readers.fetch_add(1, std::memory_order_seq_cst);
            entered_ = !gate_.shut_.load(std::memory_order_seq_cst);
            if (!entered_) leave();
        }
        ~Pass() {
            if (entered_) leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        bool entered() const { return entered_; }

    private:
        void leave() {
            lane_.readers.fetch_sub(1, std::memory_order_seq_cst);
            if (gate_.shut_.load(std::memory_order_seq_cst)) lane_.readers.notify_all();
        }

        ReadGate& gate_;
        Lane& lane_;
        bool entered_;
    };

    /// Shuts the gate for as long as it lives; one that was shut before stays so.
    class Closure {
    public:
        explicit Closure(ReadGate& gate) : gate_(gate), reopens_(gate.shut()) {}
        ~Closure() {
            if (reopens_) gate_.open();
        }
        Closure(const Closure&) = delete;
        Closure& operator=(const Closure&) = delete;

    private:
        ReadGate& gate_;
        const bool reopens_;
    };

private:
    struct alignas(64) Lane {
        std::atomic<int> readers{0};
    };
    static constexpr uint32_t lane_count = 16; // threads beyond it share some

    Lane& lane_of_thread() {
        if (number_of_thread_ == 0) number_of_thread_ = last_number_.fetch_add(1, std::memory_order_relaxed) + 1;
        return lanes_[number_of_thread_ % lane_count];
    }

    static inline constinit std::atomic<uint32_t> last_number_{0};
    static inline constinit thread_local uint32_t number_of_thread_ __attribute__((tls_model("initial-exec"))) = 0;

    Lane lanes_[lane_count];
    alignas(64) std::atomic<bool> shut_{true};
};

} // namespace vel
