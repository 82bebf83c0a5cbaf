// Tests of the message queue and its event.
#include <vel/threads/message_queue.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/buffers/message_block.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/testing/expect_failure.h>

namespace {

using namespace vel;
using vel::testing::expect_failure;

constexpr uint32_t long_ms = 10000;

VEL_Message_Block numbered(uint16_t number, bool sync = false) {
    return VEL_Message_Block(new VEL_Serializable(number, 0), sync);
}

uint16_t number_of(const VEL_Message_Block& message) { return message->get_stype(); }

bool is_set(const VEL_Message_Queue& queue) { return os::wait_handle(queue.get_event(), 0) == error::none; }

class MessageQueue : public ::testing::Test {
protected:
    ~MessageQueue() override {
        EXPECT_EQ(queue_->release(), 0);
        EXPECT_EQ(os::open_handle_count(), handles_);
    }
    uint64_t handles_ = os::open_handle_count();
    VEL_Message_Queue* queue_ = new VEL_Message_Queue;
};

TEST_F(MessageQueue, TheEventIsSetExactlyWhileMessagesAreQueued) {
    expect_failure(error::wait_timeout, queue_->wait(0));
    expect_failure(error::invalid_parameter, queue_->sendMessage(VEL_Message_Block()));
    EXPECT_FALSE(is_set(*queue_));
    for (uint16_t number : {1, 2, 3}) EXPECT_EQ(queue_->sendMessage(numbered(number)), 0);
    VEL_Message_Block message;
    for (uint16_t number : {1, 2, 3}) {
        EXPECT_EQ(queue_->wait(0), 0);
        EXPECT_EQ(queue_->getMessage(message), 0);
        EXPECT_EQ(number_of(message), number);
    }
    EXPECT_FALSE(is_set(*queue_));
    VELLib::SetErrorCode(1);
    expect_failure(1, queue_->getMessage(message));
    EXPECT_EQ(number_of(message), 3);
}

TEST_F(MessageQueue, WhatIsThrownAwayIsAnswered) {
    for (bool close : {false, true}) {
        std::vector<VEL_Message_Block> messages = {numbered(1, true), numbered(2, true)};
        std::vector<std::thread> senders;
        for (VEL_Message_Block& message : messages) {
            ASSERT_EQ(queue_->sendMessage(message), 0);
            senders.emplace_back([&message] {
                EXPECT_EQ(message.wait(long_ms), -1);
                EXPECT_EQ(VELLib::GetErrorCode(), error::remote_failed);
                EXPECT_EQ(message.error_code(), error::object_closed);
            });
        }
        close ? queue_->close() : queue_->reset();
        for (std::thread& sender : senders) sender.join();
        EXPECT_EQ(queue_->get_event() == nullptr, close);
        EXPECT_TRUE(close || !is_set(*queue_));
    }
    expect_failure(error::object_closed, queue_->sendMessage(numbered(1)));
    VEL_Message_Block message;
    EXPECT_EQ(queue_->getMessage(message), -1);
    EXPECT_EQ(queue_->open(), 0);
    EXPECT_EQ(queue_->open(), 0);
    EXPECT_EQ(queue_->sendMessage(numbered(4)), 0);
    EXPECT_EQ(queue_->wait(0), 0);
}

TEST_F(MessageQueue, SignalTakesOneMessageAndAnswersTheUnhandled) {
    VEL_Message_Block messages[] = {numbered(1, true), numbered(2, true)};
    for (VEL_Message_Block& message : messages) ASSERT_EQ(queue_->sendMessage(message), 0);
    EXPECT_EQ(queue_->handle_signal(queue_->get_event(), nullptr), 0);
    EXPECT_EQ(messages[0].wait(0), -1);
    EXPECT_EQ(messages[0].error_code(), error::not_implemented);
    EXPECT_TRUE(is_set(*queue_));
    EXPECT_EQ(queue_->handle_close(queue_->get_event(), 1, nullptr), 0);
    EXPECT_EQ(messages[1].wait(0), -1);
    EXPECT_EQ(messages[1].error_code(), error::object_closed);
    EXPECT_EQ(queue_->handle_signal(queue_->get_event(), nullptr), 0);
}

// The destructor of a message is the application's and may want a lock that a sender holds.
TEST_F(MessageQueue, MessagesEndOutsideTheLock) {
    struct Locking : VEL_Serializable {
        Locking(VEL_Message_Queue& q) : queue(q) {}
        ~Locking() override {
            std::thread([this] { EXPECT_EQ(queue.sendMessage(numbered(1)), 0); }).join();
        }
        VEL_Message_Queue& queue;
    };
    ASSERT_EQ(queue_->sendMessage(VEL_Message_Block(new Locking(*queue_), false)), 0);
    queue_->reset();
    VEL_Message_Block message(new Locking(*queue_), false);
    EXPECT_EQ(queue_->getMessage(message), 0);
    EXPECT_TRUE(is_set(*queue_));
}

// A set that is lost leaves a taker asleep with messages queued; a reset that is lost shows as a wait that finds none.
TEST_F(MessageQueue, SendersAndTakersRaceForTheEvent) {
    constexpr int senders = 2, takers = 2, each = 20000;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < takers; ++i)
        threads.emplace_back([&] {
            VEL_Message_Block message;
            while (taken < senders * each && queue_->wait(long_ms) == 0)
                if (queue_->getMessage(message) == 0 && ++taken == senders * each) queue_->close(); // frees the others
        });
    for (int i = 0; i < senders; ++i)
        threads.emplace_back([&] {
            const VEL_Message_Block message = numbered(1);
            for (int sent = 0; sent < each; ++sent) ASSERT_EQ(queue_->sendMessage(message), 0);
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken, senders * each);
}

} // namespace
