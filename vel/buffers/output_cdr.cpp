// Encoder of elements.
#include <vel/buffers/output_cdr.h>

#include <typeinfo>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/platform/string_conversion.h>

namespace {

int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

template <class V>
VEL_OutputCDR& append(VEL_OutputCDR& out, const V& value) {
    if (out.set_value(out.elements(), value) < 0) vel::cdr::throw_last_error();
    return out;
}

} // namespace

VEL_OutputCDR::~VEL_OutputCDR() = default;

int VEL_OutputCDR::move(uint64_t position) {
    if (position > capacity_) return fail(vel::error::output_too_small);
    size_ = set_size();
    position_ = position;
    return static_cast<int>(position);
}

int VEL_OutputCDR::write(const void* data, uint64_t size) {
    if (room() < size || size > vel::cdr::element_limit) return fail(vel::error::output_too_small);
    if (size != 0) std::memcpy(buffer_ + position_, data, size);
    position_ += size;
    return static_cast<int>(size);
}

int VEL_OutputCDR::write(double value) { return write_number(value); }
int VEL_OutputCDR::write(float value) { return write_number(value); }
int VEL_OutputCDR::write(uint64_t value) { return write_number(value); }
int VEL_OutputCDR::write(uint32_t value) { return write_number(value); }
int VEL_OutputCDR::write(uint16_t value) { return write_number(value); }
int VEL_OutputCDR::write(uint8_t value) { return write_number(value); }

int VEL_OutputCDR::set_value(uint32_t id, uint8_t value) { return set_number(id, value); }
int VEL_OutputCDR::set_value(uint32_t id, uint16_t value) { return set_number(id, value); }
int VEL_OutputCDR::set_value(uint32_t id, uint32_t value) { return set_number(id, value); }
int VEL_OutputCDR::set_value(uint32_t id, uint64_t value) { return set_number(id, value); }
int VEL_OutputCDR::set_value(uint32_t id, float value) { return set_number(id, value); }
int VEL_OutputCDR::set_value(uint32_t id, double value) { return set_number(id, value); }

int VEL_OutputCDR::set_value(uint32_t id, const char* text) {
    if (text == nullptr) return fail(vel::error::null_member);
    return set_bytes(id, vel::cdr::tag_string, text, std::strlen(text));
}

int VEL_OutputCDR::set_value(uint32_t id, const wchar_t* text) {
    if (text == nullptr) return fail(vel::error::null_member);
    const VEL_Str_Conv narrow = VEL_Str_Conv::text_convert_to_char(text);
    const char* converted = narrow;
    return converted == nullptr ? -1 : set_value(id, converted); // the converter has set the code
}

int VEL_OutputCDR::set_value(uint32_t id, const std::string& text) {
    return set_bytes(id, vel::cdr::tag_string, text.data(), text.size());
}

int VEL_OutputCDR::set_value(uint32_t id, const std::wstring& text) { return set_value(id, text.c_str()); }

int VEL_OutputCDR::set_value(uint32_t id, const VEL_Byte_Block& block) {
    return set_bytes(id, vel::cdr::tag_bytes, block.c_ptr(0), block.size());
}

int VEL_OutputCDR::set_value(uint32_t id, const void* data, uint64_t length) {
    if (data == nullptr && length != 0) return fail(vel::error::null_member);
    return set_bytes(id, vel::cdr::tag_bytes, data, length);
}

int VEL_OutputCDR::set_value(uint32_t id, const VEL_Bitfield& bits) {
    if (bits.get_bitcnt() > 0xFFFFFFFF) return refuse();
    const uint64_t length = sizeof(uint32_t) + bits.size();
    const int header = write_header(id, vel::cdr::tag_bit_field, length);
    if (header < 0) return -1;
    const int count = write(static_cast<uint32_t>(bits.get_bitcnt()));
    if (count < 0) return -1;
    const int bytes = write(bits.c_ptr(), bits.size());
    if (bytes < 0) return -1;
    ++elements_;
    return header + count + bytes;
}

/// True for a stream that no class was derived from: only then may the primitive writes be passed by.
bool VEL_OutputCDR::is_plain() const { return typeid(*this) == typeid(VEL_OutputCDR); }

int VEL_OutputCDR::refuse() const {
    return fail(capacity_ == 0 ? vel::error::null_member : vel::error::output_too_small);
}

template <class T>
int VEL_OutputCDR::write_number(T value) {
    if (room() < sizeof(T)) return fail(vel::error::output_too_small);
    vel::cdr::store(buffer_ + position_, value);
    position_ += sizeof(T);
    return sizeof(T);
}

template <class T>
int VEL_OutputCDR::set_number(uint32_t id, T value) {
    if (is_plain()) return put_number(id, value);
    const int header = write_header(id, vel::cdr::number_tag<T>(), sizeof(T));
    if (header < 0) return -1;
    const int payload = write(value);
    if (payload < 0) return -1;
    ++elements_;
    return header + payload;
}

int VEL_OutputCDR::set_bytes(uint32_t id, uint8_t tag, const void* data, uint64_t length) {
    if (is_plain()) return put_bytes(id, tag, data, length);
    const int header = write_header(id, tag, length);
    if (header < 0) return -1;
    const int payload = write(data, length);
    if (payload < 0) return -1;
    ++elements_;
    return header + payload;
}

/// Writes an element's header through the primitive writes once the whole element is known to fit. Bytes written or -1.
int VEL_OutputCDR::write_header(uint32_t id, uint8_t tag, uint64_t length) {
    if (length > vel::cdr::element_limit - vel::cdr::header_size) return refuse();
    if (room() < vel::cdr::header_size + length) return refuse();
    const int id_size = write(id);
    if (id_size < 0) return -1;
    const int tag_size = write(tag);
    if (tag_size < 0) return -1;
    const int length_size = write(static_cast<uint32_t>(length));
    return length_size < 0 ? -1 : id_size + tag_size + length_size;
}

VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint8_t value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint16_t value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint32_t value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, uint64_t value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, float value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, double value) { return append(out, value); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const char* text) { return append(out, text); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const wchar_t* text) { return append(out, text); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const std::string& text) { return append(out, text); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const std::wstring& text) { return append(out, text); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const VEL_Byte_Block& block) { return append(out, block); }
VEL_OutputCDR& operator<<(VEL_OutputCDR& out, const VEL_Bitfield& bits) { return append(out, bits); }
