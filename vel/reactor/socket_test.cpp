// The socket object: what it adds to the free functions.
#include <vel/reactor/socket.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
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
    ASSERT_EQ(next.shutdown(1), 0);
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer, patience_ms), 0);
    const uint64_t held = one.client.get_socket();
    VELLib::closesocket(held);
    EXPECT_EQ(one.client.recv(buffer, sizeof buffer), 0) << "answered from memory";
}

TEST(Socket, AcceptNamesThePeerAndDatagramsNameTheSender) {
    Connection one;
    VEL_Socket client, server;
    VEL_INET_Addr peer, own, from;
    ASSERT_EQ(client.open(2, 1, 0), 0);
    ASSERT_EQ(client.connect(one.address), 0);
    ASSERT_EQ(one.door.accept(server, peer, patience_ms), 0);
    EXPECT_EQ(client.getlocaladdr(own), 0);
    EXPECT_EQ(peer, own);
    EXPECT_EQ(server.getpeeraddr(peer), 0);
    EXPECT_EQ(peer, own);

    VEL_Socket left(2, 2, 0), right(2, 2, 0);
    ASSERT_EQ(left.bind(0, 0x7F000001), 0);
    ASSERT_EQ(right.bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(right.getlocaladdr(peer), 0);
    ASSERT_EQ(left.getlocaladdr(own), 0);
    char buffer[4];
    EXPECT_EQ(left.sendto("ab", 2, peer), 2);
    EXPECT_EQ(right.recvfrom(buffer, sizeof buffer, from, patience_ms), 2);
    EXPECT_EQ(from, own);
}

TEST(Socket, ClosedSocketRefusesEverything) {
    VEL_Socket socket, other;
    VEL_INET_Addr address;
    char byte = 0;
    int length = 1;
    auto refused = [](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_a_socket);
        VELLib::SetErrorCode(0);
    };
    refused(socket.accept(other));
    refused(socket.accept(other, address));
    refused(socket.accept(other, patience_ms));
    refused(socket.accept(other, address, patience_ms));
    refused(socket.bind(address));
    refused(socket.bind(1, 0));
    refused(socket.bind(1, "no.such.host.invalid"));
    refused(socket.connect(address));
    refused(socket.connect(address, 0));
    refused(socket.connect("no.such.host.invalid", 1));
    refused(socket.connect("no.such.host.invalid", 1, 0));
    refused(socket.listen());
    refused(socket.recv(&byte, 1));
    refused(socket.recv(&byte, 1, 0));
    refused(socket.recvfrom(&byte, 1, address));
    refused(socket.recvfrom(&byte, 1, address, 0));
    refused(socket.send(&byte, 1));
    refused(socket.send(&byte, 1, 0));
    refused(socket.sendto(&byte, 1, address));
    refused(socket.sendto(&byte, 1, address, 0));
    refused(socket.getlocaladdr(address));
    refused(socket.getpeeraddr(address));
    refused(socket.getrecvnum());
    refused(socket.get_option(0xFFFF, 4, &byte, length));
    refused(socket.set_option(0xFFFF, 4, &byte, 1));
    refused(socket.shutdown(2));
    refused(socket.enable_nonblock());
    refused(socket.disable_nonblock());
    refused(socket.register_event_select(nullptr, nullptr, 4));
    refused(socket.remove_event_select(nullptr, nullptr, 4));
    refused(socket.window_async_select(nullptr, 1, 1));
}

TEST(Socket, OwnsWhatItHoldsAndFailuresThrow) {
    const uint64_t before = vel::os::open_handle_count();
    {
        VEL_Socket socket(2, 1, 0), other;
        EXPECT_EQ(other.attach(VELLib::socket(2, 2, 0)), 0);
        EXPECT_EQ(vel::os::open_handle_count(), before + 2);
        EXPECT_EQ(socket.register_event_select(nullptr, nullptr, 4), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_implemented);
    }
    EXPECT_EQ(vel::os::open_handle_count(), before);
    try {
        VEL_Socket socket(9999, 1, 0);
        FAIL() << "opened a socket of an unknown family";
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), 10047u);
    }
}

TEST(Socket, PostedNoticeSplitsIntoEventAndError) {
    uint32_t error = 1;
    EXPECT_EQ(VEL_Socket::enum_window_event(0x20, error), 0x20);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(VEL_Socket::enum_window_event(int64_t{0x274D0010}, error), 16);
    EXPECT_EQ(error, 10061u);
    EXPECT_EQ(VEL_Socket::enum_window_event(-1, error), 0xFFFF);
    EXPECT_EQ(error, 0xFFFFu);
}

} // namespace
