// Log lines: their text, the files they go to, what keeps them out of those, and who else writes there.
#include <vel/log/log.h>

#include <future>
#include <gmock/gmock.h>
#include <map>
#include <thread>
#include <vel/os/file.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/small_disk.h>
#include <vel/testing/balanced_test.h>
#include <vel/testing/failing_allocations.h>
#include <vel/testing/temporary_directory.h>

namespace vel::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::Pair;

constexpr SYSTEMTIME last_second{2026, 11, 1, 30, 23, 59, 59, 999};
constexpr SYSTEMTIME next_month{2026, 12, 2, 1, 0, 0, 0, 0};
constexpr size_t time_size = 21;

/// Keeps each line and decides whether it goes on to the file.
class TestLog : public VEL_Log {
public:
    explicit TestLog(const std::string& directory) : VEL_Log(0) { set_log_dir(directory.c_str()); }

    using VEL_Log::log_file;
    using VEL_Log::make_log_header;

    int handle_log_output(const char* line) override {
        all += last = line;
        return verdict;
    }

    std::string last, all;
    int verdict = 0;
};

/// A logger on a directory of its own.
class Log : public BalancedTest {
protected:
    /// The files by name, and what they hold.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> texts;
        for (const auto& entry : fs::recursive_directory_iterator(directory_.path()))
            if (entry.is_regular_file())
                texts[fs::relative(entry.path(), directory_.path())] = content_of(entry.path());
        return texts;
    }
    std::string written() const {
        std::string all;
        for (const auto& [name, text] : files()) all += text;
        return all;
    }

    const TemporaryDirectory directory_;
    TestLog log_{directory_.path()};
};

TEST_F(Log, LineTellsTimeSeverityAndAtLevelOneThePlace) {
    char buffer[100];
    EXPECT_EQ(log_.make_log_header({7, 1, 0, 2, 3, 4, 5, 6}, buffer, 0, 0, "", 0), buffer + time_size + 6);
    EXPECT_STREQ(buffer, "[0007-01-02 03:04:05][INFO]");
    const struct {
        uint32_t kind, level;
        const char *file, *line;
    } rows[] = {
        {0, 0, "a.cpp", "[INFO]100%s\r\n"},
        {1, 2, "a.cpp", "[WARNING]100%s\r\n"}, // only 1 is a level with places
        {2, 1, "stream.cpp", "[ERROR][stream.cpp][120 line]100%s\r\n"},
        {7, 1, "src\\net\\a.cpp", "[INFO][a.cpp][120 line]100%s\r\n"},
        {0, 1, "src/net/a.cpp", "[INFO][src/net/a.cpp][120 line]100%s\r\n"},
    };
    for (const auto& row : rows) {
        log_.set_level(row.level);
        log_.log(row.kind, row.file, 120, "%d%s", 100, "%s");
        EXPECT_EQ(log_.last.substr(time_size), row.line);
    }
    const std::string all = log_.all;
    log_.verdict = -1;
    log_.log_info("", 0, "kept out");
    EXPECT_EQ(written(), all);
}

TEST_F(Log, LineIsCutWhereItsRoomOrItsTextEnds) {
    const auto expect = [&](const std::string& text) { EXPECT_EQ(log_.last.substr(time_size), text + "\r\n"); };
    const std::string text(40'000, 'x');
    const size_t room = 32'768 - time_size - 2;
    log_.log_warning("", 0, "before%cbehind", '\0');
    expect("[WARNING]before");
    for (const size_t length : {room - 6, text.size()}) {
        log_.log_info("", 0, "%s", text.substr(0, length).c_str());
        expect("[INFO]" + text.substr(0, room - 6));
    }
    log_.set_level(1);
    log_.log_info(text.c_str(), 1, "no room for this");
    expect("[INFO][" + text.substr(0, room - 7));
}

TEST_F(Log, EveryDayHasItsFile) {
    const SYSTEMTIME year_later{2027, 12, 3, 1, 0, 0, 0, 0}, back{2027, 1, 5, 1, 0, 0, 0, 0};
    for (const SYSTEMTIME& time : {last_second, next_month, year_later, back, last_second})
        log_.log_file(time, std::to_string(time.wYear).c_str());
    EXPECT_THAT(files(),
                ElementsAre(Pair("Log202611/log_20261130.log", "20262026"), Pair("Log202612/log_20261201.log", "2026"),
                            Pair("Log202701/log_20270101.log", "2027"), Pair("Log202712/log_20271201.log", "2027")));
}

TEST_F(Log, WhatIsInTheWayDropsLinesAndDirectoriesAreMadeAnew) {
    directory_.file("Log202611", "a file in the way");
    log_.log_file(last_second, "one");
    EXPECT_EQ(VELLib::GetErrorCode(), 183u);
    fs::remove(directory_.path("Log202611"));
    fs::create_directories(directory_.path("Log202611/log_20261130.log"));
    log_.log_file(last_second, "two");
    EXPECT_EQ(VELLib::GetErrorCode(), 5u);
    for (const char* line : {"three", "four"}) { // the second with the deleted file open
        fs::remove_all(directory_.path());
        log_.log_file(last_second, line);
        EXPECT_EQ(written(), line);
    }
    log_.set_log_dir(directory_.path("deep/er/").c_str());
    log_.log_file(last_second, "five");
    EXPECT_EQ(files()["deep/er/Log202611/log_20261130.log"], "five") << "a new directory takes the next line";
}

TEST_F(Log, PieceOfAKilledWriterStaysOnALineOfItsOwn) {
    TestLog other(directory_.path());
    log_.log_file(last_second, "one\r\n");
    std::ofstream(directory_.path("Log202611/log_20261130.log"), std::ios::app) << "[pie";
    other.log_file(last_second, "ce"); // no line, so that it continues
    log_.log_file(last_second, "two\r\n");
    other.log_file(last_second, "three\r\n");
    EXPECT_EQ(written(), "one\r\n[piece\r\ntwo\r\nthree\r\n");
}

TEST_F(Log, ShortageOfMemoryDropsLinesAndNothingElse) {
    VEL_Log quiet(0);
    quiet.set_log_dir(directory_.path("new").c_str());
    int granted = 0;
    for (; written().empty() && granted < 100; ++granted) {
        const FailingAllocations failing(granted);
        quiet.log_info("", 0, "one");
    }
    EXPECT_GT(granted, 1);
    EXPECT_THAT(written(), ::testing::EndsWith("[INFO]one\r\n"));
}

TEST_F(Log, CopiesShareTheFileAndOwnTheirDirectory) {
    log_.log_file(last_second, "a");
    TestLog copy(log_);
    log_.set_log_dir(directory_.path("z").c_str());
    log_.log_file(last_second, "b");
    copy.log_file(last_second, "c"); // through the share that is left
    copy.log_file(next_month, "d");
    copy = static_cast<const TestLog&>(copy);
    copy.log_file(next_month, "e");
    copy = log_;
    copy.log_file(last_second, "f");
    EXPECT_EQ(written(), "acdebf");
}

// Each process writes through a logger and a copy that shares its open file.
TEST_F(Log, ManyWritersLoseAndTearNoLine) {
    constexpr int lines_each = 2000;
    const auto message = [](char writer, int number) { // lengths differ, and some pass the end of a page
        return std::string(number % 97 == 0 ? 5000 : 1 + number % 150, writer) + std::to_string(number);
    };
    const auto write = [&](VEL_Log& log, char writer, int first, int end) {
        for (int number = first; number < end; ++number) log.log_info("", 0, "%s", message(writer, number).c_str());
    };
    for (const int writers : {2, 8}) {
        fs::remove_all(directory_.path());
        std::vector<std::unique_ptr<ChildProcess>> processes;
        for (char writer = 'a'; writer < 'a' + writers; writer += 2)
            processes.push_back(std::make_unique<ChildProcess>([&, writer](Talk& parent) {
                VEL_Log log(0);
                log.set_log_dir(directory_.path().c_str());
                if (!parent.hear()) return 1;
                write(log, writer, 0, 1);
                VEL_Log copy(log);
                std::thread other([&] { write(copy, static_cast<char>(writer + 1), 0, lines_each); });
                write(log, writer, 1, lines_each);
                other.join();
                return 0;
            }));
        for (auto& process : processes) process->talk().tell(); // all begin without a file
        for (auto& process : processes) EXPECT_EQ(process->wait(), 0);
        std::map<char, int> next;
        std::istringstream lines(written());
        for (std::string line; std::getline(lines, line);) {
            const char writer = line.size() > time_size + 6 ? line[time_size + 6] : '?';
            ASSERT_EQ(line.substr(time_size), "[INFO]" + message(writer, next[writer]++) + "\r");
        }
        for (int writer = 0; writer < writers; ++writer) EXPECT_EQ(next[static_cast<char>('a' + writer)], lines_each);
    }
}

TEST_F(Log, LineWaitsForTheLockOnWhatIsThere) {
    log_.log_file(last_second, "one");
    void* file = nullptr;
    os::open_file(directory_.path("Log202611/log_20261130.log").c_str(), os::FileOpen::open_write, file);
    ASSERT_EQ(os::lock_range(file, 2, 1, true), 0u);
    auto line = std::async(std::launch::async, [&] { log_.log_file(last_second, "two"); });
    EXPECT_EQ(line.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    os::close_handle(file);
    EXPECT_EQ(line.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST_F(Log, FullDiskTakesWholeLinesOnlyAndIsUsedAgainOnceThereIsRoom) {
    constexpr int no_disk = 77;
    ChildProcess writer([&](Talk&) {
        if (!mount_small_disk(directory_.path(), 16)) return no_disk;
        const std::string ballast = directory_.file("Ballast", std::string(20'000, 'b'));
        const std::string line = std::string(1000, 'x') + "\r\n";
        const auto lines_after_many = [&] {
            for (int number = 0; number < 100; ++number) log_.log_file(last_second, line.c_str());
            std::string text = files()["Log202611/log_20261130.log"];
            size_t count = 0;
            for (; text.starts_with(line); ++count) text.erase(0, line.size());
            return text.empty() ? count : 0; // whole lines only
        };
        const size_t full = lines_after_many();
        fs::remove(ballast);
        const size_t more = lines_after_many();
        return full > 0 && full < 100 && more > full ? 0 : 1;
    });
    const int result = writer.wait();
    if (result == no_disk) GTEST_SKIP() << "needs the right to mount a file system of its own";
    EXPECT_EQ(result, 0);
}

} // namespace
} // namespace vel::testing
