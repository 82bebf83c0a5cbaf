// Contract of sockets that post to message windows, with real sockets on the loopback address.
#include <vel/os/message_window.h>

#include <map>
#include <vel/os/wait_set.h>
#include <vel/testing/completion_port_fixture.h>

namespace vel::os {
namespace {

using namespace os::testing;

constexpr uint32_t number = 77; // of the message

class WindowNotices : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(create_window(nullptr, nullptr, window_), error::none);
        listener_ = keep(open_listener(address_));
        marker_ = connected();
    }
    void TearDown() override {
        for (const uint64_t socket : sockets_) close_socket(socket);
        destroy_window(window_);
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    uint64_t keep(uint64_t socket) {
        sockets_.push_back(socket);
        return socket;
    }

    Pair connected() {
        const Pair pair = connect_pair(listener_, address_);
        keep(pair.client);
        keep(pair.server);
        return pair;
    }

    void bind(uint64_t socket, uint32_t notices) { ASSERT_EQ(bind_window(socket, window_, number, notices), 0u); }

    // The next message's socket, notice and error; the first two must be as expected.
    uint32_t error_of_next(uint64_t socket, uint32_t notice) {
        WindowMessage message{};
        EXPECT_EQ(get_message(window_, message, patience_ms), error::none);
        EXPECT_EQ(message.message, number);
        EXPECT_EQ(message.wparam, socket);
        EXPECT_EQ(message.lparam & 0xFFFF, notice);
        return static_cast<uint32_t>(message.lparam >> 16);
    }

    // Whether nothing more is posted of what has happened so far: what happens now is the next to arrive.
    void expect_quiet() {
        bind(marker_.server, notice::read);
        send_text(marker_.client, "x");
        EXPECT_EQ(error_of_next(marker_.server, notice::read), 0u);
        EXPECT_EQ(read(marker_.server), error::none);
        WindowMessage message{};
        EXPECT_EQ(get_message(window_, message, 0), error::wait_timeout) << message.lparam;
    }

    static uint32_t read(uint64_t socket, uint64_t size = 64) {
        char buffer[64];
        uint64_t moved = 0;
        return receive(socket, buffer, size, moved);
    }

    HWND window_ = nullptr;
    Address address_;
    uint64_t listener_ = VEL_INVALID_SOCKET;
    Pair marker_{};
    std::vector<uint64_t> sockets_;
    const uint64_t handles_before_ = open_handle_count();
};

TEST_F(WindowNotices, TellTheLifeOfAConnectionEachThingOnce) {
    bind(listener_, notice::accept);
    const uint64_t client = keep(open(stream));
    bind(client, notice::all);
    expect_quiet();
    ASSERT_EQ(connect_socket(client, &address_, sizeof address_), error::would_block);
    WindowMessage message{};
    std::map<uint64_t, uint32_t> seen; // the notices of each socket
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(get_message(window_, message, patience_ms), error::none);
        seen[message.wparam] |= static_cast<uint32_t>(message.lparam);
    }
    EXPECT_EQ(seen[client], notice::connect | notice::write);
    EXPECT_EQ(seen[listener_], notice::accept);
    uint64_t server = VEL_INVALID_SOCKET;
    int32_t length = sizeof address_;
    ASSERT_EQ(accept_socket(listener_, &address_, length, server), error::none);
    keep(server);

    send_text(server, "abc");
    EXPECT_EQ(error_of_next(client, notice::read), 0u);
    send_text(server, "def");
    expect_quiet();
    EXPECT_EQ(read(client, 4), error::none);
    EXPECT_EQ(error_of_next(client, notice::read), 0u) << "more is there";
    EXPECT_EQ(read(client), error::none);
    expect_quiet();
    close_socket(server);
    EXPECT_EQ(error_of_next(client, notice::close), 0u);
    expect_quiet();
}

TEST_F(WindowNotices, CarryTheErrorOfAFailedConnectAndOfAReset) {
    const Pair pair = connected();
    bind(pair.server, notice::read | notice::close);
    close_socket(pair.client); // a reset, see connect_to
    EXPECT_EQ(error_of_next(pair.server, notice::close), error::connection_reset);
    Address nobody;
    close_socket(open_listener(nobody));
    const uint64_t client = keep(open(stream));
    bind(client, notice::all);
    ASSERT_EQ(connect_socket(client, &nobody, sizeof nobody), error::would_block);
    EXPECT_EQ(error_of_next(client, notice::connect), error::connection_refused);
    expect_quiet();
}

TEST_F(WindowNotices, EndWithMaskSocketOrWindowAndMoveToAnother) {
    const Pair unbound = connected(), closed = connected(), moved = connected();
    for (const Pair& pair : {unbound, closed, moved}) bind(pair.server, notice::read);
    HWND second = nullptr;
    ASSERT_EQ(create_window(nullptr, nullptr, second), error::none);
    EXPECT_EQ(bind_window(unbound.server, window_, number, 0), error::none);
    EXPECT_EQ(bind_window(unbound.server, window_, number, 0), error::none);
    EXPECT_EQ(close_socket(closed.server), error::none);
    EXPECT_EQ(bind_window(moved.server, second, 5, notice::read), error::none);
    for (const Pair& pair : {unbound, moved}) send_text(pair.client, "x");
    expect_quiet();
    WindowMessage message{};
    EXPECT_EQ(get_message(second, message, patience_ms), error::none);
    EXPECT_EQ(message.message, 5u);
    EXPECT_EQ(destroy_window(second), error::none);
    EXPECT_EQ(read(moved.server), error::none);
    send_text(moved.client, "x");
    expect_quiet();

    EXPECT_EQ(bind_window(moved.server, second, 5, notice::read), error::invalid_window);
    EXPECT_EQ(bind_window(closed.server, window_, 5, notice::read), error::not_a_socket);
    bind(moved.server, notice::read);
    EXPECT_EQ(error_of_next(moved.server, notice::read), 0u) << "what is there at the binding is told";
}

TEST_F(WindowNotices, WaitForRoomInAFullQueue) {
    const Pair pair = connected();
    for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(post_message(window_, 1, 0, 0), error::none);
    send_text(pair.client, "x");
    bind(pair.server, notice::all); // finds the queue full with write and read
    close_socket(pair.client);
    HWND second = nullptr;
    ASSERT_EQ(create_window(nullptr, nullptr, second), error::none);
    EXPECT_EQ(bind_window(marker_.server, second, 1, notice::read), error::none);
    send_text(marker_.client, "x");
    WindowMessage message{};
    EXPECT_EQ(get_message(second, message, patience_ms), error::none); // the close was seen before that
    EXPECT_EQ(destroy_window(second), error::none);
    for (uint32_t i = 0; i < window_queue_capacity; ++i) {
        ASSERT_EQ(get_message(window_, message, 0), error::none);
        ASSERT_EQ(message.message, 1u);
    }
    uint32_t seen = 0;
    while (!(seen & notice::close)) {
        ASSERT_EQ(get_message(window_, message, patience_ms), error::none);
        EXPECT_EQ(message.wparam, pair.server);
        EXPECT_EQ(seen & message.lparam, 0u) << "twice";
        seen |= message.lparam & 0xFFFF;
    }
    EXPECT_EQ(seen, notice::read | notice::write | notice::close);
}

// The last binding's end lets the thread go, the next one's start needs it again; and everything may be closed at any
// moment.
TEST_F(WindowNotices, ComeAndGoWithTheirThread) {
    for (int round = 0; round < 200; ++round) {
        Pair pair = connect_pair(listener_, address_);
        HWND window = nullptr;
        ASSERT_EQ(create_window(nullptr, nullptr, window), error::none);
        ASSERT_EQ(bind_window(pair.server, window, number, notice::all), error::none);
        std::thread sender([&] {
            uint64_t moved = 0;
            os::send(pair.client, "x", 1, moved);
            close_socket(round % 3 == 0 ? pair.server : pair.client);
        });
        WindowMessage message{};
        EXPECT_EQ(get_message(window, message, patience_ms), error::none);
        if (round % 3 == 1) close_socket(pair.server);
        EXPECT_EQ(destroy_window(window), error::none);
        sender.join();
        close_socket(pair.client);
        close_socket(pair.server);
    }
}

} // namespace
} // namespace vel::os
