// Daily log files: from a line's text to the end of its day's file.
#include <vel/log/log.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>
#include <vel/frame/exception.h>
#include <vel/memory/malloc.h>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/platform/directories.h>
#include <vel/platform/report.h>
#include <vel/platform/times.h>
#include <vel/sync/guard.h>

namespace vel {
namespace {

constexpr size_t line_buffer_size = 32769;
constexpr std::string_view line_end = "\r\n";
constexpr size_t text_room = line_buffer_size - line_end.size() - 1; // of header and message together
constexpr uint64_t module_path_size = 260;

/// The memory of one line. It is not cleared: nobody looks behind the line's end.
class LineBuffer {
public:
    LineBuffer() : bytes_(static_cast<char*>(VELLib::malloc(line_buffer_size, false))) {}
    ~LineBuffer() {
        if (bytes_) VELLib::free(bytes_);
    }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    char* bytes() const { return bytes_; }

private:
    char* const bytes_;
};

// Time and tag by hand: with snprintf a line takes 130 ns more, 4 % of all.
char* put_text(char* place, std::string_view text) { return place + text.copy(place, text.size()); }

// @param least  10 or 1000: the smallest number that needs no zeros before it
char* put_number(char* place, uint32_t number, uint32_t least) {
    for (; least > 1 && number < least; least /= 10) *place++ = '0';
    return std::to_chars(place, place + 5, number).ptr;
}

char* put_time(char* place, const SYSTEMTIME& time) {
    const uint16_t numbers[] = {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond};
    *place++ = '[';
    for (size_t i = 0; i < std::size(numbers); ++i) {
        place = put_number(place, numbers[i], i == 0 ? 1000 : 10);
        *place++ = "-- ::]"[i];
    }
    return place;
}

std::string_view tag(uint32_t kind) {
    if (kind == 1) return "[WARNING]";
    return kind == 2 ? "[ERROR]" : "[INFO]";
}

const char* source_name(const char* path) {
    if (!path) return "";
    const char* separator = std::strrchr(path, '\\');
    return separator ? separator + 1 : path;
}

bool same_day(const SYSTEMTIME& a, const SYSTEMTIME& b) {
    return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDay == b.wDay;
}

std::string month_directory(const char* dir, const SYSTEMTIME& time) {
    char month[24];
    std::snprintf(month, sizeof month, "/Log%04d%02d", time.wYear, time.wMonth);
    return std::string(dir) + month;
}

std::string day_file(const std::string& directory, const SYSTEMTIME& time) {
    char day[32];
    std::snprintf(day, sizeof day, "/log_%04d%02d%02d.log", time.wYear, time.wMonth, time.wDay);
    return directory + day;
}

/// Null without memory.
std::unique_ptr<char[]> copy_text(std::string_view text) {
    std::unique_ptr<char[]> copy(new (std::nothrow) char[text.size() + 1]);
    if (!copy) return nullptr;
    text.copy(copy.get(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

std::unique_ptr<char[]> copy_or_throw(std::string_view text) {
    std::unique_ptr<char[]> copy = copy_text(text);
    if (!copy) VEL_Exception::ThrowException(error::not_enough_memory);
    return copy;
}

// Ends the piece of a line that a process left when it was killed, so that the next line does not continue it.
uint32_t end_piece(void* file, uint64_t& end) {
    char last = '\n';
    uint64_t moved = 0;
    if (const uint32_t code = os::read_file_at(file, &last, 1, end - 1, moved)) return code;
    if (last == '\n') return error::none;
    const uint32_t code = os::write_file(file, line_end.data(), line_end.size(), moved);
    end += moved;
    return code;
}

// Takes back what a full disk let through of a line; what somebody without the lock put behind it stays.
void cut_piece(void* file, uint64_t begin, uint64_t length) {
    uint64_t size = 0;
    if (os::file_size(file, size) == error::none && size == begin + length) os::set_file_size(file, begin);
}

// @param own_end  where this logger's last line ended; what stands behind it is looked at first
uint32_t write_at_end(void* file, std::string_view line, uint64_t& own_end) {
    int64_t position = 0;
    if (const uint32_t code = os::seek_file(file, 0, 2, position)) return code;
    auto end = static_cast<uint64_t>(position);
    if (end > 0 && end != own_end && line.ends_with('\n'))
        if (const uint32_t code = end_piece(file, end)) return code;
    uint64_t moved = 0;
    if (const uint32_t code = os::write_file(file, line.data(), line.size(), moved)) return code;
    if (moved < line.size()) {
        cut_piece(file, end, moved);
        return error::disk_full;
    }
    own_end = end + moved;
    return error::none;
}

// The lock covers the bytes that are there, not the place where the line goes: it is the first byte that orders the
// writers. A file that is still empty is locked as if it had that byte, or its first lines could tear each other.
uint32_t append(void* file, uint64_t size, std::string_view line, uint64_t& own_end) {
    const uint64_t locked = std::max<uint64_t>(size, 1);
    if (const uint32_t code = os::lock_range(file, 0, locked, true)) return code;
    const uint32_t code = write_at_end(file, line, own_end);
    os::unlock_range(file, 0, locked);
    return code;
}

} // namespace
} // namespace vel

namespace os = vel::os;
namespace error = vel::error;

VEL_Log::VEL_Log(uint32_t level) : level_(level) {}

VEL_Log::VEL_Log(const VEL_Log& other) : VEL_Log(other.get_level()) {
    const VEL_Guard guard(other.mutex_);
    if (other.dir_) dir_ = vel::copy_or_throw(other.dir_.get());
    if (other.file_ != VEL_INVALID_HANDLE && os::share_handle(other.file_) == error::none) file_ = other.file_;
    opened_ = other.opened_;
    end_ = other.end_;
}

VEL_Log& VEL_Log::operator=(const VEL_Log& other) {
    VEL_Log copy(other);
    const VEL_Guard guard(mutex_), copy_guard(copy.mutex_);
    set_level(copy.get_level());
    std::swap(dir_, copy.dir_);
    std::swap(file_, copy.file_);
    std::swap(opened_, copy.opened_);
    std::swap(end_, copy.end_);
    return *this;
}

VEL_Log::~VEL_Log() { close_file(); }

int VEL_Log::handle_log_output(const char*) { return 0; }

void VEL_Log::log(uint32_t kind, const char* file, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(kind, file, line, format, arguments);
    va_end(arguments);
}

void VEL_Log::log_info(const char* file, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(0, file, line, format, arguments);
    va_end(arguments);
}

void VEL_Log::log_warning(const char* file, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(1, file, line, format, arguments);
    va_end(arguments);
}

void VEL_Log::log_error(const char* file, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(2, file, line, format, arguments);
    va_end(arguments);
}

void VEL_Log::set_log_dir(const char* dir) {
    std::unique_ptr<char[]> copy;
    if (dir) {
        std::string_view text(dir);
        if (!text.empty() && text.back() == '/') text.remove_suffix(1);
        copy = vel::copy_or_throw(text);
    }
    const VEL_Guard guard(mutex_);
    dir_ = std::move(copy);
    close_file();
}

std::string VEL_Log::get_log_dir() try {
    const VEL_Guard guard(mutex_);
    const char* dir = get_log_dir_internal();
    return dir ? dir : "";
} catch (const std::bad_alloc&) {
    vel::report(error::not_enough_memory);
    return {};
}

char* VEL_Log::make_log_header(const SYSTEMTIME& time, char* buffer, uint32_t kind, uint32_t level, const char* file,
                               int line) {
    char* end = vel::put_text(vel::put_time(buffer, time), vel::tag(kind));
    *end = '\0';
    if (level != 1) return end;
    const auto room = static_cast<size_t>(buffer + vel::text_room + 1 - end);
    const int length = std::snprintf(end, room, "[%s][%d line]", vel::source_name(file), line);
    return end + std::min(static_cast<size_t>(std::max(length, 0)), room - 1);
}

void VEL_Log::log_file(const SYSTEMTIME& time, const char* line) {
    if (handle_log_output(line) < 0) return;
    const VEL_Guard guard(mutex_);
    void* file = open(time);
    os::FileState state{};
    uint32_t code = os::file_state(file, state);
    if (code == error::none && state.names == 0) { // deleted meanwhile: what is written there is lost
        close_file();
        file = open(time);
        code = os::file_state(file, state);
    }
    if (code == error::none) code = vel::append(file, state.size, line, end_);
    if (code != error::none) close_file(); // the next line opens it again
}

void VEL_Log::write_line(uint32_t kind, const char* file, int line, const char* format, va_list arguments) {
    const vel::LineBuffer buffer;
    if (!buffer.bytes()) return;
    SYSTEMTIME now{}; // one for the header and the choice of the file
    VELLib::getcurtime(&now);
    char* text = make_log_header(now, buffer.bytes(), kind, get_level(), file, line);
    // The end is looked for, since the result does not tell it: of a message that was cut, that holds a NUL, or that
    // stopped at a character the locale cannot show.
    std::vsnprintf(text, static_cast<size_t>(buffer.bytes() + vel::text_room + 1 - text), format, arguments);
    std::memcpy(text + std::strlen(text), vel::line_end.data(), vel::line_end.size() + 1);
    log_file(now, buffer.bytes());
}

void* VEL_Log::open(const SYSTEMTIME& time) try {
    if (file_ != VEL_INVALID_HANDLE && vel::same_day(opened_, time)) return file_;
    close_file();
    const char* dir = get_log_dir_internal();
    if (!dir) return VEL_INVALID_HANDLE;
    const std::string month = vel::month_directory(dir, time);
    if (VELLib::createdir(month.c_str()) != 0) return VEL_INVALID_HANDLE;
    os::FileOptions options;
    options.append = true; // the place of a line is never a question of who looked first
    const std::string path = vel::day_file(month, time);
    if (vel::report(os::open_file(path.c_str(), os::FileOpen::open_always, file_, options)) != 0)
        return VEL_INVALID_HANDLE;
    opened_ = time;
    end_ = 0;
    return file_;
} catch (const std::bad_alloc&) {
    vel::report(error::not_enough_memory);
    return VEL_INVALID_HANDLE;
}

const char* VEL_Log::get_log_dir_internal() {
    if (dir_) return dir_.get();
    char path[vel::module_path_size];
    const uint64_t length = VELLib::getmodpath(path, sizeof path);
    if (length == 0) return nullptr;
    dir_ = vel::copy_text({path, length});
    if (!dir_) vel::report(error::not_enough_memory);
    return dir_.get();
}

void VEL_Log::close_file() {
    if (file_ != VEL_INVALID_HANDLE) os::close_handle(std::exchange(file_, VEL_INVALID_HANDLE));
}
