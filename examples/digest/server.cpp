// Digest server: answers every file that a client sends with its size, lines and MD5 digest.
//
//     digest_server [--address ADDRESS] [--port N] [--workers N] [--idle SECONDS]
//
// It listens on every interface unless told an address, says "listening on ADDRESS:PORT", logs to the standard error
// output why it closes a connection, and ends with a summary on SIGINT or SIGTERM. Exit codes: 0 ended by a signal,
// 1 cannot listen, 2 wrong arguments.
#include "connection.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vel/frame/error.h>
#include <vel/library.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_acceptor.h>
#include <vel/proactor/proactor.h>

namespace {

struct Options {
    const char* address = nullptr; // every interface
    uint32_t port = 0;             // 0: any free one
    uint32_t workers = 0;          // 0: twice the number of processors
    uint32_t idle = 60;            // seconds
};

constexpr int pending_accepts = 8;
constexpr uint32_t accept_retry_ms = 500;
constexpr uint32_t signal_check_ms = 200;

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void request_stop(int) { stop_requested = 1; }

/// Gives every connection that arrives a handler of its own.
class Acceptor : public VEL_Async_Acceptor {
public:
    Acceptor(digest::Totals& totals, uint32_t idle_ms) : totals_(totals), idle_ms_(idle_ms) {}

    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
        if (error == 0) serve(static_cast<VEL_Async_SOCK_Accept&>(*op));
        delete op;
        if (error == 0 && accept() == 0) return 0;
        if (check_open() < 0) return -1;
        ++owed_;
        return 0;
    }

    /// Takes up the accepts that could not be started, for want of descriptors most likely.
    int handle_timeout(int32_t, uint32_t&, VEL_Proactor*) override {
        while (owed_ > 0 && accept() == 0) --owed_;
        return 0;
    }

private:
    void serve(VEL_Async_SOCK_Accept& op) {
        auto* connection = new digest::Connection(totals_, idle_ms_);
        if (accept_socket(op, *connection) == 0) connection->start();
        connection->release(); // what is pending keeps it
    }

    digest::Totals& totals_;
    const uint32_t idle_ms_;
    std::atomic<int> owed_{0};
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc) return false;
        const char* value = argv[i + 1];
        bool good = false;
        if (std::strcmp(argv[i], "--address") == 0) {
            options.address = value;
            good = true;
        }
        if (std::strcmp(argv[i], "--port") == 0) good = digest::parse_number(value, 65535, options.port);
        if (std::strcmp(argv[i], "--workers") == 0) good = digest::parse_number(value, 63, options.workers);
        if (std::strcmp(argv[i], "--idle") == 0) good = digest::parse_number(value, 86400, options.idle);
        if (!good) return false;
    }
    return options.idle > 0;
}

int fail(const char* what) {
    std::fprintf(stderr, "digest_server: %s: %s\n", what, digest::error_text(VELLib::GetErrorCode()).c_str());
    return 1;
}

int listen(Acceptor& acceptor, VEL_Proactor& proactor, const Options& options) {
    VEL_INET_Addr address;
    const auto port = static_cast<uint16_t>(options.port);
    if (acceptor.open(&proactor, port, options.address) < 0 || acceptor.set_timeout(accept_retry_ms) < 0) return -1;
    for (int i = 0; i < pending_accepts; ++i)
        if (acceptor.accept() < 0) return -1;
    if (VELLib::getsockname(reinterpret_cast<uint64_t>(acceptor.get_handle()), address) < 0) return -1;
    std::printf("listening on %s:%u\n", address.getiptext(), address.getport());
    std::fflush(stdout);
    return 0;
}

int serve(const Options& options) {
    digest::Totals totals;
    VEL_Proactor proactor;
    if (proactor.open(options.workers) < 0) return fail("cannot start the workers");
    auto* acceptor = new Acceptor(totals, options.idle * 1000);
    const bool listening = listen(*acceptor, proactor, options) == 0;
    const int result = listening ? 0 : fail("cannot listen");
    // This thread helps the workers and looks now and then whether it is asked to stop.
    while (listening && !stop_requested && proactor.handle_event(signal_check_ms) >= 0) {
    }
    acceptor->close(true);
    acceptor->release();
    proactor.close();
    if (listening) std::printf("%s\n", totals.text().c_str());
    return result;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: digest_server [--address ADDRESS] [--port N] [--workers N] [--idle SECONDS]\n");
        return 2;
    }
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    if (VELLib::initialize() < 0) return fail("cannot start the library");
    const int result = serve(options);
    VELLib::uninitialize();
    return result;
}
