// Tests of opening named objects where another user may have been first.
#include <vel/os/linux/named_object.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/object_name.h>

namespace vel::os {
namespace {

using vel::testing::ObjectName;

TEST(NamedObject, IsOpenToEveryoneWhateverTheMask) {
    const ObjectName name;
    const mode_t mask = ::umask(077);
    int descriptor = -1;
    EXPECT_EQ(open_named_object(name.path("mutex"), descriptor), error::none);
    ::umask(mask);
    struct stat info;
    ASSERT_EQ(::fstat(descriptor, &info), 0);
    EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFREG | 0666));
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    ::close(descriptor);
    ASSERT_EQ(::stat("/dev/shm/VEL_LIB", &info), 0);
    EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFDIR | 01777));
}

TEST(NamedObject, FollowsNoLinkAndTakesOnlyRegularFilesWithOneName) {
    const ObjectName name;
    const ObjectName target;
    const std::string path = name.path("mutex");
    int descriptor = -1;
    ASSERT_EQ(open_named_object(target.path("mutex"), descriptor), error::none);
    ::close(descriptor);

    ASSERT_EQ(::symlink(target.path("mutex").c_str(), path.c_str()), 0);
    EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
    ::unlink(path.c_str());
    ASSERT_EQ(::link(target.path("mutex").c_str(), path.c_str()), 0);
    EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
    ::unlink(path.c_str());
    ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
    ::unlink(path.c_str());
    ASSERT_EQ(::mkdir(path.c_str(), 0777), 0);
    EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
    ::rmdir(path.c_str());
}

TEST(NamedObject, PathsStayInTheDirectoryAndWithinTheLimitOfAFileName) {
    const std::string path = named_object_path("mutex", "../../etc/\xEA\xB0\x80 x");
    EXPECT_EQ(path, "/dev/shm/VEL_LIB/mutex...%2F..%2Fetc%2F%EA%B0%80%20x");
    const std::string long_path = named_object_path("mapping", std::string(5000, '/').c_str());
    EXPECT_LT(long_path.size() - long_path.find_last_of('/'), 256u);
    EXPECT_EQ(named_object_path("mutex", std::string(200, 'a').c_str()).size(),
              std::string("/dev/shm/VEL_LIB/mutex.").size() + 200);
}

TEST(NamedObject, OfSeveralFirstOpenersAllGetTheSameFile) {
    for (int round = 0; round < 100; ++round) {
        const ObjectName name;
        ino_t files[2];
        std::thread openers[2];
        for (int i = 0; i < 2; ++i)
            openers[i] = std::thread([&, i] {
                int descriptor = -1;
                EXPECT_EQ(open_named_object(name.path("mutex"), descriptor), error::none);
                struct stat info;
                EXPECT_EQ(::fstat(descriptor, &info), 0);
                files[i] = info.st_ino;
                ::close(descriptor);
            });
        for (std::thread& opener : openers) opener.join();
        ASSERT_EQ(files[0], files[1]);
    }
}

} // namespace
} // namespace vel::os
