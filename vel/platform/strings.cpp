// The narrow string family over the runtime's functions.
#include <vel/platform/strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vel/os/error_codes.h>
#include <vel/platform/report.h>

namespace VELLib {
namespace {

char lower(char character) { return static_cast<char>(std::tolower(static_cast<unsigned char>(character))); }
char upper(char character) { return static_cast<char>(std::toupper(static_cast<unsigned char>(character))); }

uint64_t bounded_length(const char* text, uint64_t count) {
    const void* end = std::memchr(text, '\0', count);
    return end ? static_cast<uint64_t>(static_cast<const char*>(end) - text) : count;
}

template <class Integer>
char* write_digits(Integer value, char* buffer, int radix) {
    if (radix < 2 || radix > 36) {
        vel::report(vel::error::invalid_parameter);
        return nullptr;
    }
    char* const limit = buffer + CHAR_BIT * sizeof value + 1;
    const auto bits = static_cast<std::make_unsigned_t<Integer>>(value);
    const std::to_chars_result result =
        radix == 10 ? std::to_chars(buffer, limit, value) : std::to_chars(buffer, limit, bits, radix);
    *result.ptr = '\0';
    return buffer;
}

} // namespace

uint64_t tstrlen(const char* text) { return std::strlen(text); }

char* tstrcpy(char* target, const char* text) {
    std::memcpy(target, text, std::strlen(text) + 1);
    return target;
}

char* tstrncpy(char* target, const char* text, uint64_t count) {
    const uint64_t length = bounded_length(text, count);
    std::memcpy(target, text, length);
    std::memset(target + length, 0, count - length);
    return target;
}

char* tstrcat(char* target, const char* text) {
    tstrcpy(target + std::strlen(target), text);
    return target;
}

char* tstrncat(char* target, const char* text, uint64_t count) {
    char* end = target + std::strlen(target);
    const uint64_t length = bounded_length(text, count);
    std::memcpy(end, text, length);
    end[length] = '\0';
    return target;
}

int tstrcmp(const char* a, const char* b) { return std::strcmp(a, b); }
int tstrncmp(const char* a, const char* b, uint64_t count) { return std::strncmp(a, b, count); }
int tstricmp(const char* a, const char* b) { return tstrnicmp(a, b, UINT64_MAX); }

int tstrnicmp(const char* a, const char* b, uint64_t count) {
    for (; count > 0; ++a, ++b, --count) {
        const auto left = static_cast<unsigned char>(lower(*a));
        const auto right = static_cast<unsigned char>(lower(*b));
        if (left != right || left == 0) return left - right;
    }
    return 0;
}

const char* tstrchr(const char* text, int character) { return std::strchr(text, character); }
char* tstrchr(char* text, int character) { return std::strchr(text, character); }
const char* tstrrchr(const char* text, int character) { return std::strrchr(text, character); }
char* tstrrchr(char* text, int character) { return std::strrchr(text, character); }
const char* tstrstr(const char* text, const char* pattern) { return std::strstr(text, pattern); }
char* tstrstr(char* text, const char* pattern) { return std::strstr(text, pattern); }
const char* tstrpbrk(const char* text, const char* set) { return std::strpbrk(text, set); }
char* tstrpbrk(char* text, const char* set) { return std::strpbrk(text, set); }
uint64_t tstrspn(const char* text, const char* set) { return std::strspn(text, set); }
uint64_t tstrcspn(const char* text, const char* set) { return std::strcspn(text, set); }

char* tstrtok(char* text, const char* delimiters) {
    thread_local char* rest = nullptr;
    char* token = text ? text : rest;
    if (!token) return nullptr;
    token += std::strspn(token, delimiters);
    rest = token + std::strcspn(token, delimiters);
    if (rest == token) {
        rest = nullptr;
        return nullptr;
    }
    if (*rest != '\0') *rest++ = '\0';
    return token;
}

char* tstrlwr(char* text) {
    std::transform(text, text + std::strlen(text), text, lower);
    return text;
}

char* tstrupr(char* text) {
    std::transform(text, text + std::strlen(text), text, upper);
    return text;
}

char* tstrrev(char* text) {
    std::reverse(text, text + std::strlen(text));
    return text;
}

char* tstrset(char* text, int character) { return tstrnset(text, character, UINT64_MAX); }

char* tstrnset(char* text, int character, uint64_t count) {
    std::memset(text, character, std::min<uint64_t>(count, std::strlen(text)));
    return text;
}

// The caller's compiler checks the format; here it is no literal any more.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
uint64_t tstrftime(char* buffer, uint64_t size, const char* format, const std::tm* time) {
    return std::strftime(buffer, size, format, time);
}
#pragma GCC diagnostic pop

int tatoi(const char* text) {
    return static_cast<int>(std::clamp<int64_t>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

int64_t tatoi64(const char* text) { return std::strtoll(text, nullptr, 10); }
double tatof(const char* text) { return std::strtod(text, nullptr); }

char* itota(int value, char* buffer, int radix) { return write_digits(value, buffer, radix); }
char* i64tota(int64_t value, char* buffer, int radix) { return write_digits(value, buffer, radix); }

int tsprintf(char* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = tvsprintf(buffer, format, arguments);
    va_end(arguments);
    return length;
}

// The bound is the longest result there can be: the room is the caller's promise.
int tvsprintf(char* buffer, const char* format, va_list arguments) {
    return std::max(std::vsnprintf(buffer, INT_MAX, format, arguments), -1);
}

int tstrfind(const char* text, const char* pattern) {
    if (!text || !pattern || *text == '\0') return -1;
    const char* place = std::strstr(text, pattern);
    return place ? static_cast<int>(place - text) : -1;
}

} // namespace VELLib
