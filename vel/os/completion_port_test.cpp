// Contract of the completion port, typed over the back ends that promise it.
#include <vel/os/completion_port.h>

#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/socket.h>

namespace vel::os {
namespace {

constexpr int ipv4 = 2;
constexpr int stream = 1;
constexpr int datagram = 2;
constexpr uint32_t patience_ms = 20000;

// The 16-byte record; port and host in network order.
struct Address {
    uint16_t family = ipv4;
    uint16_t port = 0;
    std::array<uint8_t, 4> host{127, 0, 0, 1};
    std::array<uint8_t, 8> zero{};
};

// The system's own port. Another back end is a struct with the same names.
struct SystemPort {
    static constexpr auto create = create_port;
    static constexpr auto close = close_port;
    static constexpr auto associate = os::associate;
    static constexpr auto wait = wait_completion;
    static constexpr auto receive = start_receive;
    static constexpr auto send = start_send;
    static constexpr auto receive_from = start_receive_from;
    static constexpr auto send_to = start_send_to;
    static constexpr auto accept = start_accept;
    static constexpr auto connect = start_connect;
    static uint32_t post(void* port, IoRequest& request, uint64_t bytes, uint32_t key) {
        return post_completion(port, request, bytes, key);
    }
    static uint32_t post_record(void* port, OVERLAPPED* record, uint64_t bytes, uint32_t key) {
        return post_completion(port, record, bytes, key);
    }
};

// A request with its buffer, and what its completion said.
struct Request : IoRequest {
    explicit Request(size_t size = 64) : IoRequest{}, data(size, '\0') {}
    std::string data;
    std::atomic<int> completions{0};
};

struct Pair {
    uint64_t client = VEL_INVALID_SOCKET;
    uint64_t server = VEL_INVALID_SOCKET;
};

uint64_t open_bound(int type, Address& address) {
    uint64_t socket = VEL_INVALID_SOCKET;
    EXPECT_EQ(open_socket(ipv4, type, 0, socket), 0u);
    EXPECT_EQ(bind_socket(socket, &address, sizeof address), 0u);
    int32_t length = sizeof address;
    EXPECT_EQ(local_name(socket, &address, length), 0u);
    return socket;
}

uint64_t open_listener(Address& address) {
    const uint64_t listener = open_bound(stream, address);
    EXPECT_EQ(listen_socket(listener), 0u);
    return listener;
}

uint64_t connect_to(const Address& address) {
    uint64_t socket = VEL_INVALID_SOCKET;
    EXPECT_EQ(open_socket(ipv4, stream, 0, socket), 0u);
    EXPECT_EQ(connect_socket(socket, &address, sizeof address), 0u);
    return socket;
}

void send_text(uint64_t socket, const std::string& text) {
    uint64_t moved = 0;
    ASSERT_EQ(os::send(socket, text.data(), text.size(), moved), 0u);
    ASSERT_EQ(moved, text.size());
}

// Calls `step` until it gives true or patience ends.
bool eventually(const std::function<bool()>& step) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience_ms);
    while (!step()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

template <class Back>
class CompletionPort : public ::testing::Test {
protected:
    static constexpr uint32_t stop_key = 0xFFFF;
    using Handler = std::function<void(const Completion&)>;

    // Threads that take completions until one with the stop key comes.
    class Workers {
    public:
        Workers(void* port, int count, Handler handler) : port_(port) {
            for (int i = 0; i < count; ++i) threads_.emplace_back([port, handler] { run(port, handler); });
        }
        ~Workers() { stop(); }
        void stop() {
            for (size_t i = 0; i < threads_.size(); ++i) Back::post_record(port_, nullptr, 0, stop_key);
            for (auto& thread : threads_) thread.join();
            threads_.clear();
        }

    private:
        static void run(void* port, const Handler& handler) {
            Completion completion;
            while (Back::wait(port, VEL_INFINITE, completion) == 0 && completion.key != stop_key) handler(completion);
        }
        void* port_;
        std::vector<std::thread> threads_;
    };

    void SetUp() override {
        handles_before_ = open_handle_count();
        ASSERT_EQ(Back::create(4, port_), 0u);
    }

    void TearDown() override {
        EXPECT_EQ(Back::close(port_), 0u);
        for (const uint64_t socket : sockets_) close_socket(socket);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint64_t keep(uint64_t socket) {
        sockets_.push_back(socket);
        return socket;
    }

    // A connection whose server end is associated with the port.
    Pair connected(uint32_t key) {
        Address address;
        const uint64_t listener = open_listener(address);
        Pair pair;
        pair.client = keep(connect_to(address));
        int32_t length = sizeof address;
        EXPECT_EQ(accept_socket(listener, &address, length, pair.server), 0u);
        keep(pair.server);
        close_socket(listener);
        associate(pair.server, key);
        return pair;
    }

    uint64_t bound_datagram(Address& address, uint32_t key) {
        const uint64_t socket = keep(open_bound(datagram, address));
        associate(socket, key);
        return socket;
    }

    void associate(uint64_t socket, uint32_t key) {
        ASSERT_EQ(Back::associate(port_, reinterpret_cast<void*>(socket), key), 0u);
    }

    Completion take() {
        Completion completion{};
        EXPECT_EQ(Back::wait(port_, patience_ms, completion), 0u);
        return completion;
    }

    void expect_empty() {
        Completion completion{};
        EXPECT_EQ(Back::wait(port_, 0, completion), error::wait_timeout);
    }

    uint32_t receive(uint64_t socket, Request& request) {
        return Back::receive(socket, request, request.data.data(), request.data.size());
    }

    uint32_t send(uint64_t socket, Request& request) {
        return Back::send(socket, request, request.data.data(), request.data.size());
    }

    void* port_ = nullptr;

private:
    std::vector<uint64_t> sockets_;
    uint64_t handles_before_ = 0;
};

using BackEnds = ::testing::Types<SystemPort>;
TYPED_TEST_SUITE(CompletionPort, BackEnds);

// Liveness: a completion never waits for a busy handler while another worker is idle.

TYPED_TEST(CompletionPort, HandlerMayWaitForAPostThatAnotherWorkerTakes) {
    void* port = this->port_;
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> answered{false};
        std::atomic<int> outcome{0};
        typename TestFixture::Workers workers(port, 2, [&](const Completion& completion) {
            if (completion.key == 2) answered = true;
            if (completion.key != 1) return;
            TypeParam::post_record(port, nullptr, 0, 2);
            outcome = eventually([&] { return answered.load(); }) ? 1 : -1;
        });
        TypeParam::post_record(port, nullptr, 0, 1);
        EXPECT_TRUE(eventually([&] { return outcome.load() != 0; }));
        EXPECT_EQ(outcome.load(), 1);
    }
}

TYPED_TEST(CompletionPort, HandlerMayWaitForATransferThatAnotherWorkerPerforms) {
    const Pair first = this->connected(1);
    const Pair second = this->connected(2);
    for (int round = 0; round < 20; ++round) {
        Request one;
        Request two;
        std::atomic<bool> answered{false};
        std::atomic<int> outcome{0};
        typename TestFixture::Workers workers(this->port_, 2, [&](const Completion& completion) {
            if (completion.key == 2) answered = true;
            if (completion.key != 1) return;
            send_text(second.client, "x");
            outcome = eventually([&] { return answered.load(); }) ? 1 : -1;
        });
        ASSERT_EQ(this->receive(first.server, one), 0u);
        ASSERT_EQ(this->receive(second.server, two), 0u);
        send_text(first.client, "x");
        EXPECT_TRUE(eventually([&] { return outcome.load() != 0; }));
        EXPECT_EQ(outcome.load(), 1);
    }
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

// Stream transfers.

TYPED_TEST(CompletionPort, ReceivesBeforeAndAfterTheData) {
    const Pair pair = this->connected(3);
    Request early;
    ASSERT_EQ(this->receive(pair.server, early), 0u);
    this->expect_empty();
    send_text(pair.client, "first");
    Completion completion = this->take();
    EXPECT_EQ(completion.record, &early);
    EXPECT_EQ(completion.key, 3u);
    EXPECT_EQ(completion.error, 0u);
    EXPECT_EQ(early.data.substr(0, completion.bytes), "first");

    send_text(pair.client, "second");
    Request late;
    ASSERT_EQ(this->receive(pair.server, late), 0u);
    completion = this->take();
    EXPECT_EQ(late.data.substr(0, completion.bytes), "second");
}

TYPED_TEST(CompletionPort, DataFromBeforeTheAssociationIsFound) {
    Address address;
    const uint64_t listener = this->keep(open_listener(address));
    const uint64_t client = this->keep(connect_to(address));
    uint64_t server = VEL_INVALID_SOCKET;
    int32_t length = sizeof address;
    ASSERT_EQ(accept_socket(listener, &address, length, server), 0u);
    this->keep(server);
    send_text(client, "early");
    shutdown_socket(client, 1);
    this->associate(server, 1);
    Request data;
    Request end;
    ASSERT_EQ(this->receive(server, data), 0u);
    EXPECT_EQ(this->take().bytes, 5u);
    ASSERT_EQ(this->receive(server, end), 0u);
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

TYPED_TEST(CompletionPort, LargeSendCompletesOnceWithAllBytes) {
    constexpr size_t size = 64 << 20;
    const Pair pair = this->connected(1);
    const int small = 128 << 10;
    ASSERT_EQ(set_option(pair.server, 0xFFFF, 0x1001, &small, sizeof small), 0u);
    Request whole(size);
    for (size_t i = 0; i < size; i += 4096) whole.data[i] = static_cast<char>(i >> 12);
    std::thread reader([&] {
        std::vector<char> buffer(1 << 16);
        size_t total = 0;
        bool right = true;
        while (total < size) {
            uint64_t moved = 0;
            if (os::receive(pair.client, buffer.data(), buffer.size(), moved) != 0 || moved == 0) break;
            right &= std::equal(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(moved),
                                whole.data.begin() + static_cast<ptrdiff_t>(total));
            total += moved;
        }
        EXPECT_EQ(total, size);
        EXPECT_TRUE(right);
    });
    ASSERT_EQ(this->send(pair.server, whole), 0u);
    const Completion completion = this->take();
    EXPECT_EQ(completion.record, &whole);
    EXPECT_EQ(completion.bytes, size);
    EXPECT_EQ(completion.error, 0u);
    reader.join();
    this->expect_empty();
}

TYPED_TEST(CompletionPort, ConnectionErrorsArriveAsCompletions) {
    const Pair pair = this->connected(1);
    Request waiting;
    ASSERT_EQ(this->receive(pair.server, waiting), 0u);
    const struct { uint16_t on, seconds; } abortive{1, 0};
    ASSERT_EQ(set_option(pair.client, 0xFFFF, 0x80, &abortive, sizeof abortive), 0u);
    close_socket(pair.client);
    EXPECT_EQ(this->take().error, error::connection_reset);
    Request late;
    ASSERT_EQ(this->send(pair.server, late), 0u);
    EXPECT_EQ(this->take().error, error::connection_reset);
}

TYPED_TEST(CompletionPort, WrongCallsFailAtTheStart) {
    Request request;
    Address address;
    uint64_t lone = VEL_INVALID_SOCKET;
    ASSERT_EQ(open_socket(ipv4, stream, 0, lone), 0u);
    this->keep(lone);
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
    uint64_t socket = VEL_INVALID_SOCKET;
    ASSERT_EQ(open_socket(ipv4, stream, 0, socket), 0u);
    this->keep(socket);
    this->associate(socket, 4);
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

    uint64_t refused = VEL_INVALID_SOCKET;
    ASSERT_EQ(open_socket(ipv4, stream, 0, refused), 0u);
    this->keep(refused);
    this->associate(refused, 5);
    ASSERT_EQ(TypeParam::connect(refused, connecting, &address, sizeof address), 0u);
    completion = this->take();
    EXPECT_EQ(completion.key, 5u);
    EXPECT_EQ(completion.error, error::connection_refused);
}

TYPED_TEST(CompletionPort, SeveralAcceptsAreServedByOneEdge) {
    constexpr int count = 12;
    Address address;
    const uint64_t listener = this->keep(open_listener(address));
    this->associate(listener, 1);
    struct Accept : Request {
        uint64_t socket = VEL_INVALID_SOCKET;
        Address local, remote;
    };
    std::array<Accept, count> accepts;
    std::vector<uint64_t> clients;
    for (int i = 0; i < count / 2; ++i) clients.push_back(this->keep(connect_to(address)));
    for (Accept& each : accepts) {
        ASSERT_EQ(open_socket(ipv4, stream, 0, each.socket), 0u);
        this->keep(each.socket);
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
    const uint64_t listener = this->keep(open_listener(address));
    this->associate(listener, 1);
    uint64_t prepared = VEL_INVALID_SOCKET;
    ASSERT_EQ(open_socket(ipv4, stream, 0, prepared), 0u);
    this->keep(prepared);
    this->associate(prepared, 2);
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
    const uint64_t listener = this->keep(open_listener(address));
    this->associate(listener, 1);
    uint64_t prepared[2];
    Request accepts[2];
    Address local, remote;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(open_socket(ipv4, stream, 0, prepared[i]), 0u);
        ASSERT_EQ(TypeParam::accept(listener, accepts[i], prepared[i], &local, &remote), 0u);
    }
    ASSERT_EQ(close_socket(prepared[0]), 0u);
    this->keep(connect_to(address));
    EXPECT_EQ(this->take().error, error::not_a_socket);
    EXPECT_EQ(this->take().error, 0u);
    close_socket(prepared[1]);
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

TYPED_TEST(CompletionPort, RequestsOutliveTheThreadThatStartedThem) {
    const Pair pair = this->connected(1);
    Request request;
    std::thread([&] { EXPECT_EQ(this->receive(pair.server, request), 0u); }).join();
    send_text(pair.client, "late");
    EXPECT_EQ(this->take().bytes, 4u);
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
} // namespace vel::os
