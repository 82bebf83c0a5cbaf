// Posting messages to a handler against the same work on Asio, libuv and a bare queue: throughput and ping-pong.
#include "message_peers.h"

#include <cstdlib>
#include <vel/vel.h>

namespace {

/// VEL: a proactor with one worker and a handler registered on a socket of its own.
class VelReceiver {
public:
    VelReceiver() : handler_(new Handler) {
        if (VELLib::initialize() != 0 || proactor_.open(1) != 0 || handler_->open(&proactor_, 0, "127.0.0.1") != 0)
            std::abort();
        message_.set(new VEL_Serializable, false);
    }
    ~VelReceiver() {
        handler_->close(true);
        proactor_.close();
        handler_->release();
    }

    void on_message(std::function<void()> action) { handler_->action = std::move(action); }
    void post() {
        if (proactor_.sendMessage(handler_->completion_key(), message_) != 0) std::abort();
    }

private:
    struct Handler : VEL_Async_SOCK_Dgram {
        std::function<void()> action;
        int handle_signal(VEL_Async_Post_Operation* op) override {
            action();
            delete op;
            return 0;
        }
    };

    VEL_Proactor proactor_;
    Handler* handler_;
    VEL_Message_Block message_;
};

const bool added = [] {
    bench::add<VelReceiver>("post", "vel");
    bench::add_peers("post");
    return true;
}();

// Ten million rounds: one lost wake-up and it never ends. Not part of the comparison; asked for by its name.
const bool added_long = [] {
    if (!std::getenv("VEL_BENCH_LONG")) return false;
    benchmark::RegisterBenchmark("ping_pong_long/vel", bench::ping_pong<VelReceiver>)
        ->Arg(10'000'000)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    return true;
}();

} // namespace
