// Base of the element streams: byte order, element sizes and the primitive operations.
#pragma once

#include <bit>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <vel/types.h>

class VEL_Bitfield;
class VEL_Byte_Block;

namespace vel {
struct ArchiveStream;
}

/// What the output and input streams have in common. An element is a 4-byte id, a 1-byte type tag, a 4-byte length and
/// that many bytes of payload, all integers big-endian; docs/formats/elements.md has the whole format.
///
/// Threads:   one at a time.
/// Errors:    every operation here sets 0x20000003 and returns -1; the derived streams override what they support, so a
///            read on an output or a write on an input fails that way.
class VEL_API VEL_CDR {
public:
    virtual ~VEL_CDR();

    /// Writes `size` raw bytes, or one value in network order. Each returns the number of bytes written.
    virtual int write(const void* data, uint64_t size);
    virtual int write(double value);
    virtual int write(float value);
    virtual int write(uint64_t value);
    virtual int write(uint32_t value);
    virtual int write(uint16_t value);
    virtual int write(uint8_t value);

    /// Reads `size` raw bytes, or one value from network order. Each returns the number of bytes read.
    virtual int read(void* data, uint64_t size);
    virtual int read(double& value);
    virtual int read(float& value);
    virtual int read(uint64_t& value);
    virtual int read(uint32_t& value);
    virtual int read(uint16_t& value);
    virtual int read(uint8_t& value);

    /// The position in bytes.
    virtual int offset() const;

    /// Sets the position and returns it.
    virtual int move(uint64_t position);

    int write(unsigned long long value) { return write(uint64_t{value}); }
    int read(unsigned long long& value);

    /// Between host and network order. They reverse the bytes on a little-endian host and do nothing on another.
    static constexpr uint16_t swap16(uint16_t value);
    static constexpr uint32_t swap32(uint32_t value);
    static constexpr uint64_t swap64(uint64_t value);
    static constexpr float swapflt(float value) { return std::bit_cast<float>(swap32(std::bit_cast<uint32_t>(value))); }
    static constexpr double swapdbl(double value) {
        return std::bit_cast<double>(swap64(std::bit_cast<uint64_t>(value)));
    }

    /// 1 on a little-endian host, 0 on another.
    static constexpr int is_little_endian() { return check_endian(); }

    /// Bytes that the value takes as an element, its 9-byte header included.
    static constexpr uint64_t size_of(uint8_t) { return 10; }
    static constexpr uint64_t size_of(uint16_t) { return 11; }
    static constexpr uint64_t size_of(uint32_t) { return 13; }
    static constexpr uint64_t size_of(uint64_t) { return 17; }
    static constexpr uint64_t size_of(unsigned long long) { return 17; }
    static constexpr uint64_t size_of(float) { return 13; }
    static constexpr uint64_t size_of(double) { return 17; }
    static uint64_t size_of(const char* text);
    static uint64_t size_of(const wchar_t* text);
    static uint64_t size_of(const std::string& text) { return 9 + text.size(); }
    static uint64_t size_of(const std::wstring& text) { return size_of(text.c_str()); }
    static constexpr uint64_t size_of(const void*, uint64_t size) { return 9 + size; }
    static uint64_t size_of(const VEL_Byte_Block& block);
    static uint64_t size_of(const VEL_Bitfield& bits);

private:
    static constexpr int check_endian() { return std::endian::native == std::endian::little ? 1 : 0; }
};

// Written as shifts and masks: compilers turn them into one byte-swap instruction.
constexpr uint16_t VEL_CDR::swap16(uint16_t value) {
    if (is_little_endian() == 0) return value;
    return static_cast<uint16_t>(value << 8 | value >> 8);
}

constexpr uint32_t VEL_CDR::swap32(uint32_t value) {
    if (is_little_endian() == 0) return value;
    return value << 24 | (value & 0xFF00u) << 8 | (value >> 8 & 0xFF00u) | value >> 24;
}

constexpr uint64_t VEL_CDR::swap64(uint64_t value) {
    if (is_little_endian() == 0) return value;
    return uint64_t{swap32(static_cast<uint32_t>(value))} << 32 | swap32(static_cast<uint32_t>(value >> 32));
}

namespace vel::cdr {

inline constexpr uint64_t header_size = 9;

/// The results are int, so an element, its header included, and a raw transfer have at most this many bytes.
inline constexpr uint64_t element_limit = 0x7FFFFFFF;

inline constexpr uint8_t tag_string = 7;
inline constexpr uint8_t tag_bit_field = 8;
inline constexpr uint8_t tag_bytes = 9;

/// The unsigned integer as wide as T.
template <class T>
using Bits = std::conditional_t<
    sizeof(T) == 1, uint8_t,
    std::conditional_t<sizeof(T) == 2, uint16_t, std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;

/// The type tag of a built-in number: integers by their width, signed ones as their unsigned bit pattern.
template <class T>
constexpr uint8_t number_tag() {
    static_assert(std::is_arithmetic_v<T> && sizeof(T) <= 8);
    if constexpr (std::is_floating_point_v<T>) return sizeof(T) == 4 ? 5 : 6;
    return sizeof(T) == 8 ? 4 : sizeof(T) == 4 ? 3 : sizeof(T);
}

template <class T>
constexpr T swap(T bits) {
    if constexpr (sizeof(T) == 2) return VEL_CDR::swap16(bits);
    if constexpr (sizeof(T) == 4) return VEL_CDR::swap32(bits);
    if constexpr (sizeof(T) == 8) return VEL_CDR::swap64(bits);
    return bits;
}

/// A number at an address of any alignment. A store through it, unlike one of bytes, cannot touch the members of a stream,
/// so compilers keep position and count in registers from one element to the next.
#pragma pack(push, 1)
template <class T>
struct Slot {
    T bits;
};
#pragma pack(pop)

/// Stores a number big-endian.
template <class T>
void store(uint8_t* at, T value) {
    ::new (static_cast<void*>(at)) Slot<Bits<T>>{swap(std::bit_cast<Bits<T>>(value))};
}

template <class T>
T load(const uint8_t* at) {
    Bits<T> bits;
    std::memcpy(&bits, at, sizeof bits);
    return std::bit_cast<T>(swap(bits));
}

/// Stores an element with a number. The stores overlap where length and number meet, which takes the fewest.
template <class T>
void store_number(uint8_t* at, uint32_t id, T value) {
    const auto bits = std::bit_cast<Bits<T>>(value);
    store(at, uint64_t{id} << 32 | uint64_t{number_tag<T>()} << 24); // and the upper three bytes of the length
    if constexpr (sizeof(T) == 1) store(at + 8, static_cast<uint16_t>(1u << 8 | bits));
    if constexpr (sizeof(T) == 2) store(at + 7, 2u << 16 | bits);
    if constexpr (sizeof(T) == 4) store(at + 5, uint64_t{4} << 32 | bits);
    if constexpr (sizeof(T) == 8) {
        store(at + 5, uint32_t{8});
        store(at + 9, bits);
    }
}

inline void store_header(uint8_t* at, uint32_t id, uint8_t tag, uint32_t length) {
    store(at, id);
    at[4] = tag;
    store(at + 5, length);
}

/// True when type and length of the element header at the address are these; one load, as readers do it most.
inline bool has_header(const uint8_t* at, uint8_t tag, uint32_t length) {
    constexpr uint64_t type_and_length = 0xFFFFFFFFFF; // the last five bytes of the eight behind the id's first
    return (load<uint64_t>(at + 1) & type_and_length) == (uint64_t{tag} << 32 | length);
}

/// Throws VEL_Exception with the thread's error code.
[[noreturn]] VEL_API void throw_last_error();

} // namespace vel::cdr
