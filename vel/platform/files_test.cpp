// Files and directories of the library: paths, codes, retries and what the boundary does not promise by itself.
#include <vel/platform/files.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/frame/error.h>
#include <vel/os/completion_port.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/platform/directories.h>
#include <vel/testing/failing_allocations.h>
#include <vel/testing/temporary_directory.h>

namespace {

namespace error = vel::error;
namespace fs = std::filesystem;
using vel::testing::content_of;
using vel::testing::TemporaryDirectory;

// Code of a call that must fail with `failure`; the code is set to something else before.
template <class Result, class Call>
uint32_t failure_code(Result failure, Call call) {
    VELLib::SetErrorCode(0x12345);
    EXPECT_EQ(call(), failure);
    return VELLib::GetErrorCode();
}

class Files : public ::testing::Test {
protected:
    void* create(const std::string& name, bool overwrite = true) {
        return VELLib::create(directory_.path(name).c_str(), overwrite, 0);
    }

    TemporaryDirectory directory_;
};

TEST_F(Files, CreateMakesTheTreeAndKeepsWhatItMust) {
    void* file = create("a/b//c/file");
    ASSERT_NE(file, VEL_INVALID_HANDLE);
    EXPECT_EQ(VELLib::write_n(file, "content", 7), 7);
    EXPECT_EQ(VELLib::close(file), 0);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::close(file); }), error::invalid_handle);

    EXPECT_EQ(failure_code(VEL_INVALID_HANDLE, [&] { return create("a/b/c/file", false); }), error::file_exists);
    EXPECT_EQ(content_of(directory_.path("a/b/c/file")), "content");
    EXPECT_EQ(failure_code(VEL_INVALID_HANDLE, [&] { return create("a/b/c/file/under"); }), error::already_exists);
    EXPECT_EQ(failure_code(VEL_INVALID_HANDLE, [&] { return create("a/b"); }), error::access_denied);
    VELLib::close(create("a/b/c/file"));
    EXPECT_EQ(content_of(directory_.path("a/b/c/file")), "");
}

TEST_F(Files, PathsWithoutASeparatorInsideAreRefused) {
    const std::string from = directory_.file("from", "x");
    for (const char* path : {"", "/", "/a", "a", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(failure_code(VEL_INVALID_HANDLE, [&] { return VELLib::create(path, true, 0); }),
                  error::bad_path_name);
        EXPECT_EQ(failure_code(-1, [&] { return VELLib::copyfile(from.c_str(), path); }), error::bad_path_name);
        EXPECT_EQ(failure_code(-1, [&] { return VELLib::movefile(from.c_str(), path); }), error::bad_path_name);
    }
    EXPECT_EQ(failure_code(VEL_INVALID_HANDLE, [] { return VELLib::open(nullptr, true, 0); }), error::path_not_found);
}

TEST_F(Files, TransfersStopAtTheEndAndTellErrors) {
    void* file = create("d/file");
    const std::string text(100'000, 't');
    EXPECT_EQ(VELLib::write_n(file, text.data(), text.size()), 100'000);
    EXPECT_EQ(VELLib::seek(file, 40'000, 0), 40'000);
    std::string buffer(text.size(), '\0');
    EXPECT_EQ(VELLib::read_n(file, buffer.data(), buffer.size()), 60'000);
    EXPECT_EQ(VELLib::read_n(file, buffer.data(), 1), 0);
    EXPECT_EQ(VELLib::read(file, buffer.data(), 1, nullptr), 0);
    const uint64_t too_many = uint64_t{INT_MAX} + 1;
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::read_n(file, buffer.data(), too_many); }),
              error::invalid_parameter);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::write_n(file, text.data(), too_many); }), error::invalid_parameter);

    EXPECT_EQ(VELLib::seek(file, 7, 0), 7);
    EXPECT_EQ(VELLib::setfsize(file, 100), 0);
    EXPECT_EQ(VELLib::seek(file, 0, 1), 7) << "the position stays";
    EXPECT_EQ(VELLib::getfsize(file), 100);
    VELLib::close(file);

    file = VELLib::open("/dev/full", false, 0);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::write_n(file, "x", 1); }), error::disk_full);
    VELLib::close(file);

    EXPECT_EQ(failure_code(-1, [&] { return VELLib::read_n(file, buffer.data(), 1); }), error::invalid_handle);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::write_n(file, "x", 1); }), error::invalid_handle);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::write(VEL_INVALID_HANDLE, "x", 1, nullptr); }),
              error::invalid_handle);
    EXPECT_EQ(failure_code(int64_t{-1}, [&] { return VELLib::getfsize(file); }), error::invalid_handle);
    EXPECT_EQ(failure_code(int64_t{-1}, [&] { return VELLib::seek(file, 0, 0); }), error::invalid_handle);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::setfsize(file, 1); }), error::invalid_handle);
}

TEST_F(Files, OverlappedTransfersUseTheRecordsOffset) {
    void* file = create("d/file");
    EXPECT_EQ(VELLib::write_n(file, "0123456789", 10), 10);
    OVERLAPPED record{};
    record.Offset = 3;
    char buffer[4] = {};
    EXPECT_EQ(VELLib::read(file, buffer, 3, &record), 3);
    EXPECT_STREQ(buffer, "345");
    record = {};
    record.OffsetHigh = 1;
    EXPECT_EQ(VELLib::write(file, "x", 1, &record), 1);
    EXPECT_EQ(VELLib::getfsize(file), (int64_t{1} << 32) + 1);
    EXPECT_EQ(VELLib::seek(file, 0, 1), 10);
    EXPECT_EQ(record.InternalHigh, 1u);
    record.Offset = 1;
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::read(file, buffer, 3, &record); }), error::end_of_file);

    void* port = nullptr;
    vel::os::Completion completion{};
    ASSERT_EQ(vel::os::create_port(1, port), error::none);
    ASSERT_EQ(vel::os::associate(port, file, 7), error::none);
    record = {};
    record.Offset = 8;
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::read(file, buffer, 2, &record); }), error::io_pending);
    EXPECT_EQ(vel::os::wait_completion(port, 20'000, completion), error::none);
    EXPECT_EQ(completion.record, &record);
    EXPECT_EQ(completion.bytes, 2u);
    EXPECT_EQ(std::string(buffer, 2), "89");
    VELLib::close(file);
    vel::os::close_port(port);
}

TEST_F(Files, TimesAreLocalAndCutToMilliseconds) {
    void* file = create("d/file");
    SYSTEMTIME created{2001, 2, 0, 3, 4, 5, 6, 789};
    SYSTEMTIME written{2011, 12, 0, 13, 14, 15, 16, 17};
    EXPECT_EQ(VELLib::setftime(file, &created, nullptr, &written), 0);
    SYSTEMTIME wrong = written;
    wrong.wMonth = 13;
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::setftime(file, nullptr, nullptr, &wrong); }),
              error::invalid_parameter);
    SYSTEMTIME times[2]{};
    EXPECT_EQ(VELLib::getftime(file, &times[0], nullptr, &times[1]), 0);
    EXPECT_EQ(times[0].wYear, 2001);
    EXPECT_EQ(times[0].wDayOfWeek, 6); // a Saturday
    EXPECT_EQ(times[0].wHour, 4);
    EXPECT_EQ(times[0].wMilliseconds, 789);
    EXPECT_EQ(times[1].wDay, 13);
    EXPECT_EQ(times[1].wMilliseconds, 17);
    VELLib::close(file);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::getftime(file, nullptr, nullptr, nullptr); }),
              error::invalid_handle);
}

TEST_F(Files, LocksTakeTheOffsetFirst) {
    void* first = create("d/file");
    void* second = VELLib::open(directory_.path("d/file").c_str(), false, 0);
    OVERLAPPED record{};
    EXPECT_EQ(VELLib::flock(first, (uint64_t{1} << 32) + 5, 10, &record, false), 0);
    EXPECT_EQ(record.Offset, 5u);
    EXPECT_EQ(record.OffsetHigh, 1u);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::flock(second, (uint64_t{1} << 32) + 14, 1, nullptr, false); }),
              error::lock_violation);
    EXPECT_EQ(VELLib::flock(second, 10, 5, nullptr, false), 0);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::funlock(second, 5, 10, nullptr); }), error::not_locked);
    EXPECT_EQ(VELLib::funlock(first, (uint64_t{1} << 32) + 5, 10, &record), 0);
    VELLib::close(first);
    VELLib::close(second);
}

TEST_F(Files, CopyAndMoveMakeDirectories) {
    const std::string from = directory_.file("from", "text");
    EXPECT_EQ(VELLib::copyfile(from.c_str(), directory_.path("new/one/to").c_str()), 0);
    EXPECT_EQ(VELLib::movefile(from.c_str(), directory_.path("new/two/to").c_str()), 0);
    EXPECT_EQ(content_of(directory_.path("new/one/to")), "text");
    EXPECT_EQ(content_of(directory_.path("new/two/to")), "text");
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::taccess(from.c_str(), 0); }), error::file_not_found);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::taccess(directory_.path("no/where").c_str(), 0); }),
              error::file_not_found)
        << "whatever the reason";
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::taccess(directory_.path("no/where").c_str(), 4); }),
              error::path_not_found);
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::deletefile(from.c_str()); }), error::file_not_found);
}

// Permissions mean nothing to the superuser, so an ordinary one does this.
TEST_F(Files, ReadOnlyFilesAreClearedAndTriedOnceMore) {
    fs::permissions(directory_.path(), fs::perms::all);
    vel::testing::ChildProcess child([&](vel::testing::Talk&) {
        if (!vel::testing::become_ordinary_user()) return 1;
        const std::string path = directory_.path("own/file");
        void* file = VELLib::create(path.c_str(), true, 1);
        if (file == VEL_INVALID_HANDLE || VELLib::write_n(file, "old", 3) != 3) return 2;
        VELLib::close(file);
        if (VELLib::taccess(path.c_str(), 2) == 0 || VELLib::GetErrorCode() != error::access_denied) return 3;
        file = VELLib::open(path.c_str(), true, 0);
        if (file == VEL_INVALID_HANDLE || VELLib::taccess(path.c_str(), 2) == 0) return 4; // reading clears nothing
        VELLib::close(file);
        file = VELLib::open(path.c_str(), false, 0);
        if (file == VEL_INVALID_HANDLE || VELLib::taccess(path.c_str(), 2) != 0) return 5;
        VELLib::close(file);
        fs::permissions(path, fs::perms::owner_read);
        file = VELLib::create(path.c_str(), true, 0);
        if (file == VEL_INVALID_HANDLE || VELLib::getfsize(file) != 0) return 6;
        VELLib::close(file);

        fs::permissions(directory_.path("own"), fs::perms::owner_read | fs::perms::owner_exec);
        if (VELLib::create(directory_.path("own/new").c_str(), true, 0) != VEL_INVALID_HANDLE) return 7;
        if (VELLib::GetErrorCode() != error::access_denied) return 8;
        fs::permissions(directory_.path("own"), fs::perms::owner_all);
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Files, CreatedirVisitsEveryComponent) {
    const auto createdir = [&](const char* name) { return VELLib::createdir(directory_.path(name).c_str()); };
    EXPECT_EQ(createdir("a//b/c///"), 0);
    EXPECT_EQ(createdir("a/b/c"), 0);
    EXPECT_TRUE(fs::is_directory(directory_.path("a/b/c")));
    directory_.file("file", "");
    fs::create_symlink("nowhere", directory_.path("dangling"));
    fs::create_directory_symlink("a", directory_.path("link"));
    for (const char* name : {"file", "file/", "file/under", "dangling", "dangling/under"})
        EXPECT_EQ(failure_code(-1, [&] { return createdir(name); }), error::already_exists) << name;
    EXPECT_EQ(createdir("link/new"), 0);
    EXPECT_TRUE(fs::is_directory(directory_.path("a/new")));
    for (const char* path : {"", "/", "///", static_cast<const char*>(nullptr)})
        EXPECT_EQ(failure_code(-1, [&] { return VELLib::createdir(path); }), error::bad_path_name);
    EXPECT_EQ(VELLib::deletedir(directory_.path("a").c_str()), 0);
    EXPECT_FALSE(fs::exists(directory_.path("a")));
    EXPECT_EQ(failure_code(-1, [&] { return VELLib::deletedir(directory_.path("a").c_str()); }), error::file_not_found);
}

TEST_F(Files, CreatedirDoesNotMindAnotherMakingTheSame) {
    for (int round = 0; round < 50; ++round) {
        const std::string path = directory_.path(std::to_string(round) + "/a/b/c/d/e");
        int results[4] = {-1, -1, -1, -1};
        std::vector<std::thread> threads;
        for (int& result : results) threads.emplace_back([&] { result = VELLib::createdir(path.c_str()); });
        for (std::thread& thread : threads) thread.join();
        for (const int result : results) ASSERT_EQ(result, 0);
    }
}

// Each call of the list with one more allocation granted at a time.
TEST_F(Files, ShortMemoryIsACodeWhereverItStrikes) {
    const std::string from = directory_.file("from", std::string(100, 'x')), to = directory_.path("a/b/c/to");
    const std::string moved = directory_.path("d/moved"), tree = directory_.path("a");
    char buffer[300];
    void* file = VEL_INVALID_HANDLE;
    const std::function<bool()> calls[] = {
        [&] { return (file = VELLib::create(to.c_str(), true, 0)) != VEL_INVALID_HANDLE; },
        [&] { return VELLib::flock(file, 0, 1, nullptr, true) == 0; },
        [&] { return VELLib::close(file) == 0; },
        [&] { return VELLib::copyfile(from.c_str(), to.c_str()) == 0; },
        [&] { return VELLib::movefile(from.c_str(), moved.c_str()) == 0; },
        [&] { return VELLib::deletedir(tree.c_str()) == 0; },
        [&] { return VELLib::getmodpath(buffer, sizeof buffer) > 0; },
    };
    int refused = 0;
    for (const auto& call : calls) {
        bool worked = false;
        const auto failed = [&] {
            EXPECT_TRUE(worked || VELLib::GetErrorCode() == error::not_enough_memory) << VELLib::GetErrorCode();
            return !worked;
        };
        refused += vel::testing::fail_each_allocation([&] { worked = call(); }, failed);
    }
    EXPECT_GE(refused, 10);
    EXPECT_EQ(content_of(moved), std::string(100, 'x'));
}

TEST(ModulePath, NeedsRoomForItsTerminator) {
    const std::string expected = fs::read_symlink("/proc/self/exe").parent_path().string();
    char buffer[300];
    EXPECT_EQ(VELLib::getmodpath(buffer, sizeof buffer), expected.size());
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(VELLib::getmodpath(buffer, expected.size() + 1), expected.size());
    EXPECT_EQ(failure_code(uint64_t{0}, [&] { return VELLib::getmodpath(buffer, expected.size()); }),
              error::insufficient_buffer);
    EXPECT_EQ(failure_code(uint64_t{0}, [] { return VELLib::getmodpath(nullptr, 0); }), error::insufficient_buffer);
}

} // namespace
