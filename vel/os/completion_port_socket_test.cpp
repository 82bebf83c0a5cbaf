// Contract of the completion port: transfers of sockets.
#include <vel/testing/completion_port_fixture.h>

namespace vel::os::testing {
namespace {

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

// Receives until the expected text is whole or the stream ends.
bool receives_exactly(uint64_t socket, const std::string& expected) {
    std::vector<char> buffer(1 << 16);
    size_t total = 0;
    while (total < expected.size()) {
        uint64_t moved = 0;
        if (os::receive(socket, buffer.data(), buffer.size(), moved) != 0 || moved == 0) return false;
        if (expected.compare(total, moved, buffer.data(), moved) != 0) return false;
        total += moved;
    }
    return true;
}

TYPED_TEST(CompletionPort, LargeSendCompletesOnceWithAllBytes) {
    constexpr size_t size = 64 << 20;
    for (const bool small_buffer : {true, false}) {
        const Pair pair = this->connected(1);
        const int bytes = 128 << 10;
        if (small_buffer) set_option(pair.server, 0xFFFF, 0x1001, &bytes, sizeof bytes);
        Request whole(size);
        for (size_t i = 0; i < size; i += 4096) whole.data[i] = static_cast<char>(i >> 12);
        this->expect_empty();
        ASSERT_EQ(this->send(pair.server, whole), 0u);
        this->expect_empty();
        bool right = false;
        std::thread reader([&] { right = receives_exactly(pair.client, whole.data); });
        this->expect(whole, size);
        close_socket(pair.server);
        reader.join();
        EXPECT_TRUE(right);
        this->expect_empty();
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

TYPED_TEST(CompletionPort, ConnectsAndIsRefused) {
    Address address;
    const uint64_t listener = open_listener(address);
    const uint64_t socket = this->keep(open(stream), 4);
    const uint64_t refused = this->keep(open(stream), 5);
    Request connecting, greeting;
    ASSERT_EQ(TypeParam::connect(socket, connecting, &address, sizeof address), 0u);
    ASSERT_EQ(this->send(socket, greeting), 0u); // goes out once connected
    EXPECT_EQ(this->expect(connecting, 0), 4u);
    this->expect(greeting, greeting.data.size());
    close_socket(listener);
    ASSERT_EQ(TypeParam::connect(refused, connecting, &address, sizeof address), 0u);
    EXPECT_EQ(this->expect(connecting, 0, error::connection_refused), 5u);
}

TYPED_TEST(CompletionPort, SeveralAcceptsAreServedByOneEdge) {
    Address address, local, remote;
    const uint64_t listener = this->keep(open_listener(address), 1);
    Request costs_nothing; // its socket is closed before a connection comes
    const uint64_t closed = open(stream);
    ASSERT_EQ(TypeParam::accept(listener, costs_nothing, closed, &local, &remote), 0u);
    ASSERT_EQ(close_socket(closed), 0u);
    std::array<Request, 12> accepts;
    std::array<uint64_t, 12> clients, servers;
    for (uint64_t& client : clients) client = this->keep(connect_to(address));
    this->expect(costs_nothing, 0, error::not_a_socket);
    for (size_t i = 0; i < accepts.size(); ++i) {
        servers[i] = this->keep(open(stream));
        if (i % 2) this->associate(servers[i], 2);
        ASSERT_EQ(TypeParam::accept(listener, accepts[i], servers[i], &local, &remote), 0u);
    }
    for (size_t i = 0; i < accepts.size(); ++i) {
        this->expect(accepts[i], 0);
        send_text(clients[i], "hello");
        if (i % 2 == 0) this->associate(servers[i], 2);
    }
    for (size_t i = 0; i < accepts.size(); ++i) {
        Request data;
        ASSERT_EQ(this->receive(servers[i], data), 0u);
        EXPECT_EQ(this->expect(data, 5), 2u);
    }
    int32_t length = sizeof local;
    ASSERT_EQ(local_name(clients.back(), &local, length), 0u);
    EXPECT_EQ(remote.port, local.port);
}

TYPED_TEST(CompletionPort, TruncatedDatagramsSayWhoSentThem) {
    Address one, two, sender;
    const uint64_t from = this->keep(open_bound(datagram, one), 1);
    const uint64_t to = this->keep(open_bound(datagram, two), 2);
    Request small(4), out;
    int32_t length = sizeof sender;
    ASSERT_EQ(TypeParam::receive_from(to, small, small.data.data(), 4, &sender, &length), 0u);
    ASSERT_EQ(TypeParam::send_to(from, out, "datagram", 8, &two, sizeof two), 0u);
    this->expect(out, 8);
    EXPECT_EQ(this->expect(small, 4, error::message_too_long), 2u);
    EXPECT_EQ(small.data, "data");
    EXPECT_EQ(sender.port, one.port);
}

} // namespace
} // namespace vel::os::testing
