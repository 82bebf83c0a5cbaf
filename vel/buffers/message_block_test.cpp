// Message blocks: sharing, and the hand-over between the thread that waits and the one that answers.
#include <vel/buffers/message_block.h>

#include <gtest/gtest.h>
#include <thread>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/testing/allocator_environment.h>

namespace {

class Counted : public VEL_Serializable {
public:
    explicit Counted(int v = 0) : value(v) { ++alive; }
    ~Counted() override { --alive; }
    int value;
    static inline int alive = 0;
};

class MessageBlock : public ::testing::Test {
protected:
    ~MessageBlock() override {
        EXPECT_EQ(Counted::alive, 0);
        EXPECT_EQ(vel::os::open_handle_count(), handles_);
    }
    uint64_t handles_ = vel::os::open_handle_count();
};

TEST_F(MessageBlock, WaitReportsTimeOutThenTheAnswerForEver) {
    VEL_Message_Block message(new Counted, true);
    EXPECT_EQ(message.wait(0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 258u);
    EXPECT_EQ(message.signal(-1, 5, nullptr), 0);
    EXPECT_EQ(message.wait(VEL_INFINITE), -1);
    EXPECT_EQ(message.wait(VEL_INFINITE), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000009u);
    EXPECT_EQ(vel::os::wait_handle(message.get_handle(), 0), 0u);
}

TEST_F(MessageBlock, TheReceiverAnswersThroughItsOwnHandle) {
    for (int round = 0; round < 200; ++round) {
        VEL_Message_Block message(new Counted, true);
        std::thread receiver([handle = message]() mutable { handle.signal(42, 0, new Counted(7)); });
        EXPECT_EQ(message.wait(10'000), 42);
        EXPECT_EQ(static_cast<Counted*>(message.get_resmsg())->value, 7);
        message.reset();
        receiver.join();
    }
}

TEST_F(MessageBlock, MovingHandsTheOneShareOver) {
    VEL_Message_Block message(new Counted(1), true);
    VEL_Message_Block moved(std::move(message));
    EXPECT_TRUE(message.is_null());
    VEL_Message_Block other(new Counted(2), false);
    other = std::move(moved); // drops what it held
    EXPECT_EQ(Counted::alive, 1);
    VEL_Message_Block& same = other;
    other = std::move(same);
    EXPECT_EQ(static_cast<Counted*>(other.c_ptr())->value, 1);
    other.signal(3, 0, nullptr);
    EXPECT_EQ(other.wait(0), 3);
}

} // namespace
