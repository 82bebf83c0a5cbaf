// References of the handler template, for each of its counters.
#include <vel/reactor/event_handler.h>

#include <gtest/gtest.h>
#include <thread>
#include <type_traits>

namespace {

template <class Counter>
class EventHandler : public ::testing::Test {
protected:
    class Probe : public VEL_Event_Handler_Impl<Counter> {
    public:
        explicit Probe(bool& dead) : dead_(dead) {}
        ~Probe() override { dead_ = true; }

    private:
        bool& dead_;
    };

    bool dead_ = false;
    VEL_Event_Handler* handler_ = new Probe(dead_);
};

using Counters = ::testing::Types<VEL_Reference_Counter, VEL_Reference_Counter_Sync, VEL_Reference_Counter_Global_Sync>;
TYPED_TEST_SUITE(EventHandler, Counters);

TYPED_TEST(EventHandler, LastReleaseDeletes) {
    EXPECT_EQ(this->handler_->addref(), 2);
    EXPECT_EQ(this->handler_->release(), 1);
    EXPECT_FALSE(this->dead_);
    uint32_t interval = 7;
    EXPECT_EQ(this->handler_->handle_timeout(1, interval, nullptr), 0);
    EXPECT_EQ(interval, 7u);
    EXPECT_EQ(this->handler_->handle_input(nullptr, nullptr, 5), 0);
    EXPECT_EQ(this->handler_->release(), 0);
    EXPECT_TRUE(this->dead_);
}

TYPED_TEST(EventHandler, CountsOfSeveralThreadsAddUp) {
    constexpr int rounds = 20000;
    auto hold_and_drop = [this] {
        for (int round = 0; round < rounds; ++round) {
            this->handler_->addref();
            this->handler_->release();
        }
    };
    std::thread other;
    if constexpr (!std::is_same_v<TypeParam, VEL_Reference_Counter>) other = std::thread(hold_and_drop);
    hold_and_drop();
    if (other.joinable()) other.join();
    EXPECT_FALSE(this->dead_);
    EXPECT_EQ(this->handler_->release(), 0);
    EXPECT_TRUE(this->dead_);
}

} // namespace
