// The table from errno to system and socket codes.
#include <vel/os/linux/error.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <sys/stat.h>
#include <vel/os/error_codes.h>

namespace vel::os {
namespace {

struct Row {
    int number;
    uint16_t system; // 0: only sockets have a code
    uint16_t socket; // 0: only files have a code
};

constexpr Row rows[] = {
    {EPERM, 5, 10013},
    {EACCES, 5, 10013},
    {ENOENT, 2, 0},
    {ENOTDIR, 3, 0},
    {EEXIST, 80, 0},
    {EISDIR, 5, 0},
    {ENOTEMPTY, 145, 0},
    {EXDEV, 17, 0},
    {ENOSPC, 112, 10055},
    {EDQUOT, 112, 10055},
    {EFBIG, 223, 10055},
    {EROFS, 19, 0},
    {EMFILE, 4, 10024},
    {ENFILE, 4, 10024},
    {ENOMEM, 8, 10055},
    {ENOBUFS, 1450, 10055},
    {EINVAL, 87, 10022},
    {EBADF, 6, 10038},
    {EFAULT, 998, 10014},
    {ENAMETOOLONG, 206, 10063},
    {ELOOP, 1921, 10062},
    {EBUSY, 170, 0},
    {ETXTBSY, 32, 0},
    {EAGAIN, 1450, 10035},
    {EIO, 1117, 0},
    {EOVERFLOW, 534, 0},
    {ENOSYS, 50, 50},
    {EMSGSIZE, 0, 10040},
    {EPROTOTYPE, 0, 10041},
    {ENOPROTOOPT, 0, 10042},
    {EPROTONOSUPPORT, 0, 10043},
    {ESOCKTNOSUPPORT, 0, 10044},
    {EOPNOTSUPP, 50, 10045},
    {EPFNOSUPPORT, 0, 10046},
    {EAFNOSUPPORT, 0, 10047},
    {EADDRINUSE, 0, 10048},
    {EADDRNOTAVAIL, 0, 10049},
    {ENETDOWN, 0, 10050},
    {ENETUNREACH, 0, 10051},
    {ENETRESET, 0, 10052},
    {ECONNABORTED, 0, 10053},
    {ECONNRESET, 0, 10054},
    {EISCONN, 0, 10056},
    {ENOTCONN, 0, 10057},
    {ESHUTDOWN, 0, 10058},
    {ETIMEDOUT, 258, 10060},
    {ECONNREFUSED, 0, 10061},
    {EHOSTDOWN, 0, 10064},
    {EHOSTUNREACH, 0, 10065},
    {ENOTSOCK, 0, 10038},
    {EDESTADDRREQ, 0, 10039},
    {EALREADY, 0, 10037},
    {EINPROGRESS, 0, 10036},
    {EPIPE, 109, 10058},
    {ECANCELED, 995, 995},
    {EDEADLK, 1131, 0},
    {ENXIO, 20, 0},
    {ENODEV, 20, 0},
    {ESRCH, 87, 0},
};

struct Codes {
    uint16_t system = 0;
    uint16_t socket = 0;
};

constexpr int table_size = 134;

// Indexed by errno: a non-blocking call that would block comes through here on the common way.
constexpr std::array<Codes, table_size> make_table() {
    std::array<Codes, table_size> table{};
    for (const Row& row : rows) {
        Codes& codes = table[static_cast<size_t>(row.number)];
        codes.system = row.system ? row.system : row.socket;
        codes.socket = row.socket ? row.socket : row.system;
    }
    return table;
}

constexpr std::array<Codes, table_size> table = make_table();

Codes codes_of(int error) {
    if (error < 0 || error >= table_size) return {};
    return table[static_cast<size_t>(error)];
}

// A path too long for the buffer never came back as missing.
bool parent_exists(const char* path) {
    const std::string_view text(path);
    const size_t slash = text.find_last_of('/', text.find_last_not_of('/'));
    char parent[PATH_MAX];
    if (slash == std::string_view::npos || slash == 0 || slash >= sizeof parent) return true;
    parent[text.copy(parent, slash)] = '\0';
    struct stat info;
    return ::stat(parent, &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

uint32_t system_error(int error) {
    const uint32_t code = codes_of(error).system;
    return code ? code : error::errno_bit + static_cast<uint32_t>(error);
}

uint32_t socket_error(int error) {
    const uint32_t code = codes_of(error).socket;
    return code ? code : error::errno_bit + static_cast<uint32_t>(error);
}

uint32_t path_error(int error, const char* path) {
    if (error == ENOENT && !parent_exists(path)) return error::path_not_found;
    return system_error(error);
}

} // namespace vel::os
