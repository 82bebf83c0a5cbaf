// The version class; the reader below it is tested with the boundary.
#include <vel/platform/version.h>

#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/pe_image.h>
#include <vel/testing/temporary_directory.h>

namespace {

using vel::testing::PeImage;
using vel::testing::TemporaryDirectory;

TEST(Version, ReadsClearsAndFails) {
    const TemporaryDirectory directory;
    PeImage image(0x20B);
    const std::string path = directory.file("image", image.text());
    VEL_Version version(path.c_str());
    EXPECT_EQ(version.fileVerStr(), "1.2.3.4");
    EXPECT_EQ(version.productVerStr(), "5.6.7.8");
    EXPECT_EQ(version.fileVerHigh(), 0x10002u);
    EXPECT_EQ(version.fileVerLow(), 0x30004u);
    EXPECT_EQ(version.productVerHigh(), 0x50006u);
    EXPECT_EQ(version.productVerLow(), 0x70008u);

    EXPECT_EQ(version.extract(directory.file("text", "no image").c_str()), 1);
    EXPECT_EQ(version.fileVerStr(), "0.0.0.0") << "the values of the file before must go";
    EXPECT_EQ(version.extract(path.c_str()), 1);
    EXPECT_EQ(version.extract(directory.path("absent").c_str()), 0);
    EXPECT_EQ(VELLib::GetErrorCode(), 2u);
    EXPECT_EQ(version.productVerStr(), "0.0.0.0");
    image.bytes.pop_back();
    EXPECT_EQ(version.extract(directory.file("broken", image.text()).c_str()), 0);
    EXPECT_EQ(VELLib::GetErrorCode(), 1813u);
    try {
        VEL_Version(directory.path("broken").c_str());
        ADD_FAILURE() << "the constructor must throw";
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), 1813u);
    }
}

} // namespace
