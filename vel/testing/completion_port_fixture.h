// Vocabulary of the completion port's contract tests: back ends, requests, sockets and workers.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/os/completion_port.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/socket.h>
#include <vel/testing/tally.h>

namespace vel::os::testing {

using vel::testing::Tally;

inline constexpr int ipv4 = 2;
inline constexpr int stream = 1;
inline constexpr int datagram = 2;
inline constexpr uint32_t patience_ms = 20000;

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
    static constexpr auto send_to = start_send_to;
    static constexpr auto accept = start_accept;
    static constexpr auto connect = start_connect;
    // A bare completion, of no request.
    static uint32_t post(void* port, uint64_t bytes, uint32_t key) {
        return post_completion(port, nullptr, bytes, key);
    }
};

// A request with its buffer.
struct Request : IoRequest {
    explicit Request(size_t size = 64) : IoRequest{}, data(size, '\0') {}
    std::string data;
    std::atomic<int> completions{0};
};

struct Pair {
    uint64_t client, server;
};

inline uint64_t open(int type) {
    uint64_t socket = VEL_INVALID_SOCKET;
    EXPECT_EQ(open_socket(ipv4, type, 0, socket), 0u);
    return socket;
}

inline uint64_t open_bound(int type, Address& address) {
    const uint64_t socket = open(type);
    EXPECT_EQ(bind_socket(socket, &address, sizeof address), 0u);
    int32_t length = sizeof address;
    EXPECT_EQ(local_name(socket, &address, length), 0u);
    return socket;
}

inline uint64_t open_listener(Address& address) {
    const uint64_t listener = open_bound(stream, address);
    EXPECT_EQ(listen_socket(listener), 0u);
    return listener;
}

// Has the close reset the connection: nothing of it stays behind, however many a test makes.
inline void reset_on_close(uint64_t socket) {
    const struct { uint16_t on, seconds; } abortive{1, 0};
    EXPECT_EQ(set_option(socket, 0xFFFF, 0x80, &abortive, sizeof abortive), 0u);
}

inline uint64_t connect_to(const Address& address) {
    const uint64_t socket = open(stream);
    reset_on_close(socket);
    EXPECT_EQ(connect_socket(socket, &address, sizeof address), 0u);
    return socket;
}

inline Pair connect_pair(uint64_t listener, Address address) {
    Pair pair{connect_to(address), VEL_INVALID_SOCKET};
    int32_t length = sizeof address;
    EXPECT_EQ(accept_socket(listener, &address, length, pair.server), 0u);
    return pair;
}

inline void send_text(uint64_t socket, const std::string& text) {
    uint64_t moved = 0;
    ASSERT_EQ(os::send(socket, text.data(), text.size(), moved), 0u);
    ASSERT_EQ(moved, text.size());
}

template <class Back>
class CompletionPort : public ::testing::Test {
protected:
    static constexpr uint32_t stop_key = 0xFFFF;

    // Threads that take completions until one with the stop key comes.
    class Workers {
    public:
        Workers(void* port, int count, std::function<void(const Completion&)> handler) : port_(port) {
            for (int i = 0; i < count; ++i)
                threads_.emplace_back([port, handler] {
                    Completion each;
                    while (Back::wait(port, VEL_INFINITE, each) == 0 && each.key != stop_key) handler(each);
                });
        }
        ~Workers() { stop(); }

        void stop() {
            for (size_t i = 0; i < threads_.size(); ++i) Back::post(port_, 0, stop_key);
            for (auto& thread : threads_) thread.join();
            threads_.clear();
        }

    private:
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

    // Closes the socket at the end; associates it under a key other than 0.
    uint64_t keep(uint64_t socket, uint32_t key = 0) {
        if (key != 0) associate(socket, key);
        sockets_.push_back(socket);
        return socket;
    }

    // A connection whose server end is associated with the port.
    Pair connected(uint32_t key) {
        Address address;
        const uint64_t listener = open_listener(address);
        const Pair pair = connect_pair(listener, address);
        close_socket(listener);
        keep(pair.client);
        keep(pair.server, key);
        return pair;
    }

    void associate(uint64_t socket, uint32_t key) {
        ASSERT_EQ(Back::associate(port_, reinterpret_cast<void*>(socket), key), 0u);
    }

    Completion take() {
        Completion completion{};
        EXPECT_EQ(Back::wait(port_, patience_ms, completion), 0u);
        return completion;
    }

    // Takes the next completion, checks it and gives its key.
    uint32_t expect(const OVERLAPPED& record, uint64_t bytes, uint32_t code = 0) {
        const Completion completion = take();
        EXPECT_EQ(completion.record, &record);
        EXPECT_EQ(completion.bytes, bytes);
        EXPECT_EQ(completion.error, code);
        return completion.key;
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

using CompletionPortBackEnds = ::testing::Types<SystemPort>;

} // namespace vel::os::testing
