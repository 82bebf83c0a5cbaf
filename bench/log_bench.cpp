// One log line at a time into a file: VEL_Log against the bare system calls of the same work and spdlog.
//
// Every contender formats time, severity and message itself and has the line in the file when the call returns. The
// files lie in the build folder, so that they are on a disk. Arguments: bytes of text in the message.
#include <vel/vel.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path directory = fs::path(LOG_BENCH_DIRECTORY) / "log_bench_files";

class VelLog {
public:
    VelLog() : log_(0) {
        VELLib::initialize();
        log_.set_log_dir(directory.c_str());
    }
    ~VelLog() { VELLib::uninitialize(); }

    void write(int number, const char* text) { log_.log_info("", 0, "request %d: %s", number, text); }

private:
    VEL_Log log_;
};

class BareCalls {
public:
    BareCalls() : file_(::open((directory / "bare.log").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666)) {}
    ~BareCalls() { ::close(file_); }

    void write(int number, const char* text) {
        const std::time_t now = std::time(nullptr);
        std::tm local;
        ::localtime_r(&now, &local);
        char line[4096];
        const int length = std::snprintf(line, sizeof line, "[%04d-%02d-%02d %02d:%02d:%02d][INFO]request %d: %s\r\n",
                                         local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                         local.tm_min, local.tm_sec, number, text);
        struct statx status;
        ::statx(file_, "", AT_EMPTY_PATH, STATX_SIZE, &status); // fstat would make the write dearer
        const auto size = static_cast<off_t>(status.stx_size);
        if (size > 0) lock(F_WRLCK, size);
        ::lseek(file_, 0, SEEK_END);
        if (::write(file_, line, static_cast<size_t>(length)) != length) std::abort();
        if (size > 0) lock(F_UNLCK, size);
    }

private:
    void lock(short type, off_t length) {
        struct flock range {};
        range.l_type = type;
        range.l_whence = SEEK_SET;
        range.l_len = length;
        if (::fcntl(file_, F_OFD_SETLKW, &range) != 0) std::abort();
    }

    const int file_;
};

class Spdlog {
public:
    Spdlog() : log_("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>((directory / "spdlog.log").string())) {
        log_.set_formatter(std::make_unique<spdlog::pattern_formatter>("[%Y-%m-%d %H:%M:%S][INFO]%v",
                                                                       spdlog::pattern_time_type::local, "\r\n"));
        log_.flush_on(spdlog::level::info);
    }

    void write(int number, const char* text) { log_.info("request {}: {}", number, text); }

private:
    spdlog::logger log_;
};

/// Lines that are whole: the header's form, this text, CR LF.
int64_t whole_lines(const std::string& text) {
    int64_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string end = ": " + text + "\r";
        for (std::string line; std::getline(file, line);)
            count += line[0] == '[' && line.compare(20, 15, "][INFO]request ") == 0 && line.ends_with(end);
    }
    return count;
}

template <class Log>
void write_lines(benchmark::State& state) {
    fs::remove_all(directory);
    fs::create_directories(directory);
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    {
        Log log;
        int number = 0;
        for (auto _ : state) log.write(++number, text.c_str());
    }
    if (whole_lines(text) != state.iterations()) state.SkipWithError("lines are torn or missing");
    fs::remove_all(directory);
    state.SetItemsProcessed(state.iterations());
}

void lengths(benchmark::internal::Benchmark* bench) { bench->Arg(40)->Arg(1000)->UseRealTime(); }

BENCHMARK(write_lines<VelLog>)->Name("line/vel")->Apply(lengths);
BENCHMARK(write_lines<BareCalls>)->Name("line/bare")->Apply(lengths);
BENCHMARK(write_lines<Spdlog>)->Name("line/spdlog")->Apply(lengths);

} // namespace
