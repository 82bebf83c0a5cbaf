// What every echo server of the comparison shares: its command line, its listener and its announcement.
#pragma once

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

/// Bytes that one read may take; the same for every server.
inline constexpr size_t buffer_size = 64 * 1024;

/// argv[1] is the number of threads, 1 when absent.
inline int thread_count(int argc, char** argv) { return argc > 1 ? std::atoi(argv[1]) : 1; }

[[noreturn]] inline void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// Switches the delay of small segments off; connections accepted from a listener inherit it.
inline void send_at_once(int socket) {
    const int on = 1;
    if (::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) fail("setsockopt");
}

/// A listening socket on a free port of the loopback interface.
inline int listen_on_loopback(bool nonblocking) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 4096) != 0)
        fail("listen");
    send_at_once(listener);
    return listener;
}

inline int port_of(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) fail("getsockname");
    return ntohs(address.sin_port);
}

/// Tells the runner where to connect.
inline void announce(int port) {
    std::printf("%d\n", port);
    std::fflush(stdout);
}

/// Blocks until the runner closes standard input, which ends the server.
inline void wait_for_end() {
    char byte;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

} // namespace bench
