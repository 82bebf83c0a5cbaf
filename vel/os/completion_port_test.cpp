// Contract of the completion port: transfers, liveness and ends.
#include <vel/testing/completion_port_fixture.h>

#include <ctime>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

using vel::testing::TemporaryDirectory;

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

TYPED_TEST(CompletionPort, DataAndEndOfStreamInOneEdge) {
    for (int round = 0; round < 200; ++round) {
        const Pair pair = this->connected(1);
        Request probe(0), head(2), tail, end, answer;
        ASSERT_EQ(this->receive(pair.server, probe), 0u); // waits for input and takes none
        ASSERT_EQ(this->receive(pair.server, head), 0u);
        ASSERT_EQ(this->receive(pair.server, tail), 0u);
        this->expect_empty();
        send_text(pair.client, "bye");
        ASSERT_EQ(shutdown_socket(pair.client, 1), 0u);
        this->expect(probe, 0);
        this->expect(head, 2);
        this->expect(tail, 1);
        ASSERT_EQ(this->receive(pair.server, end), 0u);
        this->expect(end, 0);
        ASSERT_EQ(this->send(pair.server, answer), 0u); // the other direction is still open
        this->expect(answer, answer.data.size());
        close_socket(pair.server);
        close_socket(pair.client);
    }
}

TYPED_TEST(CompletionPort, WrongCallsFailAtTheStart) {
    Request request;
    Completion completion;
    const uint64_t lone = this->keep(open(stream));
    void* handle = reinterpret_cast<void*>(lone);
    EXPECT_EQ(this->receive(lone, request), error::invalid_parameter); // not associated yet
    this->associate(lone, 1);
    EXPECT_EQ(this->receive(lone, request), error::not_connected);
    EXPECT_EQ(TypeParam::associate(this->port_, handle, 2), error::invalid_parameter);
    EXPECT_EQ(TypeParam::accept(lone, request, lone, nullptr, nullptr), error::invalid_parameter);
    EXPECT_EQ(TypeParam::wait(handle, 0, completion), error::invalid_handle);
    this->expect_empty();
}

TYPED_TEST(CompletionPort, SeveralAcceptsAreServedByOneEdge) {
    Address address, local, remote;
    const uint64_t listener = this->keep(open_listener(address), 1);
    const uint64_t closed = open(stream); // before a connection comes, so that it costs none
    std::array<Request, 12> accepts;
    std::array<uint64_t, 12> clients, servers;
    ASSERT_EQ(TypeParam::accept(listener, accepts[0], closed, &local, &remote), 0u);
    ASSERT_EQ(close_socket(closed), 0u);
    for (uint64_t& client : clients) client = this->keep(connect_to(address));
    this->expect(accepts[0], 0, error::not_a_socket);
    for (size_t i = 0; i < accepts.size(); ++i) {
        servers[i] = this->keep(open(stream));
        if (i % 2) this->associate(servers[i], 2);
        ASSERT_EQ(TypeParam::accept(listener, accepts[i], servers[i], &local, &remote), 0u);
    }
    for (size_t i = 0; i < accepts.size(); ++i) {
        this->expect(accepts[i], 0);
        if (i % 2 == 0) this->associate(servers[i], 2);
    }
    for (size_t i = 0; i < accepts.size(); ++i) {
        Request data;
        send_text(clients[i], "hello");
        ASSERT_EQ(this->receive(servers[i], data), 0u);
        EXPECT_EQ(this->expect(data, 5), 2u);
    }
}

uint32_t read(void* file, Request& request, uint32_t offset) {
    request.Offset = offset;
    return start_read_file(file, request, request.data.data(), request.data.size());
}

TYPED_TEST(CompletionPort, FilesAreReadAndWrittenAtTheirOffsets) {
    const TemporaryDirectory directory;
    void* file = nullptr;
    ASSERT_EQ(open_file(directory.file("data", "0123456789").c_str(), FileOpen::open_write, file), 0u);
    ASSERT_EQ(TypeParam::associate(this->port_, file, 3), 0u);
    Request inner(4), across(4), beyond(4), far(4);
    ASSERT_EQ(read(file, inner, 2), 0u);
    ASSERT_EQ(read(file, across, 8), 0u);
    ASSERT_EQ(read(file, beyond, 10), 0u);
    EXPECT_EQ(this->expect(inner, 4), 3u);
    EXPECT_EQ(inner.data, "2345");
    this->expect(across, 2);
    this->expect(beyond, 0, error::end_of_file);
    far.Offset = 1;
    far.OffsetHigh = 1;
    ASSERT_EQ(start_write_file(file, far, "far!", 4), 0u);
    this->expect(far, 4);
    uint64_t size = 0;
    ASSERT_EQ(file_size(file, size), 0u);
    EXPECT_EQ(size, (uint64_t{1} << 32) + 5);
    OVERLAPPED bare{0, 0, 4, 0, nullptr};
    EXPECT_EQ(overlapped_receive(reinterpret_cast<uint64_t>(file), far.data.data(), 3, bare, size), error::io_pending);
    this->expect(bare, 3);
    EXPECT_EQ(far.data.substr(0, 3), "456");
    close_handle(file);
    EXPECT_EQ(read(file, inner, 0), error::not_a_socket); // neither file nor socket
}

TYPED_TEST(CompletionPort, BareRecordsGoThroughThePortOfTheirHandle) {
    void* event = nullptr;
    ASSERT_EQ(create_event(true, false, event), 0u);
    const Pair pair = this->connected(4);
    OVERLAPPED input{}, output{0, 0, 0, 0, event};
    char text[3];
    uint64_t moved = 99;
    EXPECT_EQ(overlapped_receive(pair.server, text, 3, input, moved), error::io_pending);
    EXPECT_EQ(overlapped_send(pair.server, "abc", 3, output, moved), error::io_pending);
    EXPECT_EQ(this->expect(output, 3), 4u);
    EXPECT_EQ(output.InternalHigh, 3u);
    EXPECT_EQ(wait_handle(event, patience_ms), 0u);
    close_socket(pair.server);
    this->expect(input, 0, error::operation_cancelled);
    EXPECT_EQ(input.Internal, error::operation_cancelled);
    close_handle(event);
}

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
        Tally answered, outcome;
        typename TestFixture::Workers workers(this->port_, 2, [&](const Completion& completion) {
            if (completion.key == 2) answered.add();
            if (completion.key != 1) return;
            trigger(second, 2);
            EXPECT_TRUE(answered.reaches(1));
            outcome.add();
        });
        if (transfer) {
            ASSERT_EQ(this->receive(first.server, one), 0u);
            ASSERT_EQ(this->receive(second.server, two), 0u);
        }
        trigger(first, 1);
        EXPECT_TRUE(outcome.reaches(1));
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
