// Window streams and message windows: served by a poll loop over the window's descriptor, and by notices made up here.
#include <vel/reactor/winsock_stream.h>

#include <future>
#include <vel/os/linux/testing/readable.h>
#include <vel/reactor/message_window.h>
#include <vel/testing/reactor_fixture.h>

namespace vel::testing {
namespace {

/// A window stream, its window, and a port for it to connect to.
class WindowStream : public ::testing::Test {
protected:
    WindowStream() { EXPECT_EQ(door.bind(0, loopback) + door.getlocaladdr(address), 0); }
    ~WindowStream() override { VELLib::destroy_window(window); }

    static int64_t dispatch(HWND, uint32_t message, uint64_t socket, int64_t notice, void* context) {
        auto* stream = static_cast<VEL_WinSock_Stream*>(context);
        EXPECT_EQ(message, 7u);
        EXPECT_EQ(socket, stream->get_handle());
        return stream->dispatch_event(static_cast<int32_t>(notice));
    }

    /// The result of the next message; 1 when none came.
    int64_t dispatch_next(int patience_ms = 10000) {
        VEL_Window_Message first{}, message{};
        int64_t result = 1;
        if (!is_readable(VELLib::get_window_descriptor(window), patience_ms)) return 1;
        EXPECT_EQ(VELLib::peek_message(window, first), 0);
        EXPECT_EQ(VELLib::get_message(window, message, 0), 0);
        EXPECT_EQ(first.lparam, message.lparam);
        EXPECT_EQ(VELLib::dispatch_message(window, message, &result), 0);
        return result;
    }

    StreamNotes<Hooked<VEL_WinSock_Stream>> stream;
    HWND window = VELLib::create_window(dispatch, &stream);
    VEL_Socket door{2, 1, 0};
    VEL_INET_Addr address;
};

TEST_F(WindowStream, APollLoopConnectsTransfersAndHearsOfTheEnd) {
    const std::string sent(1 << 24, 'x');
    std::string received(sent.size(), 0);
    VEL_Socket peer;
    ASSERT_EQ(door.listen(), 0);
    ASSERT_EQ(stream.open(window, 7, "127.0.0.1", address.getport()), 0);
    ASSERT_EQ(door.accept(peer, 10000), 0);
    ASSERT_EQ(stream.send(text(sent)), 0);
    auto reader = std::async(std::launch::async, [&] {
        int count = 1;
        for (size_t size = 0; size < sent.size() && count > 0; size += static_cast<size_t>(count))
            count = peer.recv(received.data() + size, sent.size() - size, 10000);
    });
    while (stream.written.empty()) ASSERT_EQ(dispatch_next(), 0);
    reader.get();
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(peer.send("bye", 3), 3);
    peer.close();
    int64_t result = 0;
    while ((result = dispatch_next()) == 0) {
    }
    EXPECT_EQ(result, -1) << "nobody has overridden the close";
    EXPECT_EQ(stream.input, "bye");
    EXPECT_EQ(stream.dispatch_event(1), -1) << "a read at the end of the stream";
    EXPECT_EQ(stream.errors, Codes{error::peer_closed});
    EXPECT_TRUE(stream.is_open()) << "closing is the application's part";
}

TEST_F(WindowStream, NoticesGoToTheirHandlersWithTheirErrors) {
    VEL_Window_Message message{};
    expect_failure(error::wait_timeout, VELLib::peek_message(window, message));
    expect_failure(error::invalid_window, stream.open(nullptr, 7, address));
    ASSERT_EQ(stream.open(window, 7, address), 0) << "the failure has closed it";
    EXPECT_EQ(dispatch_next(), -1) << "the connect is refused";
    for (const auto& [notice, code] : {std::pair{1, error::connection_reset}, {2, error::connection_aborted}}) {
        EXPECT_EQ(stream.dispatch_event(static_cast<int32_t>(code << 16) + notice), -1);
        EXPECT_EQ(stream.errors.back(), code);
    }
    for (const auto& [notice, result] : {std::pair{32, -1}, {16, 0}, {8, 0}}) // 8 is no event of a stream
        EXPECT_EQ(stream.dispatch_event(notice), result);
    EXPECT_EQ(VELLib::destroy_window(window), 0);
    expect_failure(error::invalid_window, VELLib::dispatch_message(window, message));
}

} // namespace
} // namespace vel::testing
