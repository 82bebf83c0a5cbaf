// Vocabulary of the completion port's contract tests: requests and workers.
#pragma once

#include <functional>
#include <vel/os/completion_port.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {

// A request with its buffer.
struct Request : IoRequest {
    explicit Request(size_t size = 64) : IoRequest{}, data(size, '\0') {}
    std::string data;
    std::atomic<int> completions{0};
};

// A bare completion, of no request.
inline uint32_t post(void* port, uint64_t bytes, uint32_t key) { return post_completion(port, nullptr, bytes, key); }

inline uint32_t start_receive(uint64_t socket, Request& request) {
    return os::start_receive(socket, request, request.data.data(), request.data.size());
}

inline uint32_t start_send(uint64_t socket, Request& request) {
    return os::start_send(socket, request, request.data.data(), request.data.size());
}

// Threads that take completions until one with the stop key comes.
class Workers {
public:
    Workers(void* port, int count, const std::function<void(const Completion&)>& handler) : port_(port) {
        threads_ = crew(count, [port, handler](int) {
            Completion each;
            while (wait_completion(port, VEL_INFINITE, each) == 0 && each.key != stop_key) handler(each);
        });
    }
    ~Workers() { stop(); }

    void stop() {
        for (size_t i = 0; i < threads_.size(); ++i) post(port_, 0, stop_key);
        threads_.clear();
    }

private:
    static constexpr uint32_t stop_key = 0xFFFF;
    void* port_;
    std::vector<std::jthread> threads_;
};

class CompletionPort : public OsTest {
protected:
    void SetUp() override { ASSERT_EQ(create_port(4, port_), 0u); }
    void TearDown() override {
        EXPECT_EQ(close_port(port_), 0u);
        OsTest::TearDown();
    }

    // A connection whose server end is associated with the port.
    Pair connected(uint32_t key) {
        const Pair pair = OsTest::connected();
        bind(pair.server, key);
        return pair;
    }

    void bind(uint64_t socket, uint32_t key) { ASSERT_EQ(associate(port_, reinterpret_cast<void*>(socket), key), 0u); }

    Completion take() {
        Completion completion{};
        EXPECT_EQ(wait_completion(port_, patience_ms, completion), 0u);
        return completion;
    }

    // Takes the next completion, checks it and gives its key.
    uint32_t expect(const OVERLAPPED& record, uint64_t bytes, uint32_t code = 0) {
        const Completion completion = take();
        EXPECT_EQ(completion.record, &record);
        EXPECT_EQ(completion.bytes, bytes);
        EXPECT_EQ(completion.error, code);
        return completion.key;
    }

    void expect_empty() {
        Completion completion{};
        EXPECT_EQ(wait_completion(port_, 0, completion), error::wait_timeout);
    }

    void* port_ = nullptr;
};

} // namespace vel::os::testing
