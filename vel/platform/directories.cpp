// Directories of the library over those of the operating-system boundary.
#include <vel/platform/directories.h>

#include <cstring>
#include <new>
#include <string>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/platform/report.h>

namespace VELLib {
namespace {

namespace os = vel::os;
namespace error = vel::error;
using vel::report;

constexpr uint64_t longest_module_path = 260;

bool is_directory(const std::string& path, uint32_t& code) {
    os::FileInfo info{};
    code = os::path_info(path.c_str(), info);
    return code == error::none && info.directory;
}

// What exists is fine if it is a directory, also when another process has just made it.
uint32_t make_component(const std::string& path) {
    uint32_t code = 0;
    if (is_directory(path, code)) return error::none;
    if (code == error::none) return error::already_exists;
    if (code != error::file_not_found && code != error::path_not_found) return code;
    const uint32_t made = os::create_directory(path.c_str());
    return made == error::already_exists && is_directory(path, code) ? error::none : made;
}

uint32_t make_directories(const std::string& path) {
    uint32_t code = 0;
    if (is_directory(path, code)) return error::none;
    for (size_t start = path.find_first_not_of('/'); start != std::string::npos;) {
        const size_t end = path.find('/', start);
        if (const uint32_t failed = make_component(path.substr(0, end))) return failed;
        start = path.find_first_not_of('/', end);
    }
    return error::none;
}

} // namespace

int createdir(const char* path) try {
    std::string directory(path ? path : "");
    directory.erase(directory.find_last_not_of('/') + 1);
    return report(directory.empty() ? error::bad_path_name : make_directories(directory));
} catch (const std::bad_alloc&) {
    return report(error::not_enough_memory);
}

int deletedir(const char* path) { return report(os::remove_directory_tree(path)); }

uint64_t getmodpath(char* buffer, uint64_t length) try {
    std::string directory;
    uint32_t code = os::executable_directory(directory);
    if (code == error::none && directory.size() >= longest_module_path) code = error::name_too_long;
    if (code == error::none && length <= directory.size()) code = error::insufficient_buffer;
    if (report(code) != 0) return 0;
    std::memcpy(buffer, directory.c_str(), directory.size() + 1);
    return directory.size();
} catch (const std::bad_alloc&) {
    report(error::not_enough_memory);
    return 0;
}

} // namespace VELLib
