// Contract of the completion port: one completion a request, whatever happens to its handle meanwhile.
#include <vel/testing/completion_port_fixture.h>

#include <deque>
#include <memory>
#include <vel/os/file.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

// The requests of one round, alive until all of them have completed.
struct Round {
    std::deque<Request> requests;
    Address local, remote;
    int started = 0;

    Request& request(size_t size = 8) { return requests.emplace_back(size); }
    void count(uint32_t code) { started += code == 0; }
};

class ClosingRaces : public CompletionPort {
protected:
    // Starts the requests of many rounds; each that started must complete once.
    void run(int rounds, const std::function<void(int, Round&)>& start) {
        std::vector<std::unique_ptr<Round>> held;
        Tally completed;
        std::atomic<int> doubled{0}, cancelled{0};
        Workers workers(port_, 3, [&](const Completion& completion) {
            auto& request = *static_cast<Request*>(static_cast<IoRequest*>(completion.record));
            if (++request.completions != 1) ++doubled;
            if (completion.error == error::operation_cancelled) ++cancelled;
            completed.add();
        });
        ASSERT_EQ(create_port(1, to_close_), 0u);
        Workers closer(to_close_, 1, [](const Completion& each) { close_handle(reinterpret_cast<void*>(each.bytes)); });
        int started = 0;
        for (int i = 1; i <= rounds; ++i) {
            held.push_back(std::make_unique<Round>());
            start(i, *held.back());
            started += held.back()->started;
            if (i % 100 != 0) continue;
            ASSERT_TRUE(completed.reaches(started)) << completed.count() << " of " << started;
            held.clear();
        }
        closer.stop();
        workers.stop();
        close_port(to_close_);
        EXPECT_GT(cancelled.load(), 0);
        EXPECT_EQ(doubled.load(), 0);
        expect_empty();
    }

    // Another thread closes it soon.
    void close_meanwhile(uint64_t handle) { post(to_close_, handle, 1); }

private:
    void* to_close_ = nullptr;
};

TEST_F(ClosingRaces, DatagramTransfers) {
    run(60000, [this](int i, Round& round) {
        const uint64_t socket = open_bound(datagram, round.local);
        bind(socket, 1);
        if (i % 2) close_meanwhile(socket); // while the requests are being started
        for (int each = 0; each < 2; ++each) round.count(start_receive(socket, round.request()));
        Request& out = round.request();
        round.count(start_send_to(socket, out, out.data.data(), 8, &round.local, sizeof round.local));
        if (i % 2 == 0) close_meanwhile(socket); // while they complete
    });
}

TEST_F(ClosingRaces, StreamTransfers) {
    Address address;
    const uint64_t listener = keep(open_listener(address));
    run(4000, [&](int i, Round& round) {
        const Pair pair = connect_pair(listener, address);
        bind(pair.server, 1);
        send_text(pair.client, "0123456789");
        close_meanwhile(i % 4 == 0 ? pair.client : pair.server);
        for (int each = 0; each < 10; ++each) {
            round.count(start_receive(pair.server, round.request()));
            round.count(start_send(pair.server, round.request()));
        }
        close_meanwhile(i % 4 == 0 ? pair.server : pair.client);
    });
}

TEST_F(ClosingRaces, ConnectsAndAccepts) {
    run(4000, [this](int i, Round& round) {
        Address address;
        const uint64_t sockets[] = {open_listener(address), open(stream), open(stream)};
        bind(sockets[0], 1);
        bind(sockets[2], 2);
        reset_on_close(sockets[2]);
        round.count(start_accept(sockets[0], round.request(), sockets[1], &round.local, &round.remote));
        round.count(start_connect(sockets[2], round.request(), &address, sizeof address));
        for (int each = 0; each < 3; ++each) close_meanwhile(sockets[(i + each) % 3]);
    });
}

TEST_F(ClosingRaces, FileReads) {
    const vel::testing::TemporaryDirectory directory;
    const std::string path = directory.file("data", std::string(1 << 16, 'x'));
    run(1000, [&](int, Round& round) {
        void* file = nullptr;
        ASSERT_EQ(open_file(path.c_str(), FileOpen::open_read, file), 0u);
        ASSERT_EQ(associate(port_, file, 1), 0u);
        for (int each = 0; each < 8; ++each) {
            Request& request = round.request(1 << 14);
            round.count(start_read_file(file, request, request.data.data(), request.data.size()));
        }
        close_handle(file); // most of its reads wait for their turn
    });
}

} // namespace
} // namespace vel::os::testing
