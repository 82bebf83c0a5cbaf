// Free socket functions: time-outs, modes they leave behind, and their error codes.
#include <vel/platform/sockets.h>

#include <gtest/gtest.h>
#include <vector>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/testing/expect_failure.h>

namespace {

namespace error = vel::error;
using vel::testing::expect_failure;
constexpr uint32_t patience_ms = 5000;
constexpr int own_level = 0xFFFF;

class SocketFunctions : public ::testing::Test {
protected:
    void TearDown() override {
        for (const uint64_t socket : opened_) VELLib::closesocket(socket);
    }
    uint64_t keep(uint64_t socket) {
        EXPECT_NE(socket, VEL_INVALID_SOCKET) << VELLib::GetErrorCode();
        return opened_.emplace_back(socket);
    }
    uint64_t fresh() { return keep(VELLib::socket(2, 1, 0)); }
    uint64_t listener(VEL_INET_Addr& address) {
        const uint64_t socket = fresh();
        EXPECT_EQ(VELLib::bind(socket, VEL_INET_Addr(0, "127.0.0.1")), 0);
        EXPECT_EQ(VELLib::getsockname(socket, address), 0);
        EXPECT_EQ(VELLib::listen(socket), 0);
        return socket;
    }
    void connect_pair() {
        VEL_INET_Addr address, peer;
        const uint64_t door = listener(address);
        client_ = fresh();
        ASSERT_EQ(VELLib::connect(client_, address), 0);
        server_ = keep(VELLib::accept(door, peer));
    }
    // A blocking socket sits out its own receive time-out, a non-blocking one says so at once.
    static void expect_mode(uint64_t socket, uint32_t code) {
        const int32_t soon_ms = 1;
        char byte;
        EXPECT_EQ(VELLib::setsockopt(socket, own_level, 0x1006, &soon_ms, sizeof soon_ms), 0);
        expect_failure(code, VELLib::recv(socket, &byte, 1, nullptr));
    }

    uint64_t client_ = 0, server_ = 0;
    std::vector<uint64_t> opened_;
};

TEST_F(SocketFunctions, TimedAcceptAndConnectMeet) {
    VEL_INET_Addr address, peer(1, 1), own;
    const uint64_t door = listener(address);
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
    connect_pair();
    char buffer[8];
    bool closed = true;
    expect_failure(error::wait_timeout, VELLib::recv(client_, buffer, sizeof buffer, closed, 0));
    EXPECT_FALSE(closed);
    expect_mode(client_, error::would_block);
    constexpr uint64_t four_gib = uint64_t{1} << 32; // only the low half of a size counts
    ASSERT_EQ(VELLib::send(server_, "abcde", four_gib + 5, nullptr), 5);
    ASSERT_EQ(VELLib::shutdown(server_, 1), 0);
    EXPECT_EQ(VELLib::getrecvnum(client_), 5);
    EXPECT_EQ(VELLib::recv(client_, buffer, four_gib + 2, closed, patience_ms), 2);
    EXPECT_FALSE(closed) << "three bytes are left";
    EXPECT_EQ(VELLib::recv(client_, buffer, 8, closed, patience_ms), 3);
    EXPECT_TRUE(closed);
    EXPECT_EQ(VELLib::recv(client_, buffer, 8, closed, patience_ms), 0);

    connect_pair();
    const uint16_t abortive[2] = {1, 0};
    ASSERT_EQ(VELLib::setsockopt(server_, own_level, 0x80, abortive, sizeof abortive), 0);
    VELLib::closesocket(server_);
    expect_failure(error::unknown, VELLib::recv(client_, buffer, 1, closed, patience_ms)); // hides the code
    EXPECT_FALSE(closed);
}

} // namespace
