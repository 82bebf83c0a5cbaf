// Contract of message windows and of the sockets that post to them, with real sockets on the loopback address.
#include <vel/os/message_window.h>

#include <vel/os/linux/testing/readable.h>
#include <vel/os/wait_set.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

// Adds up what it is given; destroys the window at message 99.
int64_t add_up(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context) {
    EXPECT_TRUE(message != 99 || destroy_window(window) == error::none);
    return *static_cast<int64_t*>(context) += message + static_cast<int64_t>(wparam) + lparam;
}

class MessageWindows : public OsTest {
protected:
    void SetUp() override { ASSERT_EQ(create_window(add_up, &sum_, window_), error::none); }
    void TearDown() override {
        destroy_window(window_);
        OsTest::TearDown();
    }

    uint32_t post(uint32_t message, uint64_t wparam = 0) { return post_message(window_, message, wparam, -3); }
    uint32_t get(uint32_t timeout_ms = patience_ms) { return get_message(window_, message_, timeout_ms); }
    bool is_readable() {
        int descriptor = -1;
        EXPECT_EQ(window_descriptor(window_, descriptor), error::none);
        return vel::testing::is_readable(descriptor);
    }

    int64_t sum_ = 0;
    HWND window_ = nullptr;
    WindowMessage message_{};
};

TEST_F(MessageWindows, AreReadableExactlyWhileMessagesAreQueued) {
    EXPECT_FALSE(is_readable());
    for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(post(i), error::none) << i;
    EXPECT_EQ(post(1), error::not_enough_quota);
    EXPECT_EQ(peek_message(window_, message_), error::none);
    for (uint32_t i = 0; i <= window_queue_capacity; ++i) {
        ASSERT_TRUE(is_readable()) << i;
        ASSERT_EQ(get(0), error::none);
        ASSERT_EQ(message_.message, i);
        ASSERT_TRUE(i > 0 || post(window_queue_capacity) == error::none);
    }
    EXPECT_FALSE(is_readable());
    const uint64_t before = tick_ms64();
    EXPECT_EQ(get(short_ms), error::wait_timeout);
    EXPECT_GE(tick_ms64() - before, short_ms);
}

TEST_F(MessageWindows, LoseNothingBetweenPostersAndAWaitingReader) {
    constexpr uint32_t posters = 4, each = 2000; // together fewer than a full queue
    const auto threads = crew(posters, [this](uint32_t poster) {
        for (uint32_t i = 0; i < each; ++i) post(poster, i);
    });
    std::array<uint64_t, posters> next{};
    for (uint32_t i = 0; i < posters * each; ++i) {
        ASSERT_EQ(get(), error::none) << "after " << i;
        ASSERT_EQ(message_.wparam, next[message_.message]++);
    }
    EXPECT_FALSE(is_readable());
}

TEST_F(MessageWindows, CallTheirProcedureAndBelongToTheirThread) {
    HWND left = nullptr;
    std::thread([&] {
        EXPECT_EQ(get(0), error::access_denied);
        EXPECT_EQ(destroy_window(window_), error::access_denied);
        EXPECT_EQ(create_window(nullptr, nullptr, left), error::none);
    }).join();
    EXPECT_EQ(post_message(left, 1, 0, 0), error::invalid_window) << "it ends with its thread";
    int64_t result = 0;
    EXPECT_EQ(dispatch_message(window_, {1, 20, -300}, result), error::none);
    EXPECT_EQ(dispatch_message(window_, {99, 0, 0}, result), error::none);
    EXPECT_EQ(result, -180);
    EXPECT_EQ(post(1), error::invalid_window) << "destroyed by its procedure";
}

TEST_F(MessageWindows, EndTheWaitForAMessage) {
    const auto closer = crew(1, [this](int) { close_handle(window_); });
    EXPECT_EQ(get(), error::invalid_window);
}

class WindowNotices : public MessageWindows {
protected:
    static constexpr uint32_t number = 77; // of the message

    void SetUp() override {
        MessageWindows::SetUp();
        marker_ = connected();
    }

    // A window whose messages are only counted.
    static HWND create() {
        HWND window = nullptr;
        EXPECT_EQ(create_window(nullptr, nullptr, window), error::none);
        return window;
    }

    void bind(uint64_t socket, uint32_t notices) { ASSERT_EQ(bind_window(socket, window_, number, notices), 0u); }

    void expect_next(uint64_t socket, uint32_t notice) {
        EXPECT_EQ(get(), error::none);
        EXPECT_EQ(message_.message, number);
        EXPECT_EQ(message_.wparam, socket);
        EXPECT_EQ(message_.lparam, notice); // without an error
    }

    // Whether nothing more is posted of what has happened so far: what happens now is the next to arrive.
    void expect_quiet() {
        bind(marker_.server, notice::read);
        send_text(marker_.client, "x");
        expect_next(marker_.server, notice::read);
        EXPECT_EQ(receive_some(marker_.server), error::none);
        EXPECT_EQ(get(0), error::wait_timeout) << message_.lparam;
    }

    Pair marker_{};
};

TEST_F(WindowNotices, EndWithMaskSocketOrWindowAndMoveToAnother) {
    const Pair unbound = connected(), closed = connected(), moved = connected();
    for (const Pair& pair : {unbound, closed, moved}) bind(pair.server, notice::read);
    const HWND second = create();
    bind(unbound.server, 0);
    EXPECT_EQ(close_socket(closed.server), error::none);
    EXPECT_EQ(bind_window(moved.server, second, 5, notice::read), error::none);
    for (const Pair& pair : {unbound, moved}) send_text(pair.client, "x");
    expect_quiet();
    EXPECT_EQ(get_message(second, message_, patience_ms), error::none);
    EXPECT_EQ(message_.message, 5u);
    EXPECT_EQ(destroy_window(second), error::none);
    EXPECT_EQ(receive_some(moved.server), error::none);
    send_text(moved.client, "x");
    expect_quiet();
    bind(moved.server, notice::read);
    expect_next(moved.server, notice::read);
}

TEST_F(WindowNotices, WaitForRoomInAFullQueueWithTheirErrors) {
    enum { stays, bound_again, moved };
    for (const int then : {stays, bound_again, moved}) { // what nobody was told of is not lost
        const Pair pair = connected();
        for (uint32_t i = 0; i < window_queue_capacity; ++i) ASSERT_EQ(post(1), error::none);
        if (then != moved) send_text(pair.client, "x");
        bind(pair.server, notice::all); // finds the queue full with write and read
        close_socket(pair.client);      // a reset
        const HWND second = create();
        EXPECT_EQ(bind_window(marker_.server, second, 1, notice::read), error::none);
        send_text(marker_.client, "x");
        EXPECT_EQ(get_message(second, message_, patience_ms), error::none); // by then the reset was seen
        EXPECT_EQ(receive_some(marker_.server), error::none);
        for (const uint32_t notices : {0u, notice::all})
            if (then == bound_again) bind(pair.server, notices);
        const HWND last = then == moved ? second : window_;
        if (then == moved) bind_window(pair.server, last, number, notice::all);
        for (uint32_t i = 0; i < window_queue_capacity; ++i)
            ASSERT_TRUE(get(0) == error::none && message_.message == 1);
        uint32_t seen = 0;
        while (!(seen & notice::close)) {
            ASSERT_EQ(get_message(last, message_, patience_ms), error::none);
            EXPECT_EQ(seen & message_.lparam, 0u) << "twice";
            seen |= message_.lparam & 0xFFFF;
        }
        EXPECT_EQ(seen & notice::write, then == stays ? notice::write : 0); // it is writable no more
        EXPECT_EQ(seen & notice::read, then == moved ? 0 : notice::read);
        EXPECT_EQ(message_.lparam >> 16, error::connection_reset);
        EXPECT_EQ(destroy_window(second), error::none);
    }
}

// The last binding's end lets the thread go, the next one's start needs it again; and everything may be closed at any
// moment.
TEST_F(WindowNotices, ComeAndGoWithTheirThread) {
    Address address;
    const uint64_t listener = keep(open_listener(address));
    for (int round = 0; round < 200; ++round) {
        const Pair pair = connect_pair(listener, address);
        const HWND window = create();
        ASSERT_EQ(bind_window(pair.server, window, number, notice::all), error::none);
        std::thread sender([&] {
            uint64_t moved = 0;
            send(pair.client, "x", 1, moved);
            close_socket(round % 3 == 0 ? pair.server : pair.client);
        });
        EXPECT_EQ(get_message(window, message_, patience_ms), error::none);
        if (round % 3 == 1) close_socket(pair.server);
        EXPECT_EQ(destroy_window(window), error::none);
        sender.join();
        for (const uint64_t socket : {pair.client, pair.server}) close_socket(socket);
    }
}

} // namespace
} // namespace vel::os::testing
