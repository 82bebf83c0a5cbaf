// Random identifiers.
#include <vel/platform/identifiers.h>

#include <array>
#include <vel/os/error_codes.h>
#include <vel/os/text.h>
#include <vel/platform/report.h>

namespace VELLib {
namespace {

constexpr uint64_t text_length = 36;

bool hyphen_before(size_t byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

} // namespace

int genuuid(char* buffer, uint64_t length) {
    if (length <= text_length) return vel::report(vel::error::insufficient_buffer);
    std::array<uint8_t, 16> bytes{};
    if (vel::report(vel::os::random_bytes(bytes.data(), bytes.size())) != 0) return -1;
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80); // the common variant
    constexpr char digits[] = "0123456789abcdef";
    char* to = buffer;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (hyphen_before(i)) *to++ = '-';
        *to++ = digits[bytes[i] >> 4];
        *to++ = digits[bytes[i] & 15];
    }
    *to = '\0';
    return 0;
}

} // namespace VELLib
