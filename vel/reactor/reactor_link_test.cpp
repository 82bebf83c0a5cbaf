// A socket's connection to its reactor, as its owner sees it.
#include <vel/testing/reactor_fixture.h>

#include <vel/reactor/reactor_link.h>

namespace vel::test {
namespace {

using vel::testing::expect_failure;

struct ReactorLinkTest : ReactorTest {
    void SetUp() override {
        connect(owner.peer, link.socket);
        link.reactor = reactor.get();
        owner.on["close"] = [this] { return link.ended(&owner, owner.ended, owner.ended_mask), 0; };
        EXPECT_EQ(link.select_event(&owner, 12), 0);
        EXPECT_EQ(cycle(), "a.output");
    }

    void TearDown() override {
        link.close(&owner, true);
        ReactorTest::TearDown();
    }

    void expect_gone() {
        expect_failure(error::not_a_socket, link.check_open());
        expect_failure(error::not_a_socket, link.select_event(&owner, 4));
        expect_failure(error::null_member, link.set_timeout(&owner, 1));
        EXPECT_EQ(link.events, 0u);
        EXPECT_EQ(link.timer_id | link.suspend_id, 0);
        EXPECT_EQ(owner.references(), 1);
    }

    Recorder& owner = recorder("a");
    ReactorLink link;
};

TEST_F(ReactorLinkTest, ReadingIsSuspendedAndResumed) {
    EXPECT_EQ(link.resume_read(&owner), 0) << "not suspended";
    EXPECT_EQ(link.suspend_read(&owner, 100000), 0);
    const int32_t id = link.suspend_id;
    EXPECT_EQ(link.suspend_read(&owner, 5000), 0);
    EXPECT_EQ(link.suspend_id, id);
    owner.peer.send("x", 1);
    EXPECT_EQ(cycle(), "a.output") << "what is wanted still is bound anew, and told anew";
    EXPECT_EQ(quiet(), "");
    os::set_tick_offset_for_test(6000);
    owner.on["timeout"] = [&] { return link.resume_read(&owner); };
    EXPECT_EQ(cycle(), "a.timeout");
    EXPECT_EQ(cycle(), "a.output a.input");
    EXPECT_EQ(owner.references(), 2);
}

TEST_F(ReactorLinkTest, AnyEndIsTheEndOfAll) {
    EXPECT_EQ(link.set_timeout(&owner, 100000), 0);
    EXPECT_EQ(link.suspend_read(&owner, 100000), 0);
    EXPECT_EQ(owner.references(), 4);
    EXPECT_EQ(link.set_timeout(&owner, 0), 0) << "starts anew";
    owner.on["timeout"] = [] { return -1; };
    owner.on["output"] = [] { return -1; };
    EXPECT_EQ(cycle(), "a.timeout a.close32");
    expect_gone();
    EXPECT_EQ(quiet(), "");
}

TEST_F(ReactorLinkTest, ClosingReportsRegistrationAndTimeOut) {
    link.set_timeout(&owner, 100000);
    link.suspend_read(&owner, 100000);
    owner.on.erase("close");
    link.close(&owner, false);
    EXPECT_EQ(journal.read(), "a.close8 a.close32");
    expect_gone();
}

TEST_F(ReactorLinkTest, ClosingMeetsAnOwnerThatClosesAtTheFirstReport) {
    link.set_timeout(&owner, 100000);
    link.close(&owner, false);
    EXPECT_EQ(journal.read(), "a.close12");
    expect_gone();
}

} // namespace
} // namespace vel::test
