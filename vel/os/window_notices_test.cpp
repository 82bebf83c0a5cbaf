// Contract of sockets that post to message windows, with real sockets on the loopback address.
#include <vel/os/message_window.h>

#include <vel/os/clock.h>
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
        listener_ = open_listener(address_);
        marker_ = connected();
    }
    void TearDown() override {
        for (const uint64_t socket : sockets_) close_socket(socket);
        close_socket(listener_);
        destroy_window(window_);
        // The notifier may hold a socket for another moment.
        const uint64_t end = tick_ms64() + patience_ms;
        while (open_handle_count() != handles_before_ && tick_ms64() < end) std::this_thread::yield();
        EXPECT_EQ(open_handle_count(), handles_before_);
    }

    Pair connected() {
        const Pair pair = connect_pair(listener_, address_);
        sockets_.insert(sockets_.end(), {pair.client, pair.server});
        return pair;
    }

    void bind(uint64_t socket, uint32_t notices) { ASSERT_EQ(bind_window(socket, window_, number, notices), 0u); }
    void expect_next(uint64_t socket, uint32_t notice) {
        WindowMessage message{};
        EXPECT_EQ(get_message(window_, message, patience_ms), error::none);
        EXPECT_EQ(message.message, number);
        EXPECT_EQ(message.wparam, socket);
        EXPECT_EQ(message.lparam, notice); // without an error
    }

    // Whether nothing more is posted of what has happened so far: what happens now is the next to arrive.
    void expect_quiet() {
        bind(marker_.server, notice::read);
        send_text(marker_.client, "x");
        expect_next(marker_.server, notice::read);
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

TEST_F(WindowNotices, ArePostedOnceUntilTheirUserHasSeenToThem) {
    const Pair pair = connected();
    bind(pair.server, notice::all);
    expect_next(pair.server, notice::write);
    send_text(pair.client, "abc");
    expect_next(pair.server, notice::read);
    send_text(pair.client, "def");
    expect_quiet();
    EXPECT_EQ(read(pair.server, 4), error::none);
    expect_next(pair.server, notice::read);
    EXPECT_EQ(read(pair.server), error::none);
    expect_quiet();
    shutdown_socket(pair.client, 1);
    expect_next(pair.server, notice::close);
    expect_quiet();
}

TEST_F(WindowNotices, EndWithMaskSocketOrWindowAndMoveToAnother) {
    const Pair unbound = connected(), closed = connected(), moved = connected();
    for (const Pair& pair : {unbound, closed, moved}) bind(pair.server, notice::read);
    HWND second = nullptr;
    ASSERT_EQ(create_window(nullptr, nullptr, second), error::none);
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
    expect_next(moved.server, notice::read);
}

TEST_F(WindowNotices, WaitForRoomInAFullQueueWithTheirErrors) {
    for (const bool rebound : {false, true}) {
        const Pair pair = connected();
        HWND second = nullptr;
        WindowMessage message{};
        for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(post_message(window_, 1, 0, 0), error::none);
        send_text(pair.client, "x");
        bind(pair.server, notice::all); // finds the queue full with write and read
        close_socket(pair.client);      // a reset, see connect_to
        ASSERT_EQ(create_window(nullptr, nullptr, second), error::none);
        EXPECT_EQ(bind_window(marker_.server, second, 1, notice::read), error::none);
        send_text(marker_.client, "x");
        EXPECT_EQ(get_message(second, message, patience_ms), error::none); // by then the reset was seen
        EXPECT_EQ(read(marker_.server), error::none);
        EXPECT_EQ(destroy_window(second), error::none);
        for (const uint32_t notices : {0u, notice::all})
            if (rebound) bind(pair.server, notices); // what nobody was told of is not lost
        for (uint32_t i = 0; i < window_queue_capacity; ++i) {
            ASSERT_EQ(get_message(window_, message, 0), error::none);
            ASSERT_EQ(message.message, 1u);
        }
        uint32_t seen = 0;
        while (!(seen & notice::close)) {
            ASSERT_EQ(get_message(window_, message, patience_ms), error::none);
            EXPECT_EQ(seen & message.lparam, 0u) << "twice";
            seen |= message.lparam & 0xFFFF;
        }
        EXPECT_EQ(seen, notice::read | notice::close | (rebound ? 0 : notice::write)); // writable no more
        EXPECT_EQ(message.lparam >> 16, error::connection_reset);
    }
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
