// Directories: creation, removal, removal of a whole tree, place of the executable.
#include <vel/os/file.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/linux/descriptor.h>
#include <vel/os/linux/error.h>

namespace vel::os {
namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool missing(const char* path) { return !path || !*path; }

uint32_t removal_error(int reason, const char* path) {
    return reason == EEXIST ? error::directory_not_empty : path_error(reason, path);
}

// Empties a tree with one descriptor open, however deep it is: it goes down by name and comes back through "..".
//
// Nothing is reached through a link: each step down refuses them, and each step up checks that it arrives in the
// directory it came from, so a tree that is moved meanwhile ends the walk instead of leading it elsewhere.
class TreeRemoval {
public:
    explicit TreeRemoval(int root) : current_(root) {}

    /// Removes everything below the root.
    uint32_t run();

private:
    struct Level {
        std::string name; // of the directory within its parent
        dev_t device;     // of the parent
        ino_t inode;
    };

    uint32_t clear_current(bool& went_down);
    uint32_t remove_entry(const char* name, bool& went_down);
    uint32_t go_down(const char* name);
    uint32_t go_up();

    Descriptor current_;
    std::vector<Level> levels_; // from below the root to the current directory
};

uint32_t TreeRemoval::run() {
    for (;;) {
        bool went_down = false;
        if (const uint32_t code = clear_current(went_down)) return code;
        if (went_down) continue;
        if (levels_.empty()) return error::none;
        if (const uint32_t code = go_up()) return code;
    }
}

uint32_t TreeRemoval::clear_current(bool& went_down) {
    const int copy = ::openat(current_.get(), ".", directory_flags);
    if (copy < 0) return system_error(errno);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(::fdopendir(copy), ::closedir);
    if (!listing) {
        const uint32_t code = system_error(errno);
        ::close(copy);
        return code;
    }
    while (!went_down) {
        errno = 0;
        const dirent* entry = ::readdir(listing.get());
        if (!entry) return errno ? system_error(errno) : error::none;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        if (const uint32_t code = remove_entry(entry->d_name, went_down)) return code;
    }
    return error::none;
}

uint32_t TreeRemoval::remove_entry(const char* name, bool& went_down) {
    if (::unlinkat(current_.get(), name, 0) == 0 || errno == ENOENT) return error::none;
    if (errno != EISDIR) return system_error(errno);
    if (::unlinkat(current_.get(), name, AT_REMOVEDIR) == 0 || errno == ENOENT) return error::none;
    if (errno != ENOTEMPTY && errno != EEXIST) return system_error(errno);
    went_down = true;
    return go_down(name);
}

uint32_t TreeRemoval::go_down(const char* name) {
    struct stat parent {};
    if (::fstat(current_.get(), &parent) != 0) return system_error(errno);
    levels_.push_back({name, parent.st_dev, parent.st_ino});
    Descriptor child(::openat(current_.get(), name, directory_flags));
    if (!child) return system_error(errno);
    current_.reset(child.release());
    return error::none;
}

uint32_t TreeRemoval::go_up() {
    Descriptor parent(::openat(current_.get(), "..", directory_flags));
    if (!parent) return system_error(errno);
    struct stat status {};
    if (::fstat(parent.get(), &status) != 0) return system_error(errno);
    const Level level = std::move(levels_.back());
    levels_.pop_back();
    if (status.st_dev != level.device || status.st_ino != level.inode) return error::sharing_violation;
    current_.reset(parent.release());
    if (::unlinkat(current_.get(), level.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return error::none;
    return errno == EEXIST ? error::directory_not_empty : system_error(errno);
}

uint32_t link_target(const char* link, std::string& target) {
    target.resize(256);
    for (;;) {
        const ssize_t length = ::readlink(link, target.data(), target.size());
        if (length < 0) return system_error(errno);
        if (static_cast<size_t>(length) < target.size()) {
            target.resize(static_cast<size_t>(length));
            return error::none;
        }
        target.resize(2 * target.size());
    }
}

} // namespace

uint32_t create_directory(const char* path) {
    if (missing(path)) return error::path_not_found;
    if (::mkdir(path, 0777) == 0) return error::none;
    return errno == EEXIST ? error::already_exists : path_error(errno, path);
}

uint32_t remove_directory(const char* path) {
    if (missing(path)) return error::path_not_found;
    return ::rmdir(path) == 0 ? error::none : removal_error(errno, path);
}

uint32_t remove_directory_tree(const char* path) try {
    const uint32_t first = remove_directory(path);
    if (first != error::directory_not_empty) return first;
    const int root = ::open(path, directory_flags);
    if (root < 0) return path_error(errno, path);
    if (const uint32_t code = TreeRemoval(root).run()) return code;
    return remove_directory(path);
} catch (const std::bad_alloc&) {
    return error::not_enough_memory;
}

uint32_t executable_directory(std::string& path) try {
    std::string executable;
    if (const uint32_t code = link_target("/proc/self/exe", executable)) return code;
    const size_t separator = executable.rfind('/');
    if (separator == std::string::npos) return error::path_not_found;
    path = executable.substr(0, separator == 0 ? 1 : separator);
    return error::none;
} catch (const std::bad_alloc&) {
    return error::not_enough_memory;
}

} // namespace vel::os
