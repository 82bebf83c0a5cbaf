// Contract of the wait set, with real sockets on the loopback address.
#include <vel/os/wait_set.h>

#include <vel/os/completion_port.h>
#include <vel/os/linux/testing/lock_waiter.h>
#include <vel/os/linux/testing/starved_sleeper.h>
#include <vel/os/thread.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

using vel::testing::comes_to_sleep_in;

// A wait that nobody has freed looks once more at its end: what is to free it must do so earlier.
constexpr int soon_ms = patience_ms / 2;

class WaitSets : public OsTest {
protected:
    void SetUp() override { ASSERT_EQ(create_wait_set(set_), error::none); }
    void TearDown() override {
        set_.reset();
        OsTest::TearDown();
    }

    using OsTest::keep;
    uint64_t keep(uint64_t socket) override {
        set_nonblocking(socket, true);
        return OsTest::keep(socket);
    }

    // Connections whose server ends are members from key 1 on.
    std::vector<Pair> bound_pairs(uint64_t count, uint32_t notices) {
        std::vector<Pair> pairs;
        for (uint64_t key = 1; key <= count; ++key) bind(key, pairs.emplace_back(connected()).server, notices);
        return pairs;
    }

    // Sends and sees to it that the text has arrived.
    static void deliver(const Pair& pair, const std::string& text) {
        send_text(pair.client, text);
        EXPECT_EQ(wait_socket(pair.server, SocketWait::readable, patience_ms), error::none);
    }

    void bind(uint64_t key, uint64_t socket, uint32_t notices) {
        ASSERT_EQ(set_->bind(key, socket, notices), error::none);
    }

    bool signalled(uint32_t timeout_ms = patience_ms) {
        return set_->wait(set_->generation(), timeout_ms) == WaitEnd::signalled;
    }

    bool quiet() { return !signalled(0); }

    // Waits for the first turn, which is the caller's to end.
    bool wait_for(Turn& turn) { return signalled() && set_->next(turn); }

    // The key of the next turn behind a member, or of the first one, which is given back.
    uint64_t next(uint64_t after = 0) {
        Turn turn{after, {}};
        if (after != 0 || signalled()) set_->next(turn);
        const uint64_t key = turn.key;
        set_->put_back(turn);
        return key;
    }

    // Waits for a member, which must be this one with these notices; it is given back.
    Notices expect(uint64_t key, uint32_t mask) {
        Turn turn;
        EXPECT_TRUE(wait_for(turn));
        EXPECT_EQ(turn.key, key);
        EXPECT_EQ(turn.notices.mask, mask);
        set_->put_back(turn);
        return turn.notices;
    }

    std::unique_ptr<WaitSet> set_;
};

TEST_F(WaitSets, GivesSignalledMembersInTheOrderOfKeys) {
    const Pair first = connected(), second = connected();
    void* event = make_event(true, true);
    bind(3, second.server, notice::read);
    ASSERT_EQ(set_->add_event(5, event), error::none);
    bind(9, first.server, notice::read);
    deliver(first, "a");
    deliver(second, "b");
    EXPECT_EQ(next(3), 5u);
    expect(3, notice::read);
    Turn turn;
    for (const uint64_t key : {5, 9}) { // the event stays signalled
        EXPECT_TRUE(key > 5 ? set_->next(turn) : wait_for(turn));
        EXPECT_EQ(turn.key, key);
    }
    EXPECT_FALSE(set_->next(turn));
    reset_event(event);
    EXPECT_TRUE(quiet());
    set_event(event);
    close_handle(event);
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, AReceiveArmsReadAndASendThatBlocksArmsWrite) {
    const Pair pair = bound_pairs(1, notice::all)[0];
    expect(1, notice::write); // once
    deliver(pair, "abc");
    expect(1, notice::read);
    deliver(pair, "def");
    EXPECT_TRUE(quiet()); // not armed before a receive
    EXPECT_EQ(receive_some(pair.server, 4), error::none);
    EXPECT_TRUE(signalled()); // a full buffer, and more is there
    EXPECT_EQ(receive_some(pair.server), error::none);
    EXPECT_TRUE(quiet()); // so that notice was withdrawn
    EXPECT_EQ(receive_some(pair.server), error::would_block);
    deliver(pair, "g");
    expect(1, notice::read);

    const std::string block(65536, 'x');
    for (uint64_t moved = 0; send(pair.server, block.data(), block.size(), moved) == error::none;) continue;
    EXPECT_TRUE(quiet());
    for (uint32_t code = 0; quiet() && code == error::none;) code = receive_some(pair.client);
    expect(1, notice::write);
}

TEST_F(WaitSets, CloseComesOnceAfterTheLastByteOrAtOnceWithAReset) {
    const Pair pair = bound_pairs(1, notice::read | notice::close)[0];
    deliver(pair, "abc");
    shutdown_socket(pair.client, 1);
    expect(1, notice::read);
    EXPECT_TRUE(quiet());
    EXPECT_EQ(receive_some(pair.server, 2), error::none);
    expect(1, notice::read);
    EXPECT_EQ(receive_some(pair.server), error::none);
    EXPECT_EQ(expect(1, notice::close).close_error, error::none);
    bind(1, pair.server, notice::all);
    expect(1, notice::write); // and no second close
    for (const uint64_t key : {2, 3}) {
        const Pair broken = connected();
        if (key == 3) deliver(broken, "unread");
        close_socket(broken.client); // a reset
        bind(key, broken.server, notice::close);
        EXPECT_EQ(expect(key, notice::close).close_error, error::connection_reset);
        EXPECT_TRUE(quiet());
    }
}

TEST_F(WaitSets, AConnectEndsInItsNoticeAndCanBeTriedAgain) {
    Address address, dead;
    keep(open_listener(address));
    close_socket(open_listener(dead));
    for (const uint64_t key : {1, 2}) { // bound before the connect, or when it is over
        const uint64_t socket = keep(open(stream));
        if (key == 1) bind(key, socket, notice::all);
        EXPECT_TRUE(quiet()); // though the system calls it writable and hung up
        for (const Address& target : {dead, address}) {
            const bool succeeds = target.port == address.port;
            ASSERT_EQ(connect_socket(socket, &target, sizeof target), error::would_block);
            wait_socket(socket, SocketWait::writable, patience_ms);
            if (key > 1) bind(key, socket, notice::all);
            const Notices notices = expect(key, notice::connect | (succeeds ? notice::write : 0));
            EXPECT_EQ(notices.connect_error, succeeds ? error::none : error::connection_refused);
            bind(key, socket, notice::all & (succeeds ? ~notice::write : ~0u)); // delivered already
            EXPECT_TRUE(quiet());
        }
    }
}

TEST_F(WaitSets, OneEdgeStandsForSeveralConnectionsAndDatagrams) {
    Address address, target;
    const uint64_t listener = keep(open_listener(address)), clients[] = {connect_to(address), connect_to(address)};
    bind(1, listener, notice::all);
    for (const uint64_t client : clients) {
        keep(client);
        expect(1, notice::accept);
        keep(accept_from(listener));
    }
    EXPECT_TRUE(quiet());
    const uint64_t receiver = keep(open_bound(datagram, target)), sender = keep(open(datagram));
    uint64_t moved = 0;
    bind(2, receiver, notice::read);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(send_to(sender, "abc", 3, &target, sizeof target, moved), error::none);
    for (const uint32_t code : {error::none, error::message_too_long, error::none}) {
        expect(2, notice::read);
        EXPECT_TRUE(quiet());
        EXPECT_EQ(receive_some(receiver, code ? 2 : 64), code);
    }
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, BindingArmsAgainAndEndsTheBindingBefore) {
    const Pair pair = bound_pairs(1, notice::read | notice::write)[0];
    std::unique_ptr<WaitSet> other;
    ASSERT_EQ(create_wait_set(other), error::none);
    expect(1, notice::write);
    bind(1, pair.server, notice::write);
    expect(1, notice::write);
    deliver(pair, "a");
    EXPECT_TRUE(quiet()); // read is not wanted
    bind(1, pair.server, notice::read);
    EXPECT_TRUE(signalled());
    bind(1, pair.server, 0);
    EXPECT_TRUE(quiet());
    bind(2, pair.server, notice::read);
    EXPECT_TRUE(signalled());
    ASSERT_EQ(other->bind(7, pair.server, notice::read), error::none);
    EXPECT_TRUE(quiet());
    bind(2, pair.server, notice::read);
    other.reset(); // does not end the binding of another
    expect(2, notice::read);
    set_->remove(2);
    EXPECT_EQ(receive_some(pair.server), error::none);
    deliver(pair, "b");
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, AHeldSocketIsNotSignalled) {
    const Pair pair = bound_pairs(1, notice::read)[0];
    Turn turn;
    for (const bool read_all : {false, true}) {
        deliver(pair, "a");
        ASSERT_TRUE(wait_for(turn));
        EXPECT_EQ(receive_some(pair.server), error::none);
        deliver(pair, "b");
        EXPECT_TRUE(quiet()); // fetches the edge
        EXPECT_EQ(read_all ? receive_some(pair.server) : error::none, error::none);
        set_->put_back(turn);
        EXPECT_EQ(quiet(), read_all); // true no more
        receive_some(pair.server);
    }
    deliver(pair, "c");
    ASSERT_TRUE(wait_for(turn));
    EXPECT_EQ(receive_some(pair.server, 1), error::none);
    deliver(pair, "d");
    std::atomic<uint32_t> id{0};
    Tally freed;
    const auto sleeper = crew(1, [&](int) {
        id = current_thread_id();
        EXPECT_EQ(next(), 1u);
        freed.add();
    });
    while (id == 0) std::this_thread::yield();
    EXPECT_TRUE(comes_to_sleep_in(id, {SYS_epoll_pwait2}));
    EXPECT_FALSE(set_->next(turn));
    EXPECT_TRUE(freed.reaches(1, soon_ms));
}

// A waiter that is not freed, or freed by an older wake, keeps the round from ending.
TEST_F(WaitSets, AWakeFreesEveryWaiterOnceAndIsNeverMissed) {
    constexpr int threads = 8, rounds = 50;
    Tally returns;
    const auto waiters = crew(threads, [&](int) {
        for (uint32_t seen = 0; seen < rounds && !HasFailure(); ++seen) {
            EXPECT_EQ(set_->wait(seen, patience_ms), WaitEnd::woken);
            EXPECT_GT(set_->generation(), seen);
            returns.add();
        }
    });
    for (int round = 1; round <= rounds && !HasFailure(); ++round) {
        set_->wake();
        EXPECT_TRUE(returns.reaches(round * threads)) << round;
    }
}

// Every thread serves one connection for as long as the others need, so each signal must free its own thread.
TEST_F(WaitSets, EverySignalFreesAnotherThread) {
    constexpr int count = 6;
    const std::vector<Pair> pairs = bound_pairs(count, notice::read);
    Tally serving;
    for (int round = 1; round <= 20 && !HasFailure(); ++round) {
        const auto threads = crew(count, [&](int) {
            Turn turn;
            while (signalled() && !set_->next(turn)) continue;
            if (turn.key == 0) return ADD_FAILURE() << "not freed in round " << round;
            serving.add();
            EXPECT_TRUE(serving.reaches(count * round, soon_ms));
            EXPECT_EQ(receive_some(pairs[turn.key - 1].server), error::none);
            set_->put_back(turn);
        });
        for (const Pair& pair : pairs) send_text(pair.client, "a");
    }
}

// Echo over several connections by several threads: no byte may stay behind, and nobody is called for nothing.
TEST_F(WaitSets, ThreadsThatShareTheSetLoseNothing) {
    const std::vector<Pair> pairs = bound_pairs(5, notice::read | notice::close);
    const auto threads = crew(3, [&](int) {
        while (set_->wait(0, VEL_INFINITE) == WaitEnd::signalled)
            for (Turn turn; set_->next(turn);) {
                uint64_t moved = 0;
                char buffer[16];
                const uint64_t server = pairs[turn.key - 1].server;
                EXPECT_EQ(receive(server, buffer, sizeof buffer, moved), error::none) << "called for nothing";
                send(server, buffer, moved, moved);
            }
    });
    for (int trip = 0; trip < 500 && !HasFailure(); ++trip) {
        const std::string text(trip % 3 == 0 ? 32 : 5, 'x'); // twice what a server takes at once, or less
        for (const Pair& pair : pairs) send_text(pair.client, text);
        for (const Pair& pair : pairs)
            for (uint64_t left = text.size(), moved = 0; left > 0 && !HasFailure(); left -= moved) {
                char buffer[64];
                EXPECT_EQ(wait_socket(pair.client, SocketWait::readable, patience_ms), error::none) << trip;
                receive(pair.client, buffer, left, moved);
            }
    }
    set_->wake();
}

// An edge wakes one thread: the others learn of it from that one, and the next set must make an edge again.
TEST_F(WaitSets, AnEventThatStaysSetFreesEveryThreadEachTime) {
    constexpr int count = 4, rounds = 200;
    void* event = make_event(true);
    ASSERT_EQ(set_->add_event(1, event), error::none);
    Tally freed, resets;
    const auto threads = crew(count, [&](int) {
        for (int round = 1; round <= rounds && next() == 1; ++round) {
            freed.add();
            EXPECT_TRUE(resets.reaches(round));
        }
    });
    for (int round = 1; round <= rounds && !HasFailure(); ++round) {
        set_event(event);
        EXPECT_TRUE(freed.reaches(round * count, soon_ms)) << round;
        reset_event(event);
        resets.add();
    }
}

// Sockets, sets and bindings end in any order, at the same time.
TEST_F(WaitSets, SocketsAndSetsMayEndTogether) {
    for (uint64_t round = 0; round < 100; ++round) {
        const Pair pair = connected();
        std::unique_ptr<WaitSet> other;
        ASSERT_EQ(create_wait_set(other), error::none);
        ASSERT_EQ(other->bind(1, pair.server, notice::all), error::none);
        const auto closer = crew(1, [&](int) { EXPECT_EQ(close_socket(pair.server), error::none); });
        if (round % 2) set_->bind(round, pair.server, notice::all);
        other.reset();
        set_->remove(round);
    }
    EXPECT_TRUE(quiet());
}

// What a killed sleeper leaves behind is given up after a while.
TEST_F(WaitSets, AKilledSleeperDoesNotKeepTheOthersFromGoingOn) {
    if (vel::testing::delays_signals) GTEST_SKIP() << "a killed thread is never joined";
    const auto start_sleeper = [this] {
        const auto sleep = [](void* set) {
            auto* waits = static_cast<WaitSet*>(set);
            return static_cast<uint32_t>(waits->wait(waits->generation(), VEL_INFINITE));
        };
        void* thread = nullptr;
        uint32_t id = 0, previous = 0;
        EXPECT_EQ(create_thread(sleep, set_.get(), 0, thread, id) + resume_thread(thread, previous), error::none);
        EXPECT_TRUE(comes_to_sleep_in(id, {SYS_epoll_pwait2}));
        return keep(thread);
    };
    void* lost = start_sleeper();
    ASSERT_EQ(terminate_thread(lost, 1), error::none);
    set_->wake();
    void* other = start_sleeper(); // waits first for the lost one to leave, in vain
    EXPECT_EQ(set_->add_event(1, lost), error::none);
    EXPECT_EQ(wait_handle(other, patience_ms), error::none); // has been given the handle of the thread that ended
}

// Others give it up after a while; when it comes after all, it still finds out of its sleep.
TEST_F(WaitSets, AStarvedSleeperMissesNoWake) {
    const Pair pair = bound_pairs(1, notice::read)[0];
    Tally begin, freed;
    std::atomic<uint32_t> ids[2] = {0, 0};
    const auto id = [&](int thread) {
        while (ids[thread] == 0) std::this_thread::yield();
        return ids[thread].load();
    };
    const auto await_wake = [&](uint32_t seen) {
        EXPECT_EQ(set_->wait(seen, VEL_INFINITE), WaitEnd::woken);
        freed.add();
    };
    const auto late = crew(1, [&](int) {
        ids[0] = current_thread_id();
        EXPECT_TRUE(begin.reaches(1));
        await_wake(0);
    });
    vel::testing::StarvedSleeper victim(id(0));
    begin.add();
    while (!victim.stopped) std::this_thread::yield();
    set_->wake();
    const auto other = crew(1, [&](int) {
        ids[1] = current_thread_id();
        expect(1, notice::read);
        freed.add();
        await_wake(1);
    });
    EXPECT_TRUE(comes_to_sleep_in(id(1), {SYS_epoll_pwait2})); // it has given the first one up
    victim.let_go = true;
    EXPECT_TRUE(freed.reaches(1, soon_ms));
    deliver(pair, "a"); // the members are there for those who sleep anew
    EXPECT_TRUE(freed.reaches(2, soon_ms));
    set_->wake();
}

// The number of the prepared socket comes to stand for a connection that nobody has bound.
TEST_F(WaitSets, ABindingGoesOverToTheConnectionThatAPortAccepts) {
    Address address;
    const uint64_t listener = keep(open_listener(address)), prepared = keep(open(stream));
    void* port = nullptr;
    ASSERT_EQ(create_port(1, port), error::none);
    ASSERT_EQ(associate(port, reinterpret_cast<void*>(listener), 1), error::none);
    bind(1, prepared, notice::all);
    IoRequest accept{};
    ASSERT_EQ(start_accept(listener, accept, prepared, nullptr, nullptr), error::none);
    const Pair pair{keep(connect_to(address)), prepared};
    Completion accepted;
    EXPECT_EQ(wait_completion(port, patience_ms, accepted) + accepted.error, error::none);
    expect(1, notice::write);
    EXPECT_EQ(receive_some(prepared), error::would_block);
    deliver(pair, "a");
    expect(1, notice::read);
    close_port(port);
}

} // namespace
} // namespace vel::os::testing
