// Ten thousand connections at once between two processes.
#include <vel/testing/proactor_fixture.h>

namespace vel::test {
namespace {

constexpr int connections = 10000;
constexpr int spare = 200; // descriptors of the process for everything else

using ManyConnections = ProactorTest;

bool enough_descriptors() {
    std::vector<uint64_t> sockets(connections + spare);
    for (uint64_t& socket : sockets) socket = VELLib::socket(2, 1, 0);
    const bool enough = sockets.back() != VEL_INVALID_SOCKET || VELLib::GetErrorCode() != error::too_many_sockets;
    for (const uint64_t socket : sockets) VELLib::closesocket(socket);
    return enough;
}

TEST_F(ManyConnections, OneExchangeEach) {
    if (!enough_descriptors()) GTEST_SKIP() << "the limit of open files is below " << connections + spare;
    Tally accepted, echoed, ended;
    auto serve = [&](Ref<Stream> stream) {
        Stream* self = stream.get();
        self->on_input = [&, self](VEL_Async_Read_Operation*& op, uint32_t error) {
            const size_t bytes = op->bytes_transferred();
            const bool over = error != 0 || bytes == 0;
            if (over) ended.add();
            return over ? -1 : self->send(op->read_block(), bytes);
        };
        self->on_output = [&, self](VEL_Async_Write_Operation*&, uint32_t error) {
            echoed.add();
            return error != 0 ? -1 : receive(*self, 16);
        };
        accepted.add();
        EXPECT_EQ(receive(*self, 16), 0);
    };
    Ref<Acceptor> acceptor = listen(serve);
    for (int i = 0; i < 63; ++i) ASSERT_EQ(acceptor->accept(), 0);
    int client_result = -1;
    std::thread client([&] {
        client_result = run_in_process("VEL_TEST_PORT=" + std::to_string(address_of(*acceptor).getport()),
                                       "ManyConnections.DISABLED_Client");
    });
    EXPECT_TRUE(accepted.reaches(connections));
    EXPECT_TRUE(echoed.reaches(connections));
    client.join();
    EXPECT_EQ(client_result, 0);
    EXPECT_TRUE(ended.reaches(connections));
    acceptor->close(true);
}

TEST_F(ManyConnections, DISABLED_Client) {
    const char* text = std::getenv("VEL_TEST_PORT"); // tidy: allowed, set by the test that starts this process
    if (text == nullptr) GTEST_SKIP() << "started by OneExchangeEach alone";
    const VEL_INET_Addr server(static_cast<uint16_t>(std::strtoul(text, nullptr, 10)), loopback);
    std::vector<uint64_t> sockets(connections);
    for (uint64_t& socket : sockets) {
        socket = VELLib::socket(2, 1, 0);
        ASSERT_EQ(VELLib::connect(socket, server), 0) << VELLib::GetErrorCode();
        ASSERT_EQ(VELLib::send(socket, "ping", 4, nullptr), 4);
    }
    for (const uint64_t socket : sockets) {
        char answer[4];
        bool closed = false;
        EXPECT_EQ(VELLib::recv(socket, answer, 4, closed, 30000), 4);
        VELLib::closesocket(socket);
    }
}

} // namespace
} // namespace vel::test
