// Window streams: served by a poll loop over the window's descriptor, and by notices made up here.
#include <vel/reactor/winsock_stream.h>

#include <vel/os/linux/testing/readable.h>
#include <vel/reactor/message_window.h>
#include <vel/testing/expect_failure.h>
#include <vel/testing/reactor_sockets.h>

namespace vel::testing {
namespace {

constexpr uint32_t stream_message = 7;

class WindowStream : public StreamNotes<VEL_WinSock_Stream> {
public:
    int handle_connect(uint32_t error) override {
        connects.push_back(error);
        return VEL_WinSock_Stream::handle_connect(error);
    }
    std::vector<uint32_t> connects; // errors
};

/// A window whose messages go to a stream, and a listener for it.
class WindowStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(window, nullptr);
        ASSERT_EQ(door.bind(0, localhost), 0);
        ASSERT_EQ(door.getlocaladdr(address), 0);
    }
    void TearDown() override {
        stream.close();
        VELLib::destroy_window(window);
    }

    static int64_t dispatch(HWND, uint32_t message, uint64_t, int64_t notice, void* context) {
        EXPECT_EQ(message, stream_message);
        return static_cast<WindowStream*>(context)->dispatch_event(static_cast<int32_t>(notice));
    }

    /// The result of the next message; 1 when none came.
    int64_t dispatch_next() {
        VEL_Window_Message message{};
        int64_t result = 1;
        if (!is_readable(VELLib::get_window_descriptor(window), 10000)) return 1;
        EXPECT_EQ(VELLib::get_message(window, message, 0), 0);
        EXPECT_EQ(VELLib::dispatch_message(window, message, &result), 0);
        return result;
    }

    WindowStream stream;
    HWND window = VELLib::create_window(dispatch, &stream);
    VEL_Socket door{2, 1, 0};
    VEL_INET_Addr address;
};

TEST_F(WindowStreamTest, APollLoopConnectsTransfersAndHearsOfTheEnd) {
    const std::string text(1 << 24, 'x');
    VEL_Socket peer;
    ASSERT_EQ(door.listen(), 0);
    ASSERT_EQ(stream.open(window, stream_message, "127.0.0.1", address.getport()), 0);
    EXPECT_EQ(stream.get_remote_addr(), address);
    while (stream.connects.empty()) ASSERT_EQ(dispatch_next(), 0);
    EXPECT_EQ(stream.connects, std::vector<uint32_t>{0});
    ASSERT_EQ(door.accept(peer, 10000), 0);
    const VEL_Byte_Block block(text.size(), text.data());
    ASSERT_EQ(stream.send(block), 0);
    std::string received(text.size(), 0);
    size_t size = 0;
    while (stream.writes.empty() || size < text.size()) {
        const int count = size < text.size() ? peer.recv(received.data() + size, text.size() - size, 10000) : 0;
        ASSERT_GE(count, 0);
        size += static_cast<size_t>(count);
        if (!is_readable(VELLib::get_window_descriptor(window))) continue;
        ASSERT_EQ(dispatch_next(), 0);
    }
    EXPECT_TRUE(received == text);
    EXPECT_EQ(stream.writes.size(), 1u);
    EXPECT_EQ(peer.send("bye", 3), 3);
    peer.close();
    int64_t result = 0;
    while ((result = dispatch_next()) == 0) {
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(stream.input, "bye");
    EXPECT_TRUE(stream.is_open()) << "closing is the application's part";
}

TEST_F(WindowStreamTest, NoticesGoToTheirHandlersWithTheirErrors) {
    const auto notice = [](uint32_t event, uint32_t error) { return static_cast<int32_t>(error << 16 | event); };
    expect_failure(error::not_a_socket, stream.dispatch_event(1));
    expect_failure(error::invalid_window, stream.open(nullptr, stream_message, address));
    expect_failure(error::not_a_socket, stream.check_open());
    ASSERT_EQ(stream.open(window, stream_message, address), 0);
    EXPECT_EQ(dispatch_next(), -1);
    EXPECT_EQ(stream.connects, std::vector<uint32_t>{error::connection_refused});
    expect_failure(error::already_connected, stream.open(window, stream_message, address));
    EXPECT_EQ(stream.dispatch_event(notice(1, error::connection_reset)), -1);
    EXPECT_EQ(stream.read_errors, std::vector<uint32_t>{error::connection_reset});
    EXPECT_EQ(stream.dispatch_event(notice(2, error::connection_aborted)), -1);
    ASSERT_EQ(stream.writes.size(), 1u);
    EXPECT_EQ(stream.writes[0].size, 0u);
    EXPECT_EQ(stream.writes[0].error, error::connection_aborted);
    EXPECT_EQ(stream.dispatch_event(notice(32, 0)), -1);
    EXPECT_EQ(stream.dispatch_event(notice(16, 0)), 0);
    EXPECT_EQ(stream.dispatch_event(notice(8, 5)), 0) << "no event of a stream";
}

} // namespace
} // namespace vel::testing
