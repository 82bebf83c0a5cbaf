// Acceptors of the reactor: what they hand over, and how they end.
#include <vel/testing/reactor_sockets.h>

#include <vel/testing/expect_failure.h>

namespace vel::testing {
namespace {

using ReactorAcceptor = ReactorSocketTest;

TEST_F(ReactorAcceptor, HandsOverAStreamThatWaitsForItsReactor) {
    const Ref<Acceptor> acceptor = listen();
    const Ref<Stream> stream(new Stream);
    expect_failure(error::would_block, acceptor->accept(*stream));
    VEL_Socket client(2, 1, 0);
    ASSERT_EQ(client.connect(address_of(acceptor->get_handle())), 0);
    ASSERT_EQ(acceptor->accept(*stream), 0);
    EXPECT_EQ(stream->get_remote_addr(), address_of(client.get_socket()));
    expect_failure(error::null_member, stream->send(text("x")));
    expect_failure(error::already_connected, acceptor->accept(*stream));
    stream->reactor(reactor.get());
    for (const uint32_t event : {VEL_INPUT_EVENT, VEL_OUTPUT_EVENT}) EXPECT_EQ(stream->select_event(event), 0);
    EXPECT_EQ(client.send("hello", 5), 5);
    ASSERT_TRUE(serve_until([&] { return stream->input == "hello"; }));
    stream->clear_event();
    EXPECT_EQ(stream->references(), 1);
}

TEST_F(ReactorAcceptor, EndsWithItsRegistrationItsTimerOrAFailedOpen) {
    VEL_Socket client(2, 1, 0);
    for (const uint32_t mask : {VEL_ACCEPT_EVENT, VEL_TIMER_EVENT}) {
        const Ref<Acceptor> acceptor = listen(), second(new Acceptor);
        const VEL_INET_Addr address = address_of(acceptor->get_handle());
        expect_failure(error::already_connected, acceptor->open(reactor.get(), 0, 0, 0, 0));
        expect_failure(error::address_in_use, second->open(reactor.get(), address.getport(), "127.0.0.1", 0, 0));
        expect_failure(error::null_member, second->open(nullptr, 0, nullptr, 0, 0));
        expect_failure(error::not_a_socket, second->check_open());
        acceptor->on_accept = acceptor->on_timeout = [] { return -1; };
        ASSERT_EQ(acceptor->set_timeout(mask == VEL_TIMER_EVENT ? 1 : 100000), 0);
        EXPECT_EQ(acceptor->references(), 3) << "own, registration, timer";
        if (mask == VEL_ACCEPT_EVENT) client.connect(address);
        ASSERT_TRUE(serve_until([&] { return !acceptor->closes.empty(); }));
        EXPECT_EQ(acceptor->closes, Codes{mask});
        EXPECT_EQ(acceptor->references(), 1);
        expect_failure(error::not_a_socket, acceptor->check_open());
    }
}

} // namespace
} // namespace vel::testing
