// Streams and acceptors: connecting, transferring, timers, and every way of ending.
#include <vel/testing/proactor_fixture.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vel/os/error_codes.h>

namespace vel::test {
namespace {

using AsyncStream = ProactorTest;

/// Sends back what comes in, one receive or send at a time.
class Echo : public VEL_Async_SOCK_Stream {
public:
    Echo() { ++live_handlers; }
    ~Echo() override { --live_handlers; }

    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
        const size_t bytes = op->bytes_transferred();
        const int result = error != 0 || bytes == 0 ? -1 : send(op->read_block(), bytes);
        delete op;
        return result;
    }
    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override {
        VEL_Byte_Block block = op->write_block();
        delete op;
        return error != 0 ? -1 : recv(block, 4096);
    }
};

class EchoAcceptor : public VEL_Async_Acceptor {
public:
    EchoAcceptor() { ++live_handlers; }
    ~EchoAcceptor() override { --live_handlers; }

    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
        Ref<Echo> stream(new Echo);
        VEL_Byte_Block block;
        if (error == 0 && accept_socket(static_cast<VEL_Async_SOCK_Accept&>(*op), *stream) == 0)
            stream->recv(block, 4096);
        delete op;
        return accept();
    }
};

VEL_Byte_Block text_block(const std::string& text) { return VEL_Byte_Block(text.size(), text.data()); }

TEST_F(AsyncStream, EchoServerAndClients) {
    Ref<EchoAcceptor> acceptor(new EchoAcceptor);
    ASSERT_EQ(acceptor->open(proactor.get(), 0, "127.0.0.1"), 0);
    for (int pending = 0; pending < 3; ++pending) ASSERT_EQ(acceptor->accept(), 0);
    VEL_INET_Addr server;
    ASSERT_EQ(VELLib::getsockname(reinterpret_cast<uint64_t>(acceptor->get_handle()), server), 0);
    constexpr int clients = 8;
    constexpr int rounds = 50;
    Tally done;
    std::vector<Ref<Stream>> streams;
    for (int i = 0; i < clients; ++i) {
        streams.emplace_back(new Stream);
        Stream* stream = streams.back().get();
        auto remaining = std::make_shared<int>(rounds);
        auto say = [stream, i] { return stream->send(text_block("client " + std::to_string(i)), 8); };
        stream->on_connect = [say, stream, server](VEL_Async_Connect_Operation* op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(op->connect_address(), server);
            EXPECT_EQ(stream->get_remote_addr(), server);
            delete op;
            return say();
        };
        stream->on_output = [stream](VEL_Async_Write_Operation* op, uint32_t error) {
            EXPECT_EQ(op->bytes_transferred(), 8u);
            delete op;
            VEL_Byte_Block block;
            return error != 0 ? -1 : stream->recv(block, 8);
        };
        stream->on_input = [say, remaining, i, &done](VEL_Async_Read_Operation* op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(std::string(static_cast<char*>(op->read_block().c_ptr(0)), op->bytes_transferred()),
                      "client " + std::to_string(i));
            delete op;
            if (--*remaining > 0) return say();
            done.add();
            return -1;
        };
        ASSERT_EQ(stream->open(proactor.get(), "localhost", server.getport()), 0);
    }
    ASSERT_TRUE(done.reaches(clients));
    for (Ref<Stream>& stream : streams) {
        EXPECT_TRUE(stream->closes.reaches(1));
        EXPECT_EQ(stream->completion_key(), 0u);
        EXPECT_EQ(stream->proactor(), nullptr);
        EXPECT_EQ(stream->get_handle(), VEL_INVALID_HANDLE);
    }
    acceptor->close(false);
}

TEST_F(AsyncStream, LargeWritesArriveWhole) {
    Pair pair = connect_pair();
    const int small = 32768;
    VELLib::setsockopt(reinterpret_cast<uint64_t>(pair.client->get_handle()), 0xFFFF, 0x1001, &small, sizeof small);
    VELLib::setsockopt(reinterpret_cast<uint64_t>(pair.server->get_handle()), 0xFFFF, 0x1002, &small, sizeof small);
    constexpr size_t size = size_t{64} << 20;
    VEL_Byte_Block data(size, nullptr);
    auto* bytes = static_cast<uint8_t*>(data.c_ptr(0));
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    size_t received = 0;
    bool same = true;
    Tally arrived;
    Tally sent;
    Stream* server = pair.server.get();
    server->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        const size_t n = op->bytes_transferred();
        same = same && std::memcmp(op->read_block().c_ptr(0), bytes + received, n) == 0;
        received += n;
        if (received >= size || error != 0 || n == 0) {
            delete op;
            arrived.add();
            return 0;
        }
        return server->recv(static_cast<VEL_Async_SOCK_Read_Stream*>(op), 65536);
    };
    pair.client->on_output = [&](VEL_Async_Write_Operation* op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), size);
        delete op;
        sent.add();
        return 0;
    };
    VEL_Byte_Block block;
    ASSERT_EQ(server->recv(block, 65536), 0);
    ASSERT_EQ(proactor->sendSockStream(pair.client->completion_key(), data, size), 0);
    ASSERT_TRUE(sent.reaches(1));
    ASSERT_TRUE(arrived.reaches(1));
    EXPECT_EQ(received, size);
    EXPECT_TRUE(same);
}

TEST_F(AsyncStream, RefusalArrivesInHandleConnect) {
    Ref<Acceptor> acceptor = listen([](Ref<Stream>) {});
    const VEL_INET_Addr nobody = address_of(*acceptor);
    acceptor->close(true);
    Ref<Stream> stream(new Stream);
    std::atomic<uint32_t> code{0};
    stream->on_connect = [&](VEL_Async_Connect_Operation* op, uint32_t error) {
        code = error;
        delete op;
        return -1;
    };
    ASSERT_EQ(stream->open(proactor.get(), nobody), 0);
    ASSERT_TRUE(stream->closes.reaches(1));
    EXPECT_EQ(code, error::connection_refused);
}

TEST_F(AsyncStream, ClosedObjectsRefuse) {
    auto expect_closed = [](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_a_socket);
    };
    VEL_Byte_Block block(4, "data");
    VEL_INET_Addr address;
    Ref<Stream> stream(new Stream);
    Ref<Acceptor> acceptor(new Acceptor);
    expect_closed(stream->recv(block, 4));
    expect_closed(stream->send(block, 4));
    expect_closed(stream->get_local_addr(address));
    expect_closed(stream->set_timeout(10));
    expect_closed(stream->close_handle());
    expect_closed(acceptor->accept());
    expect_closed(acceptor->set_timeout(10));
    stream->cancel_timeout();
    stream->close(false);
    acceptor->close(false);
    EXPECT_EQ(stream->closes.count() + acceptor->closes.count(), 0);
    EXPECT_EQ(stream->addref(), 2);
    stream->release();

    Pair pair = connect_pair();
    EXPECT_EQ(pair.client->open(proactor.get(), VEL_INET_Addr(1, 0x7F000001u)), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::already_connected);
    EXPECT_EQ(pair.client->check_open(), 0);
    EXPECT_EQ(pair.client->get_local_addr(address), 0);
    EXPECT_EQ(address, pair.server->get_remote_addr());
    pair.client->close(true);
    expect_closed(pair.client->check_open());
}

TEST_F(AsyncStream, IdleTimeoutClosesTheConnection) {
    Pair pair = connect_pair();
    Tally fired;
    pair.server->on_timeout = [&](int32_t, uint32_t&) {
        fired.add();
        return fired.count() < 3 ? 0 : -1;
    };
    std::vector<uint32_t> keys;
    pair.server->on_close = [&](uint32_t key, void*) { keys.push_back(key); };
    ASSERT_EQ(pair.server->set_timeout(100000), 0);
    ASSERT_EQ(pair.server->set_timeout(5), 0) << "the same timer, started anew";
    EXPECT_EQ(pair.server->addref(), 4) << "own, registration, one timer, this one";
    pair.server->release();
    Tally ended;
    pair.client->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), 0u);
        delete op;
        ended.add();
        return -1;
    };
    VEL_Byte_Block block;
    ASSERT_EQ(pair.client->recv(block, 10), 0);
    ASSERT_TRUE(ended.reaches(1));
    ASSERT_TRUE(pair.server->closes.reaches(1));
    EXPECT_EQ(keys, std::vector<uint32_t>{0}) << "the registration ends quietly";
    EXPECT_EQ(pair.server->check_open(), -1);
    EXPECT_EQ(fired.count(), 3);
}

TEST_F(AsyncStream, CloseTellsTheTimerOnlyOfAnAcceptor) {
    Pair pair = connect_pair();
    ASSERT_EQ(pair.client->set_timeout(100000), 0);
    pair.client->close(false);
    EXPECT_EQ(pair.client->closes.count(), 1);
    Ref<Acceptor> acceptor(new Acceptor);
    ASSERT_EQ(acceptor->open(proactor.get(), 0, 0), 0);
    ASSERT_EQ(acceptor->set_timeout(100000), 0);
    acceptor->close(false);
    EXPECT_EQ(acceptor->closes.count(), 2);
    for (int references : {pair.client->addref(), acceptor->addref()}) EXPECT_EQ(references, 2);
    pair.client->release();
    acceptor->release();
}

TEST_F(AsyncStream, HandleCloseOfTheKeyEndsTheTimer) {
    Pair pair = connect_pair();
    ASSERT_EQ(pair.client->set_timeout(100000), 0);
    ASSERT_EQ(proactor->remove_handle(pair.client->completion_key(), false), 0);
    EXPECT_EQ(pair.client->closes.count(), 1);
    EXPECT_EQ(pair.client->addref(), 2) << "neither registration nor timer is left";
    pair.client->release();
    EXPECT_EQ(pair.client->check_open(), -1);
}

TEST_F(AsyncStream, CloseHandleEndsWhatIsPending) {
    Pair pair = connect_pair();
    std::atomic<uint32_t> code{0};
    pair.client->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        code = error;
        delete op;
        return -1;
    };
    VEL_Byte_Block block;
    ASSERT_EQ(pair.client->recv(block, 10), 0);
    ASSERT_EQ(proactor->close_handle(pair.client->completion_key()), 0);
    ASSERT_TRUE(pair.client->closes.reaches(1));
    EXPECT_EQ(code, error::operation_cancelled);
}

TEST_F(AsyncStream, ShutdownLetsThePeerReadToTheEnd) {
    Pair pair = connect_pair();
    std::vector<size_t> sizes;
    Tally ended;
    Stream* server = pair.server.get();
    server->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        sizes.push_back(op->bytes_transferred());
        VEL_Byte_Block block = op->read_block();
        delete op;
        if (sizes.back() != 0) return server->recv(block, 100);
        ended.add();
        return 0;
    };
    ASSERT_EQ(pair.client->send(text_block("last words"), 10), 0);
    ASSERT_EQ(proactor->shutdown(pair.client->completion_key(), 1), 0);
    VEL_Byte_Block block;
    ASSERT_EQ(server->recv(block, 100), 0);
    ASSERT_TRUE(ended.reaches(1));
    EXPECT_EQ(sizes, (std::vector<size_t>{10, 0}));
}

TEST_F(AsyncStream, LeavesNothingBehindWhenDestroyedInItsCallback) {
    for (int round = 0; round < 100; ++round) {
        Pair pair = connect_pair();
        Stream* server = pair.server.get();
        server->on_input = [server](VEL_Async_Read_Operation* op, uint32_t) {
            delete op;
            server->close(true); // the last references but the dispatcher's
            return -1;
        };
        VEL_Byte_Block block;
        ASSERT_EQ(server->recv(block, 10), 0);
        pair.server.reset();
        ASSERT_EQ(pair.client->send(text_block("x"), 1), 0);
        pair.client->close(true);
    }
}

/// Counts the operations of a stream that were started and those that came back.
struct Balance {
    std::atomic<int64_t> started{0};
    Tally completed;
};

void count_completions(Stream& stream, std::shared_ptr<Balance> balance) {
    stream.on_input = [balance](VEL_Async_Read_Operation* op, uint32_t error) {
        const bool over = error != 0 || op->bytes_transferred() == 0;
        delete op;
        balance->completed.add();
        return over ? -1 : 0;
    };
    stream.on_output = [balance](VEL_Async_Write_Operation* op, uint32_t error) {
        delete op;
        balance->completed.add();
        return error != 0 ? -1 : 0;
    };
}

TEST_F(AsyncStream, EachOperationCompletesOnceHoweverItEnds) {
    std::mt19937 random(4711);
    for (int round = 0; round < 60; ++round) {
        auto balance = std::make_shared<Balance>();
        Pair pair = connect_pair();
        count_completions(*pair.client, balance);
        count_completions(*pair.server, balance);
        pair.client->on_timeout = [](int32_t, uint32_t&) { return -1; };
        auto busy = [balance](Stream& stream) {
            VEL_Byte_Block data(2000, nullptr);
            for (int i = 0; i < 200; ++i) {
                VEL_Byte_Block block;
                if (stream.recv(block, 500) == 0) ++balance->started;
                if (stream.send(data, 2000) == 0) ++balance->started;
            }
        };
        std::thread first([&] { busy(*pair.client); });
        std::thread second([&] { busy(*pair.server); });
        const uint32_t key = pair.client->completion_key();
        for (unsigned spin = random() % 20000; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
        switch (round % 5) {
        case 0: pair.client->close(false); break;
        case 1: proactor->close_handle(key); break;
        case 2: proactor->remove_handle(key, false); break;
        case 3: pair.client->set_timeout(0); break;
        case 4: pair.server->close(true); break;
        }
        first.join();
        second.join();
        pair.client->close(true);
        pair.server->close(true);
        const int64_t started = balance->started;
        ASSERT_TRUE(balance->completed.reaches(started)) << "round " << round;
        EXPECT_EQ(balance->completed.count(), started) << "round " << round;
    }
}

TEST_F(AsyncStream, ClosingTheProactorEndsEverything) {
    Ref<EchoAcceptor> acceptor(new EchoAcceptor);
    ASSERT_EQ(acceptor->open(proactor.get(), 0, 0x7F000001u), 0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(acceptor->accept(), 0);
    VEL_INET_Addr server;
    ASSERT_EQ(VELLib::getsockname(reinterpret_cast<uint64_t>(acceptor->get_handle()), server), 0);
    std::vector<Ref<Stream>> streams;
    for (int i = 0; i < 20; ++i) {
        streams.emplace_back(new Stream);
        Stream* stream = streams.back().get();
        stream->on_connect = [stream](VEL_Async_Connect_Operation* op, uint32_t) {
            delete op;
            VEL_Byte_Block block;
            return stream->recv(block, 100);
        };
        ASSERT_EQ(stream->open(proactor.get(), server), 0);
        ASSERT_EQ(stream->set_timeout(i % 2 ? 1 : 1000), 0);
    }
    proactor->close();
    for (Ref<Stream>& stream : streams) {
        EXPECT_EQ(stream->check_open(), -1);
        EXPECT_EQ(stream->addref(), 2);
        stream->release();
    }
}

} // namespace
} // namespace vel::test
