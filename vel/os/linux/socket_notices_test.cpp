// Tests of edges that are older than what has happened to their socket since.
#include <vel/os/linux/socket_notices.h>

#include <cstring>
#include <mutex>
#include <utility>
#include <vel/os/linux/notice_sink.h>
#include <vel/os/linux/socket_object.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

// Fetches edges and applies them when the test says so.
class LateSink final : public NoticeSink {
public:
    LateSink() { EXPECT_EQ(open(), 0); }

    uint32_t bind(uint64_t socket) {
        const Pinned<SocketObject> object(socket, HandleKind::socket);
        const std::lock_guard bindings(bindings_lock());
        return object->notices.bind(*this, 1, notice::all);
    }

    bool fetch_edge() {
        const timespec patience{patience_ms / 1000, 0};
        return fetch(epoll().get(), &edge_, 1, &patience, fetch_) == 1;
    }

    // What the socket has recorded once the edge is applied.
    uint32_t apply(uint64_t socket) {
        uint64_t key = 0;
        deliver(edge_, fetch_, key);
        const Pinned<SocketObject> object(socket, HandleKind::socket);
        return object->notices.take().mask;
    }

private:
    void recorded(SocketNotices&, uint64_t) override {}
    void retracted(uint64_t) override {}
    void released(uint64_t) override {}

    epoll_event edge_{};
    uint64_t fetch_ = 0;
};

class LateEdges : public OsTest {
protected:
    LateSink sink_; // outlives the sockets
};

TEST_F(LateEdges, AreNotTrustedWhenTheSocketHasOutlivedThem) {
    Address address;
    const uint64_t listener = keep(open_listener(address)), client = keep(open(stream));
    ASSERT_EQ(sink_.bind(client), error::none);
    ASSERT_TRUE(sink_.fetch_edge()); // says hung up of a socket that was never connected
    ASSERT_EQ(connect_socket(client, &address, sizeof address), error::none);
    EXPECT_EQ(sink_.apply(client), notice::connect | notice::write);

    const uint64_t server = keep(accept_from(listener));
    for (const bool outlived : {true, false}) {
        send_text(server, "a");
        ASSERT_TRUE(sink_.fetch_edge());
        if (outlived) receive_some(client);
        EXPECT_EQ(sink_.apply(client), outlived ? 0 : notice::read);
    }
    const Pinned<SocketObject> object(client, HandleKind::socket);
    const auto mark = object->notices.mark(); // a receive that finds nothing, and then an edge
    send_text(server, "b");
    ASSERT_TRUE(sink_.fetch_edge());
    EXPECT_EQ(sink_.apply(client), 0u);
    object->notices.received(mark, error::would_block, true);
    EXPECT_EQ(object->notices.take().mask, notice::read);
}

TEST_F(LateEdges, AreNotNeededForWhatStandsBehindAnUrgentByte) {
    Address address;
    const uint64_t listener = keep(open_listener(address)), client = keep(open(stream));
    ASSERT_EQ(connect_socket(client, &address, sizeof address), error::none);
    const uint64_t server = keep(accept_from(listener));
    ASSERT_EQ(sink_.bind(server), error::none);
    const auto apply_edge = [&] { return sink_.fetch_edge() ? sink_.apply(server) : 0; };
    for (const auto& [text, flags] : {std::pair{"before", 0}, {"!", MSG_OOB}, {"behind", 0}}) {
        ASSERT_GT(::send(static_cast<int>(client), text, std::strlen(text), flags), 0);
        apply_edge();
    }
    char text[6];
    uint64_t moved = 0;
    ASSERT_EQ(receive(server, text, sizeof text, moved), error::none); // ends where the urgent byte was
    const Pinned<SocketObject> object(server, HandleKind::socket);
    EXPECT_EQ(object->notices.take().mask, notice::read);
    ASSERT_EQ(shutdown_socket(client, 1), error::none);
    EXPECT_EQ(apply_edge(), 0u); // not closed yet: "behind" is unread
    ASSERT_EQ(receive(server, text, sizeof text, moved), error::none);
    EXPECT_EQ(object->notices.take().mask, notice::close);
}

} // namespace
} // namespace vel::os::testing
