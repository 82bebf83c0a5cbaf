// Sequence of bits, most significant first.
#pragma once

#include <string>
#include <vel/types.h>

class VEL_Byte_Block;

/// A fixed number of bits in an owned byte array; bit i lies in byte i / 8 under the mask 0x80 >> (i % 8).
///
/// Threads:   one at a time.
/// Errors:    int results are -1 with the thread's code; constructors and assignment throw VEL_Exception with it.
/// Limits:    the spare low bits of the last byte are zero until `set_all`; they travel with the bytes when the field is
///            copied or serialized, and are never counted.
///
///     VEL_Bitfield done(uint64_t{10});
///     done.set_bit(3, true);
///     std::string text;
///     done.get(text); // "0001000000"
class VEL_API VEL_Bitfield {
public:
    VEL_Bitfield() = default;

    /// All bits clear.
    explicit VEL_Bitfield(uint64_t bits);

    /// Copies ceil(bits / 8) bytes.
    VEL_Bitfield(const void* bytes, uint64_t bits);

    /// As set(text).
    VEL_Bitfield(const char* text);

    VEL_Bitfield(const VEL_Bitfield& other);
    virtual ~VEL_Bitfield();

    VEL_Bitfield& operator=(const VEL_Bitfield& other);
    VEL_Bitfield& operator=(const char* text);

    /// Changes the length; every bit is clear afterwards. Errors: the allocator's (8); then the field is empty.
    int set_bitcnt(uint64_t bits);

    /// One bit a character: set for '1', clear for every other. Errors: as set_bitcnt; 0x20000004 for a null text.
    int set(const char* text);

    /// Copies ceil(bits / 8) bytes, spare bits included. Errors: as set_bitcnt; 0x20000004 for null bytes.
    int set(const void* bytes, uint64_t bits);

    /// Sets or clears one bit; an index at or beyond the bit count is ignored.
    void set_bit(uint64_t index, bool value);

    /// False for an index at or beyond the bit count.
    bool is_setbit(uint64_t index) const;

    void set_all(); // spare bits too
    void clr_all();

    uint64_t get_bitcnt() const { return bit_count_; }

    /// Bytes of the array.
    uint64_t size() const { return byte_size_; }
    void* c_ptr() const { return bytes_; }

    /// Set bits among the first get_bitcnt().
    uint64_t get_setbitcnt() const;

    /// True for an empty field.
    bool is_setall() const { return get_setbitcnt() >= bit_count_; }

    /// The bits as "0" and "1". Returns the bit count. Errors: 8.
    int get(std::string& text) const;

    /// As above into a buffer of at least get_bitcnt() + 1 characters. Deliberately without a terminating NUL although
    /// room for one is demanded: the caller terminates the text. Errors: 122.
    int get(char* text, uint64_t size) const;

    /// Copies the bytes. Returns their number. Errors: 122.
    int get(void* bytes, uint64_t size) const;

    /// Copies the bytes into a new buffer of the block. Returns their number. Errors: 8 and the allocator's.
    int get(VEL_Byte_Block& block) const;

    /// Frees the bytes; the field is empty afterwards.
    void reset();

private:
    void swap(VEL_Bitfield& other) noexcept;

    uint8_t* bytes_ = nullptr; // from VEL_Std_Allocator; null when empty
    uint64_t bit_count_ = 0;
    uint64_t byte_size_ = 0; // ceil(bit_count_ / 8)
};
