// Vocabulary of the reactor's tests: handlers that keep a journal, and a reactor that must leave nothing behind.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/socket.h>
#include <vel/testing/expect_failure.h>

namespace vel::test {

using vel::testing::expect_failure;

constexpr uint32_t patience_ms = 10000;

inline bool comes_true(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience_ms);
    while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    return condition();
}

inline void* as_handle(const VEL_Socket& socket) { return reinterpret_cast<void*>(socket.get_socket()); }

/// What happened, in words: "a.output a.close12".
class Journal {
public:
    void write(const std::string& word) {
        std::lock_guard guard(mutex_);
        words_ += (words_.empty() ? "" : " ") + word;
    }

    /// The words since the last call.
    std::string read() {
        std::lock_guard guard(mutex_);
        return std::exchange(words_, "");
    }

private:
    std::mutex mutex_;
    std::string words_;
};

/// Writes down what it is told and answers what the test's hook for it answers, else 0.
class Recorder : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    Recorder(Journal& journal, std::string name) : journal_(journal), name_(std::move(name)) {}

    int handle_signal(void*, VEL_Reactor*) override { return told("signal"); }
    int handle_accept(void*, VEL_Reactor*, uint32_t code) override { return told("accept", code); }
    int handle_connect(void*, VEL_Reactor*, uint32_t code) override { return told("connect", code); }
    int handle_input(void*, VEL_Reactor*, uint32_t code) override { return told("input", code); }
    int handle_output(void*, VEL_Reactor*, uint32_t code) override { return told("output", code); }
    int handle_close(void* handle, uint32_t mask, VEL_Reactor*) override {
        ended = handle;
        return told("close", 0, std::to_string(mask));
    }
    int handle_timeout(int32_t id, uint32_t& interval_ms, VEL_Reactor*) override {
        timer_id = id;
        interval = &interval_ms;
        return told("timeout");
    }

    int references() { return addref(), release(); }
    void* handle() const { return as_handle(socket); }

    /// Bytes received until there are none.
    int drain() {
        char buffer[256];
        int total = 0, received;
        while ((received = socket.recv(buffer, sizeof buffer)) > 0) total += received;
        return total;
    }

    std::map<std::string, std::function<int()>> on;
    VEL_Socket socket, peer;
    // What the last call was told; during a timeout also its interval.
    std::atomic<uint32_t> error{0};
    std::atomic<void*> ended{nullptr};
    std::atomic<int32_t> timer_id{0};
    std::atomic<uint32_t*> interval{nullptr};

private:
    int told(const char* what, uint32_t code = 0, const std::string& detail = "") {
        error = code;
        journal_.write(name_ + "." + what + detail);
        const auto hook = on.find(what);
        return hook == on.end() ? 0 : hook->second();
    }

    Journal& journal_;
    const std::string name_;
};

/// A reactor; at the end it is destroyed with what is registered, and every reference and handle must be back.
class ReactorTest : public ::testing::Test {
protected:
    void TearDown() override {
        reactor.reset();
        os::set_tick_offset_for_test(0);
        for (Recorder& recorder : recorders_) {
            EXPECT_EQ(recorder.references(), 1);
            recorder.socket.close();
            recorder.peer.close();
        }
        for (void* event : events_) os::close_handle(event);
        door.close();
        EXPECT_EQ(os::open_handle_count(), handles_before_);
    }

    Recorder& recorder(const std::string& name) { return recorders_.emplace_back(journal, name); }

    /// A recorder with the accepted end of a connection, registered.
    Recorder& connected(const std::string& name, uint32_t mask) {
        Recorder& self = recorder(name);
        self.peer.open(2, 1, 0);
        EXPECT_EQ(self.peer.connect(listen()), 0);
        EXPECT_EQ(door.accept(self.socket), 0);
        EXPECT_EQ(self.socket.register_event_select(reactor.get(), &self, mask), 0);
        return self;
    }

    VEL_INET_Addr listen() {
        VEL_INET_Addr address;
        if (!door.is_open()) door.open(2, 1, 0), door.bind(0, "127.0.0.1"), door.listen();
        EXPECT_EQ(door.getlocaladdr(address), 0);
        return address;
    }

    void* event(bool set) {
        void* event = nullptr;
        EXPECT_EQ(os::create_event(true, set, event), 0u);
        return events_.emplace_back(event);
    }

    /// Runs one cycle, which has something to do.
    std::string cycle() {
        EXPECT_GT(reactor->handle_event(patience_ms), 0) << "nothing happened";
        return journal.read();
    }

    /// What happens within a time in which nothing should.
    std::string quiet() {
        EXPECT_EQ(reactor->handle_event(50), 0);
        return journal.read();
    }

private:
    const uint64_t handles_before_ = os::open_handle_count();
    std::deque<Recorder> recorders_;
    std::deque<void*> events_;

protected:
    Journal journal;
    VEL_Socket door; // listens on a free port of this machine once `listen` was called
    std::unique_ptr<VEL_Reactor> reactor = std::make_unique<VEL_Reactor>();
};

} // namespace vel::test
