// Contract of the completion port: transfers of sockets.
#include <vel/testing/completion_port_fixture.h>

#include <algorithm>
#include <memory>
#include <numeric>

namespace vel::os::testing {
namespace {

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

TYPED_TEST(CompletionPort, ReceivesBeforeAndAfterTheData) {
    const Pair pair = this->connected(3);
    Request early, late;
    std::thread([&] { EXPECT_EQ(this->receive(pair.server, early), 0u); }).join(); // outlives its starter
    this->expect_empty();
    send_text(pair.client, "first");
    Completion completion = this->take();
    EXPECT_EQ(completion.record, &early);
    EXPECT_EQ(completion.key, 3u);
    EXPECT_EQ(completion.error, 0u);
    EXPECT_EQ(early.data.substr(0, completion.bytes), "first");
    send_text(pair.client, "second");
    ASSERT_EQ(this->receive(pair.server, late), 0u);
    completion = this->take();
    EXPECT_EQ(late.data.substr(0, completion.bytes), "second");
}

TYPED_TEST(CompletionPort, DataFromBeforeTheAssociationIsFound) {
    const Pair pair = this->unassociated();
    send_text(pair.client, "early");
    shutdown_socket(pair.client, 1);
    this->associate(pair.server, 1);
    Request data, end;
    ASSERT_EQ(this->receive(pair.server, data), 0u);
    EXPECT_EQ(this->take().bytes, 5u);
    ASSERT_EQ(this->receive(pair.server, end), 0u);
    const Completion completion = this->take();
    EXPECT_EQ(completion.bytes, 0u);
    EXPECT_EQ(completion.error, 0u);
}

TYPED_TEST(CompletionPort, DataAndEndOfStreamInOneEdge) {
    for (int round = 0; round < 200; ++round) {
        const Pair pair = this->connected(1);
        Request first;
        Request second;
        ASSERT_EQ(this->receive(pair.server, first), 0u);
        send_text(pair.client, "bye");
        ASSERT_EQ(shutdown_socket(pair.client, 1), 0u);
        EXPECT_EQ(this->take().bytes, 3u);
        ASSERT_EQ(this->receive(pair.server, second), 0u);
        const Completion end = this->take();
        EXPECT_EQ(end.record, &second);
        EXPECT_EQ(end.bytes, 0u);
        EXPECT_EQ(end.error, 0u);
        Request answer; // the other direction is still open
        ASSERT_EQ(this->send(pair.server, answer), 0u);
        EXPECT_EQ(this->take().bytes, answer.data.size());
        close_socket(pair.server);
        close_socket(pair.client);
    }
}

TYPED_TEST(CompletionPort, PendingReceivesCompleteInOrder) {
    const Pair pair = this->connected(1);
    std::vector<std::unique_ptr<Request>> requests;
    for (int i = 0; i < 40; ++i) {
        requests.push_back(std::make_unique<Request>(2));
        ASSERT_EQ(this->receive(pair.server, *requests.back()), 0u);
    }
    std::string text(80, ' ');
    std::iota(text.begin(), text.end(), '0');
    send_text(pair.client, text);
    std::string got;
    for (const auto& request : requests) {
        const Completion completion = this->take();
        EXPECT_EQ(completion.record, request.get());
        got += request->data.substr(0, completion.bytes);
    }
    EXPECT_EQ(got, text);
}

TYPED_TEST(CompletionPort, EmptyReceiveWaitsForInputAndTakesNone) {
    const Pair pair = this->connected(1);
    Request probe(0);
    ASSERT_EQ(this->receive(pair.server, probe), 0u);
    this->expect_empty();
    send_text(pair.client, "data");
    EXPECT_EQ(this->take().bytes, 0u);
    Request data;
    ASSERT_EQ(this->receive(pair.server, data), 0u);
    EXPECT_EQ(this->take().bytes, 4u);
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
        const Completion completion = this->take();
        EXPECT_EQ(completion.record, &whole);
        EXPECT_EQ(completion.bytes, size);
        EXPECT_EQ(completion.error, 0u);
        close_socket(pair.server);
        reader.join();
        EXPECT_TRUE(right);
        this->expect_empty();
    }
}

TYPED_TEST(CompletionPort, ConnectionErrorsArriveAsCompletions) {
    const Pair pair = this->connected(1);
    Request waiting;
    ASSERT_EQ(this->receive(pair.server, waiting), 0u);
    reset_on_close(pair.client);
    close_socket(pair.client);
    EXPECT_EQ(this->take().error, error::connection_reset);
    Request late;
    ASSERT_EQ(this->send(pair.server, late), 0u);
    EXPECT_EQ(this->take().error, error::connection_reset);
}

TYPED_TEST(CompletionPort, WrongCallsFailAtTheStart) {
    Request request;
    Address address;
    const uint64_t lone = this->open_stream();
    void* handle = reinterpret_cast<void*>(lone);
    EXPECT_EQ(this->receive(lone, request), error::invalid_parameter);
    this->associate(lone, 1);
    EXPECT_EQ(TypeParam::associate(this->port_, handle, 2), error::invalid_parameter);
    EXPECT_EQ(TypeParam::associate(this->port_, nullptr, 2), error::invalid_handle);
    EXPECT_EQ(TypeParam::associate(this->port_, this->port_, 2), error::invalid_parameter);
    EXPECT_EQ(TypeParam::associate(handle, handle, 2), error::invalid_handle);
    EXPECT_EQ(this->receive(lone, request), error::not_connected);
    EXPECT_EQ(this->receive(VEL_INVALID_SOCKET, request), error::not_a_socket);
    EXPECT_EQ(TypeParam::accept(lone, request, lone, &address, &address), error::invalid_parameter);
    Completion completion;
    EXPECT_EQ(TypeParam::wait(handle, 0, completion), error::invalid_handle);
    EXPECT_EQ(TypeParam::close(handle), error::invalid_handle);
    EXPECT_EQ(TypeParam::post_record(handle, nullptr, 0, 0), error::invalid_handle);
    void* none = nullptr;
    EXPECT_EQ(TypeParam::create(0, none), error::invalid_parameter);
    this->expect_empty();
}

// Connecting and accepting.

TYPED_TEST(CompletionPort, ConnectsAndIsRefused) {
    Address address;
    const uint64_t listener = this->keep(open_listener(address));
    const uint64_t socket = this->associated_stream(4);
    Request connecting;
    Request greeting;
    ASSERT_EQ(TypeParam::connect(socket, connecting, &address, sizeof address), 0u);
    ASSERT_EQ(this->send(socket, greeting), 0u); // goes out once connected
    Completion completion = this->take();
    EXPECT_EQ(completion.record, &connecting);
    EXPECT_EQ(completion.error, 0u);
    completion = this->take();
    EXPECT_EQ(completion.record, &greeting);
    EXPECT_EQ(completion.bytes, greeting.data.size());
    close_socket(listener);

    const uint64_t refused = this->associated_stream(5);
    ASSERT_EQ(TypeParam::connect(refused, connecting, &address, sizeof address), 0u);
    completion = this->take();
    EXPECT_EQ(completion.key, 5u);
    EXPECT_EQ(completion.error, error::connection_refused);
}

TYPED_TEST(CompletionPort, SeveralAcceptsAreServedByOneEdge) {
    constexpr int count = 12;
    Address address;
    const uint64_t listener = this->listening(address, 1);
    struct Accept : Request {
        uint64_t socket = VEL_INVALID_SOCKET;
        Address local, remote;
    };
    std::array<Accept, count> accepts;
    std::vector<uint64_t> clients;
    for (int i = 0; i < count / 2; ++i) clients.push_back(this->keep(connect_to(address)));
    for (Accept& each : accepts) {
        each.socket = this->open_stream();
        ASSERT_EQ(TypeParam::accept(listener, each, each.socket, &each.local, &each.remote), 0u);
    }
    for (int i = count / 2; i < count; ++i) clients.push_back(this->keep(connect_to(address)));
    for (size_t i = 0; i < count; ++i) {
        const Completion completion = this->take();
        ASSERT_EQ(completion.error, 0u);
        ASSERT_EQ(completion.record, &accepts[i]);
        EXPECT_EQ(accepts[i].local.port, address.port);
        Address client;
        int32_t length = sizeof client;
        ASSERT_EQ(local_name(clients[i], &client, length), 0u);
        EXPECT_EQ(accepts[i].remote.port, client.port);
    }
    for (size_t i = 0; i < count; ++i) {
        this->associate(accepts[i].socket, 2);
        Request data;
        ASSERT_EQ(this->receive(accepts[i].socket, data), 0u);
        send_text(clients[i], "hello");
        EXPECT_EQ(this->take().bytes, 5u);
    }
}

TYPED_TEST(CompletionPort, AcceptsIntoASocketThatIsAssociatedAlready) {
    Address address;
    const uint64_t listener = this->listening(address, 1);
    const uint64_t prepared = this->associated_stream(2);
    Request accept;
    Address local, remote;
    ASSERT_EQ(TypeParam::accept(listener, accept, prepared, &local, &remote), 0u);
    const uint64_t client = this->keep(connect_to(address));
    EXPECT_EQ(this->take().error, 0u);
    Request data;
    ASSERT_EQ(this->receive(prepared, data), 0u);
    this->expect_empty();
    send_text(client, "hello");
    const Completion completion = this->take();
    EXPECT_EQ(completion.key, 2u);
    EXPECT_EQ(completion.bytes, 5u);
}

TYPED_TEST(CompletionPort, AClosedPreparedSocketCostsNoConnection) {
    Address address;
    const uint64_t listener = this->listening(address, 1);
    uint64_t prepared[2];
    Request accepts[2];
    Address local, remote;
    for (int i = 0; i < 2; ++i) {
        prepared[i] = this->open_stream();
        ASSERT_EQ(TypeParam::accept(listener, accepts[i], prepared[i], &local, &remote), 0u);
    }
    ASSERT_EQ(close_socket(prepared[0]), 0u);
    this->keep(connect_to(address));
    EXPECT_EQ(this->take().error, error::not_a_socket);
    EXPECT_EQ(this->take().error, 0u);
}

// Datagrams.

TYPED_TEST(CompletionPort, DatagramsKeepTheirBoundsAndSenders) {
    Address one, two;
    const uint64_t from = this->bound_datagram(one, 1);
    const uint64_t to = this->bound_datagram(two, 2);
    Request small(4), empty(16), late(16), out(8), nothing(0);
    Address senders[3];
    int32_t lengths[3] = {16, 16, 16};
    ASSERT_EQ(TypeParam::receive_from(to, small, small.data.data(), 4, &senders[0], &lengths[0]), 0u);
    ASSERT_EQ(TypeParam::receive_from(to, empty, empty.data.data(), 16, &senders[1], &lengths[1]), 0u);
    out.data = "datagram";
    ASSERT_EQ(TypeParam::send_to(from, out, out.data.data(), 8, &two, sizeof two), 0u);
    EXPECT_EQ(this->take().bytes, 8u);
    Completion completion = this->take();
    EXPECT_EQ(completion.record, &small);
    EXPECT_EQ(completion.error, error::message_too_long);
    EXPECT_EQ(completion.bytes, 4u);
    EXPECT_EQ(small.data, "data");
    EXPECT_EQ(senders[0].port, one.port);
    EXPECT_EQ(lengths[0], 16);
    ASSERT_EQ(TypeParam::send_to(from, nothing, nullptr, 0, &two, sizeof two), 0u);
    this->take();
    completion = this->take();
    EXPECT_EQ(completion.record, &empty);
    EXPECT_EQ(completion.bytes, 0u);
    EXPECT_EQ(completion.error, 0u);
    for (int i = 0; i < 2; ++i) { // two wait before the receives are started
        ASSERT_EQ(TypeParam::send_to(from, out, out.data.data(), 8, &two, sizeof two), 0u);
        this->take();
    }
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(TypeParam::receive_from(to, late, late.data.data(), 16, &senders[2], &lengths[2]), 0u);
        EXPECT_EQ(this->take().bytes, 8u);
    }
}

} // namespace
} // namespace vel::os::testing
