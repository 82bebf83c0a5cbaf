// A reactor's acceptor that serves a proactor.
#include <vel/testing/proactor_fixture.h>

#include <vel/reactor/acceptor.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/socket.h>

namespace vel::test {
namespace {

using AcceptorAccept = ProactorTest;

TEST_F(AcceptorAccept, HandsConnectionsOfAReactorToAProactor) {
    VEL_Reactor reactor;
    const Ref<VEL_Acceptor> door(new VEL_Acceptor);
    const Ref<Stream> stream(new Stream), refused(new Stream);
    VEL_INET_Addr address, own;
    char buffer[8];
    expect_failure(error::not_a_socket, door->accept(proactor.get(), *stream));
    ASSERT_EQ(door->open(&reactor, 0, loopback, 0, 0), 0);
    ASSERT_EQ(VELLib::getsockname(door->get_handle(), address), 0);
    expect_failure(error::would_block, door->accept(proactor.get(), *stream));
    stream->on_input = [&](VEL_Async_Read_Operation*& op, uint32_t) {
        return op->bytes_transferred() == 0 ? -1 : stream->send(op->read_block(), op->bytes_transferred());
    };

    VEL_Socket client(2, 1, 0), second(2, 1, 0);
    ASSERT_EQ(client.connect(address, 5000), 0);
    ASSERT_EQ(door->accept(proactor.get(), *stream), 0);
    EXPECT_EQ(client.getlocaladdr(own), 0);
    EXPECT_EQ(stream->get_remote_addr(), own);
    VEL_Byte_Block block;
    ASSERT_EQ(stream->recv(block, 8), 0);
    EXPECT_EQ(client.send("hello", 5), 5);
    EXPECT_EQ(client.recv(buffer, sizeof buffer, 5000), 5);

    ASSERT_EQ(second.connect(address, 5000), 0);
    expect_failure(error::null_member, door->accept(nullptr, *refused));
    EXPECT_EQ(second.recv(buffer, sizeof buffer, 5000), 0) << "the connection has been closed";
}

} // namespace
} // namespace vel::test
