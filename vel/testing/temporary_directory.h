// A directory of its own for a test, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace vel::testing {

class TemporaryDirectory {
public:
    /// @param base  existing directory to make it in; the system's place for temporary files by default
    explicit TemporaryDirectory(const std::filesystem::path& base = std::filesystem::temp_directory_path()) {
        std::random_device numbers;
        do path_ = base / ("vel-test-" + std::to_string(numbers()));
        while (!std::filesystem::create_directory(path_));
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// Path of the directory, or of a name in it.
    std::string path() const { return path_.string(); }
    std::string path(std::string_view name) const { return (path_ / name).string(); }

    /// Writes a file and gives its path.
    std::string file(std::string_view name, std::string_view content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

private:
    std::filesystem::path path_;
};

inline std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace vel::testing
