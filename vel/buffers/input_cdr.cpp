// Decoder of elements.
#include <vel/buffers/input_cdr.h>

#include <new>
#include <typeinfo>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/platform/string_conversion.h>

using vel::cdr::Element;

namespace {

int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

bool is_bit_field(const Element& element) {
    if (element.length < sizeof(uint32_t)) return false;
    const uint64_t bits = vel::cdr::load<uint32_t>(element.data);
    return (bits + 7) / 8 == element.length - sizeof(uint32_t);
}

/// What the tag demands of the length; `left` bytes stand behind the header. Unknown kinds are deliberately skipped,
/// whatever length they carry.
inline bool is_length_valid(const Element& element, uint64_t left) {
    constexpr uint8_t number_lengths[] = {0, 1, 2, 4, 8, 4, 8}; // by tag
    if (element.length > vel::cdr::element_limit - vel::cdr::header_size) return false;
    if (element.type == 0 || element.type > vel::cdr::tag_bytes) return true;
    if (element.length > left) return false;
    if (element.type < vel::cdr::tag_string) return element.length == number_lengths[element.type];
    return element.type != vel::cdr::tag_bit_field || is_bit_field(element);
}

/// Total size of a number, a text or a block that is well formed; 0 leaves the element to the full look-up. Every element
/// of a message passes here before its object is asked, so the common kinds take few steps.
inline uint64_t plain_size(const uint8_t* at, uint64_t left) {
    constexpr uint8_t number_sizes[] = {0, 10, 11, 13, 17, 13, 17}; // by tag
    if (left < vel::cdr::header_size) return 0;
    const uint64_t total = vel::cdr::header_size + vel::cdr::load<uint32_t>(at + 5);
    if (total > left || total > vel::cdr::element_limit) return 0;
    const uint8_t type = at[4];
    if (type < sizeof number_sizes) return total == number_sizes[type] ? total : 0;
    return type == vel::cdr::tag_string || type == vel::cdr::tag_bytes ? total : 0;
}

// Decoding of a payload whose type has been checked. 0, or -1 with the thread's code.

template <class T>
int decode(const Element& element, T& value) {
    value = vel::cdr::load<T>(element.data);
    return 0;
}

int decode(const Element& element, std::string& text) {
    try {
        text.assign(reinterpret_cast<const char*>(element.data), element.length);
        return 0;
    } catch (const std::bad_alloc&) {
        return fail(vel::error::not_enough_memory);
    }
}

int decode(const Element& element, std::wstring& text) {
    std::string narrow;
    if (decode(element, narrow) < 0) return -1;
    const VEL_Str_Conv wide = VEL_Str_Conv::text_convert_to_wchar(narrow.c_str());
    const wchar_t* converted = wide;
    if (converted == nullptr) return -1; // the converter has set the code
    try {
        text = converted;
        return 0;
    } catch (const std::bad_alloc&) {
        return fail(vel::error::not_enough_memory);
    }
}

int decode(const Element& element, VEL_Byte_Block& block) { return block.set(element.length, element.data); }

/// The payload may come from a byte block's element, so the bit count is checked here as well.
int decode(const Element& element, VEL_Bitfield& bits) {
    if (!is_bit_field(element)) return fail(vel::error::bad_element_length);
    return bits.set(element.data + sizeof(uint32_t), vel::cdr::load<uint32_t>(element.data));
}

template <class V>
VEL_InputCDR& take(VEL_InputCDR& in, uint8_t tag, V& value) {
    Element element;
    const void* data = nullptr;
    if (in.lookup(element.id, element.type, element.length, data) < 0) vel::cdr::throw_last_error();
    if (element.type != tag) VEL_Exception::ThrowException(vel::error::bad_element_type);
    element.data = static_cast<const uint8_t*>(data);
    if (decode(element, value) < 0) vel::cdr::throw_last_error();
    return in;
}

template <class T>
VEL_InputCDR& take_number(VEL_InputCDR& in, T& value) {
    return take(in, vel::cdr::number_tag<T>(), value);
}

} // namespace

VEL_InputCDR::~VEL_InputCDR() = default;

int VEL_InputCDR::move(uint64_t position) {
    if (position > length_) return fail(vel::error::input_too_short);
    position_ = position;
    return static_cast<int>(position);
}

int VEL_InputCDR::read(void* data, uint64_t size) {
    if (remaining() < size || size > vel::cdr::element_limit) return fail(vel::error::input_too_short);
    if (size != 0) std::memcpy(data, buffer_ + position_, size);
    position_ += size;
    return static_cast<int>(size);
}

int VEL_InputCDR::read(double& value) { return read_number(value); }
int VEL_InputCDR::read(float& value) { return read_number(value); }
int VEL_InputCDR::read(uint64_t& value) { return read_number(value); }
int VEL_InputCDR::read(uint32_t& value) { return read_number(value); }
int VEL_InputCDR::read(uint16_t& value) { return read_number(value); }
int VEL_InputCDR::read(uint8_t& value) { return read_number(value); }

int VEL_InputCDR::lookup(uint32_t& id, uint8_t& type, uint32_t& length, const void*& data) {
    Element element;
    const int size = next(element);
    if (size < 0) return -1;
    id = element.id;
    type = element.type;
    length = element.length;
    data = element.data;
    return size;
}

int VEL_InputCDR::get_value(uint32_t id, uint8_t& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, uint16_t& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, uint32_t& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, uint64_t& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, unsigned long long& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, float& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, double& value) { return get_number(id, value); }
int VEL_InputCDR::get_value(uint32_t id, std::string& text) { return find_value(id, vel::cdr::tag_string, text); }
int VEL_InputCDR::get_value(uint32_t id, std::wstring& text) { return find_value(id, vel::cdr::tag_string, text); }
int VEL_InputCDR::get_value(uint32_t id, VEL_Byte_Block& block) { return find_value(id, vel::cdr::tag_bytes, block); }
int VEL_InputCDR::get_value(uint32_t id, VEL_Bitfield& bits) {
    return find_value(id, vel::cdr::tag_bytes, bits); // not tag_bit_field: deliberate, see the header
}

/// True for a stream that no class was derived from: only then may the primitive reads be passed by.
bool VEL_InputCDR::is_plain() const { return typeid(*this) == typeid(VEL_InputCDR); }

/// Reads the next element's header and goes behind the element. Total size, or -1.
int VEL_InputCDR::next(Element& element) {
    if (length_ == 0) VEL_Exception::ThrowException(vel::error::null_member);
    if (is_plain() && remaining() >= vel::cdr::header_size) return next_plain(element);
    // Through the primitive reads: they leave the position where the bytes ended.
    if (read(element.id) < 0 || read(element.type) < 0 || read(element.length) < 0) return -1;
    element.data = buffer_ + position_;
    return pass(element);
}

/// The same in one step, for a stream that no class was derived from and with a whole header there.
inline int VEL_InputCDR::next_plain(Element& element) {
    const uint8_t* at = buffer_ + position_;
    element = {vel::cdr::load<uint32_t>(at), at[4], vel::cdr::load<uint32_t>(at + 5), at + vel::cdr::header_size};
    position_ += vel::cdr::header_size;
    return pass(element);
}

/// Checks the length and goes behind the payload, which starts at the position. Total size, or -1.
inline int VEL_InputCDR::pass(const Element& element) {
    if (!is_length_valid(element, remaining())) return fail(vel::error::bad_element_length);
    position_ += element.length;
    return static_cast<int>(vel::cdr::header_size + element.length);
}

/// Goes over the next `count` elements. The sum of their sizes, or -1; the first look-up that finds no element ends the
/// walk, so a count that is too large costs no more than there are bytes.
int64_t VEL_InputCDR::walk(uint32_t count) {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t size = plain_size(buffer_ + position_, remaining());
        if (size == 0) {
            Element element;
            const int looked_up = next(element);
            if (looked_up < 0) return -1;
            size = static_cast<uint64_t>(looked_up);
        } else {
            position_ += size;
        }
        sum += size;
    }
    return static_cast<int64_t>(sum);
}

/// Looks from the position to the end, then from the begin to the position. Total size, or -1.
int VEL_InputCDR::find(uint32_t id, Element& element) {
    const uint64_t start = position_;
    for (uint64_t at = start; at < length_;) {
        const int size = next(element);
        if (size < 0 || element.id == id) return size;
        at += static_cast<uint64_t>(size);
    }
    position_ = 0;
    for (uint64_t at = 0; at < start;) {
        const int size = next(element);
        if (size < 0 || element.id == id) return size;
        at += static_cast<uint64_t>(size);
    }
    return fail(vel::error::element_not_found);
}

template <class V>
int VEL_InputCDR::find_value(uint32_t id, uint8_t tag, V& value) {
    Element element;
    const int size = find(id, element);
    if (size < 0) return -1;
    if (element.type != tag) return fail(vel::error::bad_element_type);
    return decode(element, value) < 0 ? -1 : size;
}

template <class T>
int VEL_InputCDR::get_number(uint32_t id, T& value) {
    return find_value(id, vel::cdr::number_tag<T>(), value);
}

template <class T>
int VEL_InputCDR::read_number(T& value) {
    if (remaining() < sizeof(T)) return fail(vel::error::input_too_short);
    value = vel::cdr::load<T>(buffer_ + position_);
    position_ += sizeof(T);
    return sizeof(T);
}

VEL_InputCDR& operator>>(VEL_InputCDR& in, uint8_t& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, uint16_t& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, uint32_t& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, uint64_t& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, unsigned long long& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, float& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, double& value) { return take_number(in, value); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, std::string& text) { return take(in, vel::cdr::tag_string, text); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, std::wstring& text) { return take(in, vel::cdr::tag_string, text); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, VEL_Byte_Block& block) { return take(in, vel::cdr::tag_bytes, block); }
VEL_InputCDR& operator>>(VEL_InputCDR& in, VEL_Bitfield& bits) { return take(in, vel::cdr::tag_bit_field, bits); }
