// Encoder of elements into a caller's buffer.
#pragma once

#include <vel/buffers/cdr.h>

/// Writes elements one after another into a buffer of fixed size; see VEL_CDR for the format.
///
/// Threads:   one at a time.
/// Ownership: the buffer stays the caller's and must outlive its use here; nothing is allocated.
/// Errors:    -1 with 0x20000004 without a buffer, with 0x2000000C when the buffer is too small; a value that does not
///            fit leaves nothing behind. The stream operators throw VEL_Exception with the same codes.
/// Limits:    an element has at most 2^31 - 1 bytes, a bit field at most 2^32 - 1 bits; above it is 0x2000000C.
///
///     uint8_t buffer[64];
///     VEL_OutputCDR out(buffer, sizeof buffer);
///     out << uint32_t{7} << "name"; // ids 0 and 1
///     send(buffer, out.set_size());
class VEL_API VEL_OutputCDR : public VEL_CDR {
public:
    VEL_OutputCDR() = default;
    VEL_OutputCDR(void* buffer, uint64_t capacity) { set(buffer, capacity); }
    ~VEL_OutputCDR() override;

    /// Attaches a buffer and starts at its begin with no elements. A null buffer has no capacity.
    void set(void* buffer, uint64_t capacity);

    /// Detaches the buffer.
    void reset() { set(nullptr, 0); }

    /// Encoded bytes: the largest position ever reached. A getter, whatever its name says.
    uint64_t set_size() const { return size_ < position_ ? position_ : size_; }

    /// Elements written by set_value.
    uint32_t elements() const { return elements_; }

    int offset() const override { return static_cast<int>(position_); }

    /// Sets the position, for instance to patch a value in place; the size never shrinks. Errors: 0x2000000C.
    int move(uint64_t position) override;

    using VEL_CDR::write;
    int write(const void* data, uint64_t size) override;
    int write(double value) override;
    int write(float value) override;
    int write(uint64_t value) override;
    int write(uint32_t value) override;
    int write(uint16_t value) override;
    int write(uint8_t value) override;

    /// Writes one element. Returns its total size, 9 bytes and the payload. A null text sets 0x20000004.
    int set_value(uint32_t id, uint8_t value);
    int set_value(uint32_t id, uint16_t value);
    int set_value(uint32_t id, uint32_t value);
    int set_value(uint32_t id, uint64_t value);
    int set_value(uint32_t id, unsigned long long value) { return set_value(id, uint64_t{value}); }
    int set_value(uint32_t id, float value);
    int set_value(uint32_t id, double value);
    int set_value(uint32_t id, const char* text);
    int set_value(uint32_t id, const wchar_t* text);
    int set_value(uint32_t id, const std::string& text);
    int set_value(uint32_t id, const std::wstring& text);
    int set_value(uint32_t id, const VEL_Byte_Block& block);
    int set_value(uint32_t id, const VEL_Bitfield& bits);
    int set_value(uint32_t id, const void* data, uint64_t length);

private:
    friend class VEL_Archive;
    friend struct vel::ArchiveStream;

    // The one-pass ways, for a stream that is exactly a VEL_OutputCDR: no primitive write is called. They are inline
    // because the archive's operators are: a call an element would cost more than the element.
    template <class T>
    int put_number(uint32_t id, T value);
    int put_bytes(uint32_t id, uint8_t tag, const void* data, uint64_t length);

    bool is_plain() const;
    uint64_t room() const { return capacity_ - position_; }
    int end_element(uint64_t total);
    int refuse() const;
    template <class T>
    int write_number(T value);
    template <class T>
    int set_number(uint32_t id, T value);
    int set_bytes(uint32_t id, uint8_t tag, const void* data, uint64_t length);
    int write_header(uint32_t id, uint8_t tag, uint64_t length);

    uint8_t* buffer_ = nullptr;
    uint64_t capacity_ = 0; // 0 when buffer_ is null
    uint64_t position_ = 0; // never above capacity_
    uint64_t size_ = 0;     // largest position that was ever left by `move`; set_size() looks at position_ too
    uint32_t elements_ = 0;
};

inline void VEL_OutputCDR::set(void* buffer, uint64_t capacity) {
    buffer_ = static_cast<uint8_t*>(buffer);
    capacity_ = buffer == nullptr ? 0 : capacity;
    position_ = 0;
    size_ = 0;
    elements_ = 0;
}

[[gnu::always_inline]] inline int VEL_OutputCDR::end_element(uint64_t total) {
    position_ += total;
    ++elements_;
    return static_cast<int>(total);
}

template <class T>
[[gnu::always_inline]] inline int VEL_OutputCDR::put_number(uint32_t id, T value) {
    constexpr uint64_t total = vel::cdr::header_size + sizeof(T);
    if (room() < total) [[unlikely]]
        return refuse();
    vel::cdr::store_number(buffer_ + position_, id, value);
    return end_element(total);
}

[[gnu::always_inline]] inline int VEL_OutputCDR::put_bytes(uint32_t id, uint8_t tag, const void* data,
                                                           uint64_t length) {
    if (length > vel::cdr::element_limit - vel::cdr::header_size || room() < vel::cdr::header_size + length)
        [[unlikely]]
        return refuse();
    uint8_t* at = buffer_ + position_;
    vel::cdr::store_header(at, id, tag, static_cast<uint32_t>(length));
    if (length != 0) [[likely]]
        std::memcpy(at + vel::cdr::header_size, data, length);
    return end_element(vel::cdr::header_size + length);
}

VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint8_t value);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint16_t value);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint32_t value);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint64_t value);
inline VEL_OutputCDR& operator<<(VEL_OutputCDR& out, unsigned long long value) { return out << uint64_t{value}; }
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, float value);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, double value);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const char* text);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const wchar_t* text);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const std::string& text);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const std::wstring& text);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const VEL_Byte_Block& block);
VEL_API VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const VEL_Bitfield& bits);
