// Stream sockets: what they write and report, their timers, and every way of ending.
#include <vel/testing/reactor_sockets.h>

#include <cstring>
#include <thread>
#include <vel/testing/expect_failure.h>

namespace vel::testing {
namespace {

using SockStream = ReactorSocketTest;
using Codes = std::vector<uint32_t>;

constexpr int small_buffer = 65536; // smaller than a segment, and the system sends with pauses

/// Closes so that the peer's connection breaks.
void reset_connection(Stream& stream) {
    const uint16_t linger[] = {1, 0};
    EXPECT_EQ(VELLib::setsockopt(stream.get_handle(), 0xFFFF, 0x80, linger, sizeof linger), 0);
    stream.close(true);
}

TEST_F(SockStream, EchoesAndHearsOfTheEndBehindTheLastByte) {
    Pair pair = connect_pair();
    Stream &client = *pair.client, &server = *pair.server;
    EXPECT_EQ(client.get_remote_addr(), address_of(server.get_handle()));
    server.on_read = [&] { return server.read_errors.empty() ? server.send(text("echo")) : 0; };
    EXPECT_EQ(client.send(text("hello")), 5);
    EXPECT_TRUE(client.is_send_all_completed());
    ASSERT_TRUE(serve_until([&] { return client.input == "echo"; }));

    const std::string last(100000, 'x'); // more than one read
    ASSERT_EQ(server.suspend_read(100000), 0);
    EXPECT_EQ(client.send(text(last)), 100000);
    EXPECT_EQ(client.shutdown(1), 0);
    serve();
    EXPECT_EQ(server.input, "hello");
    ASSERT_EQ(server.resume_read(), 0);
    ASSERT_TRUE(serve_until([&] { return !client.closes.empty(); }));
    EXPECT_EQ(server.input, "hello" + last);
    for (Stream* stream : {&client, &server}) {
        EXPECT_EQ(stream->read_errors, Codes{error::peer_closed});
        EXPECT_EQ(stream->closes, Codes{VEL_INPUT_EVENT});
        EXPECT_EQ(stream->get_remote_addr(), VEL_INET_Addr());
        EXPECT_EQ(stream->references(), 1);
        expect_failure(error::not_a_socket, stream->check_open());
    }
}

TEST_F(SockStream, BlocksThatDoNotFitAreWrittenLaterAndReportedOnceInOrder) {
    constexpr size_t size = size_t{4} << 20;
    Pair pair = connect_pair(small_buffer);
    std::vector<VEL_Byte_Block> blocks;
    for (char fill = 'a'; fill < 'e'; ++fill) {
        blocks.push_back(text(std::string(size, fill)));
        EXPECT_EQ(pair.client->send(blocks.back()), 0);
    }
    EXPECT_EQ(pair.client->send(VEL_Byte_Block()), 0);
    EXPECT_FALSE(pair.client->is_send_all_completed());
    EXPECT_TRUE(pair.client->writes.empty());
    pair.client->on_write = [&] { return pair.client->writes.size() < 4 ? 0 : pair.client->send(text("end")); };
    ASSERT_TRUE(serve_until([&] { return pair.server->input.size() == 4 * size + 3; }));
    EXPECT_TRUE(pair.client->is_send_all_completed());
    ASSERT_EQ(pair.client->writes.size(), 4u);
    std::string expected;
    for (size_t i = 0; i < 4; ++i) {
        const Stream::Write& write = pair.client->writes[i];
        EXPECT_EQ(write.error, 0u);
        EXPECT_EQ(static_cast<const char*>(write.data) + write.size, blocks[i].c_ptr(size));
        expected.append(size, static_cast<char>('a' + i));
    }
    EXPECT_TRUE(pair.server->input == expected + "end");
}

TEST_F(SockStream, ABrokenConnectionIsReportedOnceOnTheWayInOrOut) {
    for (bool sending : {false, true}) {
        Pair pair = connect_pair(small_buffer);
        if (sending) {
            EXPECT_EQ(pair.client->send(text(std::string(1 << 24, 'x'))), 0);
        }
        reset_connection(*pair.server);
        ASSERT_TRUE(serve_until([&] { return !pair.client->closes.empty(); }));
        Codes errors = pair.client->read_errors;
        for (const Stream::Write& write : pair.client->writes) errors.push_back(write.error);
        EXPECT_EQ(errors, Codes{error::connection_reset});
        EXPECT_EQ(pair.client->closes.size(), 1u);
        EXPECT_EQ(pair.client->is_send_all_completed(), !sending);
        pair.client->close(false);
        EXPECT_EQ(pair.client->closes.size(), 1u);
        EXPECT_TRUE(pair.client->is_send_all_completed());
    }
}

TEST_F(SockStream, EndsInEveryCallbackInEveryWay) {
    enum Place : int { read, write, connect, timeout };
    enum Way : int { refuse, close_quietly, close, release };
    constexpr int ways = 4;
    const uint32_t bits[] = {4, 8, 2 + 8, 32}; // with a connect, the output that is due is refused, too
    for (int round = 0; round < 4 * ways; ++round) {
        SCOPED_TRACE(round);
        const int place = round / ways, way = round % ways;
        Pair pair = connect_pair(small_buffer);
        Ref<Acceptor> acceptor = listen();
        if (place == connect) pair.client.reset(new Stream);
        Stream* stream = pair.client.get();
        bool called = false;
        const auto end = [&] {
            called = true;
            if (way == refuse) return -1;
            if (way == release) return pair.client.reset(), -1;
            stream->close(way == close_quietly);
            return 0;
        };
        switch (place) {
        case read: stream->on_read = end, pair.server->send(text("x")); break;
        case write: stream->on_write = end, stream->send(text(std::string(1 << 22, 'x'))); break;
        case timeout: stream->on_timeout = [&](int32_t) { return end(); }, stream->set_timeout(1); break;
        case connect:
            stream->on_connect = end;
            ASSERT_EQ(stream->open(reactor.get(), address_of(acceptor->get_handle()), 100000, 0, 0), 0);
        }
        ASSERT_TRUE(serve_until([&] { return called; }));
        serve();
        if (!pair.client) continue; // that it is gone is seen at the end
        EXPECT_EQ(stream->closes, way == refuse ? Codes{bits[place]} : way == close ? Codes{14} : Codes{});
        EXPECT_EQ(stream->references(), 1);
        expect_failure(error::not_a_socket, stream->send(text("x")));
    }
}

TEST_F(SockStream, ARefusedConnectIsLeftToItsHandlerOrItsTimeOut) {
    VEL_Socket deaf(2, 1, 0); // holds its port and does not listen
    ASSERT_EQ(deaf.bind(0, localhost), 0);
    const uint16_t port = address_of(deaf.get_socket()).getport();
    for (bool handled : {true, false}) {
        Ref<Stream> stream(new Stream);
        stream->on_connect = [&] { return handled ? -1 : 0; };
        stream->on_timeout = [&](int32_t id) { return id == stream->get_timer_id() ? -1 : 0; };
        ASSERT_EQ(stream->open(reactor.get(), "127.0.0.1", port, handled ? VEL_INFINITE : 1, 0, 0), 0);
        stream->send(text("early")); // may hear of the refusal first, and must not take it away
        ASSERT_TRUE(serve_until([&] { return !stream->closes.empty(); }));
        EXPECT_EQ(stream->connects, Codes{error::connection_refused});
        EXPECT_EQ(stream->closes, Codes{handled ? VEL_CONNECT_EVENT : VEL_TIMER_EVENT});
        EXPECT_EQ(stream->references(), 1);
        EXPECT_FALSE(stream->is_send_all_completed());
    }
}

TEST_F(SockStream, TimersAreKeptApartAndAnIdleStreamCostsNothing) {
    Pair pair = connect_pair();
    Stream& client = *pair.client;
    std::vector<int32_t> fired;
    client.on_timeout = [&](int32_t id) { return fired.push_back(id), 0; };
    ASSERT_EQ(client.set_timeout(100000), 0);
    const int32_t timer = client.get_timer_id();
    ASSERT_EQ(client.suspend_read(100000), 0);
    ASSERT_EQ(client.suspend_read(2), 0);
    const int32_t suspension = client.get_suspend_id();
    EXPECT_EQ(client.references(), 4) << "own, registration, two timers";
    pair.server->send(text("late"));
    ASSERT_TRUE(serve_until([&] { return fired.size() == 2; }));
    EXPECT_EQ(client.input, "");
    ASSERT_EQ(client.resume_read(), 0);
    ASSERT_EQ(client.resume_read(), 0);
    ASSERT_TRUE(serve_until([&] { return client.input == "late"; }));
    ASSERT_EQ(client.set_timeout(2), 0);
    ASSERT_TRUE(serve_until([&] { return fired.size() == 3; }));
    EXPECT_EQ(fired, (std::vector<int32_t>{suspension, suspension, timer}));
    client.cancel_timeout();
    EXPECT_EQ(client.get_timer_id() + client.get_suspend_id(), 0);
    const int outputs = client.outputs;
    EXPECT_EQ(reactor->handle_event(20), 0);
    EXPECT_EQ(client.outputs, outputs) << "output interest alone brings no calls";
    EXPECT_TRUE(client.closes.empty());
}

TEST_F(SockStream, RefusesWithoutSocketReactorOrRoom) {
    Ref<Stream> stream(new Stream);
    const VEL_INET_Addr nobody(1, localhost);
    EXPECT_TRUE(stream->is_send_all_completed());
    expect_failure(error::not_a_socket, stream->send(text("x")));
    expect_failure(error::not_a_socket, stream->select_event(4));
    expect_failure(error::null_member, stream->set_timeout(1));
    expect_failure(error::null_member, stream->open(nullptr, nobody, 0, 0, 0));
    Pair pair = connect_pair();
    expect_failure(error::already_connected, pair.client->open(reactor.get(), nobody, 0, 0, 0));
    pair.client->reactor(nullptr);
    expect_failure(error::null_member, pair.client->send(text("x")));
    pair.client->reactor(reactor.get());
    EXPECT_EQ(pair.client->send(text("x")), 1);
    reactor->deactivate();
    expect_failure(error::object_closed, stream->open(reactor.get(), nobody, 0, 0, 0));
    EXPECT_EQ(stream->references(), 1);
}

TEST_F(SockStream, SendsSuspendsAndClosesUnderThreadsThatServe) {
    class Echo : public Noted<VEL_SOCK_Stream> {
        int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
            return error != 0 ? -1 : send(VEL_Byte_Block(size, data));
        }
    };
    Ref<Acceptor> acceptor = listen();
    acceptor->on_accept = [&] {
        const Ref<Echo> echo(new Echo);
        if (acceptor->accept(*echo) < 0) return VELLib::GetErrorCode() == error::would_block ? 0 : -1;
        echo->reactor(reactor.get());
        return echo->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
    };
    std::vector<std::thread> servers;
    for (int i = 0; i < 2; ++i)
        servers.emplace_back([&] {
            while (reactor->handle_event(VEL_INFINITE) >= 0) {
            }
        });
    for (int round = 0; round < 30; ++round) {
        const Ref<Echo> client(new Echo);
        ASSERT_EQ(client->open(reactor.get(), address_of(acceptor->get_handle()), 1000, 0, small_buffer), 0);
        std::thread sender([&] {
            const VEL_Byte_Block block = text(std::string(3000, 'x'));
            for (int i = 0; i < 50 && client->send(block) >= 0; ++i) {
            }
        });
        if (round % 3 == 0) client->suspend_read(1);
        if (round % 3 == 1) sender.join();
        if (round % 2 == 0) client->resume_read();
        client->close(round % 4 < 2);
        if (sender.joinable()) sender.join();
    }
    reactor->deactivate();
    for (std::thread& server : servers) server.join();
}

} // namespace
} // namespace vel::testing
