// The string converters: what is owned, and the steps of each conversion.
#include <vel/platform/string_conversion.h>

#include <cstring>
#include <cwchar>
#include <new>
#include <utility>
#include <vel/memory/allocator.h>
#include <vel/os/error_codes.h>
#include <vel/os/text.h>
#include <vel/platform/report.h>

namespace vel {
namespace {

void* allocate(uint64_t size) {
    VEL_Std_Allocator* allocator = VEL_Std_Allocator::instance();
    return allocator ? allocator->malloc(size, true) : nullptr;
}

} // namespace

Converted_Text::Converted_Text(const Converted_Text& other) : text_(other.text_) {
    if (other.size_ == 0) return;
    text_ = allocate(other.size_);
    if (!text_) return;
    std::memcpy(text_, other.text_, other.size_);
    size_ = other.size_;
}

Converted_Text::Converted_Text(Converted_Text&& other) noexcept
    : text_(std::exchange(other.text_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

Converted_Text& Converted_Text::operator=(Converted_Text other) noexcept {
    std::swap(text_, other.text_);
    std::swap(size_, other.size_);
    return *this;
}

Converted_Text::~Converted_Text() { release(); }

void Converted_Text::release() {
    if (size_ > 0) VEL_Std_Allocator::instance()->free(text_);
    text_ = nullptr;
    size_ = 0;
}

void Converted_Text::borrow(const void* text) {
    release();
    text_ = const_cast<void*>(text); // only ever given back as const
}

bool Converted_Text::own(const void* text, uint64_t units, uint64_t unit_size) {
    release();
    const uint64_t size = (units + 2) * unit_size; // the terminator and, on purpose, one unit more
    text_ = allocate(size);
    if (!text_) return false;
    std::memcpy(text_, text, units * unit_size);
    size_ = size;
    return true;
}

namespace {

// Converts a whole string into `result`; null input and short memory leave it empty.
template <class Unit, class Convert>
void convert_into(Converted_Text& result, const Unit* text, Convert convert) try {
    result.release();
    if (!text) {
        report(error::invalid_parameter);
        return;
    }
    const auto converted = convert(text);
    result.own(converted.data(), converted.size(), sizeof *converted.data());
} catch (const std::bad_alloc&) {
    report(error::not_enough_memory);
}

const char* narrow(const Converted_Text& result) { return static_cast<const char*>(result.get()); }
const wchar_t* wide(const Converted_Text& result) { return static_cast<const wchar_t*>(result.get()); }

} // namespace
} // namespace vel

namespace os = vel::os;
using vel::convert_into;
using vel::narrow;
using vel::wide;

VEL_Str_Conv::~VEL_Str_Conv() = default;

const char* VEL_Str_Conv::convert_to_char(const char* text) {
    result_.borrow(text);
    return narrow(result_);
}

const char* VEL_Str_Conv::convert_to_char(const wchar_t* text) {
    convert_into(result_, text, os::wide_to_narrow);
    return narrow(result_);
}

const wchar_t* VEL_Str_Conv::convert_to_wchar(const char* text) {
    convert_into(result_, text, os::narrow_to_wide);
    return wide(result_);
}

const wchar_t* VEL_Str_Conv::convert_to_wchar(const wchar_t* text) {
    result_.borrow(text);
    return wide(result_);
}

const char* VEL_Str_Conv::convert_to_tchar(const char* text) { return convert_to_char(text); }
const char* VEL_Str_Conv::convert_to_tchar(const wchar_t* text) { return convert_to_char(text); }

VEL_Str_Conv::operator const char*() const { return narrow(result_); }
VEL_Str_Conv::operator const wchar_t*() const { return wide(result_); }

VEL_Str_Conv VEL_Str_Conv::text_convert_to_char(const char* text) {
    VEL_Str_Conv converter;
    converter.convert_to_char(text);
    return converter;
}

VEL_Str_Conv VEL_Str_Conv::text_convert_to_char(const wchar_t* text) {
    VEL_Str_Conv converter;
    converter.convert_to_char(text);
    return converter;
}

VEL_Str_Conv VEL_Str_Conv::text_convert_to_wchar(const char* text) {
    VEL_Str_Conv converter;
    converter.convert_to_wchar(text);
    return converter;
}

VEL_Str_Conv VEL_Str_Conv::text_convert_to_wchar(const wchar_t* text) {
    VEL_Str_Conv converter;
    converter.convert_to_wchar(text);
    return converter;
}

VEL_Str_Conv VEL_Str_Conv::text_convert_to_tchar(const char* text) { return text_convert_to_char(text); }
VEL_Str_Conv VEL_Str_Conv::text_convert_to_tchar(const wchar_t* text) { return text_convert_to_char(text); }

VEL_Str_UTF8_Conv::~VEL_Str_UTF8_Conv() = default;

const wchar_t* VEL_Str_UTF8_Conv::convert_UTF8_to_wchar(const char* text) {
    convert_into(result_, text, os::utf8_to_wide);
    return wide(result_);
}

const char* VEL_Str_UTF8_Conv::convert_wchar_to_UTF8(const wchar_t* text) {
    convert_into(result_, text, os::wide_to_utf8);
    return narrow(result_);
}

const char* VEL_Str_UTF8_Conv::convert_UTF8_to_char(const char* text) {
    convert_into(result_, text, [](const char* utf8) { return os::wide_to_narrow(os::utf8_to_wide(utf8)); });
    return narrow(result_);
}

const char* VEL_Str_UTF8_Conv::convert_char_to_UTF8(const char* text) {
    convert_into(result_, text, [](const char* in_page) { return os::wide_to_utf8(os::narrow_to_wide(in_page)); });
    return narrow(result_);
}

const char* VEL_Str_UTF8_Conv::convert_UTF8_to_tchar(const char* text) { return convert_UTF8_to_char(text); }
const char* VEL_Str_UTF8_Conv::convert_tchar_to_UTF8(const char* text) { return convert_char_to_UTF8(text); }

VEL_Str_UTF8_Conv::operator const char*() const { return narrow(result_); }
VEL_Str_UTF8_Conv::operator const wchar_t*() const { return wide(result_); }

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_UTF8_to_char(const char* text) {
    VEL_Str_UTF8_Conv converter;
    converter.convert_UTF8_to_char(text);
    return converter;
}

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_UTF8_to_wchar(const char* text) {
    VEL_Str_UTF8_Conv converter;
    converter.convert_UTF8_to_wchar(text);
    return converter;
}

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_UTF8_to_tchar(const char* text) {
    return text_convert_UTF8_to_char(text);
}

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_tchar_to_UTF8(const char* text) { return text_convert_to_UTF8(text); }

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_to_UTF8(const char* text) {
    VEL_Str_UTF8_Conv converter;
    converter.convert_char_to_UTF8(text);
    return converter;
}

VEL_Str_UTF8_Conv VEL_Str_UTF8_Conv::text_convert_to_UTF8(const wchar_t* text) {
    VEL_Str_UTF8_Conv converter;
    converter.convert_wchar_to_UTF8(text);
    return converter;
}
