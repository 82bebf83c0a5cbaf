// Installs the heap allocator for test programs that do not start the library.
#pragma once

#include <gtest/gtest.h>
#include <vel/memory/malloc.h>

namespace vel::testing {

class AllocatorEnvironment : public ::testing::Environment {
public:
    void SetUp() override { VELLib::set_allocator(VEL_Std_Allocator::instance()); }
};

/// Including this header in any test file of a program is enough.
inline ::testing::Environment* const allocator_environment =
    ::testing::AddGlobalTestEnvironment(new AllocatorEnvironment);

} // namespace vel::testing
