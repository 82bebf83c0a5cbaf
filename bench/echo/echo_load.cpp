// Load for the echo servers: one epoll thread that keeps a number of messages outstanding on each connection.
//
// Usage: echo_load PORT CONNECTIONS MESSAGE_BYTES OUTSTANDING SECONDS
// Prints the round trips a second of the measured part (after a quarter of the time as warm-up).
#include "support.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <sys/epoll.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Plan {
    int port;
    int connections;
    size_t message;
    size_t outstanding;
    double seconds;
};

struct Connection {
    int socket = -1;
    size_t unsent = 0;   // bytes that belong on the wire and are not there yet
    size_t received = 0; // bytes of the message under way
    bool waits_for_room = false;
};

class Load {
public:
    explicit Load(const Plan& plan) : plan_(plan), connections_(static_cast<size_t>(plan.connections)) {
        epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
        for (auto& connection : connections_) open(connection);
        for (auto& connection : connections_) {
            connection.unsent = plan_.message * plan_.outstanding;
            send(connection);
        }
    }

    double run() {
        run_for(plan_.seconds / 4);
        const uint64_t before = round_trips_;
        const auto start = Clock::now();
        run_for(plan_.seconds * 3 / 4);
        const std::chrono::duration<double> spent = Clock::now() - start;
        return static_cast<double>(round_trips_ - before) / spent.count();
    }

private:
    void open(Connection& connection) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(plan_.port));
        connection.socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(connection.socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            bench::fail("connect");
        bench::send_at_once(connection.socket);
        control(EPOLL_CTL_ADD, connection, EPOLLIN);
    }

    void control(int operation, Connection& connection, uint32_t interest) {
        epoll_event event{};
        event.events = interest;
        event.data.ptr = &connection;
        ::epoll_ctl(epoll_, operation, connection.socket, &event);
    }

    void run_for(double seconds) {
        const auto end = Clock::now() + std::chrono::duration<double>(seconds);
        epoll_event events[256];
        while (Clock::now() < end) {
            const int count = ::epoll_wait(epoll_, events, 256, 100);
            for (int i = 0; i < count; ++i) serve(*static_cast<Connection*>(events[i].data.ptr), events[i].events);
        }
    }

    void serve(Connection& connection, uint32_t events) {
        if (events & EPOLLIN) receive(connection);
        if (connection.unsent > 0) send(connection);
    }

    void receive(Connection& connection) {
        const ssize_t got = ::recv(connection.socket, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) return;
        if (got <= 0) bench::fail("recv");
        connection.received += static_cast<size_t>(got);
        const size_t complete = connection.received / plan_.message;
        connection.received %= plan_.message;
        connection.unsent += complete * plan_.message;
        round_trips_ += complete;
    }

    void send(Connection& connection) {
        const size_t size = std::min(connection.unsent, buffer_.size());
        const ssize_t put = ::send(connection.socket, buffer_.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put < 0 && errno != EAGAIN) bench::fail("send");
        if (put > 0) connection.unsent -= static_cast<size_t>(put);
        const bool blocked = connection.unsent > 0;
        if (blocked == connection.waits_for_room) return;
        connection.waits_for_room = blocked;
        control(EPOLL_CTL_MOD, connection, blocked ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }

    Plan plan_;
    int epoll_;
    uint64_t round_trips_ = 0;
    std::vector<Connection> connections_;
    std::vector<char> buffer_ = std::vector<char>(256 * 1024, 'x');
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: echo_load PORT CONNECTIONS MESSAGE_BYTES OUTSTANDING SECONDS\n");
        return 2;
    }
    const Plan plan{std::atoi(argv[1]), std::atoi(argv[2]), std::strtoul(argv[3], nullptr, 10),
                    std::strtoul(argv[4], nullptr, 10), std::atof(argv[5])};
    Load load(plan);
    std::printf("%.0f\n", load.run());
}
