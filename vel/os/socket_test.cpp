// Contract of the socket calls.
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

using Sockets = OsTest;

TEST_F(Sockets, AResetIsToldToReceiveAndSend) {
    const auto [gone, left] = connected();
    uint64_t moved = 0;
    ASSERT_EQ(close_socket(gone), error::none);
    ASSERT_EQ(wait_socket(left, SocketWait::readable, patience_ms), error::none);
    EXPECT_EQ(receive_some(left), error::connection_reset);
    EXPECT_EQ(send(left, "x", 1, moved), error::connection_reset);
}

TEST_F(Sockets, RebindsOverItsOwnEndedConnectionsOnly) {
    Address address;
    const uint64_t door = keep(open_listener(address));
    const Pair pair = connect_pair(door, address);
    reset_on_close(pair.client, 0);
    close_socket(pair.server); // the first to close keeps the address in TIME_WAIT
    EXPECT_EQ(receive_some(pair.client), error::none);
    close_socket(pair.client);
    EXPECT_EQ(bind_socket(keep(open(stream)), &address, sizeof address), error::address_in_use);
    close_socket(door);
    EXPECT_EQ(bind_socket(keep(open(stream)), &address, sizeof address), error::none);
}

// Either order is right: the call sleeps and is woken, or it starts after the close and is refused.
TEST_F(Sockets, CloseEndsTheCallsThatBlock) {
    for (const int head_start : {0, 10, 2000}) {
        Address address, peer;
        const uint64_t sockets[] = {keep(open_listener(address)), keep(open_bound(datagram, address)),
                                    connected().server, connected().server};
        const auto call = [&](int which) {
            int32_t length = sizeof peer;
            uint64_t fresh = 0;
            if (which == 0) return accept_socket(sockets[0], &peer, length, fresh);
            if (which == 3) return wait_socket(sockets[3], SocketWait::readable, VEL_INFINITE);
            return receive_some(sockets[which]);
        };
        const auto sleepers = crew(4, [&](int which) { EXPECT_EQ(call(which), error::not_a_socket) << head_start; });
        for (int turn = 0; turn < head_start; ++turn) std::this_thread::yield();
        for (const uint64_t socket : sockets) EXPECT_EQ(close_socket(socket), error::none);
    }
}

} // namespace
} // namespace vel::os::testing
