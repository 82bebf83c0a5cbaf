// Vocabulary of the reactor's tests: handlers that keep a journal or notes, and a reactor that leaves nothing behind.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/reactor/acceptor.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/sock_stream.h>
#include <vel/testing/crew.h>
#include <vel/testing/reference.h>

namespace vel::testing {

using Codes = std::vector<uint32_t>;
using Hook = std::function<int()>;

constexpr uint32_t patience_ms = 10000;

inline bool comes_true(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience_ms);
    while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    return condition();
}

inline void* as_handle(const VEL_Socket& socket) { return reinterpret_cast<void*>(socket.get_socket()); }
inline VEL_Byte_Block text(const std::string& bytes) { return VEL_Byte_Block(bytes.size(), bytes.data()); }

inline VEL_INET_Addr address_of(uint64_t socket) {
    VEL_INET_Addr address;
    EXPECT_EQ(VELLib::getsockname(socket, address), 0);
    return address;
}

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

/// Answers a call with what the test's hook of its name answers, else 0.
template <class Base>
class Hooked : public Tracked<Base> {
public:
    std::map<std::string, Hook> on;

protected:
    int answer(const std::string& call) const {
        const auto hook = on.find(call);
        return hook == on.end() ? 0 : hook->second();
    }
};

/// Writes down what it is told.
class Recorder : public Hooked<VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync>> {
public:
    Recorder(Journal& journal, std::string name) : journal_(journal), name_(std::move(name)) {}

    int handle_signal(void*, VEL_Reactor*) override { return told("signal"); }
    int handle_connect(void*, VEL_Reactor*, uint32_t) override { return told("connect"); }
    int handle_input(void*, VEL_Reactor*, uint32_t) override { return told("input"); }
    int handle_output(void*, VEL_Reactor*, uint32_t) override { return told("output"); }
    int handle_close(void* handle, uint32_t mask, VEL_Reactor*) override {
        ended = handle;
        return told("close", std::to_string(mask));
    }
    int handle_timeout(int32_t id, uint32_t& interval_ms, VEL_Reactor*) override {
        timer_id = id;
        interval = &interval_ms;
        return told("timeout");
    }

    void* handle() const { return as_handle(socket); }

    /// Bytes received until there are none.
    int drain() {
        char buffer[256];
        int total = 0, received;
        while ((received = socket.recv(buffer, sizeof buffer)) > 0) total += received;
        return total;
    }

    VEL_Socket socket, peer;
    // What the last call was told; during a timeout also its interval.
    std::atomic<void*> ended{nullptr};
    std::atomic<int32_t> timer_id{0};
    std::atomic<uint32_t*> interval{nullptr};

private:
    int told(const std::string& what, const std::string& detail = "") {
        journal_.write(name_ + "." + what + detail);
        return answer(what);
    }

    Journal& journal_;
    const std::string name_;
};

/// A socket of the library that keeps the masks of its closes.
template <class Base>
class Noted : public Hooked<Base> {
public:
    int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override { return this->answer("timeout"); }
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override {
        closes.push_back(mask);
        return Base::handle_close(handle, mask, reactor);
    }

    Codes closes;
};

/// Notes what both kinds of streams report.
template <class Base>
class StreamNotes : public Base {
public:
    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        input.append(static_cast<const char*>(data), size);
        if (error != 0) errors.push_back(error);
        return this->answer("read");
    }
    int handle_write_stream(const void* data, uint64_t size, uint32_t error) override {
        error != 0 ? errors.push_back(error) : written.push_back(static_cast<const char*>(data) + size);
        return this->answer("write");
    }

    std::string input;
    std::vector<const void*> written; // where the blocks ended
    Codes errors;                     // of both directions
};

class Stream : public StreamNotes<Noted<VEL_SOCK_Stream>> {
public:
    int handle_connect(void*, VEL_Reactor*, uint32_t error) override {
        connects.push_back(error);
        return answer("connect");
    }

    Codes connects;
};

/// Takes one connection into its stream, unless the test does something else.
class Acceptor : public Noted<VEL_Acceptor> {
public:
    Acceptor() {
        on["accept"] = [this] { return take(*accepted); };
    }
    int handle_accept(void*, VEL_Reactor*, uint32_t) override { return answer("accept"); }

    int take(VEL_SOCK_Stream& stream) {
        EXPECT_EQ(accept(stream), 0);
        stream.reactor(reactor());
        return stream.select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
    }

    Ref<Stream> accepted{new Stream};
};

/// A reactor; at the end it is destroyed with what is registered, and every reference and handle must be back.
class ReactorTest : public BalancedTest {
protected:
    struct Pair {
        Ref<Stream> client, server;
    };

    void TearDown() override {
        reactor.reset();
        os::set_tick_offset_for_test(0);
        for (Recorder& recorder : recorders_) EXPECT_EQ(recorder.references(), 1);
        for (void* event : events_) os::close_handle(event);
    }

    Recorder& recorder(const std::string& name) { return recorders_.emplace_back(journal, name); }

    /// A recorder with the accepted end of a connection, registered.
    Recorder& connected(const std::string& name, uint32_t mask) {
        Recorder& self = recorder(name);
        self.peer.open(2, 1, 0);
        EXPECT_EQ(self.peer.connect(open_door()), 0);
        EXPECT_EQ(door.accept(self.socket), 0);
        EXPECT_EQ(self.socket.register_event_select(reactor.get(), &self, mask), 0);
        return self;
    }

    VEL_INET_Addr open_door() {
        if (!door.is_open()) door.open(2, 1, 0), door.bind(0, "127.0.0.1"), door.listen();
        return address_of(door.get_socket());
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

    /// Serves the reactor until `done()`; false when it has not come to that.
    bool serve_until(const std::function<bool()>& done) {
        return comes_true([&] { return done() || (reactor->handle_event(20), done()); });
    }

    /// Serves what is due now.
    void serve() {
        while (reactor->handle_event(0) > 0) {
        }
    }

    /// Starts threads that run the reactor until `stop`, which must free each of them.
    void start(int count) {
        loops_ = crew(count, [this](int) {
            while (reactor->handle_event(VEL_INFINITE) >= 0) {
            }
            EXPECT_EQ(VELLib::GetErrorCode(), error::object_closed);
        });
    }

    void stop() {
        reactor->deactivate();
        loops_.clear();
    }

    Ref<Acceptor> listen() {
        Ref<Acceptor> acceptor(new Acceptor);
        EXPECT_EQ(acceptor->open(reactor.get(), 0, loopback, 0, 0), 0);
        return acceptor;
    }

    /// Two connected streams, everything about the connecting served. The send buffer is small, yet larger than a
    /// segment, since otherwise the system sends with pauses.
    Pair connect_pair() {
        const Ref<Acceptor> acceptor = listen();
        Pair pair{Ref<Stream>(new Stream), nullptr};
        EXPECT_EQ(pair.client->open(reactor.get(), address_of(acceptor->get_handle()), VEL_INFINITE, 0, 65536), 0);
        if (!serve_until([&] { return acceptor->accepted->check_open() == 0 && !pair.client->connects.empty(); }))
            throw std::runtime_error("the pair did not connect");
        acceptor->close(true);
        serve();
        pair.server = std::move(acceptor->accepted);
        return pair;
    }

private:
    std::deque<Recorder> recorders_;
    std::vector<void*> events_;
    std::vector<std::jthread> loops_;

protected:
    Journal journal;
    VEL_Socket door; // listens on a free port of this machine once `open_door` was called
    std::unique_ptr<VEL_Reactor> reactor = std::make_unique<VEL_Reactor>();
};

} // namespace vel::testing
