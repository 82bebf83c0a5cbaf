// Echo server: a bare level-triggered epoll loop a thread, the yardstick of the comparison.
#include "support.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <sys/epoll.h>
#include <thread>
#include <vector>

namespace {

struct Connection {
    int socket;
    size_t filled = 0; // bytes read and not yet written back
    size_t sent = 0;
    std::unique_ptr<char[]> buffer{new char[bench::buffer_size]};
};

class Loop {
public:
    Loop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
        if (epoll_ < 0) bench::fail("epoll_create1");
    }

    void add(int socket) {
        auto* connection = new Connection{socket};
        control(EPOLL_CTL_ADD, connection, EPOLLIN);
    }

    void run() {
        epoll_event events[256];
        for (;;) {
            const int count = ::epoll_wait(epoll_, events, 256, -1);
            for (int i = 0; i < count; ++i) serve(static_cast<Connection*>(events[i].data.ptr), events[i].events);
        }
    }

private:
    void control(int operation, Connection* connection, uint32_t interest) {
        epoll_event event{};
        event.events = interest;
        event.data.ptr = connection;
        ::epoll_ctl(epoll_, operation, connection->socket, &event);
    }

    void serve(Connection* connection, uint32_t events) {
        if (events & EPOLLOUT) return write_back(connection, true);
        const ssize_t got = ::recv(connection->socket, connection->buffer.get(), bench::buffer_size, MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) return;
        if (got <= 0) return drop(connection);
        connection->filled = static_cast<size_t>(got);
        connection->sent = 0;
        write_back(connection, false);
    }

    void write_back(Connection* connection, bool was_blocked) {
        const ssize_t put = ::send(connection->socket, connection->buffer.get() + connection->sent,
                                   connection->filled - connection->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put < 0 && errno != EAGAIN) return drop(connection);
        if (put > 0) connection->sent += static_cast<size_t>(put);
        const bool blocked = connection->sent < connection->filled;
        if (blocked != was_blocked) control(EPOLL_CTL_MOD, connection, blocked ? EPOLLOUT : EPOLLIN);
    }

    void drop(Connection* connection) {
        ::close(connection->socket);
        delete connection;
    }

    int epoll_;
};

} // namespace

int main(int argc, char** argv) {
    std::vector<std::unique_ptr<Loop>> loops;
    for (int i = 0; i < bench::thread_count(argc, argv); ++i) {
        loops.push_back(std::make_unique<Loop>());
        std::thread([loop = loops.back().get()] { loop->run(); }).detach();
    }
    const int listener = bench::listen_on_loopback(false);
    std::thread([&] {
        for (size_t next = 0;; ++next) {
            const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket >= 0) loops[next % loops.size()]->add(socket);
        }
    }).detach();
    bench::announce(bench::port_of(listener));
    bench::wait_for_end();
    std::_Exit(0);
}
