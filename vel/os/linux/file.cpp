// Files by handle: open, transfer, position and size.
#include <vel/os/file.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/descriptor.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/file_object.h>
#include <vel/os/socket.h>

namespace vel::os {
namespace {

constexpr uint64_t largest_step = uint64_t{1} << 30;

int open_flags(FileOpen how, const FileOptions& options) {
    int flags = how == FileOpen::open_read ? O_RDONLY : O_RDWR;
    if (how == FileOpen::create_new) flags |= O_CREAT | O_EXCL;
    if (how == FileOpen::create_always) flags |= O_CREAT | O_TRUNC;
    if (how == FileOpen::open_always) flags |= O_CREAT;
    if (options.append) flags |= O_APPEND;
    if (options.write_through) flags |= O_DSYNC;
    if (options.plain_only) flags |= O_NOFOLLOW;
    return flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // a pipe without its other end does not hold us up
}

// Looks at what was opened: no directories, nothing special where only plain files are wanted, and transfers block.
uint32_t check_opened(int descriptor, const FileOptions& options) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return system_error(errno);
    if (S_ISREG(status.st_mode)) return error::none;
    if (S_ISDIR(status.st_mode) || options.plain_only) return error::access_denied;
    const int flags = ::fcntl(descriptor, F_GETFL);
    return ::fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0 ? error::none : system_error(errno);
}

uint32_t mark_read_only(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return system_error(errno);
    return ::fchmod(descriptor, status.st_mode & 07555) == 0 ? error::none : system_error(errno);
}

bool creates(FileOpen how) { return how == FileOpen::create_new || how == FileOpen::create_always; }

uint32_t prepare(int descriptor, FileOpen how, const FileOptions& options) {
    if (const uint32_t code = check_opened(descriptor, options)) return code;
    return options.read_only && creates(how) ? mark_read_only(descriptor) : error::none;
}

// One transfer, begun again when a signal cut in before the first byte.
template <class Transfer>
uint32_t move_bytes(void* file, uint64_t& moved, Transfer transfer) {
    moved = 0;
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    const ssize_t count = uninterrupted([&] { return transfer(object->descriptor()); });
    if (count < 0) return errno == EBADF ? error::access_denied : system_error(errno); // opened for the other direction
    moved = static_cast<uint64_t>(count);
    return error::none;
}

uint64_t to_socket(void* file) { return reinterpret_cast<uintptr_t>(file); }

} // namespace

// The name is looked up through the descriptor, so a file that was renamed since still goes and another one under
// the old name stays.
FileObject::~FileObject() {
    if (!delete_on_close_) return;
    char link[32];
    char path[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor());
    const ssize_t length = ::readlink(link, path, sizeof path - 1);
    if (length < 0) return;
    path[length] = '\0';
    struct stat opened {
    }, named{};
    if (::fstat(descriptor(), &opened) != 0 || ::lstat(path, &named) != 0) return;
    if (opened.st_dev == named.st_dev && opened.st_ino == named.st_ino) ::unlink(path);
}

uint32_t open_file(const char* path, FileOpen how, void*& file, const FileOptions& options) {
    if (!path || !*path) return error::path_not_found;
    Descriptor opened(uninterrupted([&] { return ::open(path, open_flags(how, options), 0666); }));
    if (!opened) return path_error(errno, path);
    if (const uint32_t code = prepare(opened.get(), how, options)) return code;
    const bool writable = how != FileOpen::open_read;
    std::unique_ptr<FileObject> object(new (std::nothrow) FileObject(writable, options.delete_on_close));
    if (!object || !object->port_binding()) return error::not_enough_memory;
    void* handle = HandleTable::insert(opened.release(), HandleKind::file, std::move(object));
    if (!handle) return error::too_many_open_files;
    file = handle;
    return error::none;
}

uint32_t read_file(void* file, void* buffer, uint64_t size, uint64_t& moved) {
    if (is_socket(to_socket(file))) return receive(to_socket(file), buffer, std::min(size, largest_step), moved);
    return move_bytes(file, moved,
                      [=](int descriptor) { return ::read(descriptor, buffer, std::min(size, largest_step)); });
}

uint32_t write_file(void* file, const void* data, uint64_t size, uint64_t& moved) {
    if (is_socket(to_socket(file))) return send(to_socket(file), data, std::min(size, largest_step), moved);
    return move_bytes(file, moved,
                      [=](int descriptor) { return ::write(descriptor, data, std::min(size, largest_step)); });
}

uint32_t read_file_at(void* file, void* buffer, uint64_t size, uint64_t offset, uint64_t& moved) {
    return move_bytes(file, moved, [=](int descriptor) {
        return ::pread(descriptor, buffer, std::min(size, largest_step), static_cast<off_t>(offset));
    });
}

uint32_t write_file_at(void* file, const void* data, uint64_t size, uint64_t offset, uint64_t& moved) {
    return move_bytes(file, moved, [=](int descriptor) {
        return ::pwrite(descriptor, data, std::min(size, largest_step), static_cast<off_t>(offset));
    });
}

uint32_t seek_file(void* file, int64_t offset, uint32_t whence, int64_t& position) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    constexpr int origins[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (whence >= std::size(origins)) return error::invalid_parameter;
    const off_t reached = ::lseek(object->descriptor(), offset, origins[whence]);
    if (reached < 0) return system_error(errno);
    position = reached;
    return error::none;
}

uint32_t file_size(void* file, uint64_t& size) {
    FileState state{};
    if (const uint32_t code = file_state(file, state)) return code;
    size = state.size;
    return error::none;
}

// Not by fstat: a file whose times were asked for pays at its next write for times that differ from those told, on ext4
// as much as the write itself costs.
uint32_t file_state(void* file, FileState& state) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    struct statx status {};
    if (::statx(object->descriptor(), "", AT_EMPTY_PATH, STATX_SIZE | STATX_NLINK, &status) != 0)
        return system_error(errno);
    const bool names_known = (status.stx_mask & STATX_NLINK) != 0;
    state = {status.stx_size, names_known ? status.stx_nlink : 1};
    return error::none;
}

uint32_t set_file_size(void* file, uint64_t size) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    if (!object->writable()) return error::access_denied;
    if (size > INT64_MAX) return error::file_too_large;
    const auto wanted = static_cast<off_t>(size);
    return uninterrupted([&] { return ::ftruncate(object->descriptor(), wanted); }) == 0 ? error::none
                                                                                         : system_error(errno);
}

} // namespace vel::os
