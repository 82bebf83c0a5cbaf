// Tests of opening named objects where another user may have been first.
#include <vel/os/linux/named_object.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/object_name.h>

namespace vel::os {
namespace {

using vel::testing::ObjectName;

TEST(NamedObject, IsOpenToEveryoneWhateverTheMaskAndFollowsNoLink) {
    const ObjectName name, target;
    const std::string path = name.path("mutex"), other = target.path("mutex");
    int descriptor = -1;
    struct stat info {};
    const mode_t mask = ::umask(077);
    EXPECT_EQ(open_named_object(other, descriptor), error::none);
    ::umask(mask);
    EXPECT_EQ(::fstat(descriptor, &info) + ::close(descriptor), 0);
    EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFREG | 0666));
    for (const auto make : {::symlink, ::link}) {
        EXPECT_EQ(make(other.c_str(), path.c_str()), 0);
        EXPECT_EQ(open_named_object(path, descriptor), error::access_denied);
        ::remove(path.c_str());
    }
}

TEST(NamedObject, PathsStayInTheDirectoryAndWithinTheLimitOfAFileName) {
    EXPECT_EQ(named_object_path("mutex", "../\xEA\xB0 x"), "/dev/shm/VEL_LIB/mutex...%2F%EA%B0%20x");
    EXPECT_NE(named_object_path("mutex", "%2F"), named_object_path("mutex", "/"));
    const std::string name(5000, '/'), path = named_object_path("mapping", name.c_str());
    EXPECT_LT(path.size() - path.find_last_of('/'), 256u);
    EXPECT_NE(path, named_object_path("mapping", (name + "a").c_str()));
}

} // namespace
} // namespace vel::os
