// The reactor: orders, registrations and their ends, what sockets report, several threads.
#include <vel/testing/reactor_fixture.h>

#include <ctime>

namespace vel::testing {
namespace {

TEST_F(ReactorTest, ServesInTheOrderOfRegistrationEachOnce) {
    Recorder& a = connected("a", VEL_INPUT_EVENT);
    Recorder& b = recorder("b");
    void* const signal = event(false);
    EXPECT_EQ(reactor->register_handler(&b, signal, VEL_SIGNAL_EVENT), 0);
    Recorder& c = connected("c", VEL_INPUT_EVENT);
    c.peer.send("x", 1);
    os::set_event(signal);
    a.peer.send("x", 1);
    EXPECT_EQ(reactor->handle_event(0), 3);
    EXPECT_EQ(journal.read(), "a.input b.signal c.input");
    EXPECT_EQ(reactor->handle_event(0), 1) << "an event stays signalled, unread data is told once";
    os::reset_event(signal);
    a.on["input"] = [&] { return a.drain(), c.drain(), c.peer.send("x", 1), 0; };
    c.on["input"] = [&] { return c.drain(), a.peer.send("x", 1), os::set_event(signal), 0; };
    a.on["input"]();
    EXPECT_EQ(cycle(), "b.signal c.input");
    os::reset_event(signal);
    EXPECT_EQ(cycle(), "a.input c.input") << "what is signalled meanwhile behind is served, in front it waits";
}

TEST_F(ReactorTest, ARefusalEndsItsEventAndThoseBehindIt) {
    Recorder& a = recorder("a");
    a.socket.open(2, 1, 0);
    EXPECT_EQ(a.socket.register_event_select(reactor.get(), &a, 14), 0);
    EXPECT_EQ(quiet(), "") << "nothing has been started";
    expect_failure(error::would_block, a.socket.connect(open_door()));
    VEL_Socket server;
    EXPECT_EQ(door.accept(server), 0);
    server.send("x", 1);
    a.on["output"] = [] { return -1; };
    EXPECT_EQ(cycle(), "a.connect a.output a.close12");
    EXPECT_EQ(a.ended, a.handle());
    EXPECT_EQ(a.references(), 2) << "registered for the connect still";
    expect_failure(0x12345, reactor->remove_handler(a.handle(), &a, 12));
    EXPECT_EQ(reactor->remove_handler(a.handle(), &a, 14 | VEL_NO_CLOSE_CALL), 0);

    Recorder& b = connected("b", 12);
    b.peer.send("x", 1);
    b.on["input"] = [] { return -1; };
    EXPECT_EQ(cycle(), "b.output b.input b.close4");
    Recorder& c = recorder("c");
    c.on["signal"] = [] { return -1; };
    EXPECT_EQ(reactor->register_handler(&c, event(true), VEL_SIGNAL_EVENT), 0);
    EXPECT_EQ(cycle(), "b.output c.signal c.close1") << "b was bound anew";
}

TEST_F(ReactorTest, RegistersSixtyThree) {
    Recorder& a = connected("a", VEL_CONNECT_EVENT);
    void* const named = event(true);
    EXPECT_EQ(reactor->register_handler(a.handle(), &a, VEL_INPUT_EVENT), 1);
    expect_failure(error::not_a_socket, reactor->register_handler(named, &a, 4));
    EXPECT_EQ(a.references(), 2) << "bits, and what failed, hold no reference";
    for (int i = 1; i < 63; ++i) EXPECT_EQ(reactor->register_handler(&a, event(false), VEL_SIGNAL_EVENT), 0);
    expect_failure(error::too_many_events, reactor->register_handler(&a, named, VEL_SIGNAL_EVENT));
    expect_failure(error::too_many_events, reactor->register_handler(a.handle(), &a, VEL_OUTPUT_EVENT));
    EXPECT_EQ(reactor->remove_handler(a.handle(), &a, 6), 0);
    EXPECT_EQ(reactor->register_handler(&a, named, VEL_SIGNAL_EVENT), 0);
    EXPECT_EQ(cycle(), "a.close6 a.signal") << "the last place works as the others";
    reactor->deactivate();
    expect_failure(error::object_closed, reactor->register_handler(&a, named, VEL_SIGNAL_EVENT));
}

TEST_F(ReactorTest, APeersEndIsInputUntilARemoval) {
    Recorder& graceful = connected("a", 12);
    EXPECT_EQ(cycle(), "a.output");
    EXPECT_EQ(reactor->remove_handler(graceful.handle(), &graceful, VEL_OUTPUT_EVENT | VEL_NO_CLOSE_CALL), 1);
    EXPECT_EQ(graceful.references(), 2);
    graceful.peer.close();
    EXPECT_EQ(quiet(), "") << "a removal ends the notice of the close too";
    EXPECT_EQ(reactor->register_handler(graceful.handle(), &graceful, VEL_INPUT_EVENT), 1);
    EXPECT_EQ(cycle(), "a.input");
}

TEST_F(ReactorTest, EndsFromInsideEveryCall) {
    Recorder* self = nullptr;
    void* signal = nullptr;
    const auto ending = [&](const std::string& call, const std::function<void()>& action) {
        reactor = std::make_unique<VEL_Reactor>();
        journal.read();
        self = &connected("a", 30);
        signal = event(true);
        self->peer.send("x", 1);
        EXPECT_EQ(reactor->register_handler(self, signal, VEL_SIGNAL_EVENT), 0);
        self->on[call] = [&] { return action(), os::reset_event(signal), -1; };
        return cycle();
    };
    const auto remove = [&] {
        reactor->remove_handler(self->handle(), self, 30 | VEL_NO_CLOSE_CALL);
        reactor->remove_handler(self, signal, VEL_SIGNAL_EVENT);
    };
    const auto close_socket = [&] { self->socket.close(); };
    const auto close_reactor = [&] { reactor->close(); };
    EXPECT_EQ(ending("output", remove), "a.output a.close1");
    EXPECT_EQ(ending("signal", remove), "a.output a.input a.signal a.close1");
    EXPECT_EQ(ending("output", close_socket), "a.output a.close12");
    EXPECT_EQ(ending("input", close_reactor), "a.output a.input a.close30 a.close1");
    EXPECT_EQ(ending("signal", close_reactor), "a.output a.input a.signal a.close30 a.close1");
}

TEST_F(ReactorTest, ANumberComesToItsNextOwnerWithNothingOfTheLast) {
    for (bool removed : {true, false}) {
        Recorder& a = connected("a", VEL_INPUT_EVENT);
        Recorder& next = recorder("b");
        a.on["input"] = [&] {
            void* const number = a.handle();
            if (removed) reactor->remove_handler(number, &a, VEL_INPUT_EVENT | VEL_NO_CLOSE_CALL);
            a.socket.close();
            EXPECT_EQ(next.socket.open(2, 2, 0), 0);
            EXPECT_EQ(next.handle(), number) << "the test is about this case";
            EXPECT_EQ(reactor->register_handler(number, &next, 12), 0);
            return -1;
        };
        a.peer.send("x", 1);
        EXPECT_EQ(cycle(), removed ? "a.input b.output" : "a.input a.close4 b.output");
        EXPECT_EQ(a.references() + next.references(), 1 + 2);
    }
    Recorder& c = connected("c", VEL_INPUT_EVENT);
    c.socket.close();
    EXPECT_EQ(reactor->register_handler(&c, event(true), VEL_SIGNAL_EVENT), 0);
    EXPECT_EQ(cycle(), "c.close4 c.signal");
}

TEST_F(ReactorTest, WaitsAsLongAsToldAndWithoutWork) {
    const auto started = std::chrono::steady_clock::now();
    const std::clock_t worked = std::clock();
    connected("a", VEL_INPUT_EVENT);
    EXPECT_EQ(reactor->handle_event(200), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));
    EXPECT_LT(std::clock() - worked, CLOCKS_PER_SEC / 20);
}

TEST_F(ReactorTest, OneServesASocketAndOneTheTimersUntilOthersEndThem) {
    constexpr int sockets = 12;
    std::atomic<int> received{0}, closes{0}, timing{0};
    std::deque<std::atomic<int>> inside(sockets);
    std::vector<Recorder*> recorders;
    for (auto& busy : inside) {
        Recorder& self = *recorders.emplace_back(&connected("a", 12));
        self.on["input"] = [&] {
            EXPECT_EQ(++busy, 1);
            received += self.drain();
            return --busy, 0;
        };
        self.on["timeout"] = [&] {
            EXPECT_EQ(++timing, 1);
            self.peer.send("x", 1);
            return --timing, 0;
        };
        self.on["close"] = [&] { return ++closes, 0; };
        EXPECT_GT(reactor->schedule_timer(&self, 1), 0);
    }
    start(4);
    for (int round = 0; round < 200; ++round)
        for (Recorder* self : recorders) EXPECT_EQ(self->peer.send("x", 1), 1);
    EXPECT_TRUE(comes_true([&] { return received > 200 * sockets; })) << received;
    crew(2, [&](int) {
        for (Recorder* self : recorders) reactor->remove_handler(self->handle(), self, VEL_OUTPUT_EVENT);
        reactor->close();
    });
    EXPECT_TRUE(comes_true([&] { return closes == 3 * sockets; })) << closes << " of output, input and timer";
    stop();
}

TEST_F(ReactorTest, WaitingThreadsSeeNewEventsAndTimersAndTwoServeAnEvent) {
    start(3);
    for (int i = 0; i < 50; ++i) {
        Recorder& a = recorder("a");
        void* const signal = event(i % 2 == 0);
        a.on["signal"] = a.on["timeout"] = [] { return -1; };
        EXPECT_EQ(reactor->register_handler(&a, signal, VEL_SIGNAL_EVENT), 0);
        EXPECT_GT(reactor->schedule_timer(&a, static_cast<uint32_t>(i % 3)), 0);
        os::set_event(signal);
        EXPECT_TRUE(comes_true([&] { return a.references() == 1; })) << "both served and ended";
    }
    std::atomic<int> meeting{0};
    Recorder& b = recorder("b");
    b.on["signal"] = [&] { return ++meeting, comes_true([&] { return meeting >= 2; }) ? -1 : 0; };
    EXPECT_EQ(reactor->register_handler(&b, event(true), VEL_SIGNAL_EVENT), 0);
    EXPECT_TRUE(comes_true([&] { return b.references() == 1; })) << "two threads met";
    stop();
}

} // namespace
} // namespace vel::testing
