// Contract of the completion port: transfers, liveness and ends.
#include <vel/testing/completion_port_fixture.h>

#include <ctime>
#include <vel/os/file.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

TEST_F(CompletionPort, DataAndEndOfStreamInOneEdge) {
    for (int round = 0; round < 200; ++round) {
        const Pair pair = connected(1);
        Request probe(0), head(2), tail, end, answer;
        for (Request* request : {&probe, &head, &tail}) ASSERT_EQ(start_receive(pair.server, *request), 0u);
        expect_empty(); // the probe waits for input, too, and takes none
        send_text(pair.client, "bye");
        ASSERT_EQ(shutdown_socket(pair.client, 1), 0u);
        expect(probe, 0);
        expect(head, 2);
        expect(tail, 1);
        ASSERT_EQ(start_receive(pair.server, end), 0u);
        expect(end, 0);
        ASSERT_EQ(start_send(pair.server, answer), 0u); // the other direction is still open
        expect(answer, answer.data.size());
    }
}

TEST_F(CompletionPort, AimedRequestIsNotForALaterHandleOfTheSameNumber) {
    const Pair pair = connected(1);
    Request aimed;
    aim(aimed, reinterpret_cast<void*>(pair.server));
    ASSERT_EQ(start_send(pair.server, aimed), 0u);
    expect(aimed, aimed.data.size());
    close_socket(pair.server);
    uint64_t later = keep(open(datagram));
    while (later != pair.server) later = keep(open(datagram)); // takes the lowest number that is free
    bind(later, 2);
    EXPECT_EQ(start_send(later, aimed), error::not_a_socket);
    aim(aimed, nullptr);
    EXPECT_NE(start_send(later, aimed), error::not_a_socket);
}

TEST_F(CompletionPort, NoEdgeIsLostWhileSendsMeetAFullSocket) {
    constexpr int count = 2000;
    const Pair pair = connected(1);
    std::array<Request, 2> sends{Request(300000), Request(300000)}; // more than the socket takes at once
    Tally completed;
    std::atomic<int> left{count - 2};
    Workers workers(port_, 2, [&](const Completion& completion) {
        if (left-- > 0) start_send(pair.server, *static_cast<Request*>(static_cast<IoRequest*>(completion.record)));
        completed.add();
    });
    std::thread reader([&] {
        std::string room(200000, '\0');
        uint64_t moved = 1;
        while (moved > 0 && os::receive(pair.client, room.data(), room.size(), moved) == 0) continue;
    });
    for (Request& each : sends) EXPECT_EQ(start_send(pair.server, each), 0u);
    EXPECT_TRUE(completed.reaches(count)) << completed.count();
    close_socket(pair.client);
    reader.join();
}

TEST_F(CompletionPort, SeveralAcceptsAreServedByOneEdge) {
    Address address, local, remote;
    const uint64_t listener = keep(open_listener(address)), closed = open(stream);
    bind(listener, 1);
    std::array<Request, 12> accepts;
    std::array<uint64_t, 12> clients, servers;
    ASSERT_EQ(start_accept(listener, accepts[0], closed, &local, &remote), 0u);
    ASSERT_EQ(close_socket(closed), 0u); // before a connection comes, so that it costs none
    for (uint64_t& client : clients) client = keep(connect_to(address));
    expect(accepts[0], 0, error::not_a_socket);
    for (size_t i = 0; i < accepts.size(); ++i) {
        servers[i] = keep(open(stream));
        if (i % 2) bind(servers[i], 2);
        ASSERT_EQ(start_accept(listener, accepts[i], servers[i], &local, &remote), 0u);
    }
    for (const Request& accept : accepts) expect(accept, 0);
    for (size_t i = 0; i < accepts.size(); ++i) {
        Request data;
        if (i % 2 == 0) bind(servers[i], 2);
        send_text(clients[i], "hello");
        ASSERT_EQ(start_receive(servers[i], data), 0u);
        EXPECT_EQ(expect(data, 5), 2u);
    }
}

TEST_F(CompletionPort, FilesEndAtTheirEndAndGoBeyondFourGib) {
    const vel::testing::TemporaryDirectory directory;
    void* file = nullptr;
    ASSERT_EQ(open_file(directory.file("data", "0123456789").c_str(), FileOpen::open_write, file), 0u);
    ASSERT_EQ(associate(port_, keep(file), 3), 0u);
    Request across(4), beyond(4), far(4);
    across.Offset = 8;
    beyond.Offset = 10;
    far.Offset = far.OffsetHigh = 1;
    for (Request* each : {&across, &beyond}) ASSERT_EQ(start_read_file(file, *each, each->data.data(), 4), 0u);
    EXPECT_EQ(expect(across, 2), 3u);
    expect(beyond, 0, error::end_of_file);
    ASSERT_EQ(start_write_file(file, far, "far!", 4), 0u);
    expect(far, 4);
    uint64_t size = 0;
    ASSERT_EQ(file_size(file, size), 0u);
    EXPECT_EQ(size, (uint64_t{1} << 32) + 5);
    OVERLAPPED bare{0, 0, 4, 0, nullptr};
    EXPECT_EQ(overlapped_receive(reinterpret_cast<uint64_t>(file), far.data.data(), 3, bare, size), error::io_pending);
    expect(bare, 3);
    EXPECT_EQ(far.data.substr(0, 3), "456");
}

TEST_F(CompletionPort, BareRecordsGoThroughThePortOfTheirHandle) {
    const Pair pair = connected(4);
    OVERLAPPED input{}, output{0, 0, 0, 0, make_event(true)};
    char text[3];
    uint64_t moved = 99;
    EXPECT_EQ(overlapped_receive(pair.server, text, 3, input, moved), error::io_pending);
    EXPECT_EQ(overlapped_send(pair.server, "abc", 3, output, moved), error::io_pending);
    EXPECT_EQ(expect(output, 3), 4u);
    EXPECT_EQ(output.InternalHigh, 3u);
    EXPECT_EQ(wait_handle(output.hEvent, patience_ms), 0u);
    close_socket(pair.server);
    expect(input, 0, error::operation_cancelled);
    EXPECT_EQ(input.Internal, error::operation_cancelled);
}

TEST_F(CompletionPort, BlockedHandlerDelaysNobodyWhileAnotherWorkerIsIdle) {
    const Pair pairs[] = {connected(1), connected(2)};
    for (int round = 0; round < 20; ++round) {
        Request requests[] = {Request(1), Request(1)};
        Tally answered, outcome;
        Workers workers(port_, 2, [&](const Completion& completion) {
            if (completion.key == 2) return answered.add();
            send_text(pairs[1].client, "x");
            EXPECT_TRUE(answered.reaches(1));
            return outcome.add();
        });
        for (int i : {0, 1}) ASSERT_EQ(start_receive(pairs[i].server, requests[i]), 0u);
        send_text(pairs[0].client, "x");
        EXPECT_TRUE(outcome.reaches(1));
    }
}

TEST_F(CompletionPort, IdleWaitersUseNoProcessor) {
    connected(1);
    const Workers workers(port_, 63, [](const Completion&) {});
    const auto pass = [event = make_event(true)](uint32_t time_ms) { wait_handle(event, time_ms); };
    pass(100); // the workers get there
    const std::clock_t before = std::clock();
    pass(500);
    EXPECT_LT(1000.0 * static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC, 20);
}

TEST_F(CompletionPort, NoWakeUpIsLostInPingPong) {
    const Workers echo(port_, 1, [](const Completion& each) { post(reinterpret_cast<void*>(each.bytes), 0, 1); });
    for (const int producers : {1, 4})
        crew(producers, [&](int) {
            void* own = nullptr;
            Completion completion;
            EXPECT_EQ(create_port(1, own), 0u);
            for (int round = 0; round < 100000 / producers && !HasFailure(); ++round) {
                post(port_, reinterpret_cast<uint64_t>(own), 1);
                EXPECT_EQ(wait_completion(own, patience_ms, completion), 0u) << producers << " producers";
            }
            close_port(own);
        });
}

TEST_F(CompletionPort, ClosingThePortFreesWaitersAndHandles) {
    const Pair pair = connected(1);
    for (int round = 0; round < 50; ++round) {
        Request dropped, again;
        ASSERT_EQ(start_receive(pair.server, dropped), 0u);
        Workers waiters(port_, 6, [](const Completion&) {});
        if (round % 2) std::this_thread::yield();
        ASSERT_EQ(close_port(port_), 0u);
        waiters.stop(); // nobody is left to take its posts: each wait has ended by itself
        EXPECT_EQ(start_receive(pair.server, dropped), error::invalid_parameter);

        ASSERT_EQ(create_port(2, port_), 0u); // the handle is free for another port
        bind(pair.server, 2);
        ASSERT_EQ(start_receive(pair.server, again), 0u);
        send_text(pair.client, "again");
        EXPECT_EQ(expect(again, 5), 2u);
    }
}

} // namespace
} // namespace vel::os::testing
