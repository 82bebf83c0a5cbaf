// A second process for tests: a fork that runs one function and talks to its parent in single bytes.
#pragma once

#include <cerrno>
#include <csignal>
#include <functional>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vel::testing {

/// One end of the talk.
class Talk {
public:
    explicit Talk(int descriptor) : descriptor_(descriptor) {}
    ~Talk() { ::close(descriptor_); }
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    void tell() {
        const char byte = 1;
        (void)!::send(descriptor_, &byte, 1, MSG_NOSIGNAL);
    }

    /// True when the other end has told something within the time; false also when it has ended.
    bool hear(int timeout_ms = 20000) {
        pollfd wanted{descriptor_, POLLIN, 0};
        char byte;
        return ::poll(&wanted, 1, timeout_ms) == 1 && ::read(descriptor_, &byte, 1) == 1;
    }

private:
    int descriptor_;
};

/// Gives up the rights of the superuser for good; true when permissions now hold for this process.
inline bool become_ordinary_user() {
    constexpr uid_t nobody = 65534;
    return ::geteuid() != 0 || ::setresuid(nobody, nobody, nobody) == 0;
}

/// Runs `body` in a forked child; its result is the exit code. The child never returns into the test.
/// Start it before the test starts threads.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int(Talk& parent)>& body) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) ::abort();
        id_ = ::fork();
        if (id_ == 0) {
            Talk parent(ends[1]);
            ::close(ends[0]); // so that the child hears the end of its parent
            ::_exit(body(parent));
        }
        ::close(ends[1]);
        talk_.emplace(ends[0]);
    }
    ~ChildProcess() { kill(); }

    Talk& talk() { return *talk_; }

    /// Waits for the end of the child. Its exit code, or -1 when a signal ended it.
    int wait() {
        int status = 0;
        while (id_ > 0 && ::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
        }
        id_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// Ends it at once, wherever it is.
    void kill() {
        if (id_ <= 0) return;
        ::kill(id_, SIGKILL);
        wait();
    }

private:
    std::optional<Talk> talk_;
    pid_t id_ = -1;
};

} // namespace vel::testing
