// UTF-8 to code points and back.
#include <vel/os/text.h>

#include <algorithm>

namespace vel::os {
namespace {

constexpr uint32_t replacement = 0xFFFD;
constexpr uint32_t largest = 0x10FFFF;

bool is_scalar(uint32_t code) { return code <= largest && (code < 0xD800 || code > 0xDFFF); }

// What a first byte announces: how many bytes follow, its own bits, and the range of the second byte, which alone
// rules out overlong forms, surrogates and what lies past the last code point.
struct Lead {
    uint32_t following;
    uint32_t bits;
    uint8_t lowest;
    uint8_t highest;
};

Lead lead_of(uint8_t byte) {
    if (byte < 0x80) return {0, byte, 0, 0};
    if (byte < 0xC2 || byte > 0xF4) return {0, replacement, 0, 0};
    if (byte < 0xE0) return {1, byte & 0x1Fu, 0x80, 0xBF};
    if (byte == 0xE0) return {2, 0, 0xA0, 0xBF};
    if (byte == 0xED) return {2, 0xD, 0x80, 0x9F};
    if (byte < 0xF0) return {2, byte & 0x0Fu, 0x80, 0xBF};
    if (byte == 0xF0) return {3, 0, 0x90, 0xBF};
    return {3, byte & 0x07u, 0x80, byte == 0xF4 ? uint8_t{0x8F} : uint8_t{0xBF}};
}

// Takes one character off the front. A broken one is taken up to the byte that breaks it.
uint32_t take(std::string_view& text) {
    Lead lead = lead_of(static_cast<uint8_t>(text.front()));
    text.remove_prefix(1);
    while (lead.following > 0) {
        const uint8_t next = text.empty() ? 0 : static_cast<uint8_t>(text.front());
        if (next < lead.lowest || next > lead.highest) return replacement;
        text.remove_prefix(1);
        lead = {lead.following - 1, lead.bits << 6 | (next & 0x3Fu), 0x80, 0xBF};
    }
    return lead.bits;
}

void put(uint32_t code, std::string& text) {
    const auto tail = [&](int shift) { text += static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) {
        text += static_cast<char>(code);
    } else if (code < 0x800) {
        text += static_cast<char>(0xC0 | code >> 6);
        tail(0);
    } else if (code < 0x10000) {
        text += static_cast<char>(0xE0 | code >> 12);
        tail(6), tail(0);
    } else {
        text += static_cast<char>(0xF0 | code >> 18);
        tail(12), tail(6), tail(0);
    }
}

// On a system with 16-bit wide characters a code point above them is two units.
uint32_t take(std::wstring_view& text) {
    const auto unit = static_cast<uint32_t>(text.front());
    text.remove_prefix(1);
    if constexpr (sizeof(wchar_t) == 2) {
        const uint32_t next = text.empty() ? 0 : static_cast<uint32_t>(text.front());
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            text.remove_prefix(1);
            return 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00);
        }
    }
    return is_scalar(unit) ? unit : replacement;
}

void put(uint32_t code, std::wstring& text) {
    if (sizeof(wchar_t) == 2 && code > 0xFFFF) {
        text += static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10));
        text += static_cast<wchar_t>(0xDC00 + (code & 0x3FF));
    } else {
        text += static_cast<wchar_t>(code);
    }
}

} // namespace

std::wstring utf8_to_wide(std::string_view text) {
    std::wstring wide;
    wide.reserve(text.size());
    while (!text.empty()) put(take(text), wide);
    return wide;
}

std::string wide_to_utf8(std::wstring_view text) {
    std::string narrow;
    narrow.reserve(text.size());
    while (!text.empty()) put(take(text), narrow);
    return narrow;
}

} // namespace vel::os
