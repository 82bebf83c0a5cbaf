// Log files that several processes and threads write, and one on a full disk.
#include <vel/log/log.h>

#include <future>
#include <gtest/gtest.h>
#include <map>
#include <thread>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/small_disk.h>
#include <vel/testing/temporary_directory.h>

namespace {

namespace fs = std::filesystem;
using vel::testing::ChildProcess;
using vel::testing::Talk;
using vel::testing::TemporaryDirectory;

constexpr int lines_each = 2000;
constexpr size_t header_size = 27;

std::string text_below(const TemporaryDirectory& directory) {
    std::map<std::string, std::string> texts; // by path, should the day change meanwhile
    for (const auto& entry : fs::recursive_directory_iterator(directory.path()))
        if (entry.is_regular_file()) texts[entry.path()] = vel::testing::content_of(entry.path());
    std::string all;
    for (const auto& [path, text] : texts) all += text;
    return all;
}

/// The lengths differ, and some lines pass the end of a page.
std::string message(char writer, int number) {
    return std::string(number % 97 == 0 ? 5000 : 1 + number % 150, writer) + std::to_string(number);
}

void write_lines(VEL_Log& log, char writer) {
    for (int number = 0; number < lines_each; ++number) log.log_info("", 0, "%s", message(writer, number).c_str());
}

/// Every line whole, all there, each writer's in its order.
void expect_lines(const TemporaryDirectory& directory, int writers) {
    std::map<char, int> next;
    int torn = 0;
    std::istringstream lines(text_below(directory));
    for (std::string line; std::getline(lines, line);) {
        const char writer = line.size() > header_size ? line[header_size] : '?';
        const std::string expected = "[INFO]" + message(writer, next[writer]++) + "\r";
        torn += line[0] != '[' || line.size() != header_size - 6 + expected.size() || !line.ends_with(expected);
    }
    EXPECT_EQ(torn, 0);
    for (int writer = 0; writer < writers; ++writer) EXPECT_EQ(next[static_cast<char>('a' + writer)], lines_each);
}

TEST(LogSharing, ProcessesLoseAndTearNoLine) {
    for (const int count : {2, 8}) {
        const TemporaryDirectory directory;
        std::vector<std::unique_ptr<ChildProcess>> writers;
        for (int writer = 0; writer < count; ++writer)
            writers.push_back(std::make_unique<ChildProcess>([&, writer](Talk& parent) {
                VEL_Log log(0);
                log.set_log_dir(directory.path().c_str());
                if (!parent.hear()) return 1;
                write_lines(log, static_cast<char>('a' + writer));
                return 0;
            }));
        for (auto& writer : writers) writer->talk().tell(); // all begin with the empty file
        for (auto& writer : writers) EXPECT_EQ(writer->wait(), 0);
        expect_lines(directory, count);
    }
}

TEST(LogSharing, ThreadsOnALoggerAndItsCopyLoseAndTearNoLine) {
    const TemporaryDirectory directory;
    VEL_Log log(0);
    log.set_log_dir(directory.path().c_str());
    log.log_info("", 0, "%s", message('z', 0).c_str()); // so that the copy shares an open file
    VEL_Log copy(log);
    std::vector<std::thread> writers;
    for (const char writer : {'a', 'b', 'c', 'd'})
        writers.emplace_back([&, writer] { write_lines(writer % 2 ? copy : log, writer); });
    for (std::thread& writer : writers) writer.join();
    expect_lines(directory, 4);
}

TEST(LogSharing, ALineWaitsForTheLockOnWhatIsThere) {
    const TemporaryDirectory directory;
    VEL_Log log(0);
    log.set_log_dir(directory.path().c_str());
    log.log_info("", 0, "one");
    void* file = nullptr;
    for (const auto& entry : fs::recursive_directory_iterator(directory.path()))
        if (entry.is_regular_file()) vel::os::open_file(entry.path().c_str(), vel::os::FileOpen::open_write, file);
    ASSERT_EQ(vel::os::lock_range(file, 3, 1, true), 0u);
    auto line = std::async(std::launch::async, [&] { log.log_info("", 0, "two"); });
    EXPECT_EQ(line.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    vel::os::close_handle(file);
    EXPECT_EQ(line.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(LogSharing, FullDiskTakesWholeLinesOnlyAndIsUsedAgainOnceThereIsRoom) {
    constexpr int no_disk = 77;
    constexpr size_t line_size = header_size + 1000 + 2, room = 5 * 4096;
    const TemporaryDirectory directory;
    ChildProcess writer([&](Talk&) {
        if (!vel::testing::mount_small_disk(directory.path(), 16)) return no_disk;
        const std::string ballast = directory.file("ballast", std::string(room, 'b'));
        VEL_Log log(0);
        log.set_log_dir(directory.path().c_str());
        const auto write_many = [&] {
            for (int number = 0; number < 100; ++number) log.log_info("", 0, "%s", std::string(1000, 'x').c_str());
        };
        write_many();
        const size_t full = text_below(directory).size() - room;
        if (full == 0 || full >= 100 * line_size) return 1; // never full
        if (full % line_size != 0) return 2;                // a piece is left
        fs::remove(ballast);
        write_many();
        const std::string text = text_below(directory);
        if (text.size() <= full || text.size() % line_size != 0) return 3;
        for (size_t end = line_size; end <= text.size(); end += line_size)
            if (text.compare(end - 3, 3, "x\r\n") != 0) return 4;
        return 0;
    });
    const int result = writer.wait();
    if (result == no_disk) GTEST_SKIP() << "needs the right to mount a file system of its own";
    EXPECT_EQ(result, 0);
}

} // namespace
