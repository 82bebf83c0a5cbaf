// Contract of the completion port: one completion a request, whatever happens to its handle meanwhile.
#include <vel/testing/completion_port_fixture.h>

#include <functional>
#include <memory>

namespace vel::os::testing {
namespace {

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

// What the workers of a race have taken.
struct Tally {
    std::atomic<int> completed{0};
    std::atomic<int> doubled{0};

    void operator()(const Completion& completion) {
        auto& request = *static_cast<Request*>(static_cast<IoRequest*>(completion.record));
        if (++request.completions != 1) ++doubled;
        ++completed;
    }
};

TYPED_TEST(CompletionPort, ClosingRacesWithDatagramTransfers) {
    constexpr int rounds = 60000;
    struct Round {
        Request receives[2]{Request(8), Request(8)};
        Request send{8};
        Address address;
        int started = 0;
    };
    Tally tally;
    typename TestFixture::Workers workers(this->port_, 3, std::ref(tally));
    void* to_close = nullptr; // sockets on their way to the thread that closes them
    ASSERT_EQ(TypeParam::create(1, to_close), 0u);
    auto closer = std::make_unique<typename TestFixture::Workers>(
        to_close, 1, [](const Completion& completion) { close_socket(completion.bytes); });
    int started = 0;
    std::vector<std::unique_ptr<Round>> held;
    for (int i = 0; i < rounds; ++i) {
        auto round = std::make_unique<Round>();
        const uint64_t socket = open_bound(datagram, round->address);
        this->associate(socket, 1);
        if (i % 2) TypeParam::post_record(to_close, nullptr, socket, 1); // closed while the requests are being started
        for (Request& each : round->receives) round->started += this->receive(socket, each) == 0;
        round->started += TypeParam::send_to(socket, round->send, round->send.data.data(), 8, &round->address,
                                             sizeof round->address) == 0;
        if (i % 2 == 0) TypeParam::post_record(to_close, nullptr, socket, 1); // closed while they complete
        started += round->started;
        held.push_back(std::move(round));
        if (held.size() < 200) continue;
        ASSERT_TRUE(eventually([&] { return tally.completed == started; })) << tally.completed << " of " << started;
        held.clear();
    }
    closer.reset();
    TypeParam::close(to_close);
    EXPECT_TRUE(eventually([&] { return tally.completed == started; })) << tally.completed << " of " << started;
    EXPECT_EQ(tally.doubled.load(), 0);
    workers.stop();
    this->expect_empty();
}

TYPED_TEST(CompletionPort, ClosingRacesWithStreamTransfers) {
    constexpr int rounds = 4000;
    constexpr int requests = 10;
    Tally tally;
    typename TestFixture::Workers workers(this->port_, 3, std::ref(tally));
    for (int round = 0; round < rounds; ++round) {
        const Pair pair = this->connected(1);
        reset_on_close(pair.client);
        tally.completed = 0;
        int started = 0;
        std::array<Request, requests> receives;
        std::array<Request, requests> sends;
        std::thread closer([&] {
            uint64_t moved = 0;
            os::send(pair.client, "0123456789", 10, moved);
            if (round % 4 == 0) close_socket(pair.client);
            close_socket(pair.server);
        });
        for (size_t i = 0; i < requests; ++i) {
            started += this->receive(pair.server, receives[i]) == 0;
            started += this->send(pair.server, sends[i]) == 0;
        }
        closer.join();
        ASSERT_TRUE(eventually([&] { return tally.completed == started; })) << tally.completed << " of " << started;
        close_socket(pair.client);
    }
    EXPECT_EQ(tally.doubled.load(), 0);
}

TYPED_TEST(CompletionPort, ClosingRacesWithConnectsAndAccepts) {
    constexpr int rounds = 4000;
    Tally tally;
    typename TestFixture::Workers workers(this->port_, 3, std::ref(tally));
    int started = 0;
    for (int round = 0; round < rounds; ++round) {
        Address address, local, remote;
        const uint64_t listener = open_listener(address);
        this->associate(listener, 1);
        const uint64_t prepared = this->open_stream();
        const uint64_t socket = this->associated_stream(2);
        reset_on_close(socket);
        Request accept;
        Request connect;
        started += TypeParam::accept(listener, accept, prepared, &local, &remote) == 0;
        started += TypeParam::connect(socket, connect, &address, sizeof address) == 0;
        close_socket(round % 3 == 0 ? listener : round % 3 == 1 ? prepared : socket);
        close_socket(round % 3 == 0 ? socket : listener);
        close_socket(round % 3 == 1 ? socket : prepared);
        ASSERT_TRUE(eventually([&] { return tally.completed == started; })) << tally.completed << " of " << started;
    }
}

} // namespace
} // namespace vel::os::testing
