// Tests of the message queue and its event.
#include <vel/threads/message_queue.h>

#include <functional>
#include <vel/buffers/message_block.h>
#include <vel/buffers/serializable.h>
#include <vel/os/error_codes.h>
#include <vel/testing/balanced_test.h>
#include <vel/testing/crew.h>

namespace vel::testing {
namespace {

VEL_Message_Block numbered(uint16_t number, bool sync = false) {
    return VEL_Message_Block(new VEL_Serializable(number, 0), sync);
}

class MessageQueue : public BalancedTest {
protected:
    ~MessageQueue() override { EXPECT_EQ(queue_->release(), 0); }

    VEL_Message_Queue* const queue_ = new VEL_Message_Queue;
};

TEST_F(MessageQueue, TheEventIsSetExactlyWhileMessagesAreQueued) {
    expect_failure(error::invalid_parameter, queue_->sendMessage(VEL_Message_Block()));
    expect_failure(error::wait_timeout, queue_->wait(0));
    for (uint16_t number : {1, 2, 3}) EXPECT_EQ(queue_->sendMessage(numbered(number)), 0);
    VEL_Message_Block message;
    for (uint16_t number : {1, 2, 3}) {
        EXPECT_EQ(queue_->wait(0), 0);
        EXPECT_EQ(queue_->getMessage(message), 0);
        EXPECT_EQ(message->get_stype(), number);
    }
    expect_failure(error::wait_timeout, queue_->wait(0));
    EXPECT_EQ(queue_->getMessage(message), -1);
}

TEST_F(MessageQueue, WaitingSendersAreToldWhatNobodyHandles) {
    const auto signal = [this] {
        EXPECT_EQ(queue_->wait(0), 0);
        EXPECT_EQ(queue_->handle_signal(queue_->get_event(), nullptr), 0);
    };
    const struct {
        std::function<void()> end;
        uint32_t code;
    } ways[] = {
        {[&] { signal(), signal(); }, error::not_implemented},
        {[&] { EXPECT_EQ(queue_->handle_close(queue_->get_event(), 1, nullptr), 0); }, error::object_closed},
        {[&] { queue_->reset(); }, error::object_closed},
        {[&] { queue_->close(); }, error::object_closed},
    };
    for (const auto& way : ways) {
        VEL_Message_Block messages[] = {numbered(1, true), numbered(2, true)};
        for (const VEL_Message_Block& message : messages) ASSERT_EQ(queue_->sendMessage(message), 0);
        {
            const auto senders = crew(2, [&](int number) {
                expect_failure(error::remote_failed, messages[number].wait(10000));
                EXPECT_EQ(messages[number].error_code(), way.code);
            });
            way.end();
        }
        EXPECT_EQ(queue_->wait(0), -1);
    }
    expect_failure(error::object_closed, queue_->sendMessage(numbered(1)));
    for (int again = 0; again < 2; ++again) EXPECT_EQ(queue_->open() + queue_->sendMessage(numbered(4)), 0);
    EXPECT_EQ(queue_->wait(0), 0) << "open again";
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
    EXPECT_EQ(queue_->wait(0), 0);
}

} // namespace
} // namespace vel::testing
