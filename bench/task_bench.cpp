// Messages to a thread through its queue against the same work on Asio, libuv and a bare queue: throughput and ping-pong.
#include "message_peers.h"

#include <cstdlib>
#include <vel/vel.h>

namespace {

/// The message queue alone: a thread of our own waits for its event and empties it.
class QueueReceiver {
public:
    QueueReceiver() : message_(new VEL_Serializable, false), thread_([this] { run(); }) {}
    ~QueueReceiver() {
        ending_ = true;
        post();
        thread_.join();
        queue_->release();
    }

    void on_message(std::function<void()> action) { action_ = std::move(action); }
    void post() {
        if (queue_->sendMessage(message_) != 0) std::abort();
    }

private:
    void run() {
        while (queue_->wait(VEL_INFINITE) == 0) {
            VEL_Message_Block message;
            while (queue_->getMessage(message) == 0) {
                if (ending_) return;
                action_();
            }
        }
    }

    VEL_Message_Queue* queue_ = new VEL_Message_Queue;
    VEL_Message_Block message_;
    std::function<void()> action_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

const bool added = [] {
    bench::add<QueueReceiver>("send", "vel");
    bench::add_peers("send");
    return true;
}();

} // namespace
