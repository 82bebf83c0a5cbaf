// What a process holds at a moment: threads, descriptors, heap.
#pragma once

#include <filesystem>
#include <iterator>
#include <malloc.h>
#include <ostream>

namespace vel::testing {

struct ProcessCounts {
    size_t threads;
    size_t descriptors;
    size_t heap_bytes; // 0 under the address sanitizer, which looks for leaks itself

    static ProcessCounts now() {
        return {entries("/proc/self/task"), entries("/proc/self/fd"), ::mallinfo2().uordblks};
    }

    bool operator==(const ProcessCounts&) const = default;

    friend std::ostream& operator<<(std::ostream& out, const ProcessCounts& counts) {
        return out << counts.threads << " threads, " << counts.descriptors << " descriptors, " << counts.heap_bytes
                   << " bytes";
    }

private:
    static size_t entries(const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
};

} // namespace vel::testing
