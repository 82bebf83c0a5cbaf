// The narrow string family: the runtime's string functions under uniform names.
#pragma once

#include <cstdarg>
#include <ctime>
#include <vel/types.h>

/// Threads:  every call from any thread; `tstrtok` keeps its position per thread.
/// Errors:   none but those named; pointers must not be null unless a function says so.
/// Limits:   characters are bytes. Lower and upper case go by the process's locale, byte by byte; in the C locale,
///           and for UTF-8, only a to z change.
namespace VELLib {

VEL_API uint64_t tstrlen(const char* text);

/// The target must hold the whole result with its NUL. `tstrncpy` pads with NULs and writes none when `text` is
/// `count` characters or longer; `tstrncat` always ends with one. Each returns `target`.
VEL_API char* tstrcpy(char* target, const char* text);
VEL_API char* tstrncpy(char* target, const char* text, uint64_t count);
VEL_API char* tstrcat(char* target, const char* text);
VEL_API char* tstrncat(char* target, const char* text, uint64_t count);

/// Below, equal to or above 0, as `a` stands to `b`; `i` ignores case.
VEL_API int tstrcmp(const char* a, const char* b);
VEL_API int tstrncmp(const char* a, const char* b, uint64_t count);
VEL_API int tstricmp(const char* a, const char* b);
VEL_API int tstrnicmp(const char* a, const char* b, uint64_t count);

/// First or last place of a character (the NUL counts), a text or one of a set; null when there is none.
VEL_API const char* tstrchr(const char* text, int character);
VEL_API char* tstrchr(char* text, int character);
VEL_API const char* tstrrchr(const char* text, int character);
VEL_API char* tstrrchr(char* text, int character);
VEL_API const char* tstrstr(const char* text, const char* pattern);
VEL_API char* tstrstr(char* text, const char* pattern);
VEL_API const char* tstrpbrk(const char* text, const char* set);
VEL_API char* tstrpbrk(char* text, const char* set);

/// Length of the start of `text` that is made only of, or holds none of, the characters of `set`.
VEL_API uint64_t tstrspn(const char* text, const char* set);
VEL_API uint64_t tstrcspn(const char* text, const char* set);

/// Next token; null `text` goes on where this thread's last call stopped. Writes NULs into the text.
VEL_API char* tstrtok(char* text, const char* delimiters);

/// Change the text in place and return it: case, order, every character, at most `count` characters.
VEL_API char* tstrlwr(char* text);
VEL_API char* tstrupr(char* text);
VEL_API char* tstrrev(char* text);
VEL_API char* tstrset(char* text, int character);
VEL_API char* tstrnset(char* text, int character, uint64_t count);

/// Characters written without the NUL; 0 when they do not fit `size` bytes.
VEL_API uint64_t tstrftime(char* buffer, uint64_t size, const char* format, const std::tm* time)
    __attribute__((format(strftime, 3, 0)));

/// Leading number of the text, 0 when there is none; out of range gives the nearest limit.
VEL_API int tatoi(const char* text);
VEL_API int64_t tatoi64(const char* text);
VEL_API double tatof(const char* text);

/// Digits of a number in base `radix` (2 to 36, else null with 87), lower case. Only base 10 writes a sign: other
/// bases show the bits. The buffer holds up to 33 or 65 characters with the NUL. Return `buffer`.
VEL_API char* itota(int value, char* buffer, int radix);
VEL_API char* i64tota(int64_t value, char* buffer, int radix);

/// Format without a bound: the buffer must hold the result. Return the characters written without the NUL, or -1.
VEL_API int tsprintf(char* buffer, const char* format, ...) __attribute__((format(printf, 2, 3)));
VEL_API int tvsprintf(char* buffer, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

/// Index of the first occurrence of `pattern`, or -1; also -1 for an empty or null `text` or a null `pattern`.
VEL_API int tstrfind(const char* text, const char* pattern);

} // namespace VELLib
