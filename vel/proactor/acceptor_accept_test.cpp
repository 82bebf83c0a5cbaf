// A reactor's acceptor that serves a proactor.
#include <vel/testing/proactor_fixture.h>

#include <vel/os/error_codes.h>
#include <vel/reactor/acceptor.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/socket.h>

namespace vel::test {
namespace {

using AcceptorAccept = ProactorTest;

TEST_F(AcceptorAccept, HandsConnectionsOfAReactorToAProactor) {
    struct Door : VEL_Acceptor {
        int handle_accept(void*, VEL_Reactor*, uint32_t) override { return accept(proactor, *stream); }
        VEL_Proactor* proactor = nullptr;
        Ref<Stream> stream{new Stream};
    };
    VEL_Reactor reactor;
    Ref<Door> door(new Door);
    VEL_INET_Addr address;
    char buffer[8];
    expect_failure(error::not_a_socket, door->accept(proactor.get(), *door->stream));
    ASSERT_EQ(door->open(&reactor, 0, loopback, 0, 0), 0);
    ASSERT_EQ(VELLib::getsockname(door->get_handle(), address), 0);
    expect_failure(error::would_block, door->accept(proactor.get(), *door->stream));

    VEL_Socket client(2, 1, 0), refused(2, 1, 0);
    door->proactor = proactor.get();
    ASSERT_EQ(client.connect(address, 5000), 0);
    ASSERT_EQ(reactor.handle_event(5000), 1);
    Stream* stream = door->stream.get();
    VEL_INET_Addr own;
    EXPECT_EQ(client.getlocaladdr(own), 0);
    EXPECT_EQ(stream->get_remote_addr(), own);
    stream->on_input = [&](VEL_Async_Read_Operation*& op, uint32_t) {
        return op->bytes_transferred() == 0 ? -1 : stream->send(op->read_block(), op->bytes_transferred());
    };
    VEL_Byte_Block block;
    ASSERT_EQ(stream->recv(block, 8), 0);
    EXPECT_EQ(client.send("hello", 5), 5);
    EXPECT_EQ(client.recv(buffer, sizeof buffer, 5000), 5);

    door->proactor = nullptr;
    ASSERT_EQ(refused.connect(address, 5000), 0);
    ASSERT_EQ(reactor.handle_event(5000), 1);
    EXPECT_EQ(refused.recv(buffer, sizeof buffer, 5000), 0) << "the connection has been closed";
    EXPECT_EQ(stream->get_remote_addr(), own);
    EXPECT_EQ(door->check_open(), -1) << "the refusal ended the registration";
}

} // namespace
} // namespace vel::test
