// Files and directories of the library: paths, codes, retries and what the boundary does not promise by itself.
#include <vel/platform/files.h>

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/platform/directories.h>
#include <vel/platform/version.h>
#include <vel/testing/crew.h>
#include <vel/testing/expect_failure.h>
#include <vel/testing/failing_allocations.h>
#include <vel/testing/temporary_directory.h>

namespace {

namespace error = vel::error;
namespace fs = std::filesystem;
using vel::testing::expect_failure;

class Files : public ::testing::Test {
protected:
    void* create(const std::string& name, bool overwrite = true) {
        return VELLib::create(directory_.path(name).c_str(), overwrite, 0);
    }
    vel::testing::TemporaryDirectory directory_;
};

TEST_F(Files, CreateMakesTheTreeAndKeepsWhatItMust) {
    void* file = create("a/b//c/file");
    EXPECT_EQ(VELLib::write_n(file, "content", 7), 7);
    EXPECT_EQ(VELLib::close(file), 0);
    expect_failure(error::invalid_handle, VELLib::close(file));
    expect_failure(error::file_exists, create("a/b/c/file", false));
    EXPECT_EQ(vel::testing::content_of(directory_.path("a/b/c/file")), "content");
    expect_failure(error::already_exists, create("a/b/c/file/under"));
    expect_failure(error::access_denied, create("a/b"));
    VELLib::close(create("a/b/c/file"));
    EXPECT_EQ(vel::testing::content_of(directory_.path("a/b/c/file")), "");
    for (const char* path : {"", "/", "/a", "a", static_cast<const char*>(nullptr)})
        expect_failure(error::bad_path_name, VELLib::create(path, true, 0));
}

TEST_F(Files, TransfersStopAtTheEndAndTellErrors) {
    void* file = create("d/file");
    const std::string text(100'000, 't');
    std::string buffer(text.size(), '\0');
    EXPECT_EQ(VELLib::write_n(file, text.data(), text.size()), 100'000);
    EXPECT_EQ(VELLib::seek(file, 40'000, 0), 40'000);
    EXPECT_EQ(VELLib::read_n(file, buffer.data(), buffer.size()), 60'000);
    EXPECT_EQ(VELLib::seek(file, 7, 0), 7);
    EXPECT_EQ(VELLib::setfsize(file, 100), 0);
    EXPECT_EQ(VELLib::seek(file, 0, 1), 7) << "the position stays";
    OVERLAPPED record{};
    record.OffsetHigh = 1;
    EXPECT_EQ(VELLib::write(file, "x", 1, &record), 1);
    EXPECT_EQ(VELLib::getfsize(file), (int64_t{1} << 32) + 1);
    record.Offset = 1;
    expect_failure(error::end_of_file, VELLib::read(file, buffer.data(), 3, &record));
    VELLib::close(file);
    file = VELLib::open("/dev/full", false, 0);
    expect_failure(error::disk_full, VELLib::write_n(file, "x", 1));
    VELLib::close(file);
}

// Permissions mean nothing to the superuser, so an ordinary one does this.
TEST_F(Files, ReadOnlyFilesAreClearedAndTriedOnceMore) {
    fs::permissions(directory_.path(), fs::perms::all);
    vel::testing::ChildProcess child([&](vel::testing::Talk&) {
        if (!vel::testing::become_ordinary_user()) return 1;
        const std::string path = directory_.path("own/file");
        const auto close = [](void* file) { return file != VEL_INVALID_HANDLE && VELLib::close(file) == 0; };
        if (!close(VELLib::create(path.c_str(), true, 1))) return 2;
        if (VELLib::taccess(path.c_str(), 2) == 0 || VELLib::GetErrorCode() != error::access_denied) return 3;
        if (!close(VELLib::open(path.c_str(), true, 0)) || VELLib::taccess(path.c_str(), 2) == 0) return 5;
        if (!close(VELLib::open(path.c_str(), false, 0)) || VELLib::taccess(path.c_str(), 2) != 0) return 6;
        fs::permissions(path, fs::perms::owner_read);
        return close(VELLib::create(path.c_str(), true, 0)) ? 0 : 7;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Files, CreatedirVisitsEveryComponent) {
    const auto createdir = [&](const char* name) { return VELLib::createdir(directory_.path(name).c_str()); };
    EXPECT_EQ(createdir("a//b/c///"), 0);
    directory_.file("file", "");
    fs::create_symlink("nowhere", directory_.path("dangling"));
    fs::create_directory_symlink("a", directory_.path("link"));
    for (const char* name : {"file", "file/", "file/under", "dangling", "dangling/under"})
        expect_failure(error::already_exists, createdir(name));
    EXPECT_EQ(createdir("link/new"), 0);

    for (int round = 0; round < 20; ++round) { // several make the same at once
        const std::string path = directory_.path(std::to_string(round) + "/a/b/c/d/e");
        vel::testing::crew(4, [&](int) { EXPECT_EQ(VELLib::createdir(path.c_str()), 0); });
    }
}

// The reader of version records is tested with the boundary.
TEST_F(Files, VersionsAreReadClearedAndRefused) {
    const std::string image = VEL_CORPUS "/version_record/pe32_plus";
    VEL_Version version(image.c_str());
    EXPECT_EQ(version.fileVerStr(), "1.2.3.4");
    EXPECT_EQ(version.extract(directory_.file("text", "no image").c_str()), 1);
    EXPECT_EQ(version.fileVerStr(), "0.0.0.0") << "the values of the file before must go";
    EXPECT_EQ(version.extract(directory_.path("absent").c_str()), 0);
    const std::string broken = directory_.file("broken", vel::testing::content_of(image).substr(0, 500));
    EXPECT_EQ(version.extract(broken.c_str()), 0);
    EXPECT_EQ(VELLib::GetErrorCode(), 1813u);
    EXPECT_THROW(VEL_Version(broken.c_str()), VEL_Exception);
}

// Each call with one more allocation granted at a time.
TEST_F(Files, ShortMemoryIsACodeWhereverItStrikes) {
    const std::string from = directory_.file("from", std::string(100, 'x')), to = directory_.path("a/b/c/to");
    const std::string moved = directory_.path("d/moved"), tree = directory_.path("a");
    void* file = VEL_INVALID_HANDLE;
    const std::function<bool()> calls[] = {
        [&] { return (file = VELLib::create(to.c_str(), true, 0)) != VEL_INVALID_HANDLE; },
        [&] { return VELLib::flock(file, 0, 1, nullptr, true) == 0; },
        [&] { return VELLib::close(file) == 0; },
        [&] { return VELLib::copyfile(from.c_str(), to.c_str()) == 0; },
        [&] { return VELLib::movefile(from.c_str(), moved.c_str()) == 0; },
        [&] { return VELLib::deletedir(tree.c_str()) == 0; },
    };
    int refused = 0;
    for (const auto& call : calls) {
        bool worked = false;
        for (int granted = 0; granted < 1000 && !worked; ++granted) {
            const vel::testing::FailingAllocations failing(granted);
            worked = call();
            refused += !worked;
            EXPECT_TRUE(worked || VELLib::GetErrorCode() == error::not_enough_memory);
        }
    }
    EXPECT_GE(refused, 10);
    EXPECT_EQ(vel::testing::content_of(moved), std::string(100, 'x'));
}

} // namespace
