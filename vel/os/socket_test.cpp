// Contract of the socket calls, typed over the back ends that promise it.
#include <vel/os/socket.h>

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

constexpr int ipv4 = 2;
constexpr int stream = 1;
constexpr int datagram = 2;
constexpr uint32_t loopback = 0x7F000001;
constexpr uint32_t patience_ms = 5000;

// The 16-byte record; port and address in network order.
struct Address {
    uint16_t family = ipv4;
    uint16_t port = 0;
    std::array<uint8_t, 4> host{127, 0, 0, 1};
    std::array<uint8_t, 8> zero{};
};
static_assert(sizeof(Address) == 16);

// The system's own sockets. Another back end is a struct with the same names.
struct SystemSockets {
    static constexpr auto open = open_socket;
    static constexpr auto close = close_socket;
    static constexpr auto bind = bind_socket;
    static constexpr auto listen = listen_socket;
    static constexpr auto accept = accept_socket;
    static constexpr auto connect = connect_socket;
    static constexpr auto receive = os::receive;
    static constexpr auto receive_from = os::receive_from;
    static constexpr auto send = os::send;
    static constexpr auto send_to = os::send_to;
    static constexpr auto wait = wait_socket;
    static constexpr auto take_error = take_socket_error;
    static constexpr auto peer_closed = peer_has_closed;
    static constexpr auto peer_name = os::peer_name;
    static constexpr auto local_name = os::local_name;
    static constexpr auto get_option = os::get_option;
    static constexpr auto set_option = os::set_option;
    static constexpr auto shutdown = shutdown_socket;
    static constexpr auto readable = readable_bytes;
    static constexpr auto nonblocking = set_nonblocking;
};

template <class Back>
class Sockets : public ::testing::Test {
protected:
    struct Pair {
        uint64_t client;
        uint64_t server;
    };

    void TearDown() override {
        for (uint64_t socket : opened_) Back::close(socket);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint64_t open(int type) {
        uint64_t socket = VEL_INVALID_SOCKET;
        EXPECT_EQ(Back::open(ipv4, type, 0, socket), 0u);
        opened_.push_back(socket);
        return socket;
    }

    // A socket bound to a free port of the loopback address.
    uint64_t bound(int type, Address& address) {
        const uint64_t socket = open(type);
        int32_t length = sizeof address;
        address = {};
        EXPECT_EQ(Back::bind(socket, &address, length), 0u);
        EXPECT_EQ(Back::local_name(socket, &address, length), 0u);
        EXPECT_EQ(length, 16);
        return socket;
    }

    uint64_t listener(Address& address) {
        const uint64_t socket = bound(stream, address);
        EXPECT_EQ(Back::listen(socket), 0u);
        return socket;
    }

    uint64_t accept(uint64_t from) {
        uint64_t socket = VEL_INVALID_SOCKET;
        Address peer;
        int32_t length = sizeof peer;
        EXPECT_EQ(Back::accept(from, &peer, length, socket), 0u);
        opened_.push_back(socket);
        return socket;
    }

    Pair connected() {
        Address address;
        const uint64_t door = listener(address);
        const uint64_t client = open(stream);
        EXPECT_EQ(Back::connect(client, &address, sizeof address), 0u);
        return {client, accept(door)};
    }

    std::string receive(uint64_t socket, uint64_t room) {
        std::string text(room, '\0');
        uint64_t moved = 0;
        EXPECT_EQ(Back::receive(socket, text.data(), room, moved), 0u);
        text.resize(moved);
        return text;
    }

    void send(uint64_t socket, const std::string& text) {
        uint64_t moved = 0;
        EXPECT_EQ(Back::send(socket, text.data(), text.size(), moved), 0u);
        EXPECT_EQ(moved, text.size());
    }

    uint64_t handles_before_ = open_handle_count();
    std::vector<uint64_t> opened_;
};

using BackEnds = ::testing::Types<SystemSockets>;
TYPED_TEST_SUITE(Sockets, BackEnds);

TYPED_TEST(Sockets, StreamCarriesBytesAndTheEndBothWays) {
    const auto [client, server] = this->connected();
    this->send(client, "forth");
    EXPECT_EQ(this->receive(server, 64), "forth");
    this->send(server, "back");
    EXPECT_EQ(this->receive(client, 2), "ba");
    uint32_t rest = 0;
    EXPECT_EQ(TypeParam::readable(client, rest), 0u);
    EXPECT_EQ(rest, 2u);

    ASSERT_EQ(TypeParam::shutdown(server, 1), 0u);
    bool closed = true;
    EXPECT_EQ(TypeParam::peer_closed(client, closed), 0u);
    EXPECT_FALSE(closed) << "two bytes are unread";
    EXPECT_EQ(this->receive(client, 64), "ck");
    ASSERT_EQ(TypeParam::wait(client, SocketWait::readable, patience_ms), 0u);
    EXPECT_EQ(TypeParam::peer_closed(client, closed), 0u);
    EXPECT_TRUE(closed);
    EXPECT_EQ(this->receive(client, 64), "");
}

TYPED_TEST(Sockets, NamesOfBothEndsMatch) {
    const auto [client, server] = this->connected();
    Address near, far;
    int32_t length = sizeof near;
    ASSERT_EQ(TypeParam::local_name(client, &near, length), 0u);
    ASSERT_EQ(TypeParam::peer_name(server, &far, length), 0u);
    EXPECT_EQ(std::memcmp(&near, &far, sizeof near), 0);
    EXPECT_NE(near.port, 0);
}

TYPED_TEST(Sockets, DatagramsKeepTheirBordersAndTellWhenTheyWereCut) {
    Address here, there, from;
    const uint64_t sender = this->bound(datagram, here);
    const uint64_t receiver = this->bound(datagram, there);
    uint64_t moved = 0;
    for (const char* text : {"one", "second", "third"})
        ASSERT_EQ(TypeParam::send_to(sender, text, std::strlen(text), &there, sizeof there, moved), 0u);

    char buffer[16];
    int32_t length = sizeof from;
    EXPECT_EQ(TypeParam::receive_from(receiver, buffer, sizeof buffer, &from, length, moved), 0u);
    EXPECT_EQ(std::string(buffer, moved), "one");
    EXPECT_EQ(length, 16);
    EXPECT_EQ(from.port, here.port);
    EXPECT_EQ(TypeParam::receive_from(receiver, buffer, 3, &from, length, moved), error::message_too_long);
    EXPECT_EQ(std::string(buffer, moved), "sec");
    EXPECT_EQ(TypeParam::receive(receiver, buffer, 2, moved), error::message_too_long);
    EXPECT_EQ(moved, 2u);
}

TYPED_TEST(Sockets, NonBlockingCallsSayWouldBlock) {
    Address address, peer;
    const uint64_t door = this->listener(address);
    ASSERT_EQ(TypeParam::nonblocking(door, true), 0u);
    int32_t length = sizeof peer;
    uint64_t accepted = 0, moved = 0;
    EXPECT_EQ(TypeParam::accept(door, &peer, length, accepted), error::would_block);
    EXPECT_EQ(TypeParam::wait(door, SocketWait::readable, 0), error::wait_timeout);

    const uint64_t client = this->open(stream);
    ASSERT_EQ(TypeParam::nonblocking(client, true), 0u);
    EXPECT_EQ(TypeParam::connect(client, &address, sizeof address), error::would_block);
    ASSERT_EQ(TypeParam::wait(client, SocketWait::writable, patience_ms), 0u);
    uint32_t pending = 1;
    EXPECT_EQ(TypeParam::take_error(client, pending), 0u);
    EXPECT_EQ(pending, 0u);
    ASSERT_EQ(TypeParam::wait(door, SocketWait::readable, patience_ms), 0u);
    const uint64_t server = this->accept(door);

    char byte = 0;
    EXPECT_EQ(TypeParam::receive(client, &byte, 1, moved), error::would_block);
    std::string flood(1 << 20, 'x');
    uint32_t code = 0;
    uint64_t sent = 0;
    while ((code = TypeParam::send(client, flood.data(), flood.size(), moved)) == 0) sent += moved;
    EXPECT_EQ(code, error::would_block);
    EXPECT_EQ(TypeParam::wait(client, SocketWait::writable, 0), error::wait_timeout);
    while (sent > 0) { // the accepted socket blocks although its listener does not
        ASSERT_EQ(TypeParam::receive(server, flood.data(), flood.size(), moved), 0u);
        sent -= moved;
    }
}

TYPED_TEST(Sockets, BlockingSendMovesEverything) {
    const auto [client, server] = this->connected();
    const std::string block(8 << 20, 'b');
    std::thread sender([&, from = client] { this->send(from, block); });
    uint64_t total = 0;
    std::string buffer(1 << 16, '\0');
    while (total < block.size()) {
        uint64_t moved = 0;
        EXPECT_EQ(TypeParam::receive(server, buffer.data(), buffer.size(), moved), 0u);
        if (moved == 0) break;
        total += moved;
    }
    sender.join();
    EXPECT_EQ(total, block.size());
}

TYPED_TEST(Sockets, RefusedConnectionHasItsCodeAtOnceOrPending) {
    Address address;
    TypeParam::close(this->listener(address));
    EXPECT_EQ(TypeParam::connect(this->open(stream), &address, sizeof address), error::connection_refused);

    const uint64_t client = this->open(stream);
    ASSERT_EQ(TypeParam::nonblocking(client, true), 0u);
    uint32_t code = TypeParam::connect(client, &address, sizeof address), again = 1;
    if (code == error::would_block) {
        ASSERT_EQ(TypeParam::wait(client, SocketWait::writable, patience_ms), 0u);
        ASSERT_EQ(TypeParam::take_error(client, code), 0u);
    }
    EXPECT_EQ(code, error::connection_refused);
    EXPECT_EQ(TypeParam::take_error(client, again), 0u);
    EXPECT_EQ(again, 0u) << "reading takes the error";
}

TYPED_TEST(Sockets, SendAfterTheEndTellsWhoEndedIt) {
    const auto [client, server] = this->connected();
    ASSERT_EQ(TypeParam::shutdown(client, 1), 0u);
    uint64_t moved = 0;
    EXPECT_EQ(TypeParam::send(client, "x", 1, moved), error::socket_shut_down);

    const auto [other, gone] = this->connected();
    const uint16_t abortive[2] = {1, 0};
    ASSERT_EQ(TypeParam::set_option(gone, 0xFFFF, 0x80, abortive, sizeof abortive), 0u);
    ASSERT_EQ(TypeParam::close(gone), 0u);
    ASSERT_EQ(TypeParam::wait(other, SocketWait::readable, patience_ms), 0u);
    EXPECT_EQ(TypeParam::receive(other, &moved, 1, moved), error::connection_reset);
    EXPECT_EQ(TypeParam::send(other, "x", 1, moved), error::connection_reset);
}

TYPED_TEST(Sockets, RebindsOverItsOwnEndedConnections) {
    Address address;
    const uint64_t door = this->listener(address);
    const uint64_t client = this->open(stream);
    ASSERT_EQ(TypeParam::connect(client, &address, sizeof address), 0u);
    const uint64_t server = this->accept(door);
    TypeParam::close(server); // the first to close keeps the address in TIME_WAIT
    EXPECT_EQ(this->receive(client, 1), "");
    TypeParam::close(client);
    EXPECT_EQ(TypeParam::bind(this->open(stream), &address, sizeof address), error::address_in_use);
    TypeParam::close(door);
    const uint64_t next = this->open(stream);
    EXPECT_EQ(TypeParam::bind(next, &address, sizeof address), 0u);
    EXPECT_EQ(TypeParam::listen(next), 0u);
}

TYPED_TEST(Sockets, OwnOptionLevelReadsBackWhatWasSet) {
    struct Row {
        int name;
        int32_t value;
    };
    const uint64_t socket = this->open(stream);
    for (const Row& row : {Row{0x4, 1}, {0x8, 1}, {0x1001, 20000}, {0x1002, 30000}, {0x1005, 1500}, {0x1006, 200}}) {
        int32_t value = -1, length = sizeof value;
        EXPECT_EQ(TypeParam::set_option(socket, 0xFFFF, row.name, &row.value, sizeof row.value), 0u) << row.name;
        EXPECT_EQ(TypeParam::get_option(socket, 0xFFFF, row.name, &value, length), 0u) << row.name;
        EXPECT_EQ(value, row.value) << row.name;
        EXPECT_EQ(length, 4) << row.name;
    }
    const uint16_t linger[2] = {1, 30};
    uint16_t back[2] = {};
    int32_t length = sizeof back, type = 0;
    EXPECT_EQ(TypeParam::set_option(socket, 0xFFFF, 0x80, linger, sizeof linger), 0u);
    EXPECT_EQ(TypeParam::get_option(socket, 0xFFFF, 0x80, back, length), 0u);
    EXPECT_EQ(std::memcmp(linger, back, sizeof back), 0);
    EXPECT_EQ(TypeParam::get_option(socket, 0xFFFF, 0x1008, &type, length), 0u);
    EXPECT_EQ(type, stream);
    EXPECT_EQ(TypeParam::set_option(socket, 0xFFFF, 0x700B, nullptr, 0), 0u);
    EXPECT_EQ(TypeParam::set_option(socket, 0xFFFF, 0x4, &type, 2), error::socket_fault);
    EXPECT_EQ(TypeParam::set_option(socket, 0xFFFF, 0x7777, &type, 4), 10042u);

    const int32_t soon_ms = 20; // the receive time-out of a blocking socket is no "would block"
    const auto [client, server] = this->connected();
    uint64_t moved = 0;
    ASSERT_EQ(TypeParam::set_option(client, 0xFFFF, 0x1006, &soon_ms, sizeof soon_ms), 0u);
    EXPECT_EQ(TypeParam::receive(client, back, sizeof back, moved), error::socket_timed_out);
}

TYPED_TEST(Sockets, DeadAndForeignHandlesAreNoSockets) {
    const uint64_t socket = this->open(stream);
    ASSERT_EQ(TypeParam::close(socket), 0u);
    uint64_t moved = 0;
    for (const uint64_t bad : {socket, uint64_t{0}, uint64_t{1}, VEL_INVALID_SOCKET, uint64_t{1} << 40}) {
        EXPECT_EQ(TypeParam::close(bad), error::not_a_socket) << bad;
        EXPECT_EQ(TypeParam::send(bad, "x", 1, moved), error::not_a_socket) << bad;
        EXPECT_EQ(TypeParam::receive(bad, &moved, 1, moved), error::not_a_socket) << bad;
        EXPECT_EQ(TypeParam::wait(bad, SocketWait::readable, 0), error::not_a_socket) << bad;
        EXPECT_EQ(TypeParam::listen(bad), error::not_a_socket) << bad;
    }
    uint64_t fresh = 0;
    EXPECT_EQ(TypeParam::open(ipv4, stream | 0x800, 0, fresh), 10044u);
    EXPECT_EQ(TypeParam::open(9999, stream, 0, fresh), 10047u);
}

// Either order is right: the call sleeps and is woken, or it starts after the close and is refused.
TYPED_TEST(Sockets, CloseEndsTheCallsThatBlock) {
    const auto receive_on = [](uint64_t socket) {
        char byte;
        uint64_t moved = 0;
        return TypeParam::receive(socket, &byte, 1, moved);
    };
    const auto accept_on = [](uint64_t socket) {
        uint64_t fresh = 0;
        int32_t length = 16;
        Address peer;
        return TypeParam::accept(socket, &peer, length, fresh);
    };
    const auto wait_on = [](uint64_t socket) { return TypeParam::wait(socket, SocketWait::readable, VEL_INFINITE); };

    for (const int head_start : {0, 10, 2000}) {
        Address address;
        const uint64_t sockets[] = {this->listener(address), this->bound(datagram, address), this->connected().client,
                                    this->connected().client};
        uint32_t codes[4] = {1, 1, 1, 1};
        std::thread sleepers[] = {std::thread([&] { codes[0] = accept_on(sockets[0]); }),
                                  std::thread([&] { codes[1] = receive_on(sockets[1]); }),
                                  std::thread([&] { codes[2] = receive_on(sockets[2]); }),
                                  std::thread([&] { codes[3] = wait_on(sockets[3]); })};
        for (int turn = 0; turn < head_start; ++turn) std::this_thread::yield();
        for (const uint64_t socket : sockets) EXPECT_EQ(TypeParam::close(socket), 0u);
        for (std::thread& sleeper : sleepers) sleeper.join();
        for (const uint32_t code : codes) EXPECT_EQ(code, error::not_a_socket) << head_start;
    }
}

TEST(Resolver, AnswersAddressesInHostOrder) {
    uint32_t addresses[4] = {};
    uint32_t count = 4;
    ASSERT_EQ(resolve_host("localhost", addresses, count), 0u);
    ASSERT_GE(count, 1u);
    EXPECT_EQ(addresses[0], loopback);

    char name[260];
    EXPECT_EQ(host_name(name, sizeof name), 0u);
    EXPECT_GT(std::strlen(name), 0u);
    EXPECT_EQ(host_name(name, 0), error::socket_fault);
    count = 4;
    const uint32_t code = resolve_host("no.such.host.invalid", addresses, count);
    EXPECT_GE(code, error::host_not_found);
    EXPECT_LE(code, error::resolver_no_data);
}

} // namespace
} // namespace vel::os
