// Vocabulary of the boundary's contract tests: handles that must balance, sockets on the loopback address.
#pragma once

#include <array>
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/socket.h>
#include <vel/testing/crew.h>
#include <vel/testing/tally.h>

namespace vel::os::testing {

using vel::testing::crew;
using vel::testing::Tally;

inline constexpr int ipv4 = 2;
inline constexpr int stream = 1;
inline constexpr int datagram = 2;
inline constexpr int own_level = 0xFFFF;       // of options
inline constexpr uint32_t patience_ms = 20000; // bound of a wait that is expected to succeed
inline constexpr uint32_t short_ms = 20;       // of one that is expected to time out

// The 16-byte record; port and host in network order.
struct Address {
    uint16_t family = ipv4;
    uint16_t port = 0;
    std::array<uint8_t, 4> host{127, 0, 0, 1};
    std::array<uint8_t, 8> zero{};
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
    int32_t length = sizeof address;
    address = {};
    EXPECT_EQ(bind_socket(socket, &address, length) + local_name(socket, &address, length), 0u);
    return socket;
}

inline uint64_t open_listener(Address& address) {
    const uint64_t listener = open_bound(stream, address);
    EXPECT_EQ(listen_socket(listener), 0u);
    return listener;
}

// Whether the close resets the connection: nothing of it stays behind then, however many a test makes.
inline void reset_on_close(uint64_t socket, uint16_t on = 1) {
    const uint16_t abortive[] = {on, 0};
    EXPECT_EQ(set_option(socket, own_level, 0x80, abortive, sizeof abortive), 0u);
}

inline uint64_t connect_to(const Address& address) {
    const uint64_t socket = open(stream);
    reset_on_close(socket);
    EXPECT_EQ(connect_socket(socket, &address, sizeof address), 0u);
    return socket;
}

inline uint64_t accept_from(uint64_t listener) {
    uint64_t socket = VEL_INVALID_SOCKET;
    Address peer;
    int32_t length = sizeof peer;
    EXPECT_EQ(accept_socket(listener, &peer, length, socket), 0u);
    return socket;
}

inline Pair connect_pair(uint64_t listener, const Address& address) {
    const Pair pair{connect_to(address), accept_from(listener)};
    const int32_t no_delay = 1;
    for (const uint64_t socket : {pair.client, pair.server}) set_option(socket, 6, 1, &no_delay, sizeof no_delay);
    return pair;
}

inline void send_text(uint64_t socket, const std::string& text) {
    uint64_t moved = 0;
    ASSERT_EQ(send(socket, text.data(), text.size(), moved), 0u);
    ASSERT_EQ(moved, text.size());
}

// Receives and forgets what came; gives the code.
inline uint32_t receive_some(uint64_t socket, uint64_t size = 64) {
    char buffer[64];
    return receive(socket, buffer, size, size);
}

// A test whose handles must balance.
class OsTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (void* handle : kept_) close_handle(handle);
        const uint64_t end = tick_ms64() + patience_ms; // a service thread may hold one for another moment
        while (open_handle_count() != before_ && tick_ms64() < end) std::this_thread::yield();
        EXPECT_EQ(open_handle_count(), before_);
    }

    // What is kept is closed at the end, unless the test has done so.
    void* keep(void* handle) { return kept_.emplace_back(handle); }
    virtual uint64_t keep(uint64_t socket) {
        kept_.push_back(reinterpret_cast<void*>(socket));
        return socket;
    }

    void* make_event(bool manual_reset, bool set = false) {
        void* event = nullptr;
        EXPECT_EQ(create_event(manual_reset, set, event), 0u);
        return keep(event);
    }

    // A connection whose client resets it when it is closed.
    Pair connected() {
        Address address;
        const uint64_t listener = open_listener(address);
        const Pair pair = connect_pair(listener, address);
        close_socket(listener);
        return {keep(pair.client), keep(pair.server)};
    }

private:
    const uint64_t before_ = open_handle_count();
    std::vector<void*> kept_;
};

} // namespace vel::os::testing
