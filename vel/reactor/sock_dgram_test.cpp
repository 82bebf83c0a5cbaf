// The datagram socket on a reactor, over the loopback interface.
#include <vel/reactor/sock_dgram.h>

#include <vel/os/linux/testing/blocked_socket.h>
#include <vel/testing/reactor_fixture.h>

namespace vel::testing {
namespace {

struct Datagram {
    std::string data;
    VEL_INET_Addr peer;
    uint32_t error;
};

class Dgram : public Noted<VEL_SOCK_Dgram> {
public:
    int handle_read_dgram(const void* data, uint64_t size, const VEL_INET_Addr& from, uint32_t error) override {
        reads.push_back({{static_cast<const char*>(data), size}, from, error});
        return answer("read");
    }
    int handle_write_dgram(const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t error) override {
        writes.push_back({{static_cast<const char*>(data), size}, to, error});
        return 0;
    }

    std::vector<Datagram> reads, writes;
};

class SockDgram : public ReactorTest {
protected:
    void SetUp() override {
        ASSERT_EQ(dgram->open(reactor.get(), 0, loopback), 0);
        ASSERT_EQ(dgram->get_local_addr(address), 0);
        ASSERT_EQ(other.bind(0, loopback), 0);
        others_address = address_of(other.get_socket());
        serve(); // the first output notice
    }
    void arrive(const std::string& data) {
        ASSERT_EQ(other.sendto(data.data(), data.size(), address), static_cast<int>(data.size()));
    }
    bool serve_reads(size_t count) {
        return serve_until([&] { return dgram->reads.size() >= count; });
    }

    Ref<Dgram> dgram{new Dgram};
    VEL_INET_Addr address, others_address;
    VEL_Socket other{2, 2, 0};
};

TEST_F(SockDgram, EveryDatagramOfOneEdgeArrivesWithItsSenderAndIsAnswered) {
    dgram->on["read"] = [&] {
        const Datagram& last = dgram->reads.back();
        return dgram->sendto(text(last.data), last.peer) == static_cast<int>(last.data.size()) ? 0 : -1;
    };
    VEL_Socket third(2, 2, 0);
    ASSERT_EQ(third.bind(0, 0), 0);
    const auto word = [](int i) { return i == 7 ? "" : std::to_string(i); };
    for (int i = 0; i < 20; ++i) arrive(word(i));
    ASSERT_EQ(third.sendto("third", 5, address), 5);
    ASSERT_TRUE(serve_reads(21));
    const uint16_t thirds_port = address_of(third.get_socket()).getport();
    EXPECT_EQ(dgram->reads[20].peer.getport(), thirds_port);
    char buffer[64];
    VEL_INET_Addr from;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(dgram->reads[i].data, word(i));
        EXPECT_EQ(dgram->reads[i].peer, others_address);
        const int size = other.recvfrom(buffer, sizeof buffer, from, 10000);
        EXPECT_EQ(std::string(buffer, static_cast<size_t>(std::max(size, 0))), word(i));
    }
    EXPECT_EQ(dgram->sendto(text("all"), VEL_INET_Addr(thirds_port, "127.255.255.255")), 3) << "broadcasts are allowed";
}

TEST_F(SockDgram, OneThatIsTooLongIsReportedAndStopsNothing) {
    for (const uint64_t size : {32769, 32768}) {
        arrive(std::string(size, 'x'));
        const bool cut = size == 32769;
        ASSERT_TRUE(serve_reads(cut ? 1 : 2));
        EXPECT_EQ(dgram->reads.back().error, cut ? error::message_too_long : 0);
        EXPECT_EQ(dgram->reads.back().data.size(), cut ? 0 : size);
    }
    expect_failure(error::message_too_long, dgram->sendto(text(std::string(65508, 'z')), others_address));
    EXPECT_EQ(dgram->sendto(text("next"), others_address), 4) << "stands behind one that never goes out";
}

TEST_F(SockDgram, WhatWouldBlockWaitsForTheOutputNotice) {
    dgram->clear_event();
    BlockedSocket pipe(dgram->get_handle());
    ASSERT_GE(dgram->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT), 0);
    serve();
    const std::string padding(1000, '.');
    int sent = 0;
    while (dgram->sendto(text(std::to_string(sent) + padding), address) > 0) ++sent;
    for (const std::string& data : {std::string(70000, 'z'), std::string(), std::string("last")})
        EXPECT_EQ(dgram->sendto(text(data), others_address), 0);
    serve();
    EXPECT_TRUE(dgram->writes.empty());
    for (int i = 0; i < sent; ++i) EXPECT_EQ(pipe.read(), std::to_string(i) + padding);
    ASSERT_TRUE(serve_until([&] { return dgram->writes.size() >= 4; }));
    EXPECT_EQ(dgram->writes[0].data, std::to_string(sent) + padding);
    EXPECT_EQ(dgram->writes[1].error, error::message_too_long);
    EXPECT_EQ(dgram->writes[2].data, "");
    EXPECT_EQ(dgram->writes[2].error, 0u);
    EXPECT_EQ(dgram->writes[3].data, "last");
    EXPECT_EQ(dgram->writes[3].peer, others_address);
}

TEST_F(SockDgram, CallbacksMaySuspendCloseAndRefuse) {
    dgram->on["read"] = [&] { return dgram->suspend_read(60000); };
    arrive("1");
    arrive("2");
    ASSERT_TRUE(serve_reads(1));
    serve();
    EXPECT_EQ(dgram->reads.size(), 1u) << "suspended";
    dgram->on["read"] = [&] { return dgram->close(false), 0; };
    EXPECT_GE(dgram->resume_read(), 0);
    ASSERT_TRUE(serve_reads(2));
    EXPECT_EQ(dgram->closes, Codes{VEL_INPUT_EVENT | VEL_OUTPUT_EVENT});

    ASSERT_EQ(dgram->open(reactor.get(), address.getport(), "127.0.0.1"), 0) << "a closed one opens anew";
    ASSERT_EQ(dgram->set_timeout(60000), 0);
    dgram->on["read"] = [] { return -1; };
    arrive("3");
    ASSERT_TRUE(serve_until([&] { return dgram->closes.size() > 1; }));
    expect_failure(error::not_a_socket, dgram->check_open());
    EXPECT_EQ(dgram->references(), 1) << "the timer still holds it";
}

} // namespace
} // namespace vel::testing
