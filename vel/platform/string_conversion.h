// Conversion of NUL-terminated strings between the narrow code page, wide characters and UTF-8.
#pragma once

#include <vel/types.h>

namespace vel {

/// Result of a converter: a pointer to the caller's own text, or an owned buffer of the standard allocator.
///
/// Ownership: an owned buffer has a size above 0, ends with two zero units and goes with this object. A copy owns a
///            copy; a borrowed pointer stays borrowed.
class VEL_API Converted_Text {
public:
    Converted_Text() = default;
    Converted_Text(const Converted_Text& other);
    Converted_Text(Converted_Text&& other) noexcept;
    Converted_Text& operator=(Converted_Text other) noexcept;
    ~Converted_Text();

    /// Frees what is owned and holds nothing.
    void release();

    /// Releases, then points at the caller's text.
    void borrow(const void* text);

    /// Takes `units` characters of `unit_size` bytes into a buffer two units longer. False without memory (8).
    bool own(const void* text, uint64_t units, uint64_t unit_size);

    const void* get() const { return text_; }

private:
    void* text_ = nullptr;
    uint64_t size_ = 0; // bytes owned; 0: the text is the caller's
};

} // namespace vel

/// Converts between the process's narrow code page and wide characters, and keeps the last result.
///
/// Threads:   one at a time.
/// Ownership: the result stays valid until the next conversion or the converter's end. Converting a string to its own
///            kind returns the very same pointer and owns nothing.
/// Errors:    null without memory, with 8; null for a null input, with 87. What is invalid becomes U+FFFD, what the
///            code page lacks '?'.
/// Limits:    the narrow code page is UTF-8 unless the environment names another.
class VEL_API VEL_Str_Conv {
public:
    VEL_Str_Conv() = default;
    VEL_Str_Conv(const VEL_Str_Conv&) = default;
    VEL_Str_Conv(VEL_Str_Conv&&) = default;
    VEL_Str_Conv& operator=(const VEL_Str_Conv&) = default;
    VEL_Str_Conv& operator=(VEL_Str_Conv&&) = default;
    virtual ~VEL_Str_Conv();

    const char* convert_to_char(const char* text);
    const char* convert_to_char(const wchar_t* text);
    const wchar_t* convert_to_wchar(const char* text);
    const wchar_t* convert_to_wchar(const wchar_t* text);
    const char* convert_to_tchar(const char* text);
    const char* convert_to_tchar(const wchar_t* text);

    /// The result of the last conversion; meaningful for the kind that it produced.
    operator const char*() const;
    operator const wchar_t*() const;

    /// A converter by value, for use inline: `log(VEL_Str_Conv::text_convert_to_char(wide))`.
    static VEL_Str_Conv text_convert_to_char(const char* text);
    static VEL_Str_Conv text_convert_to_char(const wchar_t* text);
    static VEL_Str_Conv text_convert_to_wchar(const char* text);
    static VEL_Str_Conv text_convert_to_wchar(const wchar_t* text);
    static VEL_Str_Conv text_convert_to_tchar(const char* text);
    static VEL_Str_Conv text_convert_to_tchar(const wchar_t* text);

private:
    vel::Converted_Text result_;
};

/// Converts between UTF-8, wide characters and the narrow code page. Everything else as for VEL_Str_Conv.
class VEL_API VEL_Str_UTF8_Conv {
public:
    VEL_Str_UTF8_Conv() = default;
    VEL_Str_UTF8_Conv(const VEL_Str_UTF8_Conv&) = default;
    VEL_Str_UTF8_Conv(VEL_Str_UTF8_Conv&&) = default;
    VEL_Str_UTF8_Conv& operator=(const VEL_Str_UTF8_Conv&) = default;
    VEL_Str_UTF8_Conv& operator=(VEL_Str_UTF8_Conv&&) = default;
    virtual ~VEL_Str_UTF8_Conv();

    const wchar_t* convert_UTF8_to_wchar(const char* text);
    const char* convert_wchar_to_UTF8(const wchar_t* text);
    const char* convert_UTF8_to_char(const char* text);
    const char* convert_char_to_UTF8(const char* text);
    const char* convert_UTF8_to_tchar(const char* text);
    const char* convert_tchar_to_UTF8(const char* text);

    operator const char*() const;
    operator const wchar_t*() const;

    static VEL_Str_UTF8_Conv text_convert_UTF8_to_char(const char* text);
    static VEL_Str_UTF8_Conv text_convert_UTF8_to_wchar(const char* text);
    static VEL_Str_UTF8_Conv text_convert_UTF8_to_tchar(const char* text);
    static VEL_Str_UTF8_Conv text_convert_tchar_to_UTF8(const char* text);
    static VEL_Str_UTF8_Conv text_convert_to_UTF8(const char* text);
    static VEL_Str_UTF8_Conv text_convert_to_UTF8(const wchar_t* text);

private:
    vel::Converted_Text result_;
};
