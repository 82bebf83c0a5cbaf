// Tests of the errno translators.
#include <vel/os/linux/error.h>

#include <cerrno>
#include <gtest/gtest.h>
#include <vel/os/error_codes.h>

namespace vel::os {
namespace {

TEST(ErrorTranslation, EachFamilyHasItsOwnNumber) {
    EXPECT_EQ(system_error(EACCES), error::access_denied);
    EXPECT_EQ(socket_error(EACCES), error::socket_access_denied);
    EXPECT_EQ(system_error(EBADF), error::invalid_handle);
    EXPECT_EQ(socket_error(EBADF), error::not_a_socket);
    EXPECT_EQ(system_error(EAGAIN), error::no_system_resources);
    EXPECT_EQ(socket_error(EAGAIN), error::would_block);
}

TEST(ErrorTranslation, WhatOneFamilyLacksKeepsTheNumberOfTheOther) {
    EXPECT_EQ(system_error(ECONNRESET), error::connection_reset);
    EXPECT_EQ(socket_error(EIO), error::io_device);
}

TEST(ErrorTranslation, FailureNeverLooksLikeSuccess) {
    for (const int number : {0, -1, 133, 134, 100000}) {
        EXPECT_NE(system_error(number), error::none) << number;
        EXPECT_NE(socket_error(number), error::none) << number;
    }
    EXPECT_EQ(system_error(ENOTTY), error::errno_bit + ENOTTY);
}

TEST(ErrorTranslation, MissingParentIsToldFromMissingFile) {
    EXPECT_EQ(path_error(ENOENT, "no-such-file"), error::file_not_found);
    EXPECT_EQ(path_error(ENOENT, "/no-such-file"), error::file_not_found);
    EXPECT_EQ(path_error(ENOENT, "/proc/no-such-directory/file"), error::path_not_found);
    EXPECT_EQ(path_error(ENOENT, "/proc/no-such-directory/"), error::file_not_found);
    EXPECT_EQ(path_error(EACCES, "/proc/no-such-directory/file"), error::access_denied);
}

} // namespace
} // namespace vel::os
