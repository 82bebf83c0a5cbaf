// Tests of tasks: their threads, their messages and what else their reactors serve.
#include <vel/threads/task.h>

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include <vel/buffers/message_block.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/platform/inet_addr.h>
#include <vel/platform/sockets.h>
#include <vel/reactor/reactor.h>
#include <vel/testing/expect_failure.h>
#include <vel/testing/failing_allocations.h>
#include <vel/threads/thread_manager.h>

namespace {

using namespace vel;
using vel::testing::expect_failure;

constexpr uint32_t long_ms = 10000;

VEL_Message_Block message(bool sync = false) { return VEL_Message_Block(new VEL_Serializable, sync); }

/// Answers every message with how many it has handled.
struct Counter : VEL_Task_Base {
    explicit Counter(int refused = -1) : refuses_at(refused) { ++alive; }
    ~Counter() override { --alive; }

    int svc(VEL_Reactor* reactor) override { return VEL_Task_Base::svc(reactor) + 5; }
    int handle_init(const VEL_thread_t& thread, VEL_Reactor* reactor) override {
        EXPECT_FALSE(thread.invalid());
        EXPECT_TRUE(reactor->is_activate());
        return inits++ == refuses_at ? -1 : 0;
    }
    int handle_message(VEL_Message_Block& block) override { return block.signal(++handled, 0, nullptr), 0; }

    const int refuses_at;
    int inits = 0;
    std::atomic<int> handled{0};
    static inline std::atomic<int> alive{0};
};

class Task : public ::testing::Test {
protected:
    ~Task() override {
        manager_->close();
        task_->release();
        manager_.reset();
        EXPECT_EQ(Counter::alive, 0);
        EXPECT_EQ(os::open_handle_count(), handles_);
    }
    VEL_thread_t spawn(uint32_t flags = 0, int grp = 1) {
        VEL_thread_t thread;
        EXPECT_EQ(manager_->spawn(task_, thread, grp, 0, flags), 0);
        return thread;
    }
    void replace_task(Counter* task) {
        task_->release();
        task_ = task;
    }

    const uint64_t handles_ = os::open_handle_count();
    std::unique_ptr<VEL_Thread_Manager> manager_ = std::make_unique<VEL_Thread_Manager>(17);
    Counter* task_ = new Counter;
};

TEST_F(Task, AnswersUntilItIsJoined) {
    const VEL_thread_t thread = spawn();
    EXPECT_EQ(manager_->thr_state(thread), THR_RUNNING);
    for (int i = 1; i <= 3; ++i) {
        VEL_Message_Block question = message(true);
        EXPECT_EQ(manager_->sendMessage(thread, question), 0);
        EXPECT_EQ(question.wait(long_ms), i);
    }
    EXPECT_EQ(task_->thread_manager(), nullptr);
    int exit_code = 0;
    std::thread([&] { EXPECT_EQ(manager_->join(thread, &exit_code), 0); }).join();
    EXPECT_EQ(exit_code, 5);
    EXPECT_EQ(task_->addref(), 2) << "the thread's reference is gone";
    task_->release();
}

TEST_F(Task, MessagesAreRefusedByWhatCannotHandleThem) {
    VEL_thread_t plain;
    const auto poll = [](void*) {
        while (!VEL_Thread_Manager::testcancel(VEL_thread_t())) std::this_thread::yield();
        return 0;
    };
    ASSERT_EQ(manager_->spawn(poll, nullptr, plain, 1, 0, 0, nullptr), 0);
    expect_failure(error::not_implemented, manager_->sendMessage(plain, message()));
    expect_failure(error::not_implemented, manager_->register_handler(plain, task_, task_->get_event(), 1));
    expect_failure(error::not_found, manager_->sendMessage(VEL_thread_t(), message()));
    expect_failure(error::not_found, manager_->remove_handler(VEL_thread_t(), task_, task_->get_event(), 1));
    const VEL_thread_t thread = spawn();
    EXPECT_EQ(manager_->sendMessage(1, message()), 0) << "to the group, the plain thread's refusal notwithstanding";
    expect_failure(error::invalid_parameter, manager_->sendMessage(thread, VEL_Message_Block()));
    EXPECT_EQ(manager_->cancel(thread), 0);
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    EXPECT_EQ(manager_->thr_state(thread), THR_EXITED);
    expect_failure(error::object_closed, manager_->sendMessage(thread, message()));
    EXPECT_EQ(manager_->wait(thread, long_ms), 0);
}

TEST_F(Task, ASuspendedThreadServesWhenItIsResumed) {
    const VEL_thread_t thread = spawn(1);
    VEL_Message_Block question = message(true);
    EXPECT_EQ(manager_->sendMessage(thread, question), 0);
    expect_failure(error::wait_timeout, question.wait(20));
    EXPECT_EQ(manager_->resume(thread), 1);
    EXPECT_EQ(question.wait(long_ms), 1);
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer delays the signal that suspends";
#endif
    EXPECT_EQ(manager_->suspend(thread), 0);
    EXPECT_EQ(manager_->thr_state(thread), THR_SUSPENDED);
    question = message(true);
    EXPECT_EQ(manager_->sendMessage(thread, question),
              0); // it has taken the only message and holds no lock of the queue
    expect_failure(error::wait_timeout, question.wait(20));
    EXPECT_EQ(manager_->resume(1), 0);
    EXPECT_EQ(question.wait(long_ms), 2);
}

TEST_F(Task, ASpawnThatFailsLeavesNothing) {
    VEL_Message_Block waiting = message(true);
    replace_task(new Counter(2));
    ASSERT_EQ(task_->sendMessage(waiting), 0);
    const uint64_t handles = os::open_handle_count();
    VEL_thread_t threads[4];
    expect_failure(error::task_init_failed, manager_->spawn(task_, 4, threads, 1, 0, 0));
    EXPECT_EQ(task_->inits, 3);
    EXPECT_EQ(manager_->thr_count(), 0u);
    EXPECT_EQ(os::open_handle_count(), handles);
    EXPECT_EQ(task_->addref(), 2);
    task_->release();
    expect_failure(error::wait_timeout, waiting.wait(0)); // the queue was not told
    EXPECT_EQ(manager_->spawn(task_, 0, nullptr, 1, 0, 0), 0);
    EXPECT_EQ(manager_->thr_count(), 0u);
    expect_failure(error::null_member, manager_->spawn(static_cast<VEL_Task_Base*>(nullptr), 1, nullptr, 1, 0, 0));
    task_->close();
    expect_failure(error::invalid_parameter, manager_->spawn(task_, 1, nullptr, 1, 0, 0));
    manager_->close();
    expect_failure(error::object_closed, manager_->spawn(task_, 1, nullptr, 1, 0, 0));
}

TEST_F(Task, ASpawnInShortMemoryLeavesNothing) {
    const uint64_t handles = os::open_handle_count();
    int result = -1, granted = 0;
    for (; result != 0 && granted < 1000; ++granted) {
        VELLib::SetErrorCode(0);
        {
            const vel::testing::FailingAllocations failing(granted);
            result = manager_->spawn(task_, 2, nullptr, 1, 0, 0);
        }
        if (result == 0) break;
        ASSERT_EQ(VELLib::GetErrorCode(), error::not_enough_memory) << granted;
        EXPECT_EQ(manager_->thr_count(), 0u);
        EXPECT_EQ(os::open_handle_count(), handles);
        EXPECT_EQ(task_->addref(), 2);
        task_->release();
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(granted, 10);
}

/// A task that writes down who is called, and has a timer that is always due.
class Diary : public VEL_Task_Base {
public:
    explicit Diary(int messages) : left_(messages) { os::create_event(true, false, full_); }
    ~Diary() override { os::close_handle(full_); }

    int handle_init(const VEL_thread_t&, VEL_Reactor* reactor) override { return reactor->schedule_timer(this, 0); }
    int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override { return write('t'); }
    int handle_message(VEL_Message_Block&) override {
        write('m');
        if (--left_ == 0) os::set_event(full_);
        return 0;
    }

    int write(char what) {
        if (left_ > 0) entries_ += what;
        return 0;
    }

    /// What happened until the last message came.
    std::string read() {
        EXPECT_EQ(os::wait_handle(full_, long_ms), error::none);
        return entries_;
    }

private:
    std::string entries_;
    int left_;
    void* full_ = nullptr;
};

/// An event that stays set, and a datagram socket that always has something to read.
class Nuisance : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync> {
public:
    explicit Nuisance(Diary& diary) : diary_(diary) {
        os::create_event(true, true, event);
        VELLib::bind(socket, VEL_INET_Addr(0, "127.0.0.1"));
        VELLib::getsockname(socket, own_);
        VELLib::sendto(socket, "s", 1, own_, long_ms);
    }
    ~Nuisance() override {
        os::close_handle(event);
        VELLib::closesocket(socket);
    }
    int handle_signal(void*, VEL_Reactor*) override { return diary_.write('e'); }
    int handle_input(void*, VEL_Reactor*, uint32_t) override {
        char byte;
        VELLib::recvfrom(socket, &byte, 1, own_, long_ms);
        VELLib::sendto(socket, &byte, 1, own_, long_ms);
        return diary_.write('s');
    }

    void* event = nullptr;
    const uint64_t socket = VELLib::socket(2, 2, 0);

private:
    Diary& diary_;
    VEL_INET_Addr own_;
};

TEST_F(Task, ABurstOfMessagesIsServedBetweenTheOtherEvents) {
    constexpr int burst = 50;
    auto* diary = new Diary(burst);
    auto* nuisance = new Nuisance(*diary);
    VEL_thread_t thread;
    ASSERT_EQ(manager_->spawn(diary, thread, 1, 0, 1), 0);
    EXPECT_EQ(manager_->register_handler(thread, nuisance, nuisance->event, VEL_SIGNAL_EVENT), 0);
    void* socket = reinterpret_cast<void*>(nuisance->socket);
    EXPECT_EQ(manager_->register_handler(thread, socket, nuisance, VEL_INPUT_EVENT), 0);
    for (int i = 0; i < burst; ++i) EXPECT_EQ(manager_->sendMessage(thread, message()), 0);
    EXPECT_EQ(manager_->resume(thread), 1);
    std::string entries = diary->read();
    EXPECT_EQ(manager_->join(thread, nullptr), 0);
    const auto take_out = [&](char what) { return static_cast<int>(std::erase(entries, what)); };
    EXPECT_GE(take_out('t'), burst / 2) << entries;
    EXPECT_GE(take_out('s'), burst - 2) << entries;
    std::string turns = "m";
    for (int i = 1; i < burst; ++i) turns += "em";
    EXPECT_EQ(entries, turns);
    nuisance->release();
    diary->release();
}

TEST_F(Task, EveryMessageIsHandledByOneOfManyThreads) {
    constexpr int threads = 4, messages = 5000;
    ASSERT_EQ(manager_->spawn(task_, threads, nullptr, 1, 0, 0), 0);
    std::vector<VEL_Message_Block> questions;
    for (int i = 0; i < messages; ++i) {
        questions.push_back(message(i % 100 == 99));
        ASSERT_EQ(task_->sendMessage(questions.back()), 0);
    }
    for (VEL_Message_Block& question : questions) EXPECT_GE(question.wait(long_ms), 0);
    while (task_->handled < messages) std::this_thread::yield();
    EXPECT_EQ(task_->handled, messages);
    EXPECT_EQ(manager_->cancel_all(), 0);
    EXPECT_EQ(manager_->wait(long_ms), 0);
}

/// Notices its end, and whether the manager can be used from another thread meanwhile.
struct Leaver : VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync> {
    explicit Leaver(VEL_Thread_Manager& m) : manager(m) { os::create_event(true, false, event); }
    ~Leaver() override { os::close_handle(event); }
    int handle_close(void*, uint32_t mask, VEL_Reactor*) override {
        std::thread([this] { manager.thr_count(); }).join();
        return closed += mask;
    }
    VEL_Thread_Manager& manager;
    void* event = nullptr;
    int closed = 0;
};

TEST_F(Task, HandlersAreToldOfTheirEndWithNoLockHeld) {
    for (int way = 0; way < 3; ++way) {
        auto* leaver = new Leaver(*manager_);
        const VEL_thread_t thread = spawn(way == 2 ? 1 : 0);
        EXPECT_EQ(manager_->register_handler(thread, leaver, leaver->event, VEL_SIGNAL_EVENT), 0);
        if (way == 0) {
            EXPECT_EQ(manager_->remove_handler(thread, leaver, leaver->event, VEL_SIGNAL_EVENT), 0);
        }
        EXPECT_EQ(way == 2 ? manager_->kill(thread, 9) : manager_->join(thread, nullptr), 0);
        EXPECT_EQ(leaver->closed, VEL_SIGNAL_EVENT) << "way " << way;
        EXPECT_EQ(leaver->release(), 0);
    }
}

} // namespace
