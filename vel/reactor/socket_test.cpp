// The socket object: what it adds to the free functions.
#include <vel/reactor/socket.h>

#include <vel/testing/balanced_test.h>

namespace vel::testing {
namespace {

using Socket = BalancedTest;

constexpr uint32_t patience_ms = 5000;

TEST_F(Socket, RemembersThatThePeerHasClosedUntilItHoldsAnother) {
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

} // namespace
} // namespace vel::testing
