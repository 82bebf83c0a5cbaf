// Datagram sockets on a proactor.
#include <vel/testing/proactor_fixture.h>

namespace vel::testing {
namespace {

using AsyncDgram = ProactorTest;

TEST_F(AsyncDgram, EchoesToEachSenderAndTellsCutOnes) {
    Ref<Dgram> server(new Dgram);
    std::atomic<int> cut{0};
    const auto sender_of = [](auto* op) { return static_cast<VEL_Async_SOCK_Read_Dgram*>(op)->recv_address(); };
    server->on_input = [&](auto*& op, uint32_t error) {
        VEL_Byte_Block block = op->read_block();
        if (error == error::message_too_long) ++cut;
        if (error != error::operation_cancelled) server->send(block.clone(), op->bytes_transferred(), sender_of(op));
        return server->recv(block, 4);
    };
    ASSERT_EQ(server->open(proactor.get(), 0, loopback), 0);
    VEL_INET_Addr address;
    ASSERT_EQ(server->get_local_addr(address), 0);
    for (int pending = 0; pending < 2; ++pending) ASSERT_EQ(receive(*server, 4), 0);
    Tally answers;
    std::vector<Ref<Dgram>> clients;
    for (const std::string text : {"one.", "two.", "cut off"}) {
        Dgram* client = clients.emplace_back(new Dgram).get();
        client->on_input = [&, text](auto*& op, uint32_t error) {
            EXPECT_EQ(error, 0u);
            EXPECT_EQ(text_of(*op), text.substr(0, 4));
            EXPECT_EQ(sender_of(op), address);
            return answers.add();
        };
        ASSERT_EQ(client->open(proactor.get(), 0, "127.0.0.1"), 0);
        ASSERT_EQ(receive(*client, 100), 0);
        const VEL_Byte_Block data(text.size(), text.data());
        expect_failure(error::insufficient_buffer, client->send(data, data.size() + 1, address));
        ASSERT_EQ(proactor->sendSockDgram(client->completion_key(), data, data.size(), address), 0);
    }
    EXPECT_TRUE(answers.reaches(3));
    EXPECT_EQ(cut, 1);
    proactor->close();
    EXPECT_EQ(server->closes.count(), 1);
}

TEST_F(AsyncDgram, NoTimerOutlivesACloseThatRaces) {
    for (int round = 0; round < 2000; ++round) {
        Ref<Dgram> socket(new Dgram);
        ASSERT_EQ(socket->open(proactor.get(), 0, loopback), 0);
        const uint32_t key = socket->completion_key();
        std::thread setter([&] { socket->set_timeout(100000); });
        round % 2 ? socket->close(true) : static_cast<void>(proactor->remove_handle(key, false));
        setter.join();
        ASSERT_EQ(socket->references(), 1) << "round " << round;
    }
}

TEST_F(AsyncDgram, OpensAgainHoweverItWasClosed) {
    Ref<SocketHandler> owner(new SocketHandler);
    ASSERT_EQ(proactor->register_handle(1, owner->handle, owner.get()), 0);
    Ref<Dgram> socket(new Dgram);
    expect_failure(error::invalid_parameter, socket->open(proactor.get(), 0, loopback)); // the first key is taken
    EXPECT_EQ(proactor->remove_handle(1, true), 0) << "and stays its owner's";
    ASSERT_EQ(socket->open(proactor.get(), 0, 0), 0);
    ASSERT_EQ(socket->set_timeout(100000), 0);
    ASSERT_EQ(receive(*socket, 4), 0);
    socket->close(false);
    EXPECT_EQ(socket->closes.count(), 2) << "key and timer";
    socket->on_timeout = [](uint32_t&) { return -1; };
    for (int round = 1; round <= 50; ++round) { // a timer may have closed the socket before the call returns
        ASSERT_EQ(socket->open(proactor.get(), 0, 0), 0);
        ASSERT_EQ(socket->set_timeout(0), 0);
        ASSERT_TRUE(socket->closes.reaches(2 + round));
        expect_failure(error::not_a_socket, receive(*socket, 4));
    }
}

} // namespace
} // namespace vel::testing
