// Base of the element streams.
#include <vel/buffers/cdr.h>

#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/platform/string_conversion.h>

namespace {

int not_implemented() {
    VELLib::SetErrorCode(vel::error::not_implemented);
    return -1;
}

} // namespace

VEL_CDR::~VEL_CDR() = default;

int VEL_CDR::write(const void*, uint64_t) { return not_implemented(); }
int VEL_CDR::write(double) { return not_implemented(); }
int VEL_CDR::write(float) { return not_implemented(); }
int VEL_CDR::write(uint64_t) { return not_implemented(); }
int VEL_CDR::write(uint32_t) { return not_implemented(); }
int VEL_CDR::write(uint16_t) { return not_implemented(); }
int VEL_CDR::write(uint8_t) { return not_implemented(); }
int VEL_CDR::read(void*, uint64_t) { return not_implemented(); }
int VEL_CDR::read(double&) { return not_implemented(); }
int VEL_CDR::read(float&) { return not_implemented(); }
int VEL_CDR::read(uint64_t&) { return not_implemented(); }
int VEL_CDR::read(uint32_t&) { return not_implemented(); }
int VEL_CDR::read(uint16_t&) { return not_implemented(); }
int VEL_CDR::read(uint8_t&) { return not_implemented(); }
int VEL_CDR::offset() const { return not_implemented(); }
int VEL_CDR::move(uint64_t) { return not_implemented(); }

int VEL_CDR::read(unsigned long long& value) {
    uint64_t wide;
    const int size = read(wide);
    if (size > 0) value = wide;
    return size;
}

uint64_t VEL_CDR::size_of(const char* text) {
    return vel::cdr::header_size + (text == nullptr ? 0 : std::strlen(text));
}

uint64_t VEL_CDR::size_of(const wchar_t* text) {
    const VEL_Str_Conv narrow = VEL_Str_Conv::text_convert_to_char(text);
    return size_of(static_cast<const char*>(narrow));
}

uint64_t VEL_CDR::size_of(const VEL_Byte_Block& block) { return vel::cdr::header_size + block.size(); }

uint64_t VEL_CDR::size_of(const VEL_Bitfield& bits) { return vel::cdr::header_size + sizeof(uint32_t) + bits.size(); }

void vel::cdr::throw_last_error() { VEL_Exception::ThrowException(VELLib::GetErrorCode()); }
