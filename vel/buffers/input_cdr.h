// Decoder of elements from a caller's buffer.
#pragma once

#include <vel/buffers/cdr.h>

namespace vel::cdr {

/// One element as it lies in the buffer of an input stream.
struct Element {
    uint32_t id;
    uint8_t type;
    uint32_t length;
    const uint8_t* data;
};

} // namespace vel::cdr

/// Reads elements from a buffer, in order or by id; see VEL_CDR for the format. The bytes are untrusted: every length is
/// checked against what is there before it is used.
///
/// Threads:   one at a time.
/// Ownership: the buffer stays the caller's; `lookup` points into it, the values are copies.
/// Errors:    -1 with 0x2000000D for another type, 0x2000000E for a wrong length, 0x2000000F when the bytes end too early,
///            0x20000010 when no element has the id, 8 when a value cannot be stored. The stream operators throw
///            VEL_Exception with these codes; `lookup` without a buffer throws 0x20000004.
/// Limits:    an element has at most 2^31 - 1 bytes; a longer one is 0x2000000E.
///
///     VEL_InputCDR in(data, size);
///     uint32_t number;
///     in >> number;                                      // the next element
///     std::string name;
///     if (in.get_value(5, name) < 0) return reject();    // the element with id 5
class VEL_API VEL_InputCDR : public VEL_CDR {
public:
    VEL_InputCDR() = default;
    VEL_InputCDR(const void* buffer, uint64_t length) { set(buffer, length); }
    ~VEL_InputCDR() override;

    /// Attaches a buffer and starts at its begin. A null buffer has no length.
    void set(const void* buffer, uint64_t length);

    /// Detaches the buffer.
    void reset() { set(nullptr, 0); }

    int offset() const override { return static_cast<int>(position_); }

    /// Errors: 0x2000000F beyond the length.
    int move(uint64_t position) override;

    using VEL_CDR::read;
    int read(void* data, uint64_t size) override;
    int read(double& value) override;
    int read(float& value) override;
    int read(uint64_t& value) override;
    int read(uint32_t& value) override;
    int read(uint16_t& value) override;
    int read(uint8_t& value) override;

    /// Goes back to the first element.
    void initlookup() { position_ = 0; }

    /// Reads the next element's header, checks its length, goes behind the element and returns its total size.
    ///
    /// Tags that are not known are deliberately not checked, so that readers can skip them: their payload may reach
    /// beyond the buffer. A failure leaves the position where the reading stopped.
    /// @param data  set to the payload, inside the buffer
    int lookup(uint32_t& id, uint8_t& type, uint32_t& length, const void*& data);

    /// Finds the element with the id, from the position to the end and then from the begin to the position, and decodes
    /// it. Returns its total size; the position is behind it, so reading in the order of writing costs one step each.
    ///
    /// A bit field is deliberately looked for under the tag of a byte block, not the one `set_value` writes: only
    /// operator>> reads back what was written as a bit field.
    int get_value(uint32_t id, uint8_t& value);
    int get_value(uint32_t id, uint16_t& value);
    int get_value(uint32_t id, uint32_t& value);
    int get_value(uint32_t id, uint64_t& value);
    int get_value(uint32_t id, unsigned long long& value);
    int get_value(uint32_t id, float& value);
    int get_value(uint32_t id, double& value);
    int get_value(uint32_t id, std::string& text);
    int get_value(uint32_t id, std::wstring& text);
    int get_value(uint32_t id, VEL_Byte_Block& block);
    int get_value(uint32_t id, VEL_Bitfield& bits);

private:
    friend class VEL_Archive;
    friend struct vel::ArchiveStream;

    // The one-pass ways of the archive, whose stream is exactly a VEL_InputCDR: no primitive read is called. They are
    // inline, as a call an element would cost more than the element. False leaves everything to the full way.
    template <class T>
    bool take_number(T& value);
    template <class T>
    bool take_number(uint32_t id, T& value);
    bool take_bytes(uint8_t tag, vel::cdr::Element& element);
    int64_t walk(uint32_t count);

    bool is_plain() const;
    uint64_t remaining() const { return position_ < length_ ? length_ - position_ : 0; }
    int next(vel::cdr::Element& element);
    int next_plain(vel::cdr::Element& element);
    int pass(const vel::cdr::Element& element);
    int find(uint32_t id, vel::cdr::Element& element);
    template <class V>
    int find_value(uint32_t id, uint8_t tag, V& value);
    template <class T>
    int get_number(uint32_t id, T& value);
    template <class T>
    int read_number(T& value);

    const uint8_t* buffer_ = nullptr;
    uint64_t length_ = 0;   // 0 when buffer_ is null
    uint64_t position_ = 0; // above length_ only behind an unknown element that claims more than is there
};

inline void VEL_InputCDR::set(const void* buffer, uint64_t length) {
    buffer_ = static_cast<const uint8_t*>(buffer);
    length_ = buffer == nullptr ? 0 : length;
    position_ = 0;
}

template <class T>
[[gnu::always_inline]] inline bool VEL_InputCDR::take_number(T& value) {
    constexpr uint64_t size = vel::cdr::header_size + sizeof(T);
    if (remaining() < size) [[unlikely]]
        return false;
    const uint8_t* at = buffer_ + position_;
    if (!vel::cdr::has_header(at, vel::cdr::number_tag<T>(), sizeof(T))) [[unlikely]]
        return false;
    value = vel::cdr::load<T>(at + vel::cdr::header_size);
    position_ += size;
    return true;
}

template <class T>
bool VEL_InputCDR::take_number(uint32_t id, T& value) {
    return remaining() >= sizeof id && vel::cdr::load<uint32_t>(buffer_ + position_) == id && take_number(value);
}

inline bool VEL_InputCDR::take_bytes(uint8_t tag, vel::cdr::Element& element) {
    const uint64_t left = remaining();
    if (left < vel::cdr::header_size) return false;
    const uint8_t* at = buffer_ + position_;
    if (at[4] != tag) return false;
    const auto length = vel::cdr::load<uint32_t>(at + 5);
    if (length > left - vel::cdr::header_size || length > vel::cdr::element_limit - vel::cdr::header_size) return false;
    element = {vel::cdr::load<uint32_t>(at), tag, length, at + vel::cdr::header_size};
    position_ += vel::cdr::header_size + length;
    return true;
}

VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, uint8_t& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, uint16_t& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, uint32_t& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, uint64_t& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, unsigned long long& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, float& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, double& value);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, std::string& text);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, std::wstring& text);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, VEL_Byte_Block& block);
VEL_API VEL_InputCDR& operator>>(VEL_InputCDR& in, VEL_Bitfield& bits);
