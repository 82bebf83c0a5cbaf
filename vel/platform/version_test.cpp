// The version class; the reader below it is tested with the boundary.
#include <vel/platform/version.h>

#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/temporary_directory.h>

namespace {

using vel::testing::content_of;
using vel::testing::TemporaryDirectory;

// Version 1.2.3.4 of a product 5.6.7.8: headers, one section, three directories of resources, the record.
std::string image() {
    std::string bytes(0x200, '\0');
    const auto put = [&](size_t at, uint32_t value) {
        for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
    };
    put(0, 0x5A4D);
    put(0x3C, 0x40);
    put(0x40, 0x4550);
    put(0x46, 1);   // sections
    put(0x54, 120); // bytes of the optional header
    put(0x58, 0x10B);
    put(0xB4, 3); // data directories
    put(0xC8, 0x1000), put(0xCC, 0x100);
    put(0xDC, 0x1000), put(0xE0, 0x100), put(0xE4, 0x100);
    put(0x10E, 1), put(0x110, 16), put(0x114, 0x80000018);
    put(0x126, 1), put(0x128, 1), put(0x12C, 0x80000030);
    put(0x13E, 1), put(0x144, 0x48);
    put(0x148, 0x1060), put(0x14C, 92);
    put(0x160, 92 | 52 << 16);
    const char key[] = "VS_VERSION_INFO";
    for (size_t i = 0; i < sizeof key; ++i) bytes[0x166 + 2 * i] = key[i];
    put(0x188, 0xFEEF04BD);
    put(0x190, 0x00010002), put(0x194, 0x00030004), put(0x198, 0x00050006), put(0x19C, 0x00070008);
    return bytes;
}

TEST(Version, ReadsClearsAndFails) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("image", image());
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
    std::string broken = image();
    broken[0x188] = 0;
    EXPECT_EQ(version.extract(directory.file("broken", broken).c_str()), 0);
    EXPECT_EQ(VELLib::GetErrorCode(), 1813u);
    try {
        VEL_Version(directory.path("broken").c_str());
        ADD_FAILURE() << "the constructor must throw";
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), 1813u);
    }
}

} // namespace
