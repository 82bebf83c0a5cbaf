// The version class; the reader below it is tested with the boundary.
#include <vel/platform/version.h>

#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/temporary_directory.h>

namespace {

TEST(Version, ReadsClearsAndFails) {
    const vel::testing::TemporaryDirectory directory;
    const std::string image = VEL_CORPUS "/version_record/pe32_plus";
    VEL_Version version(image.c_str());
    EXPECT_EQ(version.fileVerStr(), "1.2.3.4");
    EXPECT_EQ(version.extract(directory.file("text", "no image").c_str()), 1);
    EXPECT_EQ(version.fileVerStr(), "0.0.0.0") << "the values of the file before must go";
    EXPECT_EQ(version.extract(directory.path("absent").c_str()), 0);
    const std::string broken = directory.file("broken", vel::testing::content_of(image).substr(0, 500));
    EXPECT_EQ(version.extract(broken.c_str()), 0);
    EXPECT_EQ(VELLib::GetErrorCode(), 1813u);
    EXPECT_THROW(VEL_Version(broken.c_str()), VEL_Exception);
}

} // namespace
