// Message windows as users see them, with what a socket posts.
#include <vel/reactor/message_window.h>

#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/readable.h>
#include <vel/reactor/socket.h>
#include <vel/testing/expect_failure.h>

namespace {

namespace error = vel::error;
using vel::testing::expect_failure;

int64_t keep(HWND, uint32_t message, uint64_t wparam, int64_t lparam, void* context) {
    *static_cast<VEL_Window_Message*>(context) = {message, wparam, lparam};
    return -5;
}

TEST(MessageWindow, APollLoopDispatchesWhatASocketPosts) {
    VEL_Window_Message seen{}, message{};
    HWND window = VELLib::create_window(keep, &seen);
    VEL_Socket nobody(2, 1, 0), client(2, 1, 0);
    VEL_INET_Addr address;
    ASSERT_EQ(nobody.bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(nobody.getlocaladdr(address), 0);
    ASSERT_EQ(client.window_async_select(window, 7, 16 | 32), 0);
    expect_failure(error::wait_timeout, VELLib::peek_message(window, message));
    expect_failure(error::would_block, client.connect(address)); // the socket has become non-blocking
    ASSERT_TRUE(vel::testing::is_readable(VELLib::get_window_descriptor(window), 10000));
    EXPECT_EQ(VELLib::peek_message(window, message), 0);
    EXPECT_EQ(VELLib::get_message(window, message, 0), 0);
    int64_t result = 0;
    EXPECT_EQ(VELLib::dispatch_message(window, message, &result), 0);
    EXPECT_EQ(result, -5);
    EXPECT_EQ(seen.message, 7u);
    EXPECT_EQ(seen.wparam, client.get_socket());
    uint32_t code = 0;
    EXPECT_EQ(VEL_Socket::enum_window_event(seen.lparam, code), 16);
    EXPECT_EQ(code, error::connection_refused);

    EXPECT_EQ(client.window_async_select(window, 7, 0), 0);
    EXPECT_EQ(VELLib::destroy_window(window), 0);
    expect_failure(error::invalid_window, VELLib::dispatch_message(window, message));
    expect_failure(error::invalid_window, VELLib::get_window_descriptor(window));
    expect_failure(error::invalid_window, client.window_async_select(window, 7, 1));
    client.close();
    expect_failure(error::not_a_socket, client.window_async_select(window, 7, 1));
}

} // namespace
