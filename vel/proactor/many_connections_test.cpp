// Ten thousand connections at once between two processes.
#include <vel/testing/proactor_fixture.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>

namespace vel::test {
namespace {

constexpr int connections = 10000;
constexpr int spare = 200; // descriptors of the process for everything else

using ManyConnections = ProactorTest;

/// Opens and closes as many sockets as the test needs; the code of the first that fails.
uint32_t try_descriptors() {
    std::vector<uint64_t> sockets;
    uint32_t code = error::none;
    while (code == error::none && sockets.size() < connections + spare) {
        sockets.push_back(VELLib::socket(2, 1, 0));
        if (sockets.back() == VEL_INVALID_SOCKET) code = VELLib::GetErrorCode();
    }
    for (uint64_t socket : sockets)
        if (socket != VEL_INVALID_SOCKET) VELLib::closesocket(socket);
    return code;
}

/// Runs the client below in a process of its own; 0 when it succeeded.
int run_client(uint16_t port) {
    std::string folder;
    EXPECT_EQ(vel::os::executable_directory(folder), 0u);
    const std::string command = "VEL_TEST_PORT=" + std::to_string(port) + " " + folder +
                                "/proactor_test --gtest_also_run_disabled_tests "
                                "--gtest_filter=ManyConnections.DISABLED_Client --gtest_brief=1";
    return std::system(command.c_str()); // tidy: allowed, the connections are between two processes
}

TEST_F(ManyConnections, OneExchangeEach) {
    if (try_descriptors() == error::too_many_sockets)
        GTEST_SKIP() << "the limit of open files is below " << connections + spare;
    Tally accepted;
    Tally echoed;
    Tally ended;
    auto serve = [&](Ref<Stream> stream) {
        Stream* self = stream.get();
        self->on_input = [&, self](VEL_Async_Read_Operation* op, uint32_t error) {
            const size_t bytes = op->bytes_transferred();
            const bool over = error != 0 || bytes == 0;
            const int result = over ? -1 : self->send(op->read_block(), bytes);
            delete op;
            if (over) ended.add();
            return result;
        };
        self->on_output = [&, self](VEL_Async_Write_Operation* op, uint32_t error) {
            delete op;
            echoed.add();
            VEL_Byte_Block block;
            return error != 0 ? -1 : self->recv(block, 16);
        };
        accepted.add();
        VEL_Byte_Block block;
        EXPECT_EQ(self->recv(block, 16), 0);
    };
    Ref<Acceptor> acceptor = listen(serve);
    for (int i = 0; i < 63; ++i) ASSERT_EQ(acceptor->accept(), 0);
    int client_result = -1;
    std::thread client([&] { client_result = run_client(address_of(*acceptor).getport()); });
    EXPECT_TRUE(accepted.reaches(connections));
    EXPECT_TRUE(echoed.reaches(connections)); // the client lets go of the first when it has the last answer
    client.join();
    EXPECT_EQ(client_result, 0);
    EXPECT_TRUE(ended.reaches(connections));
    acceptor->close(true);
}

TEST_F(ManyConnections, DISABLED_Client) {
    const char* text = std::getenv("VEL_TEST_PORT"); // tidy: allowed, set by the test that starts this process
    if (text == nullptr) GTEST_SKIP() << "started by OneExchangeEach alone";
    const VEL_INET_Addr server(static_cast<uint16_t>(std::strtoul(text, nullptr, 10)), 0x7F000001u);
    Tally answered;
    std::vector<Ref<Stream>> streams;
    for (int i = 0; i < connections; ++i) {
        streams.emplace_back(new Stream);
        Stream* stream = streams.back().get();
        stream->on_connect = [stream](VEL_Async_Connect_Operation* op, uint32_t error) {
            delete op;
            EXPECT_EQ(error, 0u);
            return stream->send(VEL_Byte_Block(4, "ping"), 4);
        };
        stream->on_output = [stream](VEL_Async_Write_Operation* op, uint32_t) {
            delete op;
            VEL_Byte_Block block;
            return stream->recv(block, 16);
        };
        stream->on_input = [&answered](VEL_Async_Read_Operation* op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(op->bytes_transferred(), 4u);
            delete op;
            answered.add();
            return 0;
        };
        ASSERT_EQ(stream->open(proactor.get(), server), 0) << VELLib::GetErrorCode();
    }
    EXPECT_TRUE(answered.reaches(connections));
    for (Ref<Stream>& stream : streams) stream->close(true);
}

} // namespace
} // namespace vel::test
