// What the digest client prints.
#include "report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace digest {
namespace {

constexpr uint64_t worth_a_bar = 32 << 20; // bytes
constexpr int bar_width = 40;

/// Whether people see the standard error output.
bool shown_to_people() {
    std::error_code ignored;
    const std::filesystem::path output = "/dev/stderr";
    return std::filesystem::is_character_file(output, ignored) &&
           !std::filesystem::equivalent(output, "/dev/null", ignored);
}

} // namespace

Report::Report(std::vector<std::string> names, Style style)
    : names_(std::move(names)),
      style_(style),
      terminal_(style != Style::quiet && shown_to_people()),
      results_(names_.size()) {}

void Report::succeeded(size_t file, const Reply& reply) {
    std::lock_guard guard(mutex_);
    store(file, {true, reply});
}

void Report::failed(size_t file, const std::string& reason) {
    std::lock_guard guard(mutex_);
    wipe();
    std::fprintf(stderr, "digest_client: %s: %s\n", name(file).c_str(), reason.c_str());
    store(file, {});
}

void Report::expect(uint64_t bytes) {
    std::lock_guard guard(mutex_);
    expected_ += bytes;
}

void Report::sent(uint64_t bytes) {
    std::lock_guard guard(mutex_);
    sent_ += bytes;
    if (terminal_ && expected_ >= worth_a_bar) draw();
}

bool Report::finish() {
    std::lock_guard guard(mutex_);
    wipe();
    bool all_good = true;
    for (size_t file = 0; file < results_.size(); ++file) {
        if (!results_[file]) {
            std::fprintf(stderr, "digest_client: %s: not sent\n", name(file).c_str());
            store(file, {});
        }
        all_good = all_good && results_[file]->good;
    }
    if (style_ == Style::table) print_table();
    std::fflush(stdout);
    return all_good;
}

void Report::store(size_t file, const Result& result) {
    results_[file] = result;
    if (style_ != Style::table) print_ready();
}

/// Prints the results up to the first that is missing, so that the lines come in the order of the names.
void Report::print_ready() {
    for (; printed_ < results_.size() && results_[printed_]; ++printed_) {
        const Result& result = *results_[printed_];
        if (!result.good) continue;
        wipe();
        std::printf("%s  %s", result.reply.md5.c_str(), name(printed_).c_str());
        if (style_ == Style::lines)
            std::printf("\t%" PRIu64 "\t%" PRIu64 "\t%" PRIu32, result.reply.size, result.reply.lines,
                        result.reply.milliseconds);
        std::printf("\n");
    }
}

void Report::print_table() const {
    Reply sum;
    std::printf("%-32s %14s %12s %9s  %s\n", "md5", "bytes", "lines", "ms", "file");
    for (size_t file = 0; file < results_.size(); ++file) {
        const Reply& reply = results_[file]->reply;
        std::printf("%-32s %14" PRIu64 " %12" PRIu64 " %9" PRIu32 "  %s\n",
                    results_[file]->good ? reply.md5.c_str() : "failed", reply.size, reply.lines, reply.milliseconds,
                    name(file).c_str());
        sum.size += reply.size;
        sum.lines += reply.lines;
    }
    std::printf("%-32s %14" PRIu64 " %12" PRIu64 "\n", "sum", sum.size, sum.lines);
}

void Report::draw() {
    const int percent = static_cast<int>(std::min<uint64_t>(100, sent_ * 100 / expected_));
    if (percent == percent_) return;
    percent_ = percent;
    const int filled = percent * bar_width / 100;
    std::fprintf(stderr, "\r[%s%s] %3d %%", std::string(filled, '#').c_str(),
                 std::string(bar_width - filled, '.').c_str(), percent);
}

/// Clears the bar, so that a line can take its place; the next step draws it again.
void Report::wipe() {
    if (percent_ >= 0) std::fprintf(stderr, "\r\033[K");
    percent_ = -1;
}

} // namespace digest
