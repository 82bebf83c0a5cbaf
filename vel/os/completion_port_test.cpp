// Contract of the completion port: liveness, posts and ends.
#include <vel/testing/completion_port_fixture.h>

#include <ctime>
#include <memory>

namespace vel::os::testing {
namespace {

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

// Liveness: a completion never waits for a busy handler while another worker is idle.

TYPED_TEST(CompletionPort, HandlerMayWaitForWhatAnotherWorkerTakes) {
    const Pair first = this->connected(1);
    const Pair second = this->connected(2);
    for (int round = 0; round < 40; ++round) {
        const bool transfer = round % 2;
        Request one, two;
        std::atomic<bool> answered{false};
        std::atomic<int> outcome{0};
        typename TestFixture::Workers workers(this->port_, 2, [&](const Completion& completion) {
            if (completion.key == 2) answered = true;
            if (completion.key != 1) return;
            transfer ? send_text(second.client, "x") : (void)TypeParam::post(this->port_, two, 0, 2);
            outcome = eventually([&] { return answered.load(); }) ? 1 : -1;
        });
        if (transfer) this->receive(second.server, two);
        ASSERT_EQ(this->receive(first.server, one), 0u);
        send_text(first.client, "x");
        EXPECT_TRUE(eventually([&] { return outcome.load() != 0; }));
        EXPECT_EQ(outcome.load(), 1);
    }
}

TYPED_TEST(CompletionPort, HandlersThatWaitAtAnotherPortDoNotSlowTheirOwn) {
    void* other = nullptr;
    void* answers = nullptr;
    ASSERT_EQ(TypeParam::create(1, other), 0u);
    ASSERT_EQ(TypeParam::create(1, answers), 0u);
    typename TestFixture::Workers workers(this->port_, 2, [&](const Completion&) {
        Completion inner;
        TypeParam::post_record(other, nullptr, 0, 1);
        TypeParam::wait(other, VEL_INFINITE, inner);
        TypeParam::post_record(answers, nullptr, 0, 1);
    });
    constexpr int rounds = 5000;
    const auto begin = std::chrono::steady_clock::now();
    Completion answer;
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(TypeParam::post_record(this->port_, nullptr, 0, 1), 0u);
        ASSERT_EQ(TypeParam::wait(answers, patience_ms, answer), 0u);
    }
    // Most of a millisecond a round would be the watchdog's doing.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::microseconds(400) * rounds);
    workers.stop();
    TypeParam::close(other);
    TypeParam::close(answers);
}

TYPED_TEST(CompletionPort, EveryIdleWorkerHelpsWhileHandlersBlock) {
    constexpr int workers_count = 16;
    this->connected(99); // so that one of the workers waits for readiness
    std::atomic<int> inside{0};
    std::atomic<bool> all_inside{false};
    typename TestFixture::Workers workers(this->port_, workers_count, [&](const Completion&) {
        if (++inside == workers_count) all_inside = true;
        eventually([&] { return all_inside.load(); });
    });
    for (int i = 0; i < workers_count; ++i) ASSERT_EQ(TypeParam::post_record(this->port_, nullptr, 0, 1), 0u);
    EXPECT_TRUE(eventually([&] { return all_inside.load(); })) << inside.load() << " of " << workers_count;
}

TYPED_TEST(CompletionPort, ReadyHandleDoesNotStarveTheOthers) {
    const Pair busy = this->connected(1);
    const Pair quiet = this->connected(2);
    Request endless(1);
    Request once;
    ASSERT_EQ(this->receive(quiet.server, once), 0u);
    send_text(busy.client, std::string(100000, 'b'));
    send_text(quiet.client, "q");
    ASSERT_EQ(this->receive(busy.server, endless), 0u);
    int takes = 0;
    while (this->take().key == 1 && ++takes < 5000) ASSERT_EQ(this->receive(busy.server, endless), 0u);
    EXPECT_LT(takes, 5000);
    EXPECT_EQ(this->take().key, 1u);
}

// Posts.

TYPED_TEST(CompletionPort, PostsArriveInOrderWithWhatTheyCarry) {
    OVERLAPPED record{7, 8, 9, 10, nullptr};
    Request request;
    ASSERT_EQ(TypeParam::post_record(this->port_, nullptr, 1, 0xFFFFFFFE), 0u);
    ASSERT_EQ(TypeParam::post_record(this->port_, &record, 2, 5), 0u);
    ASSERT_EQ(TypeParam::post(this->port_, request, uint64_t{1} << 40, 6), 0u);
    Completion completion = this->take();
    EXPECT_EQ(completion.record, nullptr);
    EXPECT_EQ(completion.bytes, 1u);
    EXPECT_EQ(completion.key, 0xFFFFFFFEu);
    completion = this->take();
    EXPECT_EQ(completion.record, &record);
    EXPECT_EQ(record.Offset, 9u);
    completion = this->take();
    EXPECT_EQ(completion.record, &request);
    EXPECT_EQ(completion.bytes, uint64_t{1} << 40);
    EXPECT_EQ(completion.error, 0u);
    this->expect_empty();
}

TYPED_TEST(CompletionPort, NoWakeUpIsLostInPingPong) {
    for (const int producers : {1, 4}) {
        const int rounds = 100000 / producers;
        void* port = this->port_;
        typename TestFixture::Workers echo(port, 1, [&](const Completion& completion) {
            TypeParam::post_record(reinterpret_cast<void*>(completion.bytes), nullptr, 0, 1);
        });
        std::atomic<int> lost{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < producers; ++i) {
            threads.emplace_back([&] {
                void* own = nullptr;
                if (TypeParam::create(1, own) != 0) ++lost;
                Completion completion;
                for (int round = 0; round < rounds && lost == 0; ++round) {
                    TypeParam::post_record(port, nullptr, reinterpret_cast<uint64_t>(own), 1);
                    if (TypeParam::wait(own, patience_ms, completion) != 0) ++lost;
                }
                TypeParam::close(own);
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(lost.load(), 0) << producers << " producers";
    }
}

TYPED_TEST(CompletionPort, PostsOfSeveralThreadsAreTakenOnceByManyWorkers) {
    constexpr uint32_t producers = 4;
    constexpr uint32_t each = 25000;
    this->connected(99); // so that posts meet a worker that waits for readiness
    std::vector<std::atomic<uint8_t>> seen(producers * each);
    std::atomic<uint32_t> taken{0};
    typename TestFixture::Workers workers(this->port_, 8, [&](const Completion& completion) {
        ++seen[completion.bytes];
        ++taken;
    });
    std::vector<std::thread> threads;
    for (uint32_t producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (uint32_t i = 0; i < each; ++i)
                TypeParam::post_record(this->port_, nullptr, producer * each + i, producer);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(eventually([&] { return taken == producers * each; })) << taken;
    for (auto& count : seen) ASSERT_EQ(count.load(), 1);
}

// Ends.

TYPED_TEST(CompletionPort, ClosingAHandleCancelsWhatIsPending) {
    const Pair pair = this->connected(7);
    std::array<Request, 3> receives;
    for (Request& each : receives) ASSERT_EQ(this->receive(pair.server, each), 0u);
    Request large(32 << 20);
    ASSERT_EQ(this->send(pair.server, large), 0u);
    this->expect_empty();
    ASSERT_EQ(close_socket(pair.server), 0u);
    for (Request& each : receives) {
        const Completion completion = this->take();
        EXPECT_EQ(completion.record, &each);
        EXPECT_EQ(completion.error, error::operation_cancelled);
        EXPECT_EQ(completion.bytes, 0u);
        EXPECT_EQ(completion.key, 7u);
    }
    const Completion completion = this->take();
    EXPECT_EQ(completion.record, &large);
    EXPECT_EQ(completion.error, error::operation_cancelled);
    EXPECT_GT(completion.bytes, 0u);
    EXPECT_LT(completion.bytes, large.data.size());
    EXPECT_EQ(this->receive(pair.server, receives[0]), error::not_a_socket);
    this->expect_empty();
}

TYPED_TEST(CompletionPort, ShutdownCancelsNothing) {
    const Pair pair = this->connected(1);
    Request pending;
    ASSERT_EQ(this->receive(pair.server, pending), 0u);
    ASSERT_EQ(shutdown_socket(pair.server, 1), 0u);
    this->expect_empty();
    Request refused;
    ASSERT_EQ(this->send(pair.server, refused), 0u);
    EXPECT_EQ(this->take().error, error::socket_shut_down);
    send_text(pair.client, "still");
    EXPECT_EQ(this->take().bytes, 5u);
}

TYPED_TEST(CompletionPort, ClosingThePortFreesWaitersAndHandles) {
    for (int round = 0; round < 50; ++round) {
        const Pair pair = this->connected(1);
        Request dropped;
        Request large(8 << 20);
        ASSERT_EQ(this->receive(pair.server, dropped), 0u);
        ASSERT_EQ(this->send(pair.server, large), 0u);
        void* port = this->port_;
        std::atomic<int> closed{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 6; ++i) {
            waiters.emplace_back([&, port] {
                Completion completion;
                const uint32_t code = TypeParam::wait(port, VEL_INFINITE, completion);
                closed += code == error::port_closed || code == error::invalid_handle;
            });
        }
        if (round % 2) std::this_thread::yield();
        ASSERT_EQ(TypeParam::close(port), 0u);
        for (auto& waiter : waiters) waiter.join();
        EXPECT_EQ(closed.load(), 6);
        EXPECT_EQ(this->receive(pair.server, dropped), error::invalid_parameter);

        ASSERT_EQ(TypeParam::create(2, this->port_), 0u); // the handle is free for another port
        this->associate(pair.server, 2);
        Request again;
        ASSERT_EQ(this->receive(pair.server, again), 0u);
        send_text(pair.client, "again");
        const Completion completion = this->take();
        EXPECT_EQ(completion.record, &again);
        EXPECT_EQ(completion.key, 2u);
        close_socket(pair.client);
        close_socket(pair.server);
    }
}

TYPED_TEST(CompletionPort, WaitersThatTimeOutLeaveTheOthersAbleToWork) {
    const Pair pair = this->connected(1);
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> timed_out{0};
        std::vector<std::thread> brief;
        for (int i = 0; i < 4; ++i) {
            brief.emplace_back([&, i] {
                Completion completion;
                timed_out += TypeParam::wait(this->port_, 1 + static_cast<uint32_t>(i), completion) == 258;
            });
        }
        Request request;
        std::atomic<bool> taken{false};
        typename TestFixture::Workers workers(this->port_, 2, [&](const Completion&) { taken = true; });
        for (auto& thread : brief) thread.join();
        EXPECT_EQ(timed_out.load(), 4);
        ASSERT_EQ(this->receive(pair.server, request), 0u);
        send_text(pair.client, "x");
        EXPECT_TRUE(eventually([&] { return taken.load(); }));
    }
}

TYPED_TEST(CompletionPort, IdleWaitersUseNoProcessor) {
    this->connected(1);
    typename TestFixture::Workers workers(this->port_, 63, [](const Completion&) {});
    void* clock_port = nullptr; // a port of its own to let time pass
    ASSERT_EQ(TypeParam::create(1, clock_port), 0u);
    Completion completion;
    TypeParam::wait(clock_port, 100, completion); // the workers get there
    const std::clock_t before = std::clock();
    EXPECT_EQ(TypeParam::wait(clock_port, 500, completion), error::wait_timeout);
    const double used_ms = 1000.0 * static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
    EXPECT_LT(used_ms, 20);
    TypeParam::close(clock_port);
}

} // namespace
} // namespace vel::os::testing
