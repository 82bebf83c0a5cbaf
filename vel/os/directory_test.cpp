// Contract of removing a tree, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <vel/os/error_codes.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

namespace fs = std::filesystem;

// The system's own directories. Another back end is a struct with the same name.
struct SystemDirectories {
    static constexpr auto remove_tree = remove_directory_tree;
};

template <class Back>
class Directories : public ::testing::Test {
protected:
    std::string path(const char* name) { return directory_.path(name); }

    vel::testing::TemporaryDirectory directory_;
};

TYPED_TEST_SUITE(Directories, ::testing::Types<SystemDirectories>);

// Deeper than the length of a path would allow, too.
TYPED_TEST(Directories, TreeGoesWholeAndLinksAreNotFollowed) {
    fs::create_directories(this->path("outside"));
    const std::string kept = this->directory_.file("outside/kept", "kept");
    fs::create_directories(this->path("tree/a/b/c"));
    fs::create_directory_symlink(this->path("outside"), this->path("tree/a/link"));
    fs::create_directory_symlink("../..", this->path("tree/a/b/up"));
    fs::create_symlink(this->path("nowhere"), this->path("tree/dangling"));
    const fs::path before = fs::current_path();
    fs::current_path(this->path("tree/a/b/c"));
    for (int level = 0; level < 300; ++level) {
        const std::string name(100, 'd');
        ASSERT_TRUE(fs::create_directory(name));
        fs::current_path(name);
    }
    fs::current_path(before);

    fs::create_directory_symlink(this->path("tree"), this->path("link"));
    EXPECT_NE(TypeParam::remove_tree(this->path("link").c_str()), error::none);
    EXPECT_NE(TypeParam::remove_tree(this->path("link/").c_str()), error::none);
    EXPECT_TRUE(fs::exists(this->path("tree/a/b/c")));
    EXPECT_EQ(TypeParam::remove_tree(this->path("tree").c_str()), error::none);
    EXPECT_FALSE(fs::exists(this->path("tree")));
    EXPECT_EQ(vel::testing::content_of(kept), "kept");
}

} // namespace
} // namespace vel::os
