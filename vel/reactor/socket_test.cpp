// The socket object: what it adds to the free functions.
#include <vel/reactor/socket.h>

#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>

namespace {

namespace error = vel::error;

constexpr uint32_t patience_ms = 5000;

struct Connection {
    Connection() {
        EXPECT_EQ(door.open(2, 1, 0), 0);
        EXPECT_EQ(door.bind(0, "127.0.0.1"), 0);
        EXPECT_EQ(door.listen(), 0);
        EXPECT_EQ(door.getlocaladdr(address), 0);
        EXPECT_EQ(client.open(2, 1, 0), 0);
        EXPECT_EQ(client.connect("127.0.0.1", address.getport()), 0);
        EXPECT_EQ(door.accept(server), 0);
    }

    VEL_Socket door, client, server;
    VEL_INET_Addr address;
};

TEST(Socket, PeerCloseIsRememberedUntilAnotherSocketIsHeld) {
    Connection one;
    char buffer[8];
    ASSERT_EQ(one.server.send("bye", 3), 3);
    one.server.close();
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer), 3);
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer), 0);
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer, 0), 0) << "asked the socket, which would be no time-out";

    VEL_Socket next;
    ASSERT_EQ(next.open(2, 1, 0), 0);
    ASSERT_EQ(next.connect(one.address, patience_ms), 0);
    one.client.close();
    ASSERT_EQ(one.door.accept(one.client, patience_ms), 0);
    ASSERT_EQ(next.send("hi", 2, patience_ms), 2);
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer, patience_ms), 2);
}

TEST(Socket, AcceptNamesThePeerAndDatagramsNameTheSender) {
    Connection one;
    VEL_Socket client(2, 1, 0), server, left(2, 2, 0), right(2, 2, 0);
    VEL_INET_Addr peer, own, from;
    ASSERT_EQ(client.connect(one.address), 0);
    ASSERT_EQ(one.door.accept(server, peer, patience_ms), 0);
    EXPECT_EQ(client.getlocaladdr(own), 0);
    EXPECT_EQ(peer, own);

    ASSERT_EQ(left.bind(0, 0x7F000001), 0);
    ASSERT_EQ(right.bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(right.getlocaladdr(peer), 0);
    ASSERT_EQ(left.getlocaladdr(own), 0);
    char buffer[4];
    EXPECT_EQ(left.sendto("ab", 2, peer), 2);
    EXPECT_EQ(right.recvfrom(buffer, sizeof buffer, from, patience_ms), 2);
    EXPECT_EQ(from, own);
}

TEST(Socket, OwnsWhatItHoldsAndRefusesWithoutOne) {
    const uint64_t before = vel::os::open_handle_count();
    VEL_Socket closed;
    {
        VEL_Socket socket(2, 1, 0), other;
        EXPECT_EQ(other.attach(VELLib::socket(2, 2, 0)), 0);
        EXPECT_EQ(vel::os::open_handle_count(), before + 2);
        EXPECT_EQ(socket.register_event_select(nullptr, nullptr, 4), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::null_member);
    }
    EXPECT_EQ(vel::os::open_handle_count(), before);
    EXPECT_THROW(VEL_Socket(9999, 1, 0), VEL_Exception);
    const auto refused = [](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_a_socket);
        VELLib::SetErrorCode(0);
    };
    char byte = 0;
    refused(closed.accept(closed, patience_ms));
    refused(closed.bind(1, "no.such.host.invalid")); // before the name is looked up
    refused(closed.connect("no.such.host.invalid", 1));
    refused(closed.recv(&byte, 1, 0));
}

} // namespace
