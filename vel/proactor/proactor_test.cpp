// The proactor: opening, registering, messages, closing.
#include <vel/testing/proactor_fixture.h>

#include <vel/os/linux/testing/process_counts.h>
#include <vel/testing/failing_allocations.h>

namespace vel::testing {
namespace {

class Proactor : public ProactorTest {
protected:
    void register_both() {
        ASSERT_EQ(proactor->register_handle(1, first->handle, first.get()), 0);
        ASSERT_EQ(proactor->register_handle(2, second->handle, second.get()), 0);
    }
    int send(uint32_t key) { return proactor->sendMessage(key, VEL_Message_Block(new VEL_Serializable, false)); }

    Tally inside, go;
    Ref<SocketHandler> first{new SocketHandler}, second{new SocketHandler};
    std::function<int(VEL_Async_Post_Operation*&)> hold = [&](VEL_Async_Post_Operation*&) {
        inside.add();
        return go.reaches(1) ? 0 : -1;
    };
};

TEST_F(Proactor, OpensOnceWithAtMostSixtyThreeWorkers) {
    VEL_Proactor other, never;
    expect_failure(error::too_many_workers, other.open(64));
    ASSERT_EQ(other.open(63), 0);
    expect_failure(error::already_exists, other.open(1));
    other.close();
    expect_failure(error::object_closed, other.open(1));
    for (VEL_Proactor* closed : {&never, &other}) {
        expect_failure(error::null_member, closed->register_handle(1, first->handle, first.get()));
        for (int result : {closed->schedule_timer(first.get(), 1), closed->handle_event(0), closed->handle_timer(0)})
            EXPECT_EQ(result, -1);
    }
}

TEST_F(Proactor, KeysAndRegistrationsBalance) {
    ASSERT_EQ(proactor->register_handle(1, first->handle, first.get()), 0);
    expect_failure(error::invalid_parameter, proactor->register_handle(1, second->handle, second.get()));
    expect_failure(error::invalid_parameter, proactor->register_handle(3, first->handle, second.get()));
    EXPECT_EQ(second->references(), 1);
    VEL_Async_Handler* found = nullptr;
    EXPECT_EQ(proactor->get_handle(1, found), first->handle);
    EXPECT_EQ(found->release(), 2);
    expect_failure(error::not_found, proactor->close_handle(77));
    expect_failure(error::not_found, send(77));
    EXPECT_EQ(proactor->close_handle(1), 0) << "whatever the handler answered";
    EXPECT_EQ(proactor->remove_handle(1, true), 0);
    EXPECT_EQ(first->closes.count(), 0);
    EXPECT_EQ(first->references(), 1);
}

TEST_F(Proactor, MessagesArriveAndNegativeResultsEndTheRegistration) {
    first->on_signal = [&](auto*& op) {
        VEL_Message_Block message = op->getMessage();
        const int number = message.c_ptr()->get_sid();
        EXPECT_EQ(op->completion_key(), 1u);
        message.signal(number, 0, nullptr);
        return number < 100 ? 0 : -1;
    };
    register_both();
    for (uint16_t i = 1; i <= 100; ++i) {
        const VEL_Message_Block message(new VEL_Serializable(0, i), true);
        ASSERT_EQ(proactor->sendMessage(1, message), 0);
        ASSERT_EQ(message.wait(20000), i);
    }
    ASSERT_TRUE(first->closes.reaches(1));
    EXPECT_EQ(first->last_key, 1u);
    EXPECT_EQ(first->last_handle, first->handle);
    expect_failure(error::not_found, proactor->remove_handle(1, true));
    const VEL_Message_Block unread(new VEL_Serializable, true);
    ASSERT_EQ(proactor->sendMessage(2, unread), 0);
    EXPECT_EQ(unread.wait(20000), -1);
    EXPECT_EQ(unread.error_code(), error::not_implemented) << "the default of every handler";
}

TEST_F(Proactor, DroppedMessagesAreAnswered) {
    first->on_signal = hold;
    register_both();
    for (int i = 0; i < 4; ++i) ASSERT_EQ(send(1), 0);
    ASSERT_TRUE(inside.reaches(4)); // every worker is held up
    std::vector<VEL_Message_Block> dropped;
    for (int i = 0; i < 20; ++i) {
        dropped.emplace_back(new VEL_Serializable, true);
        ASSERT_EQ(proactor->sendMessage(1, dropped.back()), 0);
    }
    std::thread waiter([&] { expect_failure(error::object_closed, proactor->handle_timer(VEL_INFINITE)); });
    std::thread closer([&] { proactor->close(); });
    while (send(2) == 0) std::this_thread::yield(); // until it says that it is closing
    EXPECT_EQ(VELLib::GetErrorCode(), error::object_closed);
    go.add();
    for (const VEL_Message_Block& message : dropped) {
        EXPECT_EQ(message.wait(20000), -1);
        EXPECT_EQ(message.error_code(), error::object_closed);
    }
    closer.join();
    waiter.join();
    EXPECT_EQ(first->closes.count(), 1);
}

TEST_F(Proactor, WhatWasAcceptedIsAnsweredWhileTheTableChangesAndCloses) {
    first->on_signal = [](VEL_Async_Post_Operation*& op) { return op->getMessage().signal(1, 0, nullptr); };
    register_both();
    Tally answered;
    auto senders = crew(4, [&](int number) {
        while (true) {
            const VEL_Message_Block message(new VEL_Serializable, true);
            if (proactor->sendMessage(1u + number % 2, message) == 0) {
                message.wait(20000);
                EXPECT_NE(VELLib::GetErrorCode(), error::wait_timeout);
                answered.add();
            } else if (VELLib::GetErrorCode() != error::not_found) {
                break;
            }
        }
        EXPECT_TRUE(VELLib::GetErrorCode() == error::object_closed || VELLib::GetErrorCode() == error::null_member);
    });
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(proactor->remove_handle(2, true), 0);
        second = Ref<SocketHandler>(new SocketHandler); // nobody holds the former one for long
        ASSERT_EQ(proactor->register_handle(2, second->handle, second.get()), 0);
    }
    ASSERT_TRUE(answered.reaches(100));
    proactor->close();
    senders.clear();
    EXPECT_EQ(first->references(), 1);
    EXPECT_EQ(second->references(), 1);
}

TEST_F(Proactor, BlockedHandlersDelayNobodyWhileAThreadIsIdle) {
    std::atomic<std::thread::id> taker;
    Tally done;
    first->on_signal = hold;
    second->on_signal = [&](auto*&) {
        taker = std::this_thread::get_id();
        return done.add();
    };
    register_both();
    EXPECT_EQ(proactor->handle_event(20), 0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(send(1), 0);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(send(2), 0);
    EXPECT_TRUE(done.reaches(100)) << "three of four workers are held up";
    ASSERT_EQ(send(1), 0);
    ASSERT_TRUE(inside.reaches(4));
    ASSERT_EQ(send(2), 0);
    EXPECT_EQ(proactor->handle_event(20000), 1);
    EXPECT_EQ(taker.load(), std::this_thread::get_id());
    go.add();
    proactor->close();
}

TEST_F(Proactor, ClosingFromItsOwnCallbackIsRefused) {
    std::atomic<uint32_t> code{0};
    first->on_signal = [&](auto*&) {
        proactor->close();
        code = VELLib::GetErrorCode();
        return inside.add();
    };
    register_both();
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(send(1), 0) << "it is still open";
        ASSERT_TRUE(inside.reaches(round));
        EXPECT_EQ(code, error::possible_deadlock);
    }
}

TEST_F(Proactor, OpenFailsWhole) {
    const size_t before = ProcessCounts::now().threads;
    VEL_Proactor other;
    int granted = 0;
    const auto open = [&] {
        const FailingAllocations failing(granted++);
        return other.open(3);
    };
    for (int result; granted < 1000 && (result = open()) != 0;) {
        expect_failure(error::not_enough_memory, result);
        EXPECT_EQ(ProcessCounts::now().threads, before);
        expect_failure(error::null_member, other.handle_event(0));
    }
    EXPECT_GT(granted, 10);
    EXPECT_LT(granted, 1000) << "nothing of the attempts is in the way";
}

} // namespace
} // namespace vel::testing
