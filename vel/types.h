// Plain records, opaque handles and the export macro that every public header may use.
#pragma once

#include <cstddef>
#include <cstdint>

#define VEL_API __attribute__((visibility("default")))

/// Calendar time. The day of the week (0 = Sunday) stands third in memory, before the day of the month.
struct SYSTEMTIME {
    uint16_t wYear;
    uint16_t wMonth; // 1 to 12
    uint16_t wDayOfWeek;
    uint16_t wDay;
    uint16_t wHour;
    uint16_t wMinute;
    uint16_t wSecond;
    uint16_t wMilliseconds;
};

/// 100-nanosecond ticks since 1601-01-01, low half first.
struct FILETIME {
    uint32_t dwLowDateTime;
    uint32_t dwHighDateTime;
};

/// One request that may finish later, with the file position it starts at.
///
/// Internal is the error code once the request has finished, InternalHigh the bytes it moved; both belong to the
/// library while the request is pending. hEvent, when not null, is an event that is set at completion.
struct OVERLAPPED {
    uint64_t Internal;
    uint64_t InternalHigh;
    uint32_t Offset;
    uint32_t OffsetHigh;
    void* hEvent;
};

/// A message window: a message queue with a pollable descriptor. Opaque to its users.
using HWND = struct VEL_Window*;

/// The socket handle that stands for "none".
inline constexpr uint64_t VEL_INVALID_SOCKET = ~uint64_t{0};

/// The file handle that stands for "none". Null is never a file either.
inline void* const VEL_INVALID_HANDLE = reinterpret_cast<void*>(~uintptr_t{0});

/// The time-out that never ends, in milliseconds.
inline constexpr uint32_t VEL_INFINITE = 0xFFFFFFFF;

namespace vel {

/// A pending request of a completion port: the public record first, then what the port keeps until it completes.
/// Only the port reads or writes the members below the base; they are no part of any format.
struct IoRequest : OVERLAPPED {
    IoRequest* next;                   // neighbour in the handle's queue or the port's ready queue
    void* buffer;                      // what is to be filled or sent; memory of the starter
    uint64_t length;                   // bytes of `buffer`
    void* address;                     // 16-byte socket address to fill, or to send or connect to
    int32_t* address_length;           // where the length of a filled `address` goes
    void* local_address;               // 16-byte local address to fill (accept)
    uint64_t accept_socket;            // the socket an accept completes into
    uint32_t accept_socket_generation; // tells it from a later one with the same handle
    uint32_t handle_generation;        // the same of the handle that it is aimed at; 0 for whichever has the number
    uint32_t key;                      // completion key of the handle when the request was started
    int32_t address_size;              // bytes of an `address` to send or connect to
    uint8_t kind;                      // what to do; the port's own enumeration
};

} // namespace vel
