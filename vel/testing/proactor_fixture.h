// Vocabulary of the proactor's tests: handlers made of lambdas, tallies that can be waited for, a running proactor.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_acceptor.h>
#include <vel/proactor/async_sock_dgram.h>
#include <vel/proactor/async_sock_stream.h>
#include <vel/proactor/proactor.h>
#include <vel/testing/allocator_environment.h>

namespace vel::test {

/// Counts what happens on other threads.
class Tally {
public:
    void add(int64_t n = 1) {
        std::lock_guard guard(mutex_);
        count_ += n;
        changed_.notify_all();
    }

    int64_t count() {
        std::lock_guard guard(mutex_);
        return count_;
    }

    /// Waits until `n` have been counted, 30 s at most; false when they have not come by then.
    bool reaches(int64_t n) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(30), [&] { return count_ >= n; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int64_t count_ = 0;
};

/// A reference to a handler, released at the end of the scope.
template <class Handler>
class Ref {
public:
    explicit Ref(Handler* handler = nullptr) : handler_(handler) {}
    Ref(Ref&& other) noexcept : handler_(std::exchange(other.handler_, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept { return std::swap(handler_, other.handler_), *this; }
    ~Ref() { reset(); }

    void reset() {
        if (Handler* handler = std::exchange(handler_, nullptr)) handler->release();
    }
    Handler* get() const { return handler_; }
    Handler* operator->() const { return handler_; }
    Handler& operator*() const { return *handler_; }

private:
    Handler* handler_;
};

inline std::atomic<int> live_handlers{0};

/// A handler whose callbacks are the test's: each takes its operation, which is deleted after it unless it clears the
/// pointer. Without one the base decides.
template <class Base>
class Hooked : public Base {
public:
    Hooked() { ++live_handlers; }
    ~Hooked() override { --live_handlers; }

    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
        return on_accept ? call(on_accept, op, error) : Base::handle_accept(op, error);
    }
    int handle_connect(VEL_Async_Connect_Operation* op, uint32_t error) override {
        return on_connect ? call(on_connect, op, error) : Base::handle_connect(op, error);
    }
    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
        return on_input ? call(on_input, op, error) : Base::handle_input(op, error);
    }
    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override {
        return on_output ? call(on_output, op, error) : Base::handle_output(op, error);
    }
    int handle_signal(VEL_Async_Post_Operation* op) override {
        return on_signal ? call(on_signal, op) : Base::handle_signal(op);
    }
    int handle_timeout(int32_t id, uint32_t& interval_ms, VEL_Proactor* proactor) override {
        return on_timeout ? on_timeout(id, interval_ms) : Base::handle_timeout(id, interval_ms, proactor);
    }
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override {
        if (on_close) on_close(key, handle);
        const int result = Base::handle_close(key, handle, proactor);
        closes.add();
        return result;
    }
    int close_handle() override { return on_close_handle ? on_close_handle() : Base::close_handle(); }

    std::function<int(VEL_Async_Accept_Operation*&, uint32_t)> on_accept;
    std::function<int(VEL_Async_Connect_Operation*&, uint32_t)> on_connect;
    std::function<int(VEL_Async_Read_Operation*&, uint32_t)> on_input;
    std::function<int(VEL_Async_Write_Operation*&, uint32_t)> on_output;
    std::function<int(VEL_Async_Post_Operation*&)> on_signal;
    std::function<int(int32_t, uint32_t&)> on_timeout;
    std::function<void(uint32_t, void*)> on_close;
    std::function<int()> on_close_handle;
    Tally closes; // calls of handle_close that have been made

    int references() { return this->addref(), this->release(); }

private:
    template <class Hook, class Operation, class... Error>
    static int call(const Hook& hook, Operation* op, Error... error) {
        const int result = hook(op, error...);
        delete op;
        return result;
    }
};

using Handler = Hooked<VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync>>;
using Stream = Hooked<VEL_Async_SOCK_Stream>;
using Acceptor = Hooked<VEL_Async_Acceptor>;
using Dgram = Hooked<VEL_Async_SOCK_Dgram>;

/// A handler with a socket to be registered, which lives as long as it does.
class SocketHandler : public Handler {
public:
    ~SocketHandler() override { VELLib::closesocket(socket); }
    const uint64_t socket = VELLib::socket(2, 2, 0);
    void* const handle = reinterpret_cast<void*>(socket);
};

/// Runs a disabled test of this program in a process of its own, behind `prefix` of the command; 0 when it passed.
inline int run_in_process(const std::string& prefix, const std::string& test) {
    std::string folder;
    EXPECT_EQ(vel::os::executable_directory(folder), 0u);
    const std::string command = prefix + " exec " + folder + "/proactor_test --gtest_also_run_disabled_tests";
    return std::system((command + " --gtest_brief=1 --gtest_filter=" + test).c_str()); // tidy: allowed, see above
}

inline void expect_error(int result, uint32_t code) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(VELLib::GetErrorCode(), code);
}

/// An open proactor; at the end it is closed, and every handler and every system handle must be gone.
class ProactorTest : public ::testing::Test {
protected:
    struct Pair {
        Ref<Stream> server;
        Ref<Stream> client;
    };

    void SetUp() override {
        ASSERT_EQ(VEL_Proactor().open(1), 0); // what the process starts once and keeps is no leak
        ASSERT_EQ(live_handlers, 0) << "left over by an earlier test";
        handles_before_ = vel::os::open_handle_count();
        proactor = std::make_unique<VEL_Proactor>();
        ASSERT_EQ(proactor->open(4), 0);
    }

    void TearDown() override {
        if (proactor) proactor->close();
        proactor.reset();
        EXPECT_EQ(live_handlers, 0);
        EXPECT_EQ(vel::os::open_handle_count(), handles_before_);
    }

    /// A listener on a free port of this machine that gives every accepted stream to `accepted`, with its reference.
    Ref<Acceptor> listen(std::function<void(Ref<Stream>)> accepted) {
        Ref<Acceptor> acceptor(new Acceptor);
        Acceptor* self = acceptor.get();
        acceptor->on_accept = [self, accepted](VEL_Async_Accept_Operation*& op, uint32_t error) {
            Ref<Stream> stream(new Stream);
            if (error == 0 && self->accept_socket(static_cast<VEL_Async_SOCK_Accept&>(*op), *stream) == 0)
                accepted(std::move(stream));
            return error != 0 ? -1 : self->accept();
        };
        EXPECT_EQ(acceptor->open(proactor.get(), 0, 0x7F000001u), 0);
        EXPECT_EQ(acceptor->accept(), 0);
        return acceptor;
    }

    static VEL_INET_Addr address_of(Acceptor& acceptor) {
        VEL_INET_Addr address;
        EXPECT_EQ(VELLib::getsockname(reinterpret_cast<uint64_t>(acceptor.get_handle()), address), 0);
        return address;
    }

    /// Two connected streams, both registered, nothing pending.
    Pair connect_pair() {
        struct Meeting {
            Ref<Stream> server;
            Tally arrived;
        };
        auto meeting = std::make_shared<Meeting>();
        Ref<Acceptor> acceptor = listen([meeting](Ref<Stream> stream) {
            meeting->server = std::move(stream);
            meeting->arrived.add();
        });
        Pair pair;
        pair.client = Ref<Stream>(new Stream);
        pair.client->on_connect = [meeting](VEL_Async_Connect_Operation*&, uint32_t error) {
            EXPECT_EQ(error, 0u);
            meeting->arrived.add();
            return 0;
        };
        EXPECT_EQ(pair.client->open(proactor.get(), address_of(*acceptor)), 0) << VELLib::GetErrorCode();
        if (!meeting->arrived.reaches(2)) throw std::runtime_error("the pair did not connect");
        acceptor->close(true);
        pair.server = std::move(meeting->server);
        while (pair.server->references() + pair.client->references() > 4) std::this_thread::yield(); // the workers' own
        return pair;
    }

    std::unique_ptr<VEL_Proactor> proactor;

private:
    uint64_t handles_before_ = 0;
};

/// A message with a number.
class Note : public VEL_Serializable {
public:
    explicit Note(int value) : number(value) {}
    const int number;
};

} // namespace vel::test
