// Free socket functions: time-outs, modes they leave behind, and their error codes.
#include <vel/platform/sockets.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <vel/frame/error.h>
#include <vel/os/completion_port.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/platform/dotted_quad.h>

namespace {

namespace error = vel::error;

constexpr uint32_t patience_ms = 5000;
constexpr int own_level = 0xFFFF;

class SocketFunctions : public ::testing::Test {
protected:
    struct Pair {
        uint64_t client;
        uint64_t server;
    };

    void TearDown() override {
        for (const uint64_t socket : opened_) VELLib::closesocket(socket);
        EXPECT_EQ(vel::os::open_handle_count(), handles_before_);
    }

    uint64_t keep(uint64_t socket) {
        EXPECT_NE(socket, VEL_INVALID_SOCKET) << VELLib::GetErrorCode();
        opened_.push_back(socket);
        return socket;
    }

    uint64_t bound(int type, VEL_INET_Addr& address) {
        const uint64_t socket = keep(VELLib::socket(2, type, 0));
        EXPECT_EQ(VELLib::bind(socket, VEL_INET_Addr(0, "127.0.0.1")), 0);
        EXPECT_EQ(VELLib::getsockname(socket, address), 0);
        return socket;
    }

    uint64_t listener(VEL_INET_Addr& address) {
        const uint64_t socket = bound(1, address);
        EXPECT_EQ(VELLib::listen(socket), 0);
        return socket;
    }

    Pair connected() {
        VEL_INET_Addr address, peer;
        const uint64_t door = listener(address);
        const uint64_t client = keep(VELLib::socket(2, 1, 0));
        EXPECT_EQ(VELLib::connect(client, address), 0);
        return {client, keep(VELLib::accept(door, peer))};
    }

    // A blocking socket sits out its own receive time-out, a non-blocking one says so at once.
    static bool is_blocking(uint64_t socket) {
        const int32_t soon_ms = 1, never = 0;
        char byte;
        EXPECT_EQ(VELLib::setsockopt(socket, own_level, 0x1006, &soon_ms, sizeof soon_ms), 0);
        EXPECT_EQ(VELLib::recv(socket, &byte, 1, nullptr), -1);
        const uint32_t code = VELLib::GetErrorCode();
        EXPECT_TRUE(code == error::socket_timed_out || code == error::would_block) << code;
        EXPECT_EQ(VELLib::setsockopt(socket, own_level, 0x1006, &never, sizeof never), 0);
        return code == error::socket_timed_out;
    }

    uint64_t handles_before_ = vel::os::open_handle_count();
    std::vector<uint64_t> opened_;
};

TEST_F(SocketFunctions, TimedAcceptAndConnectMeet) {
    VEL_INET_Addr address, peer(1, 1), own;
    const uint64_t door = listener(address);
    EXPECT_EQ(VELLib::accept(door, peer, 0), VEL_INVALID_SOCKET);
    EXPECT_EQ(VELLib::GetErrorCode(), error::wait_timeout);
    EXPECT_EQ(peer, VEL_INET_Addr());
    EXPECT_EQ(VELLib::accept(door, peer), VEL_INVALID_SOCKET) << "the listener stays non-blocking";
    EXPECT_EQ(VELLib::GetErrorCode(), error::would_block);

    const uint64_t client = keep(VELLib::socket(2, 1, 0));
    ASSERT_EQ(VELLib::connect(client, address, patience_ms), 0);
    EXPECT_FALSE(is_blocking(client));
    const uint64_t server = keep(VELLib::accept(door, peer, patience_ms));
    EXPECT_TRUE(is_blocking(server));
    EXPECT_EQ(VELLib::getsockname(client, own), 0);
    EXPECT_EQ(peer, own);
    EXPECT_EQ(VELLib::getpeername(client, own), 0);
    EXPECT_EQ(own, address);
    EXPECT_EQ(own.length(), 16);
}

TEST_F(SocketFunctions, TimedConnectReportsTheRefusal) {
    VEL_INET_Addr address;
    VELLib::closesocket(listener(address));
    EXPECT_EQ(VELLib::connect(keep(VELLib::socket(2, 1, 0)), address, patience_ms), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::connection_refused);
    EXPECT_EQ(VELLib::connect(keep(VELLib::socket(2, 1, 0)), address), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::connection_refused);
}

TEST_F(SocketFunctions, TimedReceiveJudgesTheCloseAfterTheBytes) {
    const auto [client, server] = connected();
    char buffer[8];
    bool closed = true;
    EXPECT_EQ(VELLib::recv(client, buffer, sizeof buffer, closed, 0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::wait_timeout);
    EXPECT_FALSE(closed);
    EXPECT_FALSE(is_blocking(client));

    ASSERT_EQ(VELLib::send(server, "abcde", 5, nullptr), 5);
    ASSERT_EQ(VELLib::shutdown(server, 1), 0);
    EXPECT_EQ(VELLib::getrecvnum(client), 5);
    EXPECT_EQ(VELLib::recv(client, buffer, 2, closed, patience_ms), 2);
    EXPECT_FALSE(closed) << "three bytes are left";
    EXPECT_EQ(VELLib::recv(client, buffer, 8, closed, patience_ms), 3);
    EXPECT_TRUE(closed);
    EXPECT_EQ(VELLib::recv(client, buffer, 8, closed, patience_ms), 0);
    EXPECT_TRUE(closed);
}

TEST_F(SocketFunctions, TimedReceiveOnABrokenConnectionHidesTheCode) {
    const auto [client, server] = connected();
    const uint16_t abortive[2] = {1, 0};
    ASSERT_EQ(VELLib::setsockopt(server, own_level, 0x80, abortive, sizeof abortive), 0);
    VELLib::closesocket(server);
    char byte;
    bool closed = true;
    EXPECT_EQ(VELLib::recv(client, &byte, 1, closed, patience_ms), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::unknown);
    EXPECT_FALSE(closed);
}

TEST_F(SocketFunctions, TimedSendFillsTheSocketAndLeavesItBlocking) {
    const auto [client, server] = connected();
    const std::string flood(1 << 20, 'f');
    ASSERT_EQ(VELLib::sock_enable_nonblock(client), 0);
    int sent;
    uint64_t total = 0;
    while ((sent = VELLib::send(client, flood.data(), flood.size(), 1)) > 0) total += static_cast<uint64_t>(sent);
    EXPECT_EQ(VELLib::GetErrorCode(), error::wait_timeout);
    EXPECT_TRUE(is_blocking(client));

    std::string sink(flood.size(), '\0');
    while (total > 0) {
        const int received = VELLib::recv(server, sink.data(), sink.size(), nullptr);
        ASSERT_GT(received, 0);
        total -= static_cast<uint64_t>(received);
    }
    EXPECT_EQ(VELLib::send(client, "x", 1, 0), 1) << "a literal 0 is a time-out";
}

TEST_F(SocketFunctions, DatagramsWithAndWithoutTimeOut) {
    VEL_INET_Addr here, there, from;
    const uint64_t sender = bound(2, here), receiver = bound(2, there);
    char buffer[8];
    EXPECT_EQ(VELLib::recvfrom(receiver, buffer, sizeof buffer, from, 0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::wait_timeout);
    EXPECT_EQ(VELLib::sendto(sender, "timed", 5, there, patience_ms), 5);
    EXPECT_EQ(VELLib::sendto(sender, "plain", 5, there, nullptr), 5);
    EXPECT_EQ(VELLib::recvfrom(receiver, buffer, sizeof buffer, from, patience_ms), 5);
    EXPECT_EQ(from, here);
    EXPECT_EQ(VELLib::recvfrom(receiver, buffer, 2, from, patience_ms), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::message_too_long);
    EXPECT_EQ(VELLib::recvfrom(receiver, buffer, 2, from, nullptr), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::would_block);
    EXPECT_TRUE(is_blocking(sender));
}

TEST_F(SocketFunctions, OnlyTheLowHalfOfASizeCounts) {
    const auto [client, server] = connected();
    constexpr uint64_t four_gib = uint64_t{1} << 32;
    char buffer[8];
    EXPECT_EQ(VELLib::send(client, "abc", four_gib + 3, nullptr), 3);
    EXPECT_EQ(VELLib::recv(server, buffer, four_gib + 2, nullptr), 2);
    EXPECT_EQ(VELLib::getrecvnum(server), 1);
}

TEST_F(SocketFunctions, OverlappedCallsOnASocketWithoutAPortAreDoneAtOnce) {
    const auto [client, server] = connected();
    OVERLAPPED record{};
    char buffer[8];
    EXPECT_EQ(VELLib::send(client, "now", 3, &record), 3);
    EXPECT_EQ(record.InternalHigh, 3u);
    record = {};
    EXPECT_EQ(VELLib::recv(server, buffer, sizeof buffer, &record), 3);
    EXPECT_EQ(record.InternalHigh, 3u);

    VEL_INET_Addr here, there, from;
    const uint64_t sender = bound(2, here), receiver = bound(2, there);
    record = {};
    EXPECT_EQ(VELLib::sendto(sender, "dgram", 5, there, &record), 5);
    EXPECT_EQ(record.InternalHigh, 5u);
    record = {};
    EXPECT_EQ(VELLib::recvfrom(receiver, buffer, sizeof buffer, from, &record), 5);
    EXPECT_EQ(record.InternalHigh, 5u);
    EXPECT_EQ(from, here);
}

TEST_F(SocketFunctions, OverlappedCallsOnASocketOfAPortArriveThere) {
    const auto [client, server] = connected();
    void* port = nullptr;
    ASSERT_EQ(vel::os::create_port(1, port), 0u);
    ASSERT_EQ(vel::os::associate(port, reinterpret_cast<void*>(server), 7), 0u);
    OVERLAPPED record{};
    char buffer[8];
    EXPECT_EQ(VELLib::recv(server, buffer, sizeof buffer, &record), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::io_pending);
    ASSERT_EQ(VELLib::send(client, "later", 5, nullptr), 5);
    vel::os::Completion completion{};
    EXPECT_EQ(vel::os::wait_completion(port, patience_ms, completion), 0u);
    EXPECT_EQ(completion.record, &record);
    EXPECT_EQ(completion.bytes, 5u);
    EXPECT_EQ(completion.key, 7u);
    EXPECT_EQ(vel::os::close_port(port), 0u);
}

TEST_F(SocketFunctions, WrongLengthsNeverReachBeyondTheRecord) {
    VEL_INET_Addr address;
    const uint64_t socket = bound(2, address);
    for (const int length : {-5, 0, 4, 1000}) {
        address.length() = length;
        EXPECT_EQ(VELLib::getsockname(socket, address), 0) << length;
        EXPECT_EQ(address.length(), 16) << length;
    }
    address.length() = 1000;
    EXPECT_EQ(VELLib::sendto(socket, "x", 1, address, nullptr), 1);
    address.length() = -1;
    EXPECT_EQ(VELLib::connect(socket, address), -1);
}

TEST_F(SocketFunctions, DeadSocketsAreRefusedEverywhere) {
    const uint64_t dead = VELLib::socket(2, 1, 0);
    VELLib::closesocket(dead);
    VELLib::closesocket(dead);
    VEL_INET_Addr address;
    char byte = 0;
    bool closed = false;
    int length = 1;
    auto refused = [](auto result) {
        EXPECT_EQ(static_cast<int64_t>(result), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_a_socket);
        VELLib::SetErrorCode(0);
    };
    refused(VELLib::bind(dead, address));
    refused(VELLib::listen(dead));
    refused(VELLib::accept(dead, address));
    refused(VELLib::accept(dead, address, 0));
    refused(VELLib::connect(dead, address));
    refused(VELLib::connect(dead, address, 0));
    refused(VELLib::recv(dead, &byte, 1, closed, 0));
    refused(VELLib::recv(dead, &byte, 1, nullptr));
    refused(VELLib::recvfrom(dead, &byte, 1, address, 0));
    refused(VELLib::send(dead, &byte, 1, 0));
    refused(VELLib::send(dead, &byte, 1, nullptr));
    refused(VELLib::sendto(dead, &byte, 1, address, 0));
    OVERLAPPED record{};
    refused(VELLib::recv(dead, &byte, 1, &record));
    refused(VELLib::recvfrom(dead, &byte, 1, address, &record));
    refused(VELLib::send(dead, &byte, 1, &record));
    refused(VELLib::sendto(dead, &byte, 1, address, &record));
    refused(VELLib::getpeername(dead, address));
    refused(VELLib::getsockname(dead, address));
    refused(VELLib::getsockopt(dead, own_level, 4, &byte, length));
    refused(VELLib::setsockopt(dead, own_level, 4, &byte, 1));
    refused(VELLib::shutdown(dead, 2));
    refused(VELLib::getrecvnum(dead));
    refused(VELLib::sock_enable_nonblock(dead));
    refused(VELLib::sock_disable_nonblock(dead));
}

TEST_F(SocketFunctions, OwnAddressIsTextOfTheRightSize) {
    char text[16];
    if (VELLib::getlocalip(text, sizeof text) < 0) {
        EXPECT_GE(VELLib::GetErrorCode(), error::host_not_found);
        EXPECT_LE(VELLib::GetErrorCode(), error::resolver_failed);
        GTEST_SKIP() << "the name of this host has no address";
    }
    EXPECT_TRUE(vel::is_dotted_quad(text)) << text;
    const size_t length = std::strlen(text);
    char exact[16];
    EXPECT_EQ(VELLib::getlocalip(exact, length + 1), 0);
    EXPECT_STREQ(exact, text);
    EXPECT_EQ(VELLib::getlocalip(exact, length), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::insufficient_buffer);
}

} // namespace
