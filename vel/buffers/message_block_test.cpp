// Message blocks: sharing, and the hand-over between the thread that waits and the one that answers.
#include <vel/buffers/message_block.h>

#include <thread>
#include <vel/buffers/serializable.h>
#include <vel/testing/balanced_test.h>

namespace vel::testing {
namespace {

struct Answer : VEL_Serializable, Counted {};

using MessageBlock = BalancedTest;

TEST_F(MessageBlock, WaitReportsTimeOutThenTheAnswerForEver) {
    VEL_Message_Block message(new Answer, true);
    expect_failure(258, message.wait(0));
    EXPECT_EQ(message.signal(-1, 5, nullptr), 0);
    for (int again = 0; again < 2; ++again) expect_failure(0x20000009, message.wait(VEL_INFINITE));
}

TEST_F(MessageBlock, TheReceiverAnswersThroughItsOwnHandle) {
    for (int round = 0; round < 200; ++round) {
        VEL_Message_Block message(new Answer, true);
        auto* const answer = new Answer;
        std::thread receiver([handle = message, answer]() mutable { handle.signal(42, 0, answer); });
        EXPECT_EQ(message.wait(10'000), 42);
        EXPECT_EQ(message.get_resmsg(), answer);
        message.reset();
        receiver.join();
    }
}

TEST_F(MessageBlock, MovingHandsTheOneShareOver) {
    auto* const first = new Answer;
    VEL_Message_Block message(first, true), other(new Answer, false);
    VEL_Message_Block moved(std::move(message));
    EXPECT_TRUE(message.is_null());
    other = std::move(moved);
    EXPECT_EQ(live_objects, 1) << "what it held is dropped";
    VEL_Message_Block& same = other;
    other = std::move(same);
    EXPECT_EQ(other.c_ptr(), first);
    other.signal(3, 0, nullptr);
    EXPECT_EQ(other.wait(0), 3);
}

} // namespace
} // namespace vel::testing
