// Stream sockets and acceptors: what they write and report, their timers, and every way of ending.
#include <vel/testing/reactor_fixture.h>

namespace vel::testing {
namespace {

using SockStream = ReactorTest;

TEST_F(SockStream, EchoesAndHearsOfTheEndBehindTheLastByte) {
    auto [client, server] = connect_pair();
    Stream& echo = *server;
    EXPECT_EQ(echo.get_remote_addr(), address_of(client->get_handle()));
    echo.on["read"] = [&] {
        std::thread([&] { echo.send(text("echo")); }).join(); // the lock is free
        return 0;
    };
    EXPECT_EQ(client->send(text("hello")), 5);
    ASSERT_TRUE(serve_until([&, &client = client] { return client->input == "echo"; }));
    EXPECT_EQ(reactor->handle_event(20), 0) << "output interest alone brings no calls";

    const std::string last(100000, 'x'); // more than one read
    ASSERT_EQ(echo.suspend_read(100000), 0);
    EXPECT_EQ(client->send(text(last)), 100000);
    EXPECT_EQ(client->shutdown(1), 0);
    serve();
    EXPECT_EQ(echo.input, "hello");
    for (int again = 0; again < 2; ++again) ASSERT_EQ(echo.resume_read(), 0);
    ASSERT_TRUE(serve_until([&, &client = client] { return !client->closes.empty(); }));
    EXPECT_EQ(echo.input, "hello" + last);
    for (Stream* stream : {client.get(), server.get()}) {
        EXPECT_EQ(stream->errors, Codes{error::peer_closed});
        EXPECT_EQ(stream->closes, Codes{VEL_INPUT_EVENT});
        EXPECT_EQ(stream->references(), 1);
        expect_failure(error::not_a_socket, stream->check_open());
    }
}

TEST_F(SockStream, BlocksThatDoNotFitAreWrittenLaterAndReportedOnceInOrder) {
    constexpr size_t size = size_t{4} << 20;
    Pair pair = connect_pair();
    std::string expected;
    std::vector<VEL_Byte_Block> blocks;
    std::vector<const void*> ends;
    for (const char fill : {'a', 'b', 'c', 'd'}) {
        expected.append(size, fill);
        blocks.push_back(text(std::string(size, fill)));
        ends.push_back(blocks.back().c_ptr(size));
        EXPECT_EQ(pair.client->send(blocks.back()), 0);
    }
    EXPECT_FALSE(pair.client->is_send_all_completed());
    EXPECT_TRUE(pair.client->written.empty());
    pair.client->on["write"] = [&] {
        if (pair.client->written.size() < 4)
            std::thread([&] { pair.client->send(text(".")); }).join(); // the lock is free
        return 0;
    };
    ASSERT_TRUE(serve_until([&] { return pair.server->input.size() == 4 * size + 3; }));
    EXPECT_TRUE(pair.client->is_send_all_completed());
    pair.client->written.resize(4); // the dots are reported where they had to wait
    EXPECT_EQ(pair.client->written, ends);
    EXPECT_TRUE(pair.server->input == expected + "...");
}

TEST_F(SockStream, ABrokenConnectionIsReportedOnceOnTheWayInOrOut) {
    for (const bool sending : {false, true}) {
        auto [client, server] = connect_pair();
        if (sending) client->send(text(std::string(1 << 24, 'x')));
        const uint16_t linger[] = {1, 0};
        EXPECT_EQ(VELLib::setsockopt(server->get_handle(), 0xFFFF, 0x80, linger, sizeof linger), 0);
        server->close(true);
        ASSERT_TRUE(serve_until([&, &client = client] { return !client->closes.empty(); }));
        EXPECT_EQ(client->errors, Codes{error::connection_reset});
        EXPECT_EQ(client->is_send_all_completed(), !sending);
        const Ref<Acceptor> acceptor = listen();
        EXPECT_EQ(client->open(reactor.get(), address_of(acceptor->get_handle()), VEL_INFINITE, 0, 0), 0);
        EXPECT_TRUE(client->is_send_all_completed()) << "the next connection starts anew";
        client->close(true);
        EXPECT_EQ(client->closes.size(), 1u);
    }
}

TEST_F(SockStream, EndsInEveryCallbackInEveryWay) {
    enum Way { refuse, close_quietly, close, release, reopen };
    constexpr int ways = 5;
    const char* const callbacks[] = {"read", "write", "connect", "timeout"};
    const uint32_t refused[] = {4, 8, 2 + 8, 32}; // the output that is due with a connect goes with it
    const VEL_INET_Addr address = open_door();
    for (int round = 0; round < 4 * ways; ++round) {
        SCOPED_TRACE(round);
        const int place = round / ways, way = round % ways;
        Pair pair = connect_pair();
        if (place == 2) pair.client.reset(new Stream);
        Stream* const stream = pair.client.get();
        const auto open = [&] { return stream->open(reactor.get(), address, 100000, 0, 0); };
        int calls = 0;
        stream->on[callbacks[place]] = [&] {
            if (++calls > 1) return 0; // the next connection's
            if (way == release) pair.client.reset();
            if (way == refuse || way == release) return -1;
            stream->close(way != close);
            return way == reopen ? open() - (place == 3 ? 0 : 1) : 0; // a refused timer ends what is open by then
        };
        switch (place) {
        case 0: pair.server->send(text("x")); break;
        case 1: stream->send(text(std::string(1 << 22, 'x'))); break;
        case 2: open(); break;
        default: stream->set_timeout(1);
        }
        ASSERT_TRUE(serve_until([&] { return calls > 0; }));
        serve();
        if (!pair.client) continue; // that it is gone is seen at the end
        EXPECT_EQ(stream->closes, way == refuse ? Codes{refused[place]} : way == close ? Codes{14} : Codes{});
        if (way == reopen) {
            EXPECT_EQ(stream->check_open(), 0) << "the refusal was the last connection's";
            stream->close(true);
        }
        EXPECT_EQ(stream->references(), 1);
        expect_failure(error::not_a_socket, stream->send(text("x")));
    }
}

TEST_F(SockStream, ARefusedConnectIsLeftToItsHandlerOrItsTimeOut) {
    VEL_Socket deaf(2, 1, 0); // holds its port and does not listen
    ASSERT_EQ(deaf.bind(0, loopback), 0);
    const uint16_t port = address_of(deaf.get_socket()).getport();
    for (const bool handled : {true, false}) {
        const Ref<Stream> stream(new Stream);
        if (handled) stream->on["connect"] = [] { return -1; };
        stream->on["timeout"] = [&] { return stream->connects.empty() ? 0 : -1; };
        expect_failure(error::null_member, stream->open(nullptr, "127.0.0.1", port, 0, 0, 0)); // and leaves it closed
        ASSERT_EQ(stream->open(reactor.get(), "127.0.0.1", port, handled ? VEL_INFINITE : 1, 0, 0), 0);
        stream->send(text("early")); // may hear of the refusal first, and must not take it away
        ASSERT_TRUE(serve_until([&] { return !stream->closes.empty(); }));
        EXPECT_EQ(stream->connects, Codes{error::connection_refused});
        EXPECT_EQ(stream->closes, Codes{handled ? VEL_CONNECT_EVENT : VEL_TIMER_EVENT});
        EXPECT_EQ(stream->references(), 1);
    }
}

TEST_F(SockStream, SendsSuspendsAndClosesUnderThreadsThatServe) {
    class Echo : public Noted<VEL_SOCK_Stream> {
        int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
            return error != 0 ? -1 : send(VEL_Byte_Block(size, data));
        }
    };
    const Ref<Acceptor> acceptor = listen();
    acceptor->on["accept"] = [&] { return acceptor->take(*Ref<Echo>(new Echo)); };
    start(2);
    for (int round = 0; round < 30; ++round) {
        const Ref<Echo> client(new Echo);
        ASSERT_EQ(client->open(reactor.get(), address_of(acceptor->get_handle()), 1000, 0, 65536), 0);
        std::thread sender([&] {
            for (int i = 0; i < 50 && client->send(text(std::string(3000, 'x'))) >= 0; ++i) {
            }
        });
        if (round % 3 == 0) client->suspend_read(1);
        if (round % 3 == 1) sender.join();
        if (round % 2 == 0) client->resume_read();
        client->close(round % 4 < 2);
        if (sender.joinable()) sender.join();
    }
    stop();
}

TEST_F(SockStream, ABareSocketRemembersThatThePeerHasClosedUntilItHoldsAnother) {
    VEL_Socket first(2, 1, 0), second(2, 1, 0), server;
    char buffer[8];
    ASSERT_EQ(first.connect(open_door()), 0);
    ASSERT_EQ(door.accept(server), 0);
    ASSERT_EQ(first.send("bye", 3), 3);
    first.close();
    EXPECT_EQ(server.recv(buffer, sizeof buffer), 3);
    EXPECT_EQ(server.recv(buffer, sizeof buffer), 0);
    EXPECT_EQ(server.recv(buffer, sizeof buffer, 0), 0) << "asked the socket, which would be no time-out";

    ASSERT_EQ(second.connect(open_door(), patience_ms), 0);
    server.close();
    ASSERT_EQ(door.accept(server, patience_ms), 0);
    ASSERT_EQ(second.send("hi", 2, patience_ms), 2);
    EXPECT_EQ(server.recv(buffer, sizeof buffer, patience_ms), 2);
}

TEST_F(SockStream, AnAcceptorEndsWithItsRegistrationItsTimerOrAFailedOpen) {
    VEL_Socket client(2, 1, 0);
    for (const uint32_t mask : {VEL_ACCEPT_EVENT, VEL_TIMER_EVENT}) {
        const Ref<Acceptor> acceptor = listen(), second(new Acceptor);
        const VEL_INET_Addr address = address_of(acceptor->get_handle());
        expect_failure(error::address_in_use, second->open(reactor.get(), address.getport(), "127.0.0.1", 0, 0));
        expect_failure(error::not_a_socket, second->check_open());
        acceptor->on["accept"] = acceptor->on["timeout"] = [] { return -1; };
        ASSERT_EQ(acceptor->set_timeout(mask == VEL_TIMER_EVENT ? 1 : 100000), 0);
        EXPECT_EQ(acceptor->references(), 3) << "own, registration, timer";
        if (mask == VEL_ACCEPT_EVENT) client.connect(address);
        ASSERT_TRUE(serve_until([&] { return !acceptor->closes.empty(); }));
        EXPECT_EQ(acceptor->closes, Codes{mask});
        EXPECT_EQ(acceptor->references(), 1);
        expect_failure(error::not_a_socket, acceptor->check_open());
    }
}

} // namespace
} // namespace vel::testing
