// Streams and acceptors: connecting, transferring, timers, and every way of ending.
#include <vel/testing/proactor_fixture.h>

#include <random>
#include <vel/reactor/acceptor.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/socket.h>

namespace vel::testing {
namespace {

using AsyncStream = ProactorTest;

TEST_F(AsyncStream, LargeWritesArriveWhole) {
    Pair pair = connect_pair();
    std::string sent(size_t{64} << 20, '\0'), received;
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 2654435761u >> 24);
    Tally done;
    pair.server->on_input = [&](auto*& op, uint32_t error) {
        received += text_of(*op);
        if (error == 0 && op->bytes_transferred() != 0)
            return pair.server->recv(static_cast<VEL_Async_SOCK_Read_Stream*>(std::exchange(op, nullptr)), 65536);
        EXPECT_EQ(error, 0u) << "a shutdown lets the peer read to the end";
        return done.add();
    };
    pair.client->on_output = [&](auto*& op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), sent.size());
        EXPECT_EQ(proactor->shutdown(op->completion_key(), 1), 0);
        return done.add();
    };
    VEL_Byte_Block block(10, nullptr);
    ASSERT_EQ(pair.server->recv(block, 65536), 0);
    EXPECT_EQ(block.size(), 65536u) << "it grows";
    const VEL_Byte_Block data(sent.size(), sent.data());
    ASSERT_EQ(proactor->sendSockStream(pair.client->completion_key(), data, sent.size()), 0);
    ASSERT_TRUE(done.reaches(2));
    EXPECT_TRUE(received == sent);
}

TEST_F(AsyncStream, ARefusedConnectIsLeftToItsHandler) {
    VEL_INET_Addr nobody;
    Ref<Stream> stream(new Stream);
    VEL_Socket deaf(2, 1, 0); // holds its port and does not listen, so that nobody else gets it
    ASSERT_EQ(deaf.bind(0, loopback) + deaf.getlocaladdr(nobody), 0);
    stream->on_connect = [&](auto*&, uint32_t error) {
        EXPECT_EQ(error, error::connection_refused);
        return -1;
    };
    ASSERT_EQ(stream->open(proactor.get(), "localhost", nobody.getport()), 0);
    ASSERT_TRUE(stream->closes.reaches(1));
    expect_failure(error::not_a_socket, receive(*stream, 4));
}

TEST_F(AsyncStream, IdleTimeoutClosesTheConnection) {
    Pair pair = connect_pair();
    Tally ended;
    int fired = 0;
    pair.server->on_timeout = [&](uint32_t&) { return ++fired < 3 ? 0 : -1; };
    ASSERT_EQ(pair.server->set_timeout(100000), 0);
    ASSERT_EQ(pair.server->set_timeout(100000), 0) << "the same timer, started anew";
    EXPECT_EQ(pair.server->references(), 3) << "own, registration, one timer";
    ASSERT_EQ(pair.server->set_timeout(5), 0);
    pair.client->on_input = [&](auto*& op, uint32_t) {
        EXPECT_EQ(op->bytes_transferred(), 0u);
        return ended.add() - 1;
    };
    ASSERT_EQ(receive(*pair.client, 10), 0);
    ASSERT_TRUE(ended.reaches(1));
    ASSERT_TRUE(pair.server->closes.reaches(1));
    EXPECT_EQ(pair.server->last_key, 0u) << "the registration ends quietly";
    proactor->close();
    EXPECT_EQ(pair.server->closes.count(), 1);
}

TEST_F(AsyncStream, LeavesNothingBehindWhenDestroyedInItsCallback) {
    for (int round = 0; round < 100; ++round) {
        Pair pair = connect_pair();
        Stream* server = pair.server.get();
        server->on_input = [server](auto*&, uint32_t) {
            server->close(true); // the last references but those of the call
            return -1;
        };
        ASSERT_EQ(receive(*server, 10), 0);
        pair.server.reset();
        ASSERT_EQ(pair.client->send(VEL_Byte_Block(1, "x"), 1), 0);
        pair.client->close(true);
    }
}

TEST_F(AsyncStream, EachOperationCompletesOnceHoweverItEnds) {
    std::mt19937 random(4711);
    for (int round = 0; round < 60; ++round) {
        std::atomic<int64_t> started{0};
        auto completed = std::make_shared<Tally>();
        Pair pair = connect_pair();
        const auto set_up = [&](Stream& stream) {
            stream.on_input = [completed](auto*& op, uint32_t error) {
                completed->add();
                return error != 0 || op->bytes_transferred() == 0 ? -1 : 0;
            };
            stream.on_output = [completed](auto*&, uint32_t error) {
                completed->add();
                return error != 0 ? -1 : 0;
            };
            stream.on_timeout = [](uint32_t&) { return -1; };
            return std::thread([&] {
                const VEL_Byte_Block data(2000, nullptr);
                for (int i = 0; i < 200; ++i) {
                    if (receive(stream, 500) == 0) ++started;
                    if (stream.send(data, 2000) == 0) ++started;
                }
            });
        };
        const uint32_t key = pair.client->completion_key();
        std::thread threads[] = {set_up(*pair.client), set_up(*pair.server)};
        for (unsigned spin = random() % 20000; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
        switch (round % 6) {
        case 0: pair.client->close(false); break;
        case 1: proactor->close_handle(key); break;
        case 2: proactor->remove_handle(key, false); break;
        case 3: pair.client->set_timeout(0); break;
        case 4: pair.server->close(true); break;
        }
        for (std::thread& thread : threads) thread.join();
        pair.client->close(true);
        pair.server->close(true);
        ASSERT_TRUE(completed->reaches(started)) << "round " << round;
        EXPECT_EQ(completed->count(), started) << "round " << round;
    }
}

TEST_F(AsyncStream, ClosingTheProactorEndsEverything) {
    Ref<Acceptor> acceptor = listen([](Ref<Stream>) {});
    for (int i = 0; i < 3; ++i) ASSERT_EQ(acceptor->accept(), 0);
    std::vector<Ref<Stream>> streams;
    for (int i = 0; i < 20; ++i) {
        Stream* stream = streams.emplace_back(new Stream).get();
        stream->on_connect = [stream](auto*&, uint32_t) { return receive(*stream, 100); };
        ASSERT_EQ(stream->open(proactor.get(), address_of(*acceptor)), 0);
        ASSERT_EQ(stream->set_timeout(i % 2 ? 1 : 1000), 0);
    }
    proactor->close();
    for (Ref<Stream>& stream : streams) {
        EXPECT_EQ(stream->check_open(), -1);
        EXPECT_EQ(stream->references(), 1);
    }
}

TEST_F(AsyncStream, TakesConnectionsOfAReactor) {
    VEL_Reactor reactor;
    const Ref<VEL_Acceptor> door(new VEL_Acceptor);
    const Ref<Stream> stream(new Stream), refused(new Stream);
    VEL_INET_Addr address;
    char buffer[8];
    ASSERT_EQ(door->open(&reactor, 0, loopback, 0, 0), 0);
    ASSERT_EQ(VELLib::getsockname(door->get_handle(), address), 0);
    stream->on_input = [&](auto*& op, uint32_t) {
        return op->bytes_transferred() == 0 ? -1 : stream->send(op->read_block(), op->bytes_transferred());
    };

    VEL_Socket client(2, 1, 0), second(2, 1, 0);
    ASSERT_EQ(client.connect(address, 5000), 0);
    ASSERT_EQ(door->accept(proactor.get(), *stream), 0);
    ASSERT_EQ(receive(*stream, 8), 0);
    EXPECT_EQ(client.send("hello", 5), 5);
    EXPECT_EQ(client.recv(buffer, sizeof buffer, 5000), 5);

    ASSERT_EQ(second.connect(address, 5000), 0);
    expect_failure(error::null_member, door->accept(nullptr, *refused));
    EXPECT_EQ(second.recv(buffer, sizeof buffer, 5000), 0) << "the connection has been closed";
}

} // namespace
} // namespace vel::testing
