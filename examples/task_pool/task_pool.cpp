// Counts primes for clients on UDP with a pool of task threads that follows the load.
//
//     task_pool [PORT] [MOST_THREADS] [DELAY_MS] [IDLE_MS]
//
// A datagram with a number is answered with the number and how many primes are below it. A job that has waited longer
// than DELAY_MS adds a thread, up to MOST_THREADS; a thread leaves when nothing came for IDLE_MS, but for the last one.
// On SIGINT the pool takes no more jobs, answers those it has and ends with a summary.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>
#include <vel/buffers/message_block.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/library.h>
#include <vel/platform/inet_addr.h>
#include <vel/platform/sockets.h>
#include <vel/reactor/reactor.h>
#include <vel/threads/task.h>
#include <vel/threads/thread_manager.h>

namespace {

constexpr int pool_group = 1;
constexpr uint32_t signal_check_ms = 100;
constexpr uint32_t send_patience_ms = 1000;

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void request_stop(int) { stop_requested = 1; }

uint32_t now_ms() {
    using namespace std::chrono;
    return static_cast<uint32_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

uint32_t primes_below(uint32_t limit) {
    uint32_t count = limit > 2 ? 1 : 0;
    for (uint32_t candidate = 3; candidate < limit; candidate += 2) {
        uint32_t factor = 3;
        while (factor * factor <= candidate && candidate % factor != 0) factor += 2;
        if (factor * factor > candidate) ++count;
    }
    return count;
}

/// What a client asked for, and when it came.
struct Job : VEL_Serializable {
    Job(uint32_t number, const VEL_INET_Addr& from) : limit(number), client(from), arrived(now_ms()) {}
    const uint32_t limit;
    const VEL_INET_Addr client;
    const uint32_t arrived;
};

/// Tells the thread that takes it to leave: it is behind every job.
struct Leave : VEL_Serializable {};

struct Limits {
    uint32_t most_threads = 4;
    uint32_t delay_ms = 50;
    uint32_t idle_ms = 2000;
};

/// The task whose threads are the pool.
class Pool : public VEL_Task_Base {
public:
    Pool(uint64_t socket, const Limits& limits) : socket_(socket), limits_(limits) {}

    /// Adds a thread unless there are enough or the pool is stopping. Also called by the pool's own threads.
    int grow(uint32_t delay_ms) {
        std::lock_guard guard(lock_);
        if (stopping_ || size_ >= limits_.most_threads) return 0;
        VEL_thread_t thread;
        if (threads_.spawn(this, thread, pool_group, 0, 0) < 0) return -1;
        ++size_;
        if (size_ > largest_) largest_ = size_;
        std::printf("threads %u: a job waited %u ms\n", size_, delay_ms);
        return 0;
    }

    /// Forgets the threads that have left.
    void sweep() {
        std::vector<VEL_thread_t> left;
        {
            std::lock_guard guard(lock_);
            left.swap(left_);
        }
        for (const VEL_thread_t& thread : left) threads_.wait(thread, VEL_INFINITE);
    }

    /// Lets every thread leave once the jobs that are queued are done, and waits for that. The words to leave are
    /// counted: sent to the group, they would miss a thread where another one has left on its word already.
    void stop() {
        uint32_t threads = 0;
        {
            std::lock_guard guard(lock_);
            stopping_ = true;
            threads = size_;
        }
        for (; threads > 0; --threads) sendMessage(VEL_Message_Block(new Leave, false));
        threads_.wait(VEL_INFINITE);
        std::printf("answered %u jobs, at most %u threads\n", answered_.load(), largest_);
    }

    /// Each thread has a timer of its own that looks whether it is still needed.
    int handle_init(const VEL_thread_t&, VEL_Reactor* reactor) override {
        return reactor->schedule_timer(this, limits_.idle_ms);
    }

    /// A negative result ends the queue's registration with the thread's reactor: see `handle_close`.
    int handle_message(VEL_Message_Block& message) override {
        const auto* job = dynamic_cast<const Job*>(message.c_ptr());
        if (!job) return -1;
        last_job_ = now_ms();
        const uint32_t delay_ms = last_job_ - job->arrived;
        if (delay_ms > limits_.delay_ms) grow(delay_ms);
        answer(*job);
        return 0;
    }

    int handle_timeout(int32_t, uint32_t&, VEL_Reactor* reactor) override {
        std::lock_guard guard(lock_);
        if (stopping_ || size_ == 1 || now_ms() - last_job_ < limits_.idle_ms) return 0;
        --size_;
        left_.push_back(VEL_Thread_Manager::thr_self());
        std::printf("threads %u: idle\n", size_);
        reactor->deactivate(); // the end of this thread's loop
        return 0;
    }

    /// One thread has done with the queue. Not what the base does, which throws the messages away: they are the others'.
    int handle_close(void*, uint32_t mask, VEL_Reactor* reactor) override {
        if (mask & VEL_SIGNAL_EVENT) reactor->deactivate();
        return 0;
    }

private:
    void answer(const Job& job) {
        char text[40];
        const int length = std::snprintf(text, sizeof text, "%u %u", job.limit, primes_below(job.limit));
        if (VELLib::sendto(socket_, text, static_cast<uint64_t>(length), job.client, send_patience_ms) == length)
            ++answered_;
        else
            std::fprintf(stderr, "an answer was not sent: error %u\n", VELLib::GetErrorCode());
    }

    const uint64_t socket_;
    const Limits limits_;
    VEL_Thread_Manager threads_{17};
    std::atomic<uint32_t> last_job_{now_ms()};
    std::atomic<uint32_t> answered_{0};

    std::mutex lock_; // guards what follows
    uint32_t size_ = 0;
    uint32_t largest_ = 0;
    bool stopping_ = false;
    std::vector<VEL_thread_t> left_; // ended or about to, not yet forgotten
};

/// Takes the datagrams and queues them; runs in the main thread's reactor.
class Receiver : public VEL_Event_Handler_Impl<VEL_Reference_Counter> {
public:
    Receiver(uint64_t socket, Pool& pool) : socket_(socket), pool_(pool) {}

    int handle_input(void*, VEL_Reactor*, uint32_t) override {
        char text[12] = "";
        VEL_INET_Addr client;
        const int length = VELLib::recvfrom(socket_, text, sizeof text - 1, client, 0);
        if (length <= 0) return 0; // an error of one datagram is not the socket's
        const uint32_t limit = static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
        return pool_.sendMessage(VEL_Message_Block(new Job(limit, client), false));
    }

private:
    const uint64_t socket_;
    Pool& pool_;
};

uint64_t open_socket(uint16_t port) {
    constexpr int inet = 2, datagram = 2;
    const uint64_t socket = VELLib::socket(inet, datagram, 0);
    VEL_INET_Addr address(port, "127.0.0.1");
    if (VELLib::bind(socket, address) < 0 || VELLib::getsockname(socket, address) < 0) return VEL_INVALID_SOCKET;
    std::printf("listening on port %u\n", address.getport());
    return socket;
}

int serve(uint16_t port, const Limits& limits) {
    const uint64_t socket = open_socket(port);
    if (socket == VEL_INVALID_SOCKET) return -1;
    void* const handle = reinterpret_cast<void*>(socket);
    auto* pool = new Pool(socket, limits);
    auto* receiver = new Receiver(socket, *pool);
    VEL_Reactor reactor;
    int result = pool->grow(0);
    if (result == 0) result = reactor.register_handler(handle, receiver, VEL_INPUT_EVENT);
    while (result >= 0 && !stop_requested) {
        result = reactor.handle_event(signal_check_ms);
        pool->sweep();
    }
    reactor.close();
    pool->stop();
    receiver->release();
    pool->release();
    VELLib::closesocket(socket);
    return result < 0 ? -1 : 0;
}

} // namespace

int main(int argc, char** argv) {
    const auto option = [&](int place, uint32_t otherwise) {
        return argc > place ? static_cast<uint32_t>(std::strtoul(argv[place], nullptr, 10)) : otherwise;
    };
    Limits limits;
    limits.most_threads = option(2, limits.most_threads);
    limits.delay_ms = option(3, limits.delay_ms);
    limits.idle_ms = option(4, limits.idle_ms);
    std::signal(SIGINT, request_stop);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (VELLib::initialize() < 0) return 1;
    const int result = serve(static_cast<uint16_t>(option(1, 7011)), limits);
    if (result < 0) std::fprintf(stderr, "task_pool: error %u\n", VELLib::GetErrorCode());
    VELLib::uninitialize();
    return result < 0 ? 1 : 0;
}
