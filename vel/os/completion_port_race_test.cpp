// Contract of the completion port: one completion a request, whatever happens to its handle meanwhile.
#include <vel/testing/completion_port_fixture.h>

#include <memory>

namespace vel::os::testing {
namespace {

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

// Races: exactly one completion a started request, whatever happens to its handle meanwhile.

TYPED_TEST(CompletionPort, ClosingRacesWithDatagramTransfers) {
    constexpr int rounds = 60000;
    struct Round {
        Request receives[2]{Request(8), Request(8)};
        Request send{8};
        Address address;
        int started = 0;
    };
    std::atomic<int> completed{0};
    std::atomic<int> doubled{0};
    typename TestFixture::Workers workers(this->port_, 3, [&](const Completion& completion) {
        auto& request = *static_cast<Request*>(static_cast<IoRequest*>(completion.record));
        if (++request.completions != 1) ++doubled;
        ++completed;
    });
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
        ASSERT_TRUE(eventually([&] { return completed == started; })) << completed << " of " << started;
        held.clear();
    }
    closer.reset();
    TypeParam::close(to_close);
    EXPECT_TRUE(eventually([&] { return completed == started; })) << completed << " of " << started;
    EXPECT_EQ(doubled.load(), 0);
    workers.stop();
    this->expect_empty();
}

TYPED_TEST(CompletionPort, ClosingRacesWithStreamTransfers) {
    constexpr int rounds = 4000;
    constexpr int requests = 10;
    std::atomic<int> completed{0};
    std::atomic<int> doubled{0};
    typename TestFixture::Workers workers(this->port_, 3, [&](const Completion& completion) {
        auto& request = *static_cast<Request*>(static_cast<IoRequest*>(completion.record));
        if (++request.completions != 1) ++doubled;
        ++completed;
    });
    Address address;
    const uint64_t listener = this->keep(open_listener(address));
    for (int round = 0; round < rounds; ++round) {
        const uint64_t client = connect_to(address);
        uint64_t server = VEL_INVALID_SOCKET;
        Address peer;
        int32_t length = sizeof peer;
        ASSERT_EQ(accept_socket(listener, &peer, length, server), 0u);
        this->associate(server, 1);
        completed = 0;
        int started = 0;
        std::array<Request, requests> receives;
        std::array<Request, requests> sends;
        std::thread closer([&] {
            uint64_t moved = 0;
            os::send(client, "0123456789", 10, moved);
            if (round % 4 == 0) close_socket(client);
            close_socket(server);
        });
        for (size_t i = 0; i < requests; ++i) {
            started += this->receive(server, receives[i]) == 0;
            started += this->send(server, sends[i]) == 0;
        }
        closer.join();
        ASSERT_TRUE(eventually([&] { return completed == started; })) << completed << " of " << started;
        close_socket(client);
    }
    EXPECT_EQ(doubled.load(), 0);
}

TYPED_TEST(CompletionPort, ClosingRacesWithConnectsAndAccepts) {
    constexpr int rounds = 4000;
    std::atomic<int> completed{0};
    typename TestFixture::Workers workers(this->port_, 3, [&](const Completion&) { ++completed; });
    int started = 0;
    for (int round = 0; round < rounds; ++round) {
        Address address, local, remote;
        const uint64_t listener = open_listener(address);
        uint64_t prepared = VEL_INVALID_SOCKET;
        uint64_t socket = VEL_INVALID_SOCKET;
        ASSERT_EQ(open_socket(ipv4, stream, 0, prepared), 0u);
        ASSERT_EQ(open_socket(ipv4, stream, 0, socket), 0u);
        this->associate(listener, 1);
        this->associate(socket, 2);
        Request accept;
        Request connect;
        started += TypeParam::accept(listener, accept, prepared, &local, &remote) == 0;
        started += TypeParam::connect(socket, connect, &address, sizeof address) == 0;
        close_socket(round % 3 == 0 ? listener : round % 3 == 1 ? prepared : socket);
        close_socket(round % 3 == 0 ? socket : listener);
        close_socket(round % 3 == 1 ? socket : prepared);
        ASSERT_TRUE(eventually([&] { return completed == started; })) << completed << " of " << started;
    }
}

} // namespace
} // namespace vel::os::testing
