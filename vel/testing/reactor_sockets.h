// Vocabulary of the tests of sockets on a reactor: handlers that note what they are told, connected streams.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
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

using Codes = std::vector<uint32_t>;
using Hook = std::function<int()>;

inline constexpr uint32_t localhost = 0x7F000001;
inline std::atomic<int> live_handlers{0};

inline int go_on() { return 0; }
inline VEL_Byte_Block text(const std::string& bytes) { return VEL_Byte_Block(bytes.size(), bytes.data()); }

template <class Base>
class Noted : public Base {
public:
    Noted() { ++live_handlers; }
    ~Noted() override { --live_handlers; }

    int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override { return on_timeout(); }
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override {
        closes.push_back(mask);
        return Base::handle_close(handle, mask, reactor);
    }
    int references() { return this->addref(), this->release(); }

    Hook on_timeout = go_on;
    Codes closes; // masks
};

/// Notes what both kinds of streams report.
template <class Base>
class StreamNotes : public Base {
public:
    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        input.append(static_cast<const char*>(data), size);
        if (error != 0) errors.push_back(error);
        return on_read();
    }
    int handle_write_stream(const void* data, uint64_t size, uint32_t error) override {
        if (error != 0) errors.push_back(error);
        if (error == 0) written.push_back(static_cast<const char*>(data) + size);
        return on_write();
    }

    Hook on_read = go_on, on_write = go_on;
    std::string input;
    std::vector<const void*> written; // where the blocks ended
    Codes errors;                     // of both directions
};

class Stream : public StreamNotes<Noted<VEL_SOCK_Stream>> {
public:
    int handle_connect(void*, VEL_Reactor*, uint32_t error) override { return connects.push_back(error), on_connect(); }

    Hook on_connect = go_on;
    Codes connects;
};

/// Takes one connection into its stream, unless the test does something else.
class Acceptor : public Noted<VEL_Acceptor> {
public:
    int handle_accept(void*, VEL_Reactor*, uint32_t) override { return on_accept(); }

    Ref<Stream> accepted{new Stream};
    Hook on_accept = [this] {
        EXPECT_EQ(accept(*accepted), 0);
        accepted->reactor(reactor());
        return accepted->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
    };
};

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

    /// Two connected streams, everything about the connecting served. A small send buffer is still larger than a
    /// segment, since otherwise the system sends with pauses.
    Pair connect_pair(int send_buffer = 65536) {
        const Ref<Acceptor> acceptor = listen();
        Pair pair{Ref<Stream>(new Stream), nullptr};
        EXPECT_EQ(pair.client->open(reactor.get(), address_of(acceptor->get_handle()), VEL_INFINITE, 0, send_buffer),
                  0);
        if (!serve_until([&] { return acceptor->accepted->check_open() == 0 && !pair.client->connects.empty(); }))
            throw std::runtime_error("the pair did not connect");
        acceptor->close(true);
        serve();
        pair.server = std::move(acceptor->accepted);
        return pair;
    }
};

} // namespace vel::testing
