// Files by path: what they are, removal, copy and move.
#include <vel/os/file.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/descriptor.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/file_times.h>
#include <vel/os/text.h>

namespace vel::os {
namespace {

constexpr uint64_t copy_step = uint64_t{1} << 20;

bool missing(const char* path) { return !path || !*path; }

// The copy while it grows: it goes again unless it is put in place.
class Temporary {
public:
    ~Temporary() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }

    uint32_t create_beside(const std::string& target);
    uint32_t put_in_place(const char* target);
    int descriptor() const { return descriptor_.get(); }

private:
    Descriptor descriptor_{-1};
    std::string path_;
};

uint32_t Temporary::create_beside(const std::string& target) {
    const std::string directory = target.substr(0, target.rfind('/') + 1);
    do {
        uint64_t number;
        if (const uint32_t code = random_bytes(&number, sizeof number)) return code;
        char name[40];
        std::snprintf(name, sizeof name, ".vel-%016lx.tmp", number);
        const std::string path = directory + name;
        descriptor_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (descriptor_) path_ = path;
    } while (!descriptor_ && (errno == EEXIST || errno == EINTR));
    return descriptor_ ? error::none : path_error(errno, target.c_str());
}

uint32_t Temporary::put_in_place(const char* target) {
    if (::rename(path_.c_str(), target) != 0) return path_error(errno, target);
    path_.clear();
    return error::none;
}

// Moves a block through a buffer; 0 in `moved` is the end.
uint32_t copy_block(int from, int to, std::string& buffer, uint64_t& moved) {
    buffer.resize(copy_step);
    const ssize_t count = uninterrupted([&] { return ::read(from, buffer.data(), buffer.size()); });
    if (count < 0) return system_error(errno);
    moved = static_cast<uint64_t>(count);
    for (uint64_t done = 0; done < moved;) {
        const ssize_t written = uninterrupted([&] { return ::write(to, buffer.data() + done, moved - done); });
        if (written < 0) return system_error(errno);
        done += static_cast<uint64_t>(written);
    }
    return error::none;
}

// The kernel copies what it can by itself; what it cannot, or claims to be empty, goes through a buffer.
uint32_t copy_content(int from, int to) {
    ssize_t count;
    do {
        count = uninterrupted([&] { return ::copy_file_range(from, nullptr, to, nullptr, uint64_t{1} << 30, 0); });
    } while (count > 0);
    if (count < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG || errno == EIO)) return system_error(errno);
    std::string buffer;
    uint64_t moved = 0;
    do {
        if (const uint32_t code = copy_block(from, to, buffer, moved)) return code;
    } while (moved > 0);
    return error::none;
}

uint32_t copy_created(int from, int to) {
    FileTimes times{};
    if (const uint32_t code = read_times(from, times)) return code;
    return write_created(to, times.created);
}

// The write time after the content, which changes it; the permissions last, since they may forbid the rest.
uint32_t copy_status(int from, int to, bool keep_created) {
    struct stat source {};
    if (::fstat(from, &source) != 0) return system_error(errno);
    if (keep_created)
        if (const uint32_t code = copy_created(from, to)) return code;
    const timespec times[] = {{0, UTIME_OMIT}, source.st_mtim};
    if (::futimens(to, times) != 0) return system_error(errno);
    return ::fchmod(to, source.st_mode & 0777) == 0 ? error::none : system_error(errno);
}

uint32_t check_kinds(int from, const char* to) {
    struct stat source {
    }, target{};
    if (::fstat(from, &source) != 0) return system_error(errno);
    if (!S_ISREG(source.st_mode)) return error::access_denied;
    return ::stat(to, &target) == 0 && S_ISDIR(target.st_mode) ? error::access_denied : error::none;
}

uint32_t copy(const char* from, const char* to, bool keep_created) try {
    if (missing(from) || missing(to)) return error::path_not_found;
    const Descriptor source(uninterrupted([&] { return ::open(from, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); }));
    if (!source) return path_error(errno, from);
    if (const uint32_t code = check_kinds(source.get(), to)) return code;
    Temporary target;
    if (const uint32_t code = target.create_beside(to)) return code;
    if (const uint32_t code = copy_content(source.get(), target.descriptor())) return code;
    if (const uint32_t code = copy_status(source.get(), target.descriptor(), keep_created)) return code;
    return target.put_in_place(to);
} catch (const std::bad_alloc&) {
    return error::not_enough_memory;
}

uint32_t move_across_devices(const char* from, const char* to) {
    if (const uint32_t code = copy(from, to, true)) return code;
    return delete_file(from);
}

} // namespace

uint32_t path_info(const char* path, FileInfo& info) {
    if (missing(path)) return error::path_not_found;
    struct stat status {};
    if (::stat(path, &status) != 0) return path_error(errno, path);
    info.directory = S_ISDIR(status.st_mode);
    info.regular = S_ISREG(status.st_mode);
    info.read_only = (status.st_mode & S_IWUSR) == 0;
    info.size = static_cast<uint64_t>(status.st_size);
    return error::none;
}

uint32_t set_read_only(const char* path, bool read_only) {
    if (missing(path)) return error::path_not_found;
    struct stat status {};
    if (::stat(path, &status) != 0) return path_error(errno, path);
    const mode_t mode = status.st_mode & 07777;
    const mode_t wanted = read_only ? mode & ~mode_t{0222} : mode | S_IWUSR;
    return wanted == mode || ::chmod(path, wanted) == 0 ? error::none : path_error(errno, path);
}

uint32_t delete_file(const char* path) {
    if (missing(path)) return error::path_not_found;
    return ::unlink(path) == 0 ? error::none : path_error(errno, path);
}

uint32_t copy_file(const char* from, const char* to) { return copy(from, to, false); }

uint32_t move_file(const char* from, const char* to) {
    if (missing(from) || missing(to)) return error::path_not_found;
    if (::rename(from, to) == 0) return error::none;
    const int reason = errno;
    if (reason == EXDEV) return move_across_devices(from, to);
    if (reason == ENOENT && ::access(from, F_OK) == 0) return error::path_not_found; // so it is the target's parent
    return path_error(reason, from);
}

uint32_t access_path(const char* path, int mode) {
    if (missing(path)) return error::path_not_found;
    if (mode & ~6) return error::invalid_parameter;
    const int wanted = (mode & 2 ? W_OK : 0) | (mode & 4 ? R_OK : 0);
    return ::faccessat(AT_FDCWD, path, wanted, AT_EACCESS) == 0 ? error::none : path_error(errno, path);
}

} // namespace vel::os
