// Free socket functions: time-outs, modes they leave behind, and their error codes.
#include <vel/platform/sockets.h>

#include <vel/testing/expect_failure.h>
#include <vel/testing/os_fixture.h>

namespace {

namespace error = vel::error;
using vel::os::testing::own_level;
using vel::os::testing::patience_ms;
using vel::testing::expect_failure;

class SocketFunctions : public vel::os::testing::OsTest {
protected:
    uint64_t fresh() { return keep(VELLib::socket(2, 1, 0)); }

    // A blocking socket sits out its own receive time-out, a non-blocking one says so at once.
    static void expect_mode(uint64_t socket, uint32_t code) {
        const int32_t soon_ms = 1;
        char byte;
        EXPECT_EQ(VELLib::setsockopt(socket, own_level, 0x1006, &soon_ms, sizeof soon_ms), 0);
        expect_failure(code, VELLib::recv(socket, &byte, 1, nullptr));
    }
};

TEST_F(SocketFunctions, TimedAcceptAndConnectMeet) {
    VEL_INET_Addr address, peer(1, 1), own;
    const uint64_t door = fresh();
    EXPECT_EQ(VELLib::bind(door, VEL_INET_Addr(0, "127.0.0.1")), 0);
    EXPECT_EQ(VELLib::getsockname(door, address) + VELLib::listen(door), 0);
    expect_failure(error::wait_timeout, VELLib::accept(door, peer, 0));
    EXPECT_EQ(peer, VEL_INET_Addr());
    expect_failure(error::would_block, VELLib::accept(door, peer)); // the listener stays non-blocking
    const uint64_t client = fresh();
    ASSERT_EQ(VELLib::connect(client, address, patience_ms), 0);
    expect_mode(client, error::would_block);
    expect_mode(keep(VELLib::accept(door, peer, patience_ms)), error::socket_timed_out);
    EXPECT_EQ(VELLib::getsockname(client, own), 0);
    EXPECT_EQ(peer, own);

    VELLib::closesocket(door);
    expect_failure(error::connection_refused, VELLib::connect(fresh(), address, patience_ms));
}

TEST_F(SocketFunctions, TimedReceiveJudgesTheCloseAfterTheBytes) {
    const auto [server, client] = connected();
    char buffer[8];
    bool closed = true;
    expect_failure(error::wait_timeout, VELLib::recv(client, buffer, sizeof buffer, closed, 0));
    EXPECT_FALSE(closed);
    expect_mode(client, error::would_block);
    constexpr uint64_t four_gib = uint64_t{1} << 32; // only the low half of a size counts
    ASSERT_EQ(VELLib::send(server, "abcde", four_gib + 5, nullptr), 5);
    ASSERT_EQ(VELLib::shutdown(server, 1), 0);
    EXPECT_EQ(VELLib::getrecvnum(client), 5);
    EXPECT_EQ(VELLib::recv(client, buffer, four_gib + 2, closed, patience_ms), 2);
    EXPECT_FALSE(closed) << "three bytes are left";
    EXPECT_EQ(VELLib::recv(client, buffer, 8, closed, patience_ms), 3);
    EXPECT_TRUE(closed);
    EXPECT_EQ(VELLib::recv(client, buffer, 8, closed, patience_ms), 0);

    const auto [gone, left] = connected(); // its close is a reset
    VELLib::closesocket(gone);
    expect_failure(error::connection_reset, VELLib::recv(left, buffer, 1, closed, patience_ms));
    EXPECT_FALSE(closed);
    expect_failure(error::unknown, VELLib::recv(fresh(), buffer, 1, closed, patience_ms)); // hides the code
}

} // namespace
