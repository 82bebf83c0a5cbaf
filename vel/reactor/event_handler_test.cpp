// References of the handler template.
#include <vel/reactor/event_handler.h>

#include <gtest/gtest.h>

namespace {

class Probe : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync> {
public:
    explicit Probe(bool& dead) : dead_(dead) {}
    ~Probe() override { dead_ = true; }

private:
    bool& dead_;
};

TEST(EventHandler, LastReleaseDeletes) {
    bool dead = false;
    VEL_Event_Handler* handler = new Probe(dead);
    EXPECT_EQ(handler->addref(), 2);
    EXPECT_EQ(handler->release(), 1);
    EXPECT_FALSE(dead);
    EXPECT_EQ(handler->release(), 0);
    EXPECT_TRUE(dead);
}

} // namespace
