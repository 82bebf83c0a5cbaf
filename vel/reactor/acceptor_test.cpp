// Acceptors of the reactor: what they hand over, and how they end.
#include <vel/testing/reactor_sockets.h>

#include <vel/testing/expect_failure.h>

namespace vel::testing {
namespace {

using ReactorAcceptor = ReactorSocketTest;

TEST_F(ReactorAcceptor, HandsOverAStreamThatWaitsForItsReactor) {
    Ref<Acceptor> acceptor = listen();
    Ref<Stream> stream(new Stream);
    expect_failure(error::would_block, acceptor->accept(*stream));
    expect_failure(error::not_a_socket, stream->send(text("x")));
    VEL_Socket client(2, 1, 0);
    ASSERT_EQ(client.connect(address_of(acceptor->get_handle())), 0);
    ASSERT_EQ(acceptor->accept(*stream), 0);
    EXPECT_EQ(stream->get_remote_addr(), address_of(client.get_socket()));
    expect_failure(error::null_member, stream->send(text("x")));
    expect_failure(error::already_connected, acceptor->accept(*stream));
    stream->reactor(reactor.get());
    EXPECT_EQ(stream->select_event(VEL_INPUT_EVENT), 0);
    EXPECT_EQ(stream->select_event(VEL_OUTPUT_EVENT), 0);
    EXPECT_EQ(client.send("hello", 5), 5);
    ASSERT_TRUE(serve_until([&] { return stream->input == "hello"; }));
    stream->clear_event();
    EXPECT_EQ(stream->references(), 1);
}

TEST_F(ReactorAcceptor, EndsWithItsRegistrationItsTimerOrClose) {
    VEL_Socket client(2, 1, 0);
    for (uint32_t mask : {VEL_ACCEPT_EVENT, VEL_TIMER_EVENT, VEL_NO_CLOSE_CALL}) {
        Ref<Acceptor> acceptor = listen();
        acceptor->on_accept = [] { return -1; };
        acceptor->on_timeout = [](int32_t) { return -1; };
        ASSERT_EQ(acceptor->set_timeout(mask == VEL_TIMER_EVENT ? 1 : 100000), 0);
        EXPECT_EQ(acceptor->references(), 3) << "own, registration, timer";
        if (mask == VEL_ACCEPT_EVENT) {
            ASSERT_EQ(client.connect(address_of(acceptor->get_handle())), 0);
        }
        if (mask == VEL_NO_CLOSE_CALL)
            acceptor->close(true);
        else
            ASSERT_TRUE(serve_until([&] { return !acceptor->closes.empty(); }));
        EXPECT_EQ(acceptor->closes, mask == VEL_NO_CLOSE_CALL ? std::vector<uint32_t>{} : std::vector<uint32_t>{mask});
        EXPECT_EQ(acceptor->references(), 1);
        EXPECT_EQ(acceptor->get_timer_id(), 0);
        expect_failure(error::not_a_socket, acceptor->check_open());
    }
}

TEST_F(ReactorAcceptor, AFailedOpenLeavesItClosed) {
    Ref<Acceptor> first = listen(), second(new Acceptor);
    const uint16_t port = address_of(first->get_handle()).getport();
    expect_failure(error::already_connected, first->open(reactor.get(), 0, 0, 0, 0));
    expect_failure(error::address_in_use, second->open(reactor.get(), port, "127.0.0.1", 0, 0));
    expect_failure(error::null_member, second->open(nullptr, 0, nullptr, 0, 0));
    expect_failure(error::not_a_socket, second->check_open());
    EXPECT_EQ(second->open(reactor.get(), 0, nullptr, 0, 0), 0);
}

} // namespace
} // namespace vel::testing
