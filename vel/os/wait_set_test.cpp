// Contract of the wait set, with real sockets on the loopback address.
#include <vel/os/wait_set.h>

#include <gtest/gtest.h>
#include <vel/os/clock.h>
#include <vel/os/event.h>
#include <vel/testing/completion_port_fixture.h>

namespace vel::os {
namespace {

using namespace os::testing;

// Calls `step` until it gives true or patience ends.
bool eventually(const std::function<bool()>& step) {
    const uint64_t end = tick_ms64() + patience_ms;
    while (!step()) {
        if (tick_ms64() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

class WaitSets : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(create_wait_set(set_), error::none); }

    void TearDown() override {
        set_.reset();
        for (const uint64_t socket : sockets_) close_socket(socket);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint64_t keep(uint64_t socket) {
        sockets_.push_back(socket);
        set_nonblocking(socket, true);
        return socket;
    }

    Pair connected() {
        Address address;
        const uint64_t listener = open_listener(address);
        const Pair pair = connect_pair(listener, address);
        close_socket(listener);
        keep(pair.client);
        keep(pair.server);
        return pair;
    }

    // Sends and sees to it that the text has arrived.
    static void deliver(const Pair& pair, const std::string& text) {
        send_text(pair.client, text);
        EXPECT_EQ(wait_socket(pair.server, SocketWait::readable, patience_ms), error::none);
    }

    void bind(uint64_t key, uint64_t socket, uint32_t notices) {
        ASSERT_EQ(set_->bind(key, socket, notices), error::none);
    }

    uint64_t next(uint64_t after = 0, uint32_t timeout_ms = patience_ms) {
        uint64_t key = 0;
        const uint32_t code = set_->wait(after, set_->generation(), timeout_ms, key);
        return code == error::none ? key : 0;
    }

    bool quiet() { return next(0, 0) == 0; }

    // Waits for the notices of a member, which is given back.
    Notices take(uint64_t key) {
        Notices notices;
        EXPECT_EQ(next(), key);
        EXPECT_TRUE(set_->take(key, notices));
        set_->put_back(key);
        return notices;
    }

    static uint32_t receive_code(uint64_t socket, uint64_t size = 64) {
        char buffer[64];
        uint64_t moved = 0;
        return receive(socket, buffer, size, moved);
    }

    // Sends until the socket takes no more; the bytes that went.
    static uint64_t fill(uint64_t socket) {
        const std::string block(65536, 'x');
        uint64_t sum = 0;
        for (uint64_t moved = 0; os::send(socket, block.data(), block.size(), moved) == error::none;) sum += moved;
        return sum;
    }

    static void drain(uint64_t socket, uint64_t bytes) {
        std::string block(65536, '\0');
        for (uint64_t moved = 0; bytes > 0; bytes -= moved) {
            if (receive(socket, block.data(), block.size(), moved) == error::would_block)
                wait_socket(socket, SocketWait::readable, patience_ms);
        }
    }

    std::unique_ptr<WaitSet> set_;
    const uint64_t handles_before_ = open_handle_count();

private:
    std::vector<uint64_t> sockets_;
};

TEST_F(WaitSets, GivesSignalledMembersInTheOrderOfKeys) {
    const Pair first = connected(), second = connected();
    void* event = nullptr;
    ASSERT_EQ(create_event(true, true, event), error::none);
    bind(3, second.server, notice::read);
    ASSERT_EQ(set_->add_event(5, event), error::none);
    bind(9, first.server, notice::read);
    deliver(first, "a");
    deliver(second, "b");
    EXPECT_EQ(next(), 3u);
    EXPECT_EQ(next(3), 5u);
    EXPECT_EQ(next(5), 9u);
    EXPECT_EQ(next(9, 0), 0u);
    EXPECT_EQ(take(3).mask, notice::read);
    EXPECT_EQ(next(), 5u); // stays signalled
    set_->remove(3);
    EXPECT_EQ(next(5), 9u);
    reset_event(event);
    EXPECT_EQ(take(9).mask, notice::read);
    EXPECT_TRUE(quiet());
    set_event(event);
    close_handle(event);
    EXPECT_TRUE(quiet());
    uint64_t key = 0;
    const uint64_t before = tick_ms64();
    EXPECT_EQ(set_->wait(0, set_->generation(), 20, key), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, 20u);
    EXPECT_EQ(set_->bind(11, ~uint64_t{0}, notice::read), error::not_a_socket);
    EXPECT_EQ(set_->add_event(11, nullptr), error::invalid_handle);
}

TEST_F(WaitSets, AReceiveArmsReadAndTellsWhetherMoreIsThere) {
    const Pair pair = connected();
    bind(1, pair.server, notice::all);
    EXPECT_EQ(take(1).mask, notice::write); // once; nothing arms it again
    deliver(pair, "abc");
    EXPECT_EQ(take(1).mask, notice::read);
    deliver(pair, "def");
    EXPECT_TRUE(quiet()); // not armed before a receive
    EXPECT_EQ(receive_code(pair.server, 4), error::none);
    EXPECT_EQ(next(), 1u); // a full buffer, and more is there
    EXPECT_EQ(receive_code(pair.server), error::none);
    EXPECT_TRUE(quiet()); // so that notice was withdrawn
    EXPECT_EQ(receive_code(pair.server), error::would_block);
    EXPECT_TRUE(quiet());
    deliver(pair, "g");
    EXPECT_EQ(take(1).mask, notice::read);
}

TEST_F(WaitSets, CloseComesAfterTheLastByteAndOnce) {
    const Pair pair = connected();
    bind(1, pair.server, notice::read | notice::close);
    deliver(pair, "abc");
    shutdown_socket(pair.client, 1);
    ASSERT_TRUE(eventually([&] {
        bool closed = false;
        peer_has_closed(pair.server, closed);
        return closed || !quiet();
    }));
    EXPECT_EQ(take(1).mask, notice::read);
    EXPECT_TRUE(quiet());
    EXPECT_EQ(receive_code(pair.server, 2), error::none);
    EXPECT_EQ(take(1).mask, notice::read);
    EXPECT_EQ(receive_code(pair.server), error::none);
    const Notices notices = take(1);
    EXPECT_EQ(notices.mask, notice::close);
    EXPECT_EQ(notices.close_error, error::none);
    EXPECT_EQ(receive_code(pair.server), error::none);
    bind(1, pair.server, notice::all);
    EXPECT_EQ(take(1).mask, notice::write); // and no second close
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, AResetGivesCloseWithItsErrorAtOnce) {
    for (const bool unread : {false, true}) {
        const Pair pair = connected();
        bind(1, pair.server, notice::read | notice::close);
        if (unread) deliver(pair, "abc");
        EXPECT_EQ(next(0, unread ? patience_ms : 0), unread ? 1u : 0u);
        close_socket(pair.client);   // a reset, see connect_to
        ASSERT_TRUE(eventually([&] { // the notices may come one after the other
            Notices notices;
            const bool taken = next() == 1 && set_->take(1, notices);
            set_->put_back(1);
            EXPECT_EQ(notices.close_error, notices.mask & notice::close ? error::connection_reset : error::none);
            return taken && (notices.mask & notice::close);
        }));
        EXPECT_TRUE(quiet());
        set_->remove(1);
    }
}

TEST_F(WaitSets, AConnectEndsInItsNotice) {
    Address address;
    const uint64_t listener = keep(open_listener(address));
    const uint64_t client = keep(open(stream));
    bind(1, client, notice::all);
    EXPECT_TRUE(quiet()); // though the system calls it writable and hung up
    ASSERT_EQ(connect_socket(client, &address, sizeof address), error::would_block);
    Notices notices = take(1);
    EXPECT_EQ(notices.mask, notice::connect | notice::write);
    EXPECT_EQ(notices.connect_error, error::none);
    EXPECT_TRUE(quiet());
    close_socket(listener);
    close_socket(client);

    for (const bool bound_before : {true, false}) {
        const uint64_t refused = keep(open(stream));
        if (bound_before) bind(2, refused, notice::all);
        ASSERT_EQ(connect_socket(refused, &address, sizeof address), error::would_block);
        ASSERT_EQ(wait_socket(refused, SocketWait::writable, patience_ms), error::none);
        bind(2, refused, notice::all);
        notices = take(2);
        EXPECT_EQ(notices.mask, notice::connect);
        EXPECT_EQ(notices.connect_error, error::connection_refused);
        EXPECT_TRUE(quiet());
        bind(2, refused, notice::all); // delivered already
        EXPECT_TRUE(quiet());
    }
}

TEST_F(WaitSets, OneEdgeStandsForSeveralConnectionsAndDatagrams) {
    Address address;
    const uint64_t listener = keep(open_listener(address));
    const uint64_t clients[] = {keep(connect_to(address)), keep(connect_to(address))};
    bind(1, listener, notice::all);
    for (const uint64_t client : clients) {
        EXPECT_EQ(take(1).mask, notice::accept);
        int32_t length = sizeof address;
        uint64_t accepted = 0;
        ASSERT_EQ(accept_socket(listener, &address, length, accepted), error::none) << client;
        keep(accepted);
    }
    EXPECT_TRUE(quiet());
    set_->remove(1);

    Address target;
    const uint64_t receiver = keep(open_bound(datagram, target)), sender = keep(open(datagram));
    bind(2, receiver, notice::read | notice::write);
    EXPECT_EQ(take(2).mask, notice::write);
    uint64_t moved = 0;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(send_to(sender, "abc", 3, &target, sizeof target, moved), error::none);
    for (const uint32_t code : {error::none, error::message_too_long, error::none}) {
        EXPECT_EQ(take(2).mask, notice::read);
        EXPECT_TRUE(quiet());
        EXPECT_EQ(receive_code(receiver, code ? 2 : 64), code);
    }
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, BindingArmsAgainAndEndsTheBindingBefore) {
    const Pair pair = connected();
    std::unique_ptr<WaitSet> other;
    ASSERT_EQ(create_wait_set(other), error::none);
    bind(1, pair.server, notice::read | notice::write);
    EXPECT_EQ(take(1).mask, notice::write);
    bind(1, pair.server, notice::write);
    EXPECT_EQ(take(1).mask, notice::write);
    deliver(pair, "a");
    EXPECT_TRUE(quiet()); // read is not wanted
    bind(1, pair.server, notice::read);
    EXPECT_EQ(next(), 1u);
    bind(1, pair.server, 0);
    EXPECT_TRUE(quiet());
    bind(1, pair.server, notice::read);
    bind(2, pair.server, notice::read);
    EXPECT_EQ(next(), 2u);
    ASSERT_EQ(other->bind(7, pair.server, notice::read), error::none);
    EXPECT_TRUE(quiet());
    uint64_t key = 0;
    ASSERT_EQ(other->wait(0, other->generation(), patience_ms, key), error::none);
    EXPECT_EQ(key, 7u);
    bind(2, pair.server, notice::read);
    other.reset(); // does not end the binding of another
    EXPECT_EQ(take(2).mask, notice::read);
    set_->remove(2);
    EXPECT_EQ(receive_code(pair.server), error::none);
    deliver(pair, "b");
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, ASendThatBlocksArmsWrite) {
    const Pair pair = connected();
    bind(1, pair.server, notice::write);
    EXPECT_EQ(take(1).mask, notice::write);
    const uint64_t bytes = fill(pair.server);
    EXPECT_TRUE(quiet());
    drain(pair.client, bytes);
    EXPECT_EQ(take(1).mask, notice::write);
    EXPECT_TRUE(quiet());
}

TEST_F(WaitSets, AHeldSocketIsNotSignalled) {
    const Pair pair = connected();
    bind(1, pair.server, notice::read);
    deliver(pair, "a");
    Notices notices;
    ASSERT_EQ(next(), 1u);
    ASSERT_TRUE(set_->take(1, notices));
    EXPECT_FALSE(set_->take(1, notices));
    EXPECT_EQ(receive_code(pair.server), error::none);
    deliver(pair, "b");
    EXPECT_TRUE(quiet()); // fetches the edge
    EXPECT_FALSE(set_->take(1, notices));
    set_->put_back(1);
    EXPECT_EQ(next(), 1u);
    ASSERT_TRUE(set_->take(1, notices));
    EXPECT_EQ(receive_code(pair.server), error::none);
    deliver(pair, "c");
    EXPECT_TRUE(quiet());
    EXPECT_EQ(receive_code(pair.server), error::none);
    set_->put_back(1);
    EXPECT_TRUE(quiet()); // true no more
    set_->put_back(99);
}

TEST_F(WaitSets, AClosedSocketIsSilentAndItsNumberIsNotMistaken) {
    const Pair pair = connected();
    bind(1, pair.server, notice::all);
    deliver(pair, "a");
    ASSERT_EQ(close_socket(pair.server), error::none);
    const Pair fresh = connected(); // has the number now
    EXPECT_TRUE(fresh.server == pair.server || fresh.client == pair.server);
    deliver(fresh, "b");
    deliver({fresh.server, fresh.client}, "b");
    EXPECT_TRUE(quiet());
    bind(2, fresh.server, notice::read);
    EXPECT_EQ(take(2).mask, notice::read);
    set_->remove(1);
    bind(4, fresh.client, notice::read);
    EXPECT_EQ(next(), 4u);
}

// Counts the returns of the threads' waits, so that a spin shows.
TEST_F(WaitSets, AWakeFreesEveryWaiterOnceAndIsNeverMissed) {
    constexpr int threads = 8;
    constexpr uint32_t rounds = 50;
    std::atomic<uint32_t> returns{0}, arrived{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; ++i)
        waiters.emplace_back([&] {
            for (uint32_t seen = 0; seen < rounds;) {
                arrived.fetch_add(1);
                uint64_t key = 99;
                EXPECT_EQ(set_->wait(0, seen, patience_ms, key), error::none);
                EXPECT_EQ(key, 0u);
                returns.fetch_add(1);
                EXPECT_GT(set_->generation(), seen);
                seen = set_->generation();
            }
        });
    for (uint32_t round = 1; round <= rounds; ++round) {
        ASSERT_TRUE(eventually([&] { return arrived.load() >= threads; }));
        arrived = 0;
        const uint32_t before = returns.load();
        set_->wake();
        ASSERT_TRUE(eventually([&] { return returns.load() == before + threads; })) << round;
    }
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(returns.load(), threads * rounds);
    uint64_t key = 99;
    set_->wake();
    EXPECT_EQ(set_->wait(0, rounds, VEL_INFINITE, key), error::none); // of an older generation
    EXPECT_EQ(key, 0u);
}

// Every thread serves one connection for as long as the others need, so each signal must free its own thread.
TEST_F(WaitSets, EverySignalFreesAnotherThread) {
    constexpr uint64_t count = 6;
    std::vector<Pair> pairs;
    for (uint64_t key = 1; key <= count; ++key) {
        pairs.push_back(connected());
        bind(key, pairs.back().server, notice::read);
    }
    for (int round = 0; round < 20; ++round) {
        std::atomic<uint64_t> serving{0};
        std::vector<std::thread> threads;
        for (uint64_t i = 0; i < count; ++i)
            threads.emplace_back([&] {
                Notices notices;
                uint64_t key = next();
                while (key != 0 && !set_->take(key, notices)) key = next();
                serving.fetch_add(1);
                EXPECT_TRUE(eventually([&] { return serving.load() == count; }));
                if (key == 0) return;
                EXPECT_EQ(receive_code(pairs[key - 1].server), error::none);
                set_->put_back(key);
            });
        for (const Pair& pair : pairs) send_text(pair.client, "a");
        for (std::thread& thread : threads) thread.join();
        ASSERT_EQ(serving.load(), count) << round;
        ASSERT_FALSE(HasFailure());
        EXPECT_TRUE(quiet());
    }
}

// Ping-pong over several connections with several threads: no byte may stay behind, and nobody is called for nothing.
TEST_F(WaitSets, ThreadsThatShareTheSetLoseNothing) {
    constexpr uint64_t connections = 5;
    constexpr int trips = 500;
    const int32_t no_delay = 1;
    std::vector<Pair> pairs;
    for (uint64_t key = 1; key <= connections; ++key) {
        pairs.push_back(connected());
        bind(key, pairs.back().server, notice::read | notice::close);
        ASSERT_EQ(set_option(pairs.back().server, 6, 1, &no_delay, sizeof no_delay), error::none);
    }
    std::atomic<bool> over{false};
    std::atomic<uint64_t> for_nothing{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!over.load()) {
                uint64_t key = 0;
                if (set_->wait(0, 0, patience_ms, key) != error::none || key == 0) continue;
                Notices notices;
                if (!set_->take(key, notices)) continue;
                char buffer[16];
                uint64_t moved = 0;
                const uint64_t server = pairs[key - 1].server;
                if (receive(server, buffer, sizeof buffer, moved) != error::none)
                    for_nothing.fetch_add(1);
                else
                    os::send(server, buffer, moved, moved);
                set_->put_back(key);
            }
        });
    std::vector<std::thread> clients;
    for (const Pair& pair : pairs)
        clients.emplace_back([&] {
            char buffer[64] = "0123456789abcdef0123456789abcdef";
            uint64_t moved = 0;
            for (int trip = 0; trip < trips; ++trip) {
                const uint64_t size = trip % 3 == 0 ? 32 : 5; // twice what a server takes at once, or less
                os::send(pair.client, buffer, size, moved);
                for (uint64_t left = size; left > 0;) {
                    if (wait_socket(pair.client, SocketWait::readable, patience_ms)) return ADD_FAILURE() << trip;
                    if (receive(pair.client, buffer, left, moved) == error::none) left -= moved;
                }
            }
        });
    for (std::thread& client : clients) client.join();
    over = true;
    set_->wake();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(for_nothing.load(), 0u);
}

TEST_F(WaitSets, SleepersLearnOfMembersThatAreAddedAndOfEvents) {
    const Pair pair = connected();
    send_text(pair.client, "a");
    void* event = nullptr;
    ASSERT_EQ(create_event(false, false, event), error::none);
    std::atomic<uint64_t> got{0};
    std::thread sleeper([&] {
        for (int i = 0; i < 3; ++i) {
            got = next();
            Notices notices;
            if (got == 1 && set_->take(1, notices)) set_->put_back(1);
            EXPECT_TRUE(eventually([&] { return got.load() == 0; }));
        }
    });
    bind(1, pair.server, notice::read);
    const auto expect = [&](uint64_t key) {
        EXPECT_TRUE(eventually([&] { return got.load() == key; }));
        got = 0;
    };
    expect(1);
    ASSERT_EQ(set_->add_event(2, event), error::none);
    for (int i = 0; i < 2; ++i) {
        set_event(event); // auto-reset: frees one wait
        expect(2);
    }
    sleeper.join();
    EXPECT_TRUE(quiet());
    close_handle(event);
}

} // namespace
} // namespace vel::os
