// Message windows as users see them.
#include <vel/reactor/message_window.h>

#include <thread>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/readable.h>
#include <vel/reactor/socket.h>
#include <vel/testing/expect_failure.h>

namespace {

namespace error = vel::error;
using vel::testing::expect_failure;
using vel::testing::is_readable;

constexpr int patience_ms = 10000;

int64_t note(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context) {
    static_cast<std::vector<VEL_Window_Message>*>(context)->push_back({message, wparam, lparam});
    if (message == 0) VELLib::destroy_window(window);
    return lparam;
}

TEST(MessageWindow, APollLoopHandlesWhatAnotherThreadPosts) {
    std::vector<VEL_Window_Message> seen;
    HWND window = VELLib::create_window(note, &seen);
    ASSERT_NE(window, nullptr);
    const int descriptor = VELLib::get_window_descriptor(window);
    VEL_Window_Message message{};
    EXPECT_FALSE(is_readable(descriptor));
    expect_failure(error::wait_timeout, VELLib::peek_message(window, message));
    std::thread poster([window] {
        VELLib::post_message(window, 3, ~uint64_t{0}, -4);
        VELLib::post_message(window, 0, 0, 0);
    });
    int64_t result = 0;
    while (seen.size() < 2) {
        ASSERT_TRUE(is_readable(descriptor, patience_ms));
        ASSERT_EQ(VELLib::peek_message(window, message), 0);
        ASSERT_EQ(VELLib::get_message(window, message, 0), 0);
        ASSERT_EQ(VELLib::dispatch_message(window, message, &result), 0);
        EXPECT_EQ(result, message.lparam);
    }
    poster.join();
    EXPECT_EQ(seen[0].wparam, ~uint64_t{0});
    EXPECT_EQ(seen[0].lparam, -4);
    expect_failure(error::invalid_window, VELLib::post_message(window, 1, 0, 0));
    expect_failure(error::invalid_window, VELLib::dispatch_message(window, message));
    expect_failure(error::invalid_window, VELLib::get_window_descriptor(window));
    expect_failure(error::invalid_window, VELLib::destroy_window(nullptr));
}

TEST(MessageWindow, SocketsPostTheirEventsWithTheirErrors) {
    HWND window = VELLib::create_window(nullptr, nullptr);
    VEL_Socket nobody(2, 1, 0), client(2, 1, 0);
    VEL_INET_Addr address;
    ASSERT_EQ(nobody.bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(nobody.getlocaladdr(address), 0);
    ASSERT_EQ(client.window_async_select(window, 7, 16 | 32), 0);
    expect_failure(error::would_block, client.connect(address)); // the socket has become non-blocking
    VEL_Window_Message message{};
    ASSERT_EQ(VELLib::get_message(window, message, patience_ms), 0);
    EXPECT_EQ(message.message, 7u);
    EXPECT_EQ(message.wparam, client.get_socket());
    uint32_t code = 0;
    EXPECT_EQ(VEL_Socket::enum_window_event(message.lparam, code), 16);
    EXPECT_EQ(code, error::connection_refused);

    EXPECT_EQ(client.window_async_select(window, 7, 0), 0);
    VELLib::destroy_window(window);
    expect_failure(error::invalid_window, client.window_async_select(window, 7, 1));
    client.close();
    expect_failure(error::not_a_socket, client.window_async_select(window, 7, 1));
}

} // namespace
