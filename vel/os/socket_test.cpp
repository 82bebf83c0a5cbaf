// Contract of the socket calls, typed over the back ends that promise it.
#include <vel/os/socket.h>

#include <array>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

constexpr int ipv4 = 2, stream = 1, datagram = 2, own_level = 0xFFFF;
constexpr uint32_t patience_ms = 5000;

// The 16-byte record; port and address in network order.
struct Address {
    uint16_t family = ipv4;
    uint16_t port = 0;
    std::array<uint8_t, 4> host{127, 0, 0, 1};
    std::array<uint8_t, 8> zero{};
};

// The system's own sockets. Another back end is a struct with the same names.
struct SystemSockets {
    static constexpr auto open = open_socket;
    static constexpr auto close = close_socket;
    static constexpr auto bind = bind_socket;
    static constexpr auto accept = accept_socket;
    static constexpr auto listen = listen_socket;
    static constexpr auto connect = connect_socket;
    static constexpr auto receive = os::receive;
    static constexpr auto send = os::send;
    static constexpr auto wait = wait_socket;
    static constexpr auto local_name = os::local_name;
    static constexpr auto set_option = os::set_option;
};

template <class Back>
class Sockets : public ::testing::Test {
protected:
    void TearDown() override {
        for (uint64_t socket : opened_) Back::close(socket);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint64_t open(int type) {
        uint64_t socket = VEL_INVALID_SOCKET;
        EXPECT_EQ(Back::open(ipv4, type, 0, socket), error::none);
        opened_.push_back(socket);
        return socket;
    }

    // A socket bound to a free port of the loopback address.
    uint64_t bound(int type, Address& address) {
        const uint64_t socket = open(type);
        int32_t length = sizeof address;
        address = {};
        EXPECT_EQ(Back::bind(socket, &address, length), error::none);
        EXPECT_EQ(Back::local_name(socket, &address, length), error::none);
        EXPECT_TRUE(type != stream || Back::listen(socket) == error::none);
        return socket;
    }

    // The client of a connection, its server and the socket that accepted it.
    std::array<uint64_t, 3> connected() {
        Address address;
        const uint64_t door = bound(stream, address), client = open(stream);
        int32_t length = sizeof address;
        uint64_t server = VEL_INVALID_SOCKET;
        EXPECT_EQ(Back::connect(client, &address, length), error::none);
        EXPECT_EQ(Back::accept(door, &address, length, server), error::none);
        opened_.push_back(server);
        return {client, server, door};
    }

    uint64_t handles_before_ = open_handle_count();
    std::vector<uint64_t> opened_;
};

TYPED_TEST_SUITE(Sockets, ::testing::Types<SystemSockets>);

TYPED_TEST(Sockets, RefusedResetAndTimedOutAreToldApart) {
    Address address;
    TypeParam::close(this->bound(stream, address));
    EXPECT_EQ(TypeParam::connect(this->open(stream), &address, sizeof address), error::connection_refused);
    const auto [client, gone, door] = this->connected();
    const int32_t soon_ms = 20;
    const uint16_t abortive[2] = {1, 0};
    uint64_t moved = 0;
    ASSERT_EQ(TypeParam::set_option(client, own_level, 0x1006, &soon_ms, sizeof soon_ms), error::none);
    EXPECT_EQ(TypeParam::receive(client, &moved, 1, moved), error::socket_timed_out);
    ASSERT_EQ(TypeParam::set_option(gone, own_level, 0x80, abortive, sizeof abortive), error::none);
    ASSERT_EQ(TypeParam::close(gone), error::none);
    ASSERT_EQ(TypeParam::wait(client, SocketWait::readable, patience_ms), error::none);
    EXPECT_EQ(TypeParam::receive(client, &moved, 1, moved), error::connection_reset);
    EXPECT_EQ(TypeParam::send(client, "x", 1, moved), error::connection_reset);
}

TYPED_TEST(Sockets, RebindsOverItsOwnEndedConnectionsOnly) {
    const auto [client, server, door] = this->connected();
    Address address;
    int32_t length = sizeof address;
    ASSERT_EQ(TypeParam::local_name(door, &address, length), error::none);
    TypeParam::close(server); // the first to close keeps the address in TIME_WAIT
    uint64_t moved = 1;
    EXPECT_EQ(TypeParam::receive(client, &moved, 1, moved), error::none);
    TypeParam::close(client);
    EXPECT_EQ(TypeParam::bind(this->open(stream), &address, sizeof address), error::address_in_use);
    TypeParam::close(door);
    EXPECT_EQ(TypeParam::bind(this->open(stream), &address, sizeof address), error::none);
}

// Either order is right: the call sleeps and is woken, or it starts after the close and is refused.
TYPED_TEST(Sockets, CloseEndsTheCallsThatBlock) {
    const auto receive_on = [](uint64_t socket) {
        uint64_t moved = 0;
        return TypeParam::receive(socket, &moved, 1, moved);
    };
    for (const int head_start : {0, 10, 2000}) {
        Address address;
        const uint64_t sockets[] = {this->bound(stream, address), this->bound(datagram, address), this->connected()[0],
                                    this->connected()[0]};
        uint32_t codes[4] = {1, 1, 1, 1};
        uint64_t fresh = 0;
        int32_t length = sizeof address;
        std::thread sleepers[] = {
            std::thread([&] { codes[0] = TypeParam::accept(sockets[0], &address, length, fresh); }),
            std::thread([&] { codes[1] = receive_on(sockets[1]); }),
            std::thread([&] { codes[2] = receive_on(sockets[2]); }),
            std::thread([&] { codes[3] = TypeParam::wait(sockets[3], SocketWait::readable, VEL_INFINITE); })};
        for (int turn = 0; turn < head_start; ++turn) std::this_thread::yield();
        for (const uint64_t socket : sockets) EXPECT_EQ(TypeParam::close(socket), error::none);
        for (std::thread& sleeper : sleepers) sleeper.join();
        for (const uint32_t code : codes) EXPECT_EQ(code, error::not_a_socket) << head_start;
    }
}

} // namespace
} // namespace vel::os
