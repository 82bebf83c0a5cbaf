// Contract of the calls on files and trees, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

namespace fs = std::filesystem;
using vel::testing::content_of;

constexpr uint64_t year_2001 = 126'227'808'000'000'000;

// The system's own files. Another back end is a struct with the same names.
struct SystemFiles {
    static constexpr auto open = open_file;
    static constexpr auto times = file_times;
    static constexpr auto set_times = set_file_times;
    static constexpr auto copy = copy_file;
    static constexpr auto move = move_file;
    static constexpr auto remove_tree = remove_directory_tree;
};

template <class Back>
class Files : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(open_handle_count(), handles_before_); }

    void* open(const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        EXPECT_EQ(Back::open(path.c_str(), how, file, options), error::none) << path;
        return file;
    }

    FileTimes times(const std::string& path) {
        FileTimes times{};
        void* file = open(path, FileOpen::open_read);
        EXPECT_EQ(Back::times(file, times), error::none);
        close_handle(file);
        return times;
    }

    vel::testing::TemporaryDirectory directory_;
    const uint64_t handles_before_ = open_handle_count();
};

TYPED_TEST_SUITE(Files, ::testing::Types<SystemFiles>);

TYPED_TEST(Files, OpenTellsWhyItFailsAndFollowsNoLink) {
    const std::string there = this->directory_.file("there", "abc"), link = this->directory_.path("link");
    fs::create_symlink(there, link);
    const FileOptions plain{.plain_only = true};
    const auto code = [](const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        return TypeParam::open(path.c_str(), how, file, options);
    };
    EXPECT_EQ(code(there, FileOpen::create_new), error::file_exists);
    EXPECT_EQ(code(there + "/file", FileOpen::create_new), error::path_not_found);
    EXPECT_EQ(code(this->directory_.path("absent/file"), FileOpen::create_always), error::path_not_found);
    EXPECT_EQ(code(this->directory_.path(), FileOpen::open_read), error::access_denied);
    EXPECT_EQ(code(link, FileOpen::open_read, plain), error::cannot_resolve_name);
    EXPECT_EQ(code("/dev/null", FileOpen::open_write, plain), error::access_denied);
    EXPECT_EQ(code(std::string(5000, 'x'), FileOpen::open_read), error::name_too_long);
    EXPECT_EQ(content_of(there), "abc") << "a failed open must not truncate";
}

TYPED_TEST(Files, AFailedCopyLeavesEverythingAsItWas) {
    const std::string from = this->directory_.file("from", "new"), to = this->directory_.file("to", "old");
    const std::string here = this->directory_.path();
    EXPECT_EQ(TypeParam::copy(here.c_str(), to.c_str()), error::access_denied);
    EXPECT_EQ(TypeParam::copy(from.c_str(), here.c_str()), error::access_denied);
    EXPECT_EQ(TypeParam::copy("/proc/self/mem", to.c_str()), error::io_device) << "it opens, but reading it fails";
    EXPECT_EQ(content_of(to), "old");
    const fs::directory_iterator entries(here);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 2) << "a temporary file was left behind";
}

TYPED_TEST(Files, CopyIsNeverSeenHalf) {
    const std::string to = this->directory_.file("to", std::string(400'000, 'a'));
    const std::string sources[] = {this->directory_.file("a", std::string(400'000, 'a')),
                                   this->directory_.file("b", std::string(500'000, 'b'))};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int round = 0; round < 40; ++round) TypeParam::copy(sources[round % 2].c_str(), to.c_str());
        done = true;
    });
    do {
        const std::string seen = content_of(to);
        EXPECT_EQ(seen.size(), seen[0] == 'a' ? 400'000u : 500'000u);
        EXPECT_EQ(seen.find_first_not_of(seen[0]), std::string::npos);
    } while (!done);
    writer.join();
}

TYPED_TEST(Files, MoveAcrossDevicesKeepsContentAndTimes) {
    const fs::path memory = "/dev/shm";
    if (!fs::is_directory(memory)) GTEST_SKIP() << "needs a second file system, looked for " << memory;
    const vel::testing::TemporaryDirectory other(memory);
    const std::string from = this->directory_.file("from", std::string(2'000'000, 'm'));
    const std::string to = other.file("to", "old");
    void* file = this->open(from, FileOpen::open_write);
    EXPECT_EQ(TypeParam::set_times(file, {year_2001 + 1, 0, year_2001 + 2}), error::none);
    EXPECT_EQ(TypeParam::set_times(file, {0, 0, year_2001 + 3}), error::none); // what is 0 stays
    close_handle(file);
    EXPECT_EQ(set_read_only(from.c_str(), true), error::none);

    EXPECT_EQ(TypeParam::move(from.c_str(), to.c_str()), error::none);
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(this->times(to).created, year_2001 + 1);
    EXPECT_EQ(this->times(to).written, year_2001 + 3);
    EXPECT_EQ(TypeParam::copy(to.c_str(), from.c_str()), error::none);
    EXPECT_EQ(this->times(from).written, year_2001 + 3);
    EXPECT_EQ(content_of(to), std::string(2'000'000, 'm'));
}

TYPED_TEST(Files, DeleteOnCloseFollowsTheFileNotTheName) {
    const std::string path = this->directory_.path("file"), moved = this->directory_.path("moved");
    void* file = this->open(path, FileOpen::create_new, {.delete_on_close = true});
    ASSERT_EQ(TypeParam::move(path.c_str(), moved.c_str()), error::none);
    this->directory_.file("file", "another one");
    close_handle(file);
    EXPECT_FALSE(fs::exists(moved));
    EXPECT_EQ(content_of(path), "another one");
}

// Deeper than the length of a path would allow, too.
TYPED_TEST(Files, TreeGoesWholeAndLinksAreNotFollowed) {
    const auto path = [&](const char* name) { return this->directory_.path(name); };
    fs::create_directories(path("outside"));
    const std::string kept = this->directory_.file("outside/kept", "kept");
    fs::create_directories(path("tree/a/b/c"));
    fs::create_directory_symlink(path("outside"), path("tree/a/link"));
    fs::create_directory_symlink("../..", path("tree/a/b/up"));
    fs::create_symlink(path("nowhere"), path("tree/dangling"));
    const fs::path before = fs::current_path();
    fs::current_path(path("tree/a/b/c"));
    for (int level = 0; level < 300; ++level) {
        const std::string name(100, 'd');
        ASSERT_TRUE(fs::create_directory(name));
        fs::current_path(name);
    }
    fs::current_path(before);

    fs::create_directory_symlink(path("tree"), path("link"));
    EXPECT_NE(TypeParam::remove_tree(path("link").c_str()), error::none);
    EXPECT_NE(TypeParam::remove_tree(path("link/").c_str()), error::none);
    EXPECT_TRUE(fs::exists(path("tree/a/b/c")));
    EXPECT_EQ(TypeParam::remove_tree(path("tree").c_str()), error::none);
    EXPECT_FALSE(fs::exists(path("tree")));
    EXPECT_EQ(content_of(kept), "kept");
}

} // namespace
} // namespace vel::os
