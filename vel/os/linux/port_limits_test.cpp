// The completion port at the limit of descriptors, and without the threads that waited at it.
#include <sys/resource.h>
#include <unistd.h>
#include <vel/os/linux/testing/lock_waiter.h>
#include <vel/os/thread.h>
#include <vel/testing/completion_port_fixture.h>

namespace vel::os::testing {
namespace {

void limit_descriptors(rlim_t count) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = count;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(50);
}

// Runs in a process of its own; the exit code is the number of the step that failed.
[[noreturn]] void accept_at_the_descriptor_limit() {
    void* port = nullptr;
    create_port(1, port);
    Address address, local, remote;
    const uint64_t listener = open_listener(address);
    associate(port, reinterpret_cast<void*>(listener), 1);
    const uint64_t prepared[] = {open(stream), open(stream)};
    const uint64_t clients[] = {open(stream), open(stream)};
    Request accept;
    Completion completion;
    const auto start = [&](int i) { return start_accept(listener, accept, prepared[i], &local, &remote) == 0; };
    const auto ends_with = [&](uint32_t code) {
        return wait_completion(port, patience_ms, completion) == 0 && completion.error == code;
    };
    if (!start(0)) ::_exit(1);
    limit_descriptors(static_cast<rlim_t>(::dup(2))); // the lowest that was free
    for (uint64_t client : clients) connect_socket(client, &address, sizeof address);
    // The prepared socket is a descriptor already: at the limit there is still room for its connection.
    if (!ends_with(error::none)) ::_exit(2);
    limit_descriptors(3);
    if (!start(1) || !ends_with(error::too_many_sockets)) ::_exit(3);
    limit_descriptors(100); // the connection has not been lost meanwhile
    ::_exit(start(1) && ends_with(error::none) ? 0 : 4);
}

TEST(CompletionPortLimits, AcceptOutOfDescriptorsIsReportedAndLosesNoConnection) {
    EXPECT_EXIT(accept_at_the_descriptor_limit(), ::testing::ExitedWithCode(0), "");
}

TEST_F(CompletionPort, KilledWaitersHoldUpNobody) {
    if (vel::testing::delays_signals) GTEST_SKIP() << "a killed thread is never joined";
    const Pair pair = connected(1);
    std::array<void*, 3> threads{}; // one leads, two follow
    for (void*& thread : threads) {
        const auto wait = [](void* port) {
            Completion completion;
            return wait_completion(port, VEL_INFINITE, completion);
        };
        uint32_t id = 0, previous = 0;
        ASSERT_EQ(create_thread(wait, port_, 0, thread, id) + resume_thread(thread, previous), 0u);
        ASSERT_TRUE(vel::testing::comes_to_sleep_in(id, {SYS_epoll_pwait2, SYS_futex}));
        keep(thread);
    }
    for (const size_t victim : {1, 0, 2}) ASSERT_EQ(terminate_thread(threads[victim], 1), 0u);
    Request request;
    ASSERT_EQ(start_receive(pair.server, request), 0u);
    send_text(pair.client, "hello");
    expect(request, 5);
}

} // namespace
} // namespace vel::os::testing
