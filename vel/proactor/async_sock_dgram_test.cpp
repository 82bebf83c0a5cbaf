// Datagram sockets on a proactor.
#include <vel/testing/proactor_fixture.h>

#include <string>
#include <thread>
#include <vel/os/error_codes.h>

namespace vel::test {
namespace {

using AsyncDgram = ProactorTest;

constexpr uint32_t loopback = 0x7F000001;

TEST_F(AsyncDgram, EchoesToEachSender) {
    Ref<Dgram> server(new Dgram);
    Dgram* echo = server.get();
    echo->on_input = [echo](VEL_Async_Read_Operation* op, uint32_t error) {
        auto* datagram = static_cast<VEL_Async_SOCK_Read_Dgram*>(op);
        VEL_Byte_Block block = op->read_block();
        if (error == 0) echo->send(block.clone(), op->bytes_transferred(), datagram->recv_address());
        delete op;
        return echo->recv(block, 100);
    };
    ASSERT_EQ(echo->open(proactor.get(), 0, loopback), 0);
    VEL_INET_Addr address;
    ASSERT_EQ(echo->get_local_addr(address), 0);
    EXPECT_NE(address.getport(), 0);
    VEL_Byte_Block blocks[2];
    for (VEL_Byte_Block& block : blocks) ASSERT_EQ(echo->recv(block, 100), 0);

    Tally answers;
    std::vector<Ref<Dgram>> clients;
    for (int i = 0; i < 5; ++i) {
        clients.emplace_back(new Dgram);
        Dgram* client = clients.back().get();
        const std::string text = "datagram of " + std::to_string(i);
        client->on_input = [&answers, text, address](VEL_Async_Read_Operation* op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(std::string(static_cast<char*>(op->read_block().c_ptr(0)), op->bytes_transferred()), text);
            EXPECT_EQ(static_cast<VEL_Async_SOCK_Read_Dgram*>(op)->recv_address(), address);
            delete op;
            answers.add();
            return 0;
        };
        client->on_output = [address](VEL_Async_Write_Operation* op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(static_cast<VEL_Async_SOCK_Write_Dgram*>(op)->send_address(), address);
            delete op;
            return 0;
        };
        ASSERT_EQ(client->open(proactor.get(), 0, "127.0.0.1"), 0);
        VEL_Byte_Block block;
        ASSERT_EQ(client->recv(block, 100), 0);
        const VEL_Byte_Block data(text.size(), text.data());
        ASSERT_EQ(i % 2 ? client->send(data, data.size(), address)
                        : proactor->sendSockDgram(client->completion_key(), data, data.size(), address),
                  0);
    }
    EXPECT_TRUE(answers.reaches(5));
    server->close(false);
    EXPECT_EQ(server->closes.count(), 1);
    proactor->close();
}

TEST_F(AsyncDgram, LongDatagramsAreToldAsCut) {
    Ref<Dgram> socket(new Dgram);
    std::atomic<uint32_t> code{0};
    std::atomic<size_t> bytes{0};
    Tally done;
    socket->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        code = error;
        bytes = op->bytes_transferred();
        delete op;
        done.add();
        return 0;
    };
    ASSERT_EQ(socket->open(proactor.get(), 0, loopback), 0);
    VEL_INET_Addr address;
    ASSERT_EQ(socket->get_local_addr(address), 0);
    VEL_Byte_Block block;
    ASSERT_EQ(socket->recv(block, 4), 0);
    EXPECT_EQ(socket->send(VEL_Byte_Block(3, "abc"), 4, address), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::insufficient_buffer);
    ASSERT_EQ(socket->send(VEL_Byte_Block(6, "abcdef"), 6, address), 0);
    ASSERT_TRUE(done.reaches(1));
    EXPECT_EQ(code, error::message_too_long);
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(std::string(static_cast<char*>(block.c_ptr(0)), 4), "abcd");
}

TEST_F(AsyncDgram, NoTimerOutlivesACloseThatRaces) {
    for (int round = 0; round < 2000; ++round) {
        Ref<Dgram> socket(new Dgram);
        ASSERT_EQ(socket->open(proactor.get(), 0, loopback), 0);
        const uint32_t key = socket->completion_key();
        std::thread setter([&] { socket->set_timeout(100000); });
        round % 2 ? socket->close(true) : static_cast<void>(proactor->remove_handle(key, false));
        setter.join();
        ASSERT_EQ(socket->addref(), 2) << "round " << round;
        socket->release();
    }
}

TEST_F(AsyncDgram, ATakenKeyStaysItsOwners) {
    Ref<Handler> owner(new Handler);
    const uint64_t handle = VELLib::socket(2, 2, 0);
    ASSERT_EQ(proactor->register_handle(1, reinterpret_cast<void*>(handle), owner.get()), 0);
    Ref<Dgram> socket(new Dgram);
    EXPECT_EQ(socket->open(proactor.get(), 0, loopback), -1) << "the first key that is handed out is taken";
    EXPECT_EQ(VELLib::GetErrorCode(), error::invalid_parameter);
    EXPECT_EQ(proactor->remove_handle(1, true), 0);
    VELLib::closesocket(handle);
}

TEST_F(AsyncDgram, CloseTellsKeyAndTimer) {
    Ref<Dgram> socket(new Dgram);
    Ref<Dgram> second(new Dgram);
    VEL_Byte_Block block;
    EXPECT_EQ(socket->recv(block, 4), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::not_a_socket);
    ASSERT_EQ(socket->open(proactor.get(), 0, 0), 0);
    VEL_INET_Addr address;
    ASSERT_EQ(socket->get_local_addr(address), 0);
    EXPECT_EQ(second->open(proactor.get(), address.getport(), 0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::address_in_use);
    ASSERT_EQ(socket->set_timeout(100000), 0);
    ASSERT_EQ(socket->recv(block, 4), 0);
    socket->close(false);
    EXPECT_EQ(socket->closes.count(), 2);

    ASSERT_EQ(socket->open(proactor.get(), 0, 0), 0) << "closed, so it may be opened again";
    socket->on_timeout = [](int32_t, uint32_t&) { return -1; };
    ASSERT_EQ(socket->set_timeout(1), 0);
    ASSERT_TRUE(socket->closes.reaches(3));
    EXPECT_EQ(socket->check_open(), -1);
}

} // namespace
} // namespace vel::test
