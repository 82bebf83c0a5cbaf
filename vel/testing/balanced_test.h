// A fixture for tests that must give everything back: system handles, and objects that count themselves.
#pragma once

#include <atomic>
#include <gtest/gtest.h>
#include <vel/os/handle.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/expect_failure.h>

namespace vel::testing {

inline std::atomic<int> live_objects{0};

/// A base of objects that must not outlive their test.
struct Counted {
    Counted() { ++live_objects; }
    Counted(const Counted&) : Counted() {}
    ~Counted() { --live_objects; }
};

/// Checks at its end, which comes after that of the members of a derived fixture.
class BalancedTest : public ::testing::Test {
protected:
    ~BalancedTest() override {
        EXPECT_EQ(live_objects.exchange(0), 0);
        EXPECT_EQ(os::open_handle_count(), handles_before_);
    }

    uint64_t handles_before_ = os::open_handle_count();
};

} // namespace vel::testing
