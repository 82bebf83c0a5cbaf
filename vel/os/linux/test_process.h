// A second copy of the running test program, for tests that need a process of their own.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace vel::os::test {

/// The value of an environment variable; empty when there is none.
inline std::string environment(const char* name) {
    const char* value = ::getenv(name);
    return value ? value : "";
}

/// A process with its standard input and output as pipes. Killed when the object goes.
class Process {
public:
    /// Runs this very program with two more environment variables, each "NAME=value".
    Process(std::string first, std::string second) {
        int to_child[2], from_child[2];
        if (::pipe2(to_child, O_CLOEXEC) != 0 || ::pipe2(from_child, O_CLOEXEC) != 0) std::abort();
        id_ = ::fork();
        if (id_ == 0) {
            ::dup2(to_child[0], 0);
            ::dup2(from_child[1], 1);
            ::putenv(first.data());
            ::putenv(second.data());
            ::execl("/proc/self/exe", "test_process", static_cast<char*>(nullptr));
            ::_exit(126);
        }
        ::close(to_child[0]);
        ::close(from_child[1]);
        input_ = to_child[1];
        output_ = from_child[0];
    }
    ~Process() {
        kill();
        ::close(input_);
        ::close(output_);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool write(const std::string& text) { return ::write(input_, text.data(), text.size()) == ssize_t(text.size()); }

    /// Reads one byte. False at the end of the child's output and when `deadline` has passed.
    bool read(char& byte, std::chrono::steady_clock::time_point deadline) {
        for (;;) {
            const auto left = deadline - std::chrono::steady_clock::now();
            const auto left_ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            pollfd wait{output_, POLLIN, 0};
            const int ready = ::poll(&wait, 1, left_ms > 0 ? int(left_ms) : 0);
            if (ready > 0) return ::read(output_, &byte, 1) == 1;
            if (ready == 0 || errno != EINTR) return false;
        }
    }

    /// Ends the process at once, without a chance to clean up.
    void kill() {
        if (id_ > 0) ::kill(id_, SIGKILL);
        join();
    }

    /// Waits for the end. The exit code, or -1 when the process was killed or is gone already.
    int join() {
        if (id_ <= 0) return -1;
        int status = 0;
        pid_t ended;
        do {
            ended = ::waitpid(id_, &status, 0);
        } while (ended < 0 && errno == EINTR);
        id_ = -1;
        return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t id_ = -1;
    int input_ = -1;
    int output_ = -1;
};

} // namespace vel::os::test
