// A datagram socket that would block, for tests: those of the loopback interface never do.
#pragma once

#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace vel::testing {

/// Puts one end of a pair of message sockets into the place of a socket. What is sent by it arrives here, message by
/// message and whatever the destination; once a few kilobytes wait to be read it would block. To be put there while no
/// one waits for the socket's events.
class BlockedSocket {
public:
    explicit BlockedSocket(uint64_t socket) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) ::abort();
        const int bytes = 1; // the smallest there is
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        if (::dup3(ends[0], static_cast<int>(socket), O_CLOEXEC) < 0) ::abort();
        ::close(ends[0]);
        end_ = ends[1];
    }
    ~BlockedSocket() { ::close(end_); }
    BlockedSocket(const BlockedSocket&) = delete;
    BlockedSocket& operator=(const BlockedSocket&) = delete;

    /// The next message; empty when there is none.
    std::string read() {
        char buffer[4096];
        const ssize_t size = ::recv(end_, buffer, sizeof buffer, 0);
        return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : std::string();
    }

private:
    int end_;
};

} // namespace vel::testing
