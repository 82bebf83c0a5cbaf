// What the digest client prints: one line a file in the order of the command line, a table, a progress bar.
#pragma once

#include "protocol.h"

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace digest {

/// How the results are printed.
enum class Style {
    lines, // digest, two blanks, name; then size, lines and milliseconds, each behind a tab
    quiet, // digest, two blanks, name
    table  // aligned, with a head and a sum, once all are there
};

/// Collects the results of all connections and prints them.
///
/// Threads: every call from any thread.
class Report {
public:
    Report(std::vector<std::string> names, Style style);

    size_t size() const { return names_.size(); }
    const std::string& name(size_t file) const { return names_[file]; }

    void succeeded(size_t file, const Reply& reply);

    /// Says on the standard error output what went wrong.
    void failed(size_t file, const std::string& reason);

    /// Bytes to come, and bytes that have been sent; they move the progress bar.
    void expect(uint64_t bytes);
    void sent(uint64_t bytes);

    /// Reports as failed what has no result, prints what is left and returns whether every file has its digest.
    bool finish();

private:
    struct Result {
        bool good = false;
        Reply reply;
    };

    void store(size_t file, const Result& result);
    void print_ready();
    void print_table() const;
    void draw();
    void wipe();

    const std::vector<std::string> names_;
    const Style style_;
    const bool terminal_; // the standard error output is one
    std::mutex mutex_;    // guards what follows
    std::vector<std::optional<Result>> results_;
    size_t printed_ = 0;
    uint64_t expected_ = 0;
    uint64_t sent_ = 0;
    int percent_ = -1; // what the bar shows; -1: there is none
};

} // namespace digest
