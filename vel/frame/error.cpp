// The per-thread error code and the lookup of messages.
#include <algorithm>
#include <new>
#include <string_view>
#include <vel/frame/error.h>
#include <vel/frame/messages.h>
#include <vel/os/error_codes.h>
#include <vel/os/text.h>

namespace vel {
namespace {

constinit thread_local uint32_t last_error = error::none;

// The system ends its texts with a line end. It is counted in the length of a message and stripped from its text.
constexpr std::string_view line_end = "\r\n";

uint64_t copy_text(std::string_view text, char* buffer, uint64_t length) {
    text.copy(buffer, length);
    buffer[length] = '\0';
    return length;
}

// The longest part of a UTF-8 text that has at most `limit` bytes and does not cut a character.
uint64_t whole_characters(std::string_view text, uint64_t limit) {
    if (limit >= text.size()) return text.size();
    while (limit > 0 && (static_cast<uint8_t>(text[limit]) & 0xC0) == 0x80) --limit;
    return limit;
}

uint64_t copy_library_message(uint32_t code, char* buffer, uint64_t size) {
    const std::string_view text = library_text(code & ~error::library_bit);
    return copy_text(text, buffer, whole_characters(text, size - 1));
}

// 0 when there is no text or the buffer cannot hold all of it with its line end.
uint64_t copy_with_line_end(std::string_view text, char* buffer, uint64_t size) {
    const uint64_t length = text.size() + line_end.size();
    if (text.empty() || length >= size) return 0;
    copy_text(text, buffer, text.size());
    buffer[length - 1] = buffer[length] = '\0';
    return length;
}

// The table needs no memory, so that a shortage can still be told.
uint64_t copy_system_message(uint32_t code, char* buffer, uint64_t size) {
    if (!(code & error::errno_bit)) return copy_with_line_end(system_text(code), buffer, size);
    try {
        return copy_with_line_end(os::system_message(static_cast<int>(code & ~error::errno_bit)), buffer, size);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

} // namespace
} // namespace vel

namespace VELLib {

uint32_t GetErrorCode() noexcept { return vel::last_error == vel::error::none ? vel::error::unknown : vel::last_error; }

void SetErrorCode(uint32_t code) noexcept { vel::last_error = code; }

uint64_t GetErrorMsg(uint32_t code, char* buffer, uint64_t size) {
    if (!buffer || size == 0) return 0;
    const bool own = (code & vel::error::library_bit) != 0;
    const uint64_t length =
        own ? vel::copy_library_message(code, buffer, size) : vel::copy_system_message(code, buffer, size);
    if (length > 0) return length;
    const std::string_view fallback = vel::fallback_text();
    return vel::copy_text(fallback, buffer, std::min<uint64_t>(fallback.size(), size - 1));
}

} // namespace VELLib
