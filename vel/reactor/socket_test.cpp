// The socket object: what it adds to the free functions.
#include <vel/reactor/socket.h>

#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/testing/expect_failure.h>

namespace {

namespace error = vel::error;
using vel::testing::expect_failure;

constexpr uint32_t patience_ms = 5000;

TEST(Socket, RemembersThatThePeerHasClosedUntilItHoldsAnother) {
    VEL_Socket door(2, 1, 0), first(2, 1, 0), second(2, 1, 0), server;
    VEL_INET_Addr address;
    char buffer[8];
    ASSERT_EQ(door.bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(door.listen(), 0);
    ASSERT_EQ(door.getlocaladdr(address), 0);
    ASSERT_EQ(first.connect("127.0.0.1", address.getport()), 0);
    ASSERT_EQ(door.accept(server), 0);
    ASSERT_EQ(first.send("bye", 3), 3);
    first.close();
    EXPECT_EQ(server.recv(buffer, sizeof buffer), 3);
    EXPECT_EQ(server.recv(buffer, sizeof buffer), 0);
    EXPECT_EQ(server.recv(buffer, sizeof buffer, 0), 0) << "asked the socket, which would be no time-out";

    ASSERT_EQ(second.connect(address, patience_ms), 0);
    server.close();
    ASSERT_EQ(door.accept(server, patience_ms), 0);
    ASSERT_EQ(second.send("hi", 2, patience_ms), 2);
    EXPECT_EQ(server.recv(buffer, sizeof buffer, patience_ms), 2);
}

TEST(Socket, OwnsWhatItHoldsAndRefusesWithoutOne) {
    const uint64_t before = vel::os::open_handle_count();
    VEL_Socket closed;
    {
        VEL_Socket socket(2, 1, 0), other;
        EXPECT_EQ(other.attach(VELLib::socket(2, 2, 0)), 0);
        EXPECT_EQ(vel::os::open_handle_count(), before + 2);
        expect_failure(error::null_member, socket.register_event_select(nullptr, nullptr, 4));
    }
    EXPECT_EQ(vel::os::open_handle_count(), before);
    EXPECT_THROW(VEL_Socket(9999, 1, 0), VEL_Exception);
    expect_failure(error::not_a_socket, closed.accept(closed, patience_ms));
    expect_failure(error::not_a_socket, closed.bind(1, "no.such.host.invalid")); // before the name is looked up
    expect_failure(error::not_a_socket, closed.connect("no.such.host.invalid", 1));
    expect_failure(error::not_a_socket, closed.recv(nullptr, 0, 0));
}

} // namespace
