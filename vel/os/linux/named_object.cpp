// The directory of named objects and the files in it.
#include <vel/os/linux/named_object.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>

namespace vel::os {
namespace {

constexpr const char* directory = "/dev/shm/VEL_LIB";
constexpr mode_t directory_mode = 01777; // everybody creates, only the owner removes
constexpr size_t longest_name = 200;
constexpr size_t kept_of_long_name = 140;
constexpr int most_attempts = 100; // of opening a file that others create and remove meanwhile

void append_escaped(std::string& text, std::string_view name) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                           (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-';
        if (plain) {
            text += c;
        } else {
            text += '%';
            text += digits[byte >> 4];
            text += digits[byte & 15];
        }
    }
}

// FNV-1a of 128 bits. Whoever makes two names collide gains nothing: all objects are open to everyone.
std::string digest(std::string_view text) {
    using Word = unsigned __int128;
    Word hash = (Word{0x6c62272e07bb0142} << 64) | 0x62b821756295c58d;
    const Word prime = (Word{1} << 88) | 0x13b;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * prime;
    char digits[33];
    std::snprintf(digits, sizeof digits, "%016lx%016lx", static_cast<uint64_t>(hash >> 64),
                  static_cast<uint64_t>(hash));
    return digits;
}

// A directory that is there must be a real one, and one where users cannot remove each other's files.
uint32_t check_directory() {
    struct stat info;
    if (::lstat(directory, &info) != 0) return system_error(errno);
    const bool safe = S_ISDIR(info.st_mode) && (info.st_mode & 07777) == directory_mode;
    return safe ? error::none : error::access_denied;
}

// Made under another name and renamed, so that nobody meets it before its mode is right.
uint32_t make_directory() {
    char fresh[64];
    std::snprintf(fresh, sizeof fresh, "%s.%d.%d", directory, ::getpid(), ::gettid());
    if (::mkdir(fresh, 0700) != 0 && errno != EEXIST) return system_error(errno);
    const bool made =
        ::chmod(fresh, directory_mode) == 0 && ::renameat2(AT_FDCWD, fresh, AT_FDCWD, directory, RENAME_NOREPLACE) == 0;
    const int failed = made ? 0 : errno;
    if (!made) ::rmdir(fresh);
    return made || failed == EEXIST ? check_directory() : system_error(failed);
}

uint32_t ensure_directory() {
    const uint32_t code = check_directory();
    return code == error::file_not_found ? make_directory() : code;
}

uint32_t check_file(int descriptor) {
    struct stat info;
    if (::fstat(descriptor, &info) != 0) return system_error(errno);
    return S_ISREG(info.st_mode) && info.st_nlink <= 1 ? error::none : error::access_denied;
}

// A file without a name gets its mode first and its name last; -1 with EEXIST when another one was faster.
int create_file(const std::string& path) {
    const int descriptor = ::open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor < 0) return -1;
    char self[32];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", descriptor);
    if (::fchmod(descriptor, 0666) == 0 && ::linkat(AT_FDCWD, self, AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return descriptor;
    const int failed = errno;
    ::close(descriptor);
    errno = failed;
    return -1;
}

} // namespace

std::string named_object_path(const char* kind, const char* name) {
    std::string escaped;
    append_escaped(escaped, name);
    if (escaped.size() > longest_name) escaped = escaped.substr(0, kept_of_long_name) + '-' + digest(name);
    return std::string(directory) + '/' + kind + '.' + escaped;
}

uint32_t open_named_object(const std::string& path, int& descriptor) {
    if (const uint32_t code = ensure_directory(); code != error::none) return code;
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        descriptor = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (descriptor < 0 && errno == ENOENT) {
            descriptor = create_file(path);
            if (descriptor < 0 && errno == EEXIST) continue;
        }
        if (descriptor < 0) return errno == ELOOP ? error::access_denied : system_error(errno);
        const uint32_t code = check_file(descriptor);
        if (code != error::none) ::close(descriptor);
        return code;
    }
    return error::busy;
}

} // namespace vel::os
