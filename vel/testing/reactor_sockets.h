// Vocabulary of the tests of sockets on a reactor: handlers that note what they are told, connected streams.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/reactor/acceptor.h>
#include <vel/reactor/sock_stream.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/reactor_fixture.h>
#include <vel/testing/reference.h>

namespace vel::testing {

inline constexpr uint32_t localhost = 0x7F000001;

inline std::atomic<int> live_handlers{0};

/// What the reactor's handlers share in tests: they are counted, and note how they were closed.
template <class Base>
class Noted : public Base {
public:
    Noted() { ++live_handlers; }
    ~Noted() override { --live_handlers; }

    int handle_timeout(int32_t id, uint32_t&, VEL_Reactor*) override { return on_timeout ? on_timeout(id) : 0; }
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override {
        closes.push_back(mask);
        return Base::handle_close(handle, mask, reactor);
    }
    int references() { return this->addref(), this->release(); }

    std::function<int(int32_t)> on_timeout;
    std::vector<uint32_t> closes; // masks
};

/// Notes what the two stream classes report, and asks the test what to return.
template <class Base>
class StreamNotes : public Base {
public:
    struct Write {
        const void* data;
        uint64_t size;
        uint32_t error;
    };

    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        EXPECT_TRUE(error == 0 || size == 0);
        input.append(static_cast<const char*>(data), size);
        if (error != 0) read_errors.push_back(error);
        return on_read ? on_read() : 0;
    }
    int handle_write_stream(const void* data, uint64_t size, uint32_t error) override {
        writes.push_back({data, size, error});
        return on_write ? on_write() : 0;
    }

    std::function<int()> on_read, on_write;
    std::string input;
    std::vector<uint32_t> read_errors;
    std::vector<Write> writes;
};

class Stream : public StreamNotes<Noted<VEL_SOCK_Stream>> {
public:
    int handle_connect(void*, VEL_Reactor*, uint32_t error) override {
        connects.push_back(error);
        return on_connect ? on_connect() : 0;
    }
    int handle_output(void* handle, VEL_Reactor* reactor, uint32_t error) override {
        ++outputs;
        return VEL_SOCK_Stream::handle_output(handle, reactor, error);
    }

    std::function<int()> on_connect;
    std::vector<uint32_t> connects; // errors
    int outputs = 0;
};

/// Takes each connection into a stream of its own, registered for input and output.
class Acceptor : public Noted<VEL_Acceptor> {
public:
    int handle_accept(void*, VEL_Reactor* reactor, uint32_t error) override {
        EXPECT_EQ(error, 0u);
        if (on_accept) return on_accept();
        accepted.emplace_back(new Stream);
        EXPECT_EQ(accept(*accepted.back()), 0);
        accepted.back()->reactor(reactor);
        return accepted.back()->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
    }

    std::function<int()> on_accept;
    std::vector<Ref<Stream>> accepted;
};

inline VEL_Byte_Block text(const std::string& bytes) { return VEL_Byte_Block(bytes.size(), bytes.data()); }

/// A reactor that the test's thread drives, and sockets on it. At the end every handler must be gone, too.
class ReactorSocketTest : public vel::test::ReactorTest {
protected:
    struct Pair {
        Ref<Stream> client, server;
    };

    void TearDown() override {
        reactor.reset();
        EXPECT_EQ(live_handlers, 0);
        ReactorTest::TearDown();
    }

    /// Serves the reactor until `done()`, 10 s at most; false when it has not come to that.
    template <class Done>
    bool serve_until(Done done) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!done() && std::chrono::steady_clock::now() < end) reactor->handle_event(20);
        return done();
    }

    /// Serves what is due now.
    void serve() {
        while (reactor->handle_event(0) > 0) {
        }
    }

    Ref<Acceptor> listen() {
        Ref<Acceptor> acceptor(new Acceptor);
        EXPECT_EQ(acceptor->open(reactor.get(), 0, localhost, 0, 0), 0);
        return acceptor;
    }

    static VEL_INET_Addr address_of(uint64_t socket) {
        VEL_INET_Addr address;
        EXPECT_EQ(VELLib::getsockname(socket, address), 0);
        return address;
    }

    /// Two connected streams, everything about the connecting served.
    /// @param send_buffer  bytes of the client's, 0 for the system's own
    Pair connect_pair(int send_buffer = 0) {
        Pair pair;
        const Ref<Acceptor> acceptor = listen();
        pair.client.reset(new Stream);
        EXPECT_EQ(pair.client->open(reactor.get(), address_of(acceptor->get_handle()), VEL_INFINITE, 0, send_buffer),
                  0);
        if (!serve_until([&] { return !acceptor->accepted.empty() && pair.client->outputs > 0; }))
            throw std::runtime_error("the pair did not connect");
        pair.server = std::move(acceptor->accepted.front());
        acceptor->close(true);
        serve();
        return pair;
    }
};

} // namespace vel::testing
