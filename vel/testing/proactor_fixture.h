// Vocabulary of the proactor's tests: handlers made of lambdas and a running proactor.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vel/buffers/serializable.h>
#include <vel/os/error_codes.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_acceptor.h>
#include <vel/proactor/async_sock_dgram.h>
#include <vel/proactor/async_sock_stream.h>
#include <vel/proactor/proactor.h>
#include <vel/testing/crew.h>
#include <vel/testing/reference.h>
#include <vel/testing/tally.h>

namespace vel::testing {

template <class Operation>
using Hook = std::function<int(Operation*&, uint32_t)>;

/// A handler whose callbacks are the test's: each takes its operation, which is deleted after it unless it clears the
/// pointer. Without one the answer is 0.
template <class Base>
class Hooked : public Tracked<Base> {
public:
    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override { return call(on_accept, op, error); }
    int handle_connect(VEL_Async_Connect_Operation* op, uint32_t error) override { return call(on_connect, op, error); }
    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override { return call(on_input, op, error); }
    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override { return call(on_output, op, error); }
    int handle_signal(VEL_Async_Post_Operation* op) override {
        return on_signal ? call(on_signal, op) : Base::handle_signal(op);
    }
    int handle_timeout(int32_t, uint32_t& interval_ms, VEL_Proactor*) override {
        return on_timeout ? on_timeout(interval_ms) : 0;
    }
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override {
        const int result = Base::handle_close(key, handle, proactor);
        last_key = key;
        last_handle = handle;
        closes.add();
        return result;
    }

    Hook<VEL_Async_Accept_Operation> on_accept;
    Hook<VEL_Async_Connect_Operation> on_connect;
    Hook<VEL_Async_Read_Operation> on_input;
    Hook<VEL_Async_Write_Operation> on_output;
    std::function<int(VEL_Async_Post_Operation*&)> on_signal;
    std::function<int(uint32_t&)> on_timeout;
    Tally closes; // calls of handle_close that have been made; the last with these
    std::atomic<uint32_t> last_key{0};
    std::atomic<void*> last_handle{nullptr};

private:
    static int call(const auto& hook, auto* op, auto... error) {
        const int result = hook ? hook(op, error...) : 0;
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
    int close_handle() override { return -1; } // nobody listens to the answer

    const uint64_t socket = VELLib::socket(2, 2, 0);
    void* const handle = reinterpret_cast<void*>(socket);
};

/// Starts a receive of at most `bytes` into a block of its own.
int receive(auto& stream, size_t bytes) {
    VEL_Byte_Block block;
    return stream.recv(block, bytes);
}

inline std::string text_of(const VEL_Async_Read_Operation& op) {
    return {static_cast<const char*>(op.read_block().c_ptr(0)), op.bytes_transferred()};
}

/// An open proactor; at the end it is closed, and every handler and every system handle must be gone.
class ProactorTest : public BalancedTest {
protected:
    struct Pair {
        Ref<Stream> client, server;
    };

    ProactorTest() {
        EXPECT_EQ(VEL_Proactor().open(1), 0); // what the process starts once and keeps is no leak
        handles_before_ = os::open_handle_count();
        proactor = std::make_unique<VEL_Proactor>();
        EXPECT_EQ(proactor->open(4), 0);
    }

    void TearDown() override { proactor->close(); }

    /// A listener on a free port of this machine that gives every accepted stream to `accepted`, with its reference.
    Ref<Acceptor> listen(std::function<void(Ref<Stream>)> accepted) {
        Ref<Acceptor> acceptor(new Acceptor);
        acceptor->on_accept = [self = acceptor.get(), accepted](VEL_Async_Accept_Operation*& op, uint32_t error) {
            Ref<Stream> stream(new Stream);
            if (error == 0 && self->accept_socket(static_cast<VEL_Async_SOCK_Accept&>(*op), *stream) == 0)
                accepted(std::move(stream));
            return error != 0 ? -1 : self->accept();
        };
        EXPECT_EQ(acceptor->open(proactor.get(), 0, loopback), 0);
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
        Pair pair{Ref<Stream>(new Stream), nullptr};
        Tally accepted;
        Ref<Acceptor> acceptor = listen([&](Ref<Stream> stream) {
            pair.server = std::move(stream);
            accepted.add();
        });
        EXPECT_EQ(pair.client->open(proactor.get(), address_of(*acceptor)), 0) << VELLib::GetErrorCode();
        if (!accepted.reaches(1)) throw std::runtime_error("the pair did not connect");
        acceptor->close(true);
        while (acceptor->references() > 1 || pair.server->references() + pair.client->references() > 4)
            std::this_thread::yield(); // until the workers have let go
        return pair;
    }

    std::unique_ptr<VEL_Proactor> proactor;
};

} // namespace vel::testing
