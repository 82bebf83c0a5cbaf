// Contract of the directory calls, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <vel/os/error_codes.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

using vel::testing::content_of;
using vel::testing::TemporaryDirectory;
namespace fs = std::filesystem;

// The system's own directories. Another back end is a struct with the same names.
struct SystemDirectories {
    static constexpr auto create = create_directory;
    static constexpr auto remove = remove_directory;
    static constexpr auto remove_tree = remove_directory_tree;
    static constexpr auto of_executable = executable_directory;
};

template <class Back>
class Directories : public ::testing::Test {
protected:
    uint32_t create(const std::string& name) { return Back::create(directory_.path(name).c_str()); }
    uint32_t remove(const std::string& name) { return Back::remove(directory_.path(name).c_str()); }
    uint32_t remove_tree(const std::string& name) { return Back::remove_tree(directory_.path(name).c_str()); }

    TemporaryDirectory directory_;
};

using Backs = ::testing::Types<SystemDirectories>;
TYPED_TEST_SUITE(Directories, Backs);

TYPED_TEST(Directories, CreateAndRemoveTellWhyTheyFail) {
    this->directory_.file("file", "");
    EXPECT_EQ(this->create("new"), error::none);
    EXPECT_EQ(this->create("new"), error::already_exists);
    EXPECT_EQ(this->create("file"), error::already_exists);
    EXPECT_EQ(this->create("absent/new"), error::path_not_found);
    EXPECT_EQ(this->create("file/new"), error::path_not_found);
    EXPECT_EQ(TypeParam::create(""), error::path_not_found);
    EXPECT_EQ(TypeParam::create(nullptr), error::path_not_found);

    EXPECT_EQ(this->create("new/inner"), error::none);
    EXPECT_EQ(this->remove("new"), error::directory_not_empty);
    EXPECT_EQ(this->remove("new/inner"), error::none);
    EXPECT_EQ(this->remove("new"), error::none);
    EXPECT_EQ(this->remove("new"), error::file_not_found);
    EXPECT_EQ(this->remove_tree("new"), error::file_not_found);
    EXPECT_EQ(this->remove_tree("file"), error::path_not_found);
}

TYPED_TEST(Directories, TreeGoesWholeAndLinksAreNotFollowed) {
    fs::create_directories(this->directory_.path("outside/deep"));
    this->directory_.file("outside/kept", "kept");
    fs::create_directories(this->directory_.path("tree/a/b/c"));
    fs::create_directories(this->directory_.path("tree/empty"));
    fs::create_directory_symlink(this->directory_.path("outside"), this->directory_.path("tree/a/link"));
    fs::create_directory_symlink("../..", this->directory_.path("tree/a/b/up"));
    fs::create_symlink(this->directory_.path("nowhere"), this->directory_.path("tree/dangling"));
    for (int i = 0; i < 300; ++i) this->directory_.file("tree/a/b/file" + std::to_string(i), "x");

    fs::create_directory_symlink(this->directory_.path("tree"), this->directory_.path("link"));
    EXPECT_NE(this->remove_tree("link"), error::none);
    EXPECT_NE(this->remove_tree("link/"), error::none);
    EXPECT_TRUE(fs::exists(this->directory_.path("tree/a/b/c")));

    EXPECT_EQ(this->remove_tree("tree"), error::none);
    EXPECT_FALSE(fs::exists(this->directory_.path("tree")));
    EXPECT_EQ(content_of(this->directory_.path("outside/kept")), "kept");
    EXPECT_TRUE(fs::exists(this->directory_.path("outside/deep")));
}

// Deeper than the length of a path would allow.
TYPED_TEST(Directories, DepthOfATreeIsNoLimit) {
    const fs::path before = fs::current_path();
    fs::create_directory(this->directory_.path("tree"));
    fs::current_path(this->directory_.path("tree"));
    const std::string name(100, 'd');
    for (int level = 0; level < 300; ++level) {
        ASSERT_TRUE(fs::create_directory(name));
        fs::current_path(name);
    }
    fs::current_path(before);
    EXPECT_EQ(this->remove_tree("tree"), error::none);
    EXPECT_FALSE(fs::exists(this->directory_.path("tree")));
}

TYPED_TEST(Directories, PlaceOfTheExecutable) {
    std::string path;
    EXPECT_EQ(TypeParam::of_executable(path), error::none);
    EXPECT_EQ(path, fs::read_symlink("/proc/self/exe").parent_path().string());
}

} // namespace
} // namespace vel::os
