// References of the handler template.
#include <vel/reactor/event_handler.h>

#include <gtest/gtest.h>
#include <thread>

namespace {

class Probe : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync> {
public:
    explicit Probe(bool& dead) : dead_(dead) {}
    ~Probe() override { dead_ = true; }

private:
    bool& dead_;
};

TEST(EventHandler, LastReleaseOfAnyThreadDeletes) {
    bool dead = false;
    VEL_Event_Handler* handler = new Probe(dead);
    const auto hold_and_drop = [&] {
        for (int round = 0; round < 20000; ++round) {
            handler->addref();
            handler->release();
        }
    };
    std::thread other(hold_and_drop);
    hold_and_drop();
    other.join();
    EXPECT_EQ(handler->addref(), 2);
    EXPECT_EQ(handler->release(), 1);
    EXPECT_FALSE(dead);
    EXPECT_EQ(handler->release(), 0);
    EXPECT_TRUE(dead);
}

} // namespace
