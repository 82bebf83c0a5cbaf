// Contract of the completion port: liveness and ends.
#include <vel/testing/completion_port_fixture.h>

#include <ctime>

namespace vel::os::testing {
namespace {

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

TYPED_TEST(CompletionPort, BlockedHandlerDelaysNobodyWhileAnotherWorkerIsIdle) {
    const Pair first = this->connected(1);
    const Pair second = this->connected(2);
    for (int round = 0; round < 40; ++round) {
        const bool transfer = round % 2;
        const auto trigger = [&](const Pair& pair, uint32_t key) {
            if (transfer) return send_text(pair.client, "x");
            TypeParam::post(this->port_, 0, key);
        };
        Request one(1), two(1);
        std::atomic<bool> answered{false};
        std::atomic<int> outcome{0};
        typename TestFixture::Workers workers(this->port_, 2, [&](const Completion& completion) {
            if (completion.key == 2) answered = true;
            if (completion.key != 1) return;
            trigger(second, 2);
            outcome = eventually([&] { return answered.load(); }) ? 1 : -1;
        });
        if (transfer) {
            ASSERT_EQ(this->receive(first.server, one), 0u);
            ASSERT_EQ(this->receive(second.server, two), 0u);
        }
        trigger(first, 1);
        EXPECT_TRUE(eventually([&] { return outcome.load() != 0; }));
        EXPECT_EQ(outcome.load(), 1);
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

TYPED_TEST(CompletionPort, NoWakeUpIsLostInPingPong) {
    void* port = this->port_;
    typename TestFixture::Workers echo(port, 1, [&](const Completion& completion) {
        TypeParam::post(reinterpret_cast<void*>(completion.bytes), 0, 1);
    });
    for (const int producers : {1, 4}) {
        std::atomic<int> lost{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < producers; ++i) {
            threads.emplace_back([&] {
                void* own = nullptr;
                if (TypeParam::create(1, own) != 0) ++lost;
                Completion completion;
                for (int round = 0; round < 100000 / producers && lost == 0; ++round) {
                    TypeParam::post(port, reinterpret_cast<uint64_t>(own), 1);
                    if (TypeParam::wait(own, patience_ms, completion) != 0) ++lost;
                }
                TypeParam::close(own);
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(lost.load(), 0) << producers << " producers";
    }
}

TYPED_TEST(CompletionPort, RequestsOutliveTheThreadThatStartedThem) {
    const Pair pair = this->connected(1);
    Request request;
    std::thread([&] {
        EXPECT_EQ(this->receive(pair.server, request), 0u);
        Completion completion; // a wait that timed out leaves the others able to work
        EXPECT_EQ(TypeParam::wait(this->port_, 5, completion), error::wait_timeout);
    }).join();
    send_text(pair.client, "late");
    this->expect(request, 4);
}

TYPED_TEST(CompletionPort, ClosingThePortFreesWaitersAndHandles) {
    const Pair pair = this->connected(1);
    for (int round = 0; round < 50; ++round) {
        Request dropped, again;
        ASSERT_EQ(this->receive(pair.server, dropped), 0u);
        typename TestFixture::Workers waiters(this->port_, 6, [](const Completion&) {});
        if (round % 2) std::this_thread::yield();
        ASSERT_EQ(TypeParam::close(this->port_), 0u);
        waiters.stop(); // nobody is left to take its posts: each wait has ended by itself
        EXPECT_EQ(this->receive(pair.server, dropped), error::invalid_parameter);

        ASSERT_EQ(TypeParam::create(2, this->port_), 0u); // the handle is free for another port
        this->associate(pair.server, 2);
        ASSERT_EQ(this->receive(pair.server, again), 0u);
        send_text(pair.client, "again");
        EXPECT_EQ(this->expect(again, 5), 2u);
    }
}

} // namespace
} // namespace vel::os::testing
