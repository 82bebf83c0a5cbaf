// Contract of the calls on files and trees.
#include <vel/os/file.h>

#include <filesystem>
#include <vel/testing/os_fixture.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

namespace fs = std::filesystem;
using vel::testing::content_of;

constexpr uint64_t year_2001 = 126'227'808'000'000'000;

class Files : public OsTest {
protected:
    void* open(const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        EXPECT_EQ(open_file(path.c_str(), how, file, options), error::none) << path;
        return keep(file);
    }

    FileTimes times(const std::string& path) {
        FileTimes times{};
        EXPECT_EQ(file_times(open(path, FileOpen::open_read), times), error::none);
        return times;
    }

    vel::testing::TemporaryDirectory directory_;
};

TEST_F(Files, OpenTellsWhyItFailsAndFollowsNoLink) {
    const std::string there = directory_.file("there", "abc"), link = directory_.path("link");
    fs::create_symlink(there, link);
    const FileOptions plain{.plain_only = true};
    const auto code = [](const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        return open_file(path.c_str(), how, file, options);
    };
    EXPECT_EQ(code(there, FileOpen::create_new), error::file_exists);
    EXPECT_EQ(code(there + "/file", FileOpen::create_new), error::path_not_found);
    EXPECT_EQ(code(directory_.path("absent/file"), FileOpen::create_always), error::path_not_found);
    EXPECT_EQ(code(directory_.path(), FileOpen::open_read), error::access_denied);
    EXPECT_EQ(code(link, FileOpen::open_read, plain), error::cannot_resolve_name);
    EXPECT_EQ(code("/dev/null", FileOpen::open_write, plain), error::access_denied);
    EXPECT_EQ(code(std::string(5000, 'x'), FileOpen::open_read), error::name_too_long);
    EXPECT_EQ(content_of(there), "abc") << "a failed open must not truncate";
}

TEST_F(Files, AFailedCopyLeavesEverythingAsItWas) {
    const std::string from = directory_.file("from", "new"), to = directory_.file("to", "old");
    const std::string here = directory_.path();
    EXPECT_EQ(copy_file(here.c_str(), to.c_str()), error::access_denied);
    EXPECT_EQ(copy_file(from.c_str(), here.c_str()), error::access_denied);
    EXPECT_EQ(copy_file("/proc/self/mem", to.c_str()), error::io_device) << "it opens, but reading it fails";
    EXPECT_EQ(content_of(to), "old");
    const fs::directory_iterator entries(here);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 2) << "a temporary file was left behind";
}

TEST_F(Files, CopyIsNeverSeenHalf) {
    const std::string to = directory_.file("to", std::string(400'000, 'a'));
    const std::string sources[] = {directory_.file("a", std::string(400'000, 'a')),
                                   directory_.file("b", std::string(500'000, 'b'))};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int round = 0; round < 40; ++round) copy_file(sources[round % 2].c_str(), to.c_str());
        done = true;
    });
    do {
        const std::string seen = content_of(to);
        EXPECT_EQ(seen.size(), seen[0] == 'a' ? 400'000u : 500'000u);
        EXPECT_EQ(seen.find_first_not_of(seen[0]), std::string::npos);
    } while (!done);
    writer.join();
}

TEST_F(Files, MoveAcrossDevicesKeepsContentAndTimes) {
    const fs::path memory = "/dev/shm";
    if (!fs::is_directory(memory)) GTEST_SKIP() << "needs a second file system, looked for " << memory;
    const vel::testing::TemporaryDirectory other(memory);
    const std::string from = directory_.file("from", std::string(2'000'000, 'm'));
    const std::string to = other.file("to", "old");
    void* file = open(from, FileOpen::open_write);
    EXPECT_EQ(set_file_times(file, {year_2001 + 1, 0, year_2001 + 2}), error::none);
    EXPECT_EQ(set_file_times(file, {0, 0, year_2001 + 3}), error::none); // what is 0 stays
    close_handle(file);
    EXPECT_EQ(set_read_only(from.c_str(), true), error::none);

    EXPECT_EQ(move_file(from.c_str(), to.c_str()), error::none);
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(times(to).created, year_2001 + 1);
    EXPECT_EQ(times(to).written, year_2001 + 3);
    EXPECT_EQ(copy_file(to.c_str(), from.c_str()), error::none);
    EXPECT_EQ(times(from).written, year_2001 + 3);
    EXPECT_EQ(content_of(to), std::string(2'000'000, 'm'));
}

TEST_F(Files, DeleteOnCloseFollowsTheFileNotTheName) {
    const std::string path = directory_.path("file"), moved = directory_.path("moved");
    void* file = open(path, FileOpen::create_new, {.delete_on_close = true});
    ASSERT_EQ(move_file(path.c_str(), moved.c_str()), error::none);
    directory_.file("file", "another one");
    close_handle(file);
    EXPECT_FALSE(fs::exists(moved));
    EXPECT_EQ(content_of(path), "another one");
}

// Deeper than the length of a path would allow, too.
TEST_F(Files, TreeGoesWholeAndLinksAreNotFollowed) {
    const auto path = [&](const char* name) { return directory_.path(name); };
    fs::create_directories(path("outside"));
    const std::string kept = directory_.file("outside/kept", "kept");
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
    EXPECT_NE(remove_directory_tree(path("link").c_str()), error::none);
    EXPECT_NE(remove_directory_tree(path("link/").c_str()), error::none);
    EXPECT_TRUE(fs::exists(path("tree/a/b/c")));
    EXPECT_EQ(remove_directory_tree(path("tree").c_str()), error::none);
    EXPECT_FALSE(fs::exists(path("tree")));
    EXPECT_EQ(content_of(kept), "kept");
}

} // namespace
} // namespace vel::os::testing
