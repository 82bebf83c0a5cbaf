// Messages to a thread through its queue against the same work on Asio, libuv and a bare queue: throughput and ping-pong.
#include "message_peers.h"

#include <cstdlib>
#include <vel/vel.h>

namespace {

/// VEL: a task with one thread, and what is in its way: through the manager by the thread's name, or straight.
template <bool ByName>
class TaskReceiver {
public:
    TaskReceiver() : message_(new VEL_Serializable, false) {
        if (VELLib::initialize() != 0) std::abort();
        threads_ = VEL_Thread_Manager::instance();
        if (!threads_ || threads_->spawn(task_, thread_, 1, 0, 0) != 0) std::abort();
    }
    ~TaskReceiver() {
        threads_->join(thread_, nullptr);
        task_->release();
        VELLib::uninitialize();
    }

    void on_message(std::function<void()> action) { task_->action = std::move(action); }
    void post() {
        if ((ByName ? threads_->sendMessage(thread_, message_) : task_->sendMessage(message_)) != 0) std::abort();
    }

private:
    struct Task : VEL_Task_Base {
        std::function<void()> action;
        int handle_message(VEL_Message_Block&) override {
            action();
            return 0;
        }
    };

    VEL_Thread_Manager* threads_ = nullptr;
    Task* task_ = new Task;
    VEL_thread_t thread_;
    VEL_Message_Block message_;
};

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
    bench::add<TaskReceiver<false>>("send", "vel");
    bench::add<TaskReceiver<true>>("send", "vel_by_name");
    bench::add<QueueReceiver>("send", "vel_queue");
    bench::add_peers("send");
    return true;
}();

} // namespace
