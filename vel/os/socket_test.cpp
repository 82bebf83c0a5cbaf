// Contract of the socket calls, typed over the back ends that promise it.
#include <vel/testing/completion_port_fixture.h>

namespace vel::os {
namespace {

using testing::Address;
using testing::datagram;
using testing::stream;

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
        EXPECT_EQ(Back::open(testing::ipv4, type, 0, socket), error::none);
        return opened_.emplace_back(socket);
    }

    // A socket bound to a free port of the loopback address.
    uint64_t bound(int type, Address& address) {
        const uint64_t socket = open(type);
        int32_t length = sizeof address;
        address = {};
        EXPECT_EQ(Back::bind(socket, &address, length) + Back::local_name(socket, &address, length), error::none);
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
        return {client, opened_.emplace_back(server), door};
    }

    static uint32_t receive(uint64_t socket) {
        char byte;
        uint64_t moved = 0;
        return Back::receive(socket, &byte, 1, moved);
    }

    uint64_t handles_before_ = open_handle_count();
    std::vector<uint64_t> opened_;
};

TYPED_TEST_SUITE(Sockets, ::testing::Types<SystemSockets>);

TYPED_TEST(Sockets, RefusedResetAndTimedOutAreToldApart) {
    constexpr int own_level = 0xFFFF;
    Address address;
    TypeParam::close(this->bound(stream, address));
    EXPECT_EQ(TypeParam::connect(this->open(stream), &address, sizeof address), error::connection_refused);
    const auto [client, gone, door] = this->connected();
    const int32_t soon_ms = 20;
    const uint16_t abortive[2] = {1, 0};
    uint64_t moved = 0;
    ASSERT_EQ(TypeParam::set_option(client, own_level, 0x1006, &soon_ms, sizeof soon_ms), error::none);
    EXPECT_EQ(this->receive(client), error::socket_timed_out);
    ASSERT_EQ(TypeParam::set_option(gone, own_level, 0x80, abortive, sizeof abortive), error::none);
    ASSERT_EQ(TypeParam::close(gone), error::none);
    ASSERT_EQ(TypeParam::wait(client, SocketWait::readable, testing::patience_ms), error::none);
    EXPECT_EQ(this->receive(client), error::connection_reset);
    EXPECT_EQ(TypeParam::send(client, "x", 1, moved), error::connection_reset);
}

TYPED_TEST(Sockets, RebindsOverItsOwnEndedConnectionsOnly) {
    const auto [client, server, door] = this->connected();
    Address address;
    int32_t length = sizeof address;
    ASSERT_EQ(TypeParam::local_name(door, &address, length), error::none);
    TypeParam::close(server); // the first to close keeps the address in TIME_WAIT
    EXPECT_EQ(this->receive(client), error::none);
    TypeParam::close(client);
    EXPECT_EQ(TypeParam::bind(this->open(stream), &address, sizeof address), error::address_in_use);
    TypeParam::close(door);
    EXPECT_EQ(TypeParam::bind(this->open(stream), &address, sizeof address), error::none);
}

// Either order is right: the call sleeps and is woken, or it starts after the close and is refused.
TYPED_TEST(Sockets, CloseEndsTheCallsThatBlock) {
    for (const int head_start : {0, 10, 2000}) {
        Address address;
        const uint64_t sockets[] = {this->bound(stream, address), this->bound(datagram, address), this->connected()[0],
                                    this->connected()[0]};
        uint32_t codes[4] = {1, 1, 1, 1};
        uint64_t fresh = 0;
        int32_t length = sizeof address;
        std::thread sleepers[] = {
            std::thread([&] { codes[0] = TypeParam::accept(sockets[0], &address, length, fresh); }),
            std::thread([&] { codes[1] = this->receive(sockets[1]); }),
            std::thread([&] { codes[2] = this->receive(sockets[2]); }),
            std::thread([&] { codes[3] = TypeParam::wait(sockets[3], SocketWait::readable, VEL_INFINITE); })};
        for (int turn = 0; turn < head_start; ++turn) std::this_thread::yield();
        for (const uint64_t socket : sockets) EXPECT_EQ(TypeParam::close(socket), error::none);
        for (std::thread& sleeper : sleepers) sleeper.join();
        for (const uint32_t code : codes) EXPECT_EQ(code, error::not_a_socket) << head_start;
    }
}

} // namespace
} // namespace vel::os
