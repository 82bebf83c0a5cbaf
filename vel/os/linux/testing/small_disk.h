// A file system with little room, for tests of what a full disk does.
#pragma once

#include <sched.h>
#include <string>
#include <sys/mount.h>

namespace vel::testing {

/// Puts an empty file system with room for `pages` of 4 KiB over a directory. The calling process alone sees it, and it
/// goes with the process. False without the right to do so.
inline bool mount_small_disk(const std::string& directory, int pages) {
    if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    const std::string size = "size=" + std::to_string(4 * pages) + "k";
    return ::mount("none", directory.c_str(), "tmpfs", 0, size.c_str()) == 0;
}

} // namespace vel::testing
