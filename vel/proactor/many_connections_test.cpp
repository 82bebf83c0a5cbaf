// Ten thousand connections at once between two processes.
#include <cstdlib>
#include <vel/os/file.h>
#include <vel/reactor/socket.h>
#include <vel/testing/proactor_fixture.h>

namespace vel::testing {
namespace {

constexpr int connections = 10000;

using ManyConnections = ProactorTest;

bool enough_descriptors() {
    std::vector<VEL_Socket> sockets(connections + 200); // some for everything else
    for (VEL_Socket& socket : sockets)
        if (socket.open(2, 1, 0) < 0) return false;
    return true;
}

// Runs the test Client of this program in a process of its own; 0 when it passed.
int run_client(uint16_t port) {
    std::string folder;
    EXPECT_EQ(os::executable_directory(folder), 0u);
    const std::string client = folder + "/proactor_test --gtest_also_run_disabled_tests --gtest_brief=1";
    const std::string chosen = " --gtest_filter=ManyConnections.DISABLED_Client";
    const std::string command = "VEL_TEST_PORT=" + std::to_string(port) + " exec " + client + chosen;
    return std::system(command.c_str()); // tidy: allowed, the command is this program
}

TEST_F(ManyConnections, OneExchangeEach) {
    if (!enough_descriptors()) GTEST_SKIP() << "the limit of open files is too low";
    Tally ended;
    Ref<Acceptor> acceptor = listen([&](Ref<Stream> stream) {
        Stream* self = stream.get();
        self->on_input = [&, self](auto*& op, uint32_t error) {
            const size_t bytes = op->bytes_transferred();
            return error == 0 && bytes != 0 ? self->send(op->read_block(), bytes) : ended.add() - 1;
        };
        self->on_output = [self](auto*&, uint32_t error) { return error != 0 ? -1 : receive(*self, 16); };
        EXPECT_EQ(receive(*self, 16), 0);
    });
    for (int i = 0; i < 63; ++i) ASSERT_EQ(acceptor->accept(), 0);
    EXPECT_EQ(run_client(address_of(*acceptor).getport()), 0);
    EXPECT_TRUE(ended.reaches(connections));
    acceptor->close(true);
}

TEST_F(ManyConnections, DISABLED_Client) {
    const char* port = std::getenv("VEL_TEST_PORT"); // tidy: allowed, set by the test that starts this process
    if (port == nullptr) GTEST_SKIP() << "started by OneExchangeEach alone";
    const VEL_INET_Addr server(static_cast<uint16_t>(std::strtoul(port, nullptr, 10)), loopback);
    std::vector<VEL_Socket> sockets(connections);
    for (VEL_Socket& socket : sockets) {
        ASSERT_EQ(socket.open(2, 1, 0), 0);
        ASSERT_EQ(socket.connect(server), 0) << VELLib::GetErrorCode();
        ASSERT_EQ(socket.send("ping", 4), 4);
    }
    for (VEL_Socket& socket : sockets) {
        char answer[4];
        EXPECT_EQ(socket.recv(answer, 4, 30000), 4);
        socket.close();
    }
}

} // namespace
} // namespace vel::testing
