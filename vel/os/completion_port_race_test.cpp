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

template <class Back>
class ClosingRaces : public CompletionPort<Back> {
protected:
    using Workers = typename CompletionPort<Back>::Workers;

    // Starts the requests of many rounds; each that started must complete once.
    void run(int rounds, const std::function<void(int, Round&)>& start) {
        std::vector<std::unique_ptr<Round>> held;
        Tally completed;
        std::atomic<int> doubled{0}, cancelled{0};
        Workers workers(this->port_, 3, [&](const Completion& completion) {
            auto& request = *static_cast<Request*>(static_cast<IoRequest*>(completion.record));
            if (++request.completions != 1) ++doubled;
            if (completion.error == error::operation_cancelled) ++cancelled;
            completed.add();
        });
        ASSERT_EQ(Back::create(1, to_close_), 0u);
        Workers closer(to_close_, 1,
                       [](const Completion& completion) { close_handle(reinterpret_cast<void*>(completion.bytes)); });
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
        Back::close(to_close_);
        EXPECT_GT(cancelled.load(), 0);
        EXPECT_EQ(doubled.load(), 0);
        this->expect_empty();
    }

    // Another thread closes it soon.
    void close_meanwhile(uint64_t handle) { Back::post(to_close_, handle, 1); }

private:
    void* to_close_ = nullptr;
};

TYPED_TEST_SUITE(ClosingRaces, CompletionPortBackEnds);

TYPED_TEST(ClosingRaces, DatagramTransfers) {
    this->run(60000, [this](int i, Round& round) {
        const uint64_t socket = open_bound(datagram, round.local);
        this->associate(socket, 1);
        if (i % 2) this->close_meanwhile(socket); // while the requests are being started
        for (int each = 0; each < 2; ++each) round.count(this->receive(socket, round.request()));
        Request& out = round.request();
        round.count(TypeParam::send_to(socket, out, out.data.data(), 8, &round.local, sizeof round.local));
        if (i % 2 == 0) this->close_meanwhile(socket); // while they complete
    });
}

TYPED_TEST(ClosingRaces, StreamTransfers) {
    Address address;
    const uint64_t listener = this->keep(open_listener(address));
    this->run(4000, [&](int i, Round& round) {
        const Pair pair = connect_pair(listener, address);
        this->associate(pair.server, 1);
        send_text(pair.client, "0123456789");
        this->close_meanwhile(i % 4 == 0 ? pair.client : pair.server);
        for (int each = 0; each < 10; ++each) {
            round.count(this->receive(pair.server, round.request()));
            round.count(this->send(pair.server, round.request()));
        }
        this->close_meanwhile(i % 4 == 0 ? pair.server : pair.client);
    });
}

TYPED_TEST(ClosingRaces, ConnectsAndAccepts) {
    this->run(4000, [this](int i, Round& round) {
        Address address;
        const uint64_t sockets[] = {open_listener(address), open(stream), open(stream)};
        this->associate(sockets[0], 1);
        reset_on_close(sockets[2]);
        this->associate(sockets[2], 2);
        round.count(TypeParam::accept(sockets[0], round.request(), sockets[1], &round.local, &round.remote));
        round.count(TypeParam::connect(sockets[2], round.request(), &address, sizeof address));
        for (int each = 0; each < 3; ++each) this->close_meanwhile(sockets[(i + each) % 3]);
    });
}

TYPED_TEST(ClosingRaces, FileReads) {
    const vel::testing::TemporaryDirectory directory;
    const std::string path = directory.file("data", std::string(1 << 16, 'x'));
    this->run(1000, [&](int, Round& round) {
        void* file = nullptr;
        ASSERT_EQ(open_file(path.c_str(), FileOpen::open_read, file), 0u);
        ASSERT_EQ(TypeParam::associate(this->port_, file, 1), 0u);
        for (int each = 0; each < 8; ++each) {
            Request& request = round.request(1 << 14);
            round.count(start_read_file(file, request, request.data.data(), request.data.size()));
        }
        close_handle(file); // most of its reads wait for their turn
    });
}

} // namespace
} // namespace vel::os::testing
