// Tests of tasks: their threads, their messages and what else their reactors serve.
#include <vel/threads/task.h>

#include <numeric>
#include <vel/buffers/message_block.h>
#include <vel/buffers/serializable.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/platform/sockets.h>
#include <vel/reactor/reactor.h>
#include <vel/testing/balanced_test.h>
#include <vel/testing/crew.h>
#include <vel/testing/failing_allocations.h>
#include <vel/threads/thread_manager.h>

namespace vel::testing {
namespace {

constexpr uint32_t long_ms = 10000;

VEL_Message_Block message(bool sync = false) { return VEL_Message_Block(new VEL_Serializable, sync); }

/// Answers every message with how many it has handled.
struct Counter : VEL_Task_Base {
    int svc(VEL_Reactor* reactor) override { return VEL_Task_Base::svc(reactor) + 5; }
    int handle_init(const VEL_thread_t& thread, VEL_Reactor* reactor) override {
        EXPECT_FALSE(thread.invalid());
        EXPECT_TRUE(reactor->is_activate());
        return --inits_left < 0 ? -1 : 0;
    }
    int handle_message(VEL_Message_Block& block) override { return block.signal(++handled, 0, nullptr), 0; }

    int inits_left = 10;
    std::atomic<int> handled{0};
};

class Task : public BalancedTest {
protected:
    ~Task() override {
        manager_.close();
        EXPECT_EQ(task_->release(), 0);
    }
    VEL_thread_t spawn(uint32_t flags = 0) {
        VEL_thread_t thread;
        EXPECT_EQ(manager_.spawn(task_, thread, 1, 0, flags), 0);
        return thread;
    }

    VEL_Thread_Manager manager_{17};
    Counter* const task_ = new Counter;
};

TEST_F(Task, AnswersWhileItRunsUntilItIsJoined) {
    const VEL_thread_t thread = spawn(1);
    VEL_Message_Block question = message(true);
    EXPECT_EQ(manager_.sendMessage(thread, question), 0);
    expect_failure(error::wait_timeout, question.wait(20));
    EXPECT_EQ(manager_.resume(thread), 1);
    EXPECT_EQ(question.wait(long_ms), 1);
    int exit_code = 0;
    std::thread([&] { EXPECT_EQ(manager_.join(thread, &exit_code), 0); }).join();
    EXPECT_EQ(exit_code, 5);
}

TEST_F(Task, MessagesAreRefusedByWhatCannotHandleThem) {
    VEL_thread_t plain;
    ASSERT_EQ(manager_.spawn([](void*) { return 0; }, nullptr, plain, 1, 0, 0, nullptr), 0);
    expect_failure(error::not_implemented, manager_.sendMessage(plain, message()));
    const VEL_thread_t thread = spawn();
    EXPECT_EQ(manager_.sendMessage(1, message()), 0) << "to the group, the plain thread's refusal notwithstanding";
    EXPECT_EQ(manager_.cancel(thread), 0);
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    expect_failure(error::object_closed, manager_.sendMessage(thread, message()));
    EXPECT_EQ(manager_.wait(thread, 0), 0) << "known until somebody waits";
}

TEST_F(Task, ASpawnThatFailsLeavesNothing) {
    VEL_Message_Block waiting = message(true);
    ASSERT_EQ(task_->sendMessage(waiting), 0);
    const uint64_t handles = os::open_handle_count();
    const auto expect_nothing = [&](uint32_t code, int result) {
        expect_failure(code, result);
        EXPECT_EQ(manager_.thr_count(), 0u);
        EXPECT_EQ(os::open_handle_count(), handles);
        EXPECT_EQ((task_->addref(), task_->release()), 1);
        expect_failure(error::wait_timeout, waiting.wait(0)); // the queue was not told
    };
    task_->inits_left = 2;
    expect_nothing(error::task_init_failed, manager_.spawn(task_, 4, nullptr, 1, 0, 0));
    EXPECT_EQ(task_->inits_left, -1) << "no thread after the refused one";
    task_->inits_left = 1000;
    int result = -1, granted = -1;
    while (result != 0 && ++granted < 1000) {
        {
            const FailingAllocations failing(granted);
            result = manager_.spawn(task_, 2, nullptr, 1, 0, 0);
        }
        if (result != 0) expect_nothing(error::not_enough_memory, result);
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(granted, 10);
    task_->close();
    expect_failure(error::invalid_parameter, manager_.spawn(task_, 1, nullptr, 1, 0, 0));
}

/// Is always called, sees how far its task is, and whether the manager can be used from another thread at its end.
struct Onlooker : VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync> {
    Onlooker(VEL_Thread_Manager& m, const Counter& t) : manager(m), task(t) { os::create_event(true, true, event); }
    ~Onlooker() override { os::close_handle(event); }

    int handle_signal(void*, VEL_Reactor*) override { return seen.push_back(task.handled), 0; }
    int handle_close(void*, uint32_t mask, VEL_Reactor*) override {
        std::thread([this] { manager.thr_count(); }).join();
        return closed += mask;
    }

    VEL_Thread_Manager& manager;
    const Counter& task;
    void* event = nullptr;
    std::vector<int> seen;
    uint32_t closed = 0;
};

TEST_F(Task, ABurstOfMessagesIsServedBetweenTheOtherEvents) {
    constexpr int burst = 50;
    auto* onlooker = new Onlooker(manager_, *task_);
    const VEL_thread_t thread = spawn(1);
    EXPECT_EQ(manager_.register_handler(thread, onlooker, onlooker->event, VEL_SIGNAL_EVENT), 0);
    VEL_Message_Block last;
    for (int i = 1; i <= burst; ++i) EXPECT_EQ(manager_.sendMessage(thread, last = message(i == burst)), 0);
    EXPECT_EQ(manager_.resume(thread), 1);
    EXPECT_EQ(last.wait(long_ms), burst);
    EXPECT_EQ(manager_.join(thread, nullptr), 0);
    std::vector<int> turns(burst - 1);
    std::iota(turns.begin(), turns.end(), 1);
    onlooker->seen.resize(turns.size());
    EXPECT_EQ(onlooker->seen, turns);
    EXPECT_EQ(onlooker->closed, VEL_SIGNAL_EVENT);
    EXPECT_EQ(onlooker->release(), 0);
}

TEST_F(Task, HandlersAreToldOfTheirEndWithNoLockHeld) {
    auto* onlooker = new Onlooker(manager_, *task_);
    const uint64_t number = VELLib::socket(2, 2, 0);
    void* socket = reinterpret_cast<void*>(number);
    const VEL_thread_t thread = spawn(1);
    EXPECT_EQ(manager_.register_handler(thread, socket, onlooker, VEL_INPUT_EVENT), 0);
    EXPECT_EQ(manager_.register_handler(thread, onlooker, onlooker->event, VEL_SIGNAL_EVENT), 0);
    EXPECT_EQ(manager_.remove_handler(thread, socket, onlooker, VEL_INPUT_EVENT), 0);
    EXPECT_EQ(onlooker->closed, VEL_INPUT_EVENT);
    EXPECT_EQ(manager_.kill(thread, 9), 0);
    EXPECT_EQ(onlooker->closed, VEL_INPUT_EVENT | VEL_SIGNAL_EVENT);
    EXPECT_EQ(onlooker->release(), 0);
    VELLib::closesocket(number);
}

// The queue is empty most of the time: a set of its event that is lost shows as a sender without an answer.
TEST_F(Task, EveryMessageIsHandledByOneOfManyThreads) {
    constexpr int senders = 4, each = 3000;
    ASSERT_EQ(manager_.spawn(task_, 4, nullptr, 1, 0, 0), 0);
    crew(senders, [this](int) {
        for (int sent = 0; sent < each; ++sent) {
            const VEL_Message_Block question = message(true);
            ASSERT_EQ(task_->sendMessage(question), 0);
            ASSERT_GT(question.wait(long_ms), 0);
        }
    });
    expect_failure(error::wait_timeout, task_->wait(0));
    EXPECT_EQ(task_->handled, senders * each);
}

} // namespace
} // namespace vel::testing
