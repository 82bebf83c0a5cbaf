// Bit sequences.
#include <vel/buffers/bit_field.h>

#include <bit>
#include <cstring>
#include <exception>
#include <utility>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/memory/allocator.h>
#include <vel/os/error_codes.h>

namespace {

uint64_t bytes_for(uint64_t bits) { return bits / 8 + (bits % 8 != 0 ? 1 : 0); }

uint8_t mask_of(uint64_t index) { return static_cast<uint8_t>(0x80 >> index % 8); }

int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

void throw_if(bool failed) {
    if (failed) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

} // namespace

VEL_Bitfield::VEL_Bitfield(uint64_t bits) { throw_if(set_bitcnt(bits) < 0); }

VEL_Bitfield::VEL_Bitfield(const void* bytes, uint64_t bits) { throw_if(set(bytes, bits) < 0); }

VEL_Bitfield::VEL_Bitfield(const char* text) { throw_if(set(text) < 0); }

VEL_Bitfield::VEL_Bitfield(const VEL_Bitfield& other) { throw_if(set(other.bytes_, other.bit_count_) < 0); }

VEL_Bitfield::~VEL_Bitfield() { reset(); }

VEL_Bitfield& VEL_Bitfield::operator=(const VEL_Bitfield& other) {
    if (this != &other) throw_if(set(other.bytes_, other.bit_count_) < 0);
    return *this;
}

VEL_Bitfield& VEL_Bitfield::operator=(const char* text) {
    throw_if(set(text) < 0);
    return *this;
}

int VEL_Bitfield::set_bitcnt(uint64_t bits) {
    reset();
    if (bits == 0) return 0;
    VEL_Std_Allocator* allocator = VEL_Std_Allocator::instance();
    if (allocator == nullptr) return -1;
    bytes_ = static_cast<uint8_t*>(allocator->malloc(bytes_for(bits), true));
    if (bytes_ == nullptr) return -1;
    bit_count_ = bits;
    byte_size_ = bytes_for(bits);
    return 0;
}

int VEL_Bitfield::set(const char* text) {
    if (text == nullptr) return fail(vel::error::null_member);
    if (set_bitcnt(std::strlen(text)) < 0) return -1;
    for (uint64_t i = 0; i < bit_count_; ++i) set_bit(i, text[i] == '1');
    return 0;
}

int VEL_Bitfield::set(const void* bytes, uint64_t bits) {
    if (bytes == nullptr && bits != 0) return fail(vel::error::null_member);
    VEL_Bitfield old; // frees the old bytes last: `bytes` may lie in them
    swap(old);
    if (set_bitcnt(bits) < 0) return -1;
    if (byte_size_ != 0) std::memcpy(bytes_, bytes, byte_size_);
    return 0;
}

void VEL_Bitfield::set_bit(uint64_t index, bool value) {
    if (index >= bit_count_) return;
    uint8_t& byte = bytes_[index / 8];
    byte = static_cast<uint8_t>(value ? byte | mask_of(index) : byte & ~mask_of(index));
}

bool VEL_Bitfield::is_setbit(uint64_t index) const {
    return index < bit_count_ && (bytes_[index / 8] & mask_of(index)) != 0;
}

void VEL_Bitfield::set_all() {
    if (byte_size_ != 0) std::memset(bytes_, 0xFF, byte_size_);
}

void VEL_Bitfield::clr_all() {
    if (byte_size_ != 0) std::memset(bytes_, 0, byte_size_);
}

uint64_t VEL_Bitfield::get_setbitcnt() const {
    uint64_t count = 0;
    for (uint64_t i = 0; i < bit_count_ / 8; ++i) count += static_cast<uint64_t>(std::popcount(bytes_[i]));
    for (uint64_t i = bit_count_ / 8 * 8; i < bit_count_; ++i) count += is_setbit(i) ? 1 : 0;
    return count;
}

int VEL_Bitfield::get(std::string& text) const {
    try {
        text.resize(bit_count_);
    } catch (const std::exception&) { // no memory, or longer than any string
        return fail(vel::error::not_enough_memory);
    }
    for (uint64_t i = 0; i < bit_count_; ++i) text[i] = is_setbit(i) ? '1' : '0';
    return static_cast<int>(bit_count_);
}

int VEL_Bitfield::get(char* text, uint64_t size) const {
    if (size < bit_count_ + 1) return fail(vel::error::insufficient_buffer);
    for (uint64_t i = 0; i < bit_count_; ++i) text[i] = is_setbit(i) ? '1' : '0';
    return static_cast<int>(bit_count_);
}

int VEL_Bitfield::get(void* bytes, uint64_t size) const {
    if (size < byte_size_) return fail(vel::error::insufficient_buffer);
    if (byte_size_ != 0) std::memcpy(bytes, bytes_, byte_size_);
    return static_cast<int>(byte_size_);
}

int VEL_Bitfield::get(VEL_Byte_Block& block) const {
    if (block.set(byte_size_, bytes_) < 0) return -1;
    return static_cast<int>(byte_size_);
}

void VEL_Bitfield::reset() {
    if (bytes_ != nullptr) VEL_Std_Allocator::instance()->free(bytes_);
    bytes_ = nullptr;
    bit_count_ = 0;
    byte_size_ = 0;
}

void VEL_Bitfield::swap(VEL_Bitfield& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(bit_count_, other.bit_count_);
    std::swap(byte_size_, other.byte_size_);
}
