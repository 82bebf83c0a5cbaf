// Tests of opening named objects where another user may have been first.
#include <vel/os/linux/named_object.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/object_name.h>

namespace vel::os {
namespace {

using vel::testing::ObjectName;

// Opens it and gives what it is.
struct stat opened(const std::string& path) {
    int descriptor = -1;
    struct stat info {};
    EXPECT_EQ(open_named_object(path, descriptor), error::none);
    EXPECT_EQ(::fstat(descriptor, &info), 0);
    ::close(descriptor);
    return info;
}

TEST(NamedObject, IsOpenToEveryoneWhateverTheMaskAndFollowsNoLink) {
    const ObjectName name;
    const ObjectName target;
    const std::string path = name.path("mutex"), other = target.path("mutex");
    const mode_t mask = ::umask(077);
    EXPECT_EQ(opened(other).st_mode, static_cast<mode_t>(S_IFREG | 0666));
    ::umask(mask);
    const auto expect_refused = [&](int made) {
        int descriptor = -1;
        EXPECT_EQ(made, 0);
        EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
        ::remove(path.c_str());
    };
    expect_refused(::symlink(other.c_str(), path.c_str()));
    expect_refused(::link(other.c_str(), path.c_str()));
    expect_refused(::mkfifo(path.c_str(), 0666));
    expect_refused(::mkdir(path.c_str(), 0777));
}

TEST(NamedObject, PathsStayInTheDirectoryAndWithinTheLimitOfAFileName) {
    EXPECT_EQ(named_object_path("mutex", "../\xEA\xB0 x"), "/dev/shm/VEL_LIB/mutex...%2F%EA%B0%20x");
    EXPECT_NE(named_object_path("mutex", "%2F"), named_object_path("mutex", "/"));
    const std::string name(5000, '/');
    const std::string path = named_object_path("mapping", name.c_str());
    EXPECT_LT(path.size() - path.find_last_of('/'), 256u);
    EXPECT_NE(path, named_object_path("mapping", (name + "a").c_str()));
}

TEST(NamedObject, OfSeveralFirstOpenersAllGetTheSameFile) {
    for (int round = 0; round < 100; ++round) {
        const ObjectName name;
        ino_t second = 0;
        std::thread opener([&] { second = opened(name.path("mutex")).st_ino; });
        const ino_t first = opened(name.path("mutex")).st_ino;
        opener.join();
        ASSERT_EQ(first, second);
    }
}

} // namespace
} // namespace vel::os
