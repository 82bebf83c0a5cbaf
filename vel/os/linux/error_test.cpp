// Tests of the errno translators.
#include <vel/os/linux/error.h>

#include <cerrno>
#include <gtest/gtest.h>
#include <vel/os/error_codes.h>

namespace vel::os {
namespace {

TEST(ErrorTranslation, EachFamilyHasItsOwnNumberAndFailureNeverLooksLikeSuccess) {
    EXPECT_EQ(system_error(EACCES), error::access_denied);
    EXPECT_EQ(socket_error(EACCES), error::socket_access_denied);
    EXPECT_EQ(system_error(EAGAIN), error::no_system_resources);
    EXPECT_EQ(socket_error(EAGAIN), error::would_block);
    EXPECT_EQ(system_error(ECONNRESET), error::connection_reset);
    EXPECT_EQ(socket_error(EIO), error::io_device);
    for (const int number : {0, -1, 133, 134, 100000}) {
        EXPECT_NE(system_error(number), error::none) << number;
        EXPECT_NE(socket_error(number), error::none) << number;
    }
}

} // namespace
} // namespace vel::os
