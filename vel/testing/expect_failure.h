// Checks of failed calls.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <vel/frame/error.h>

namespace vel::testing {

/// Checks that a call gave -1 (as a number, socket or handle) and its code, and sets another code for the next.
void expect_failure(uint32_t code, auto result) {
    EXPECT_EQ(int64_t(result), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), code);
    VELLib::SetErrorCode(0x12345);
}

} // namespace vel::testing
