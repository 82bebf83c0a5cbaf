// Dotted text of an IPv4 address.
#include <vel/platform/dotted_quad.h>

#include <charconv>

namespace vel {
namespace {

constexpr int longest_text = 15;
constexpr int groups = 4;

bool is_digit(char character) { return character >= '0' && character <= '9'; }

} // namespace

bool is_dotted_quad(const char* text) {
    int dots = 0, digits = 0, value = 0;
    for (int index = 0; index <= longest_text; ++index) {
        const char character = text[index];
        if (is_digit(character)) {
            value = value * 10 + (character - '0');
            if (++digits > 3 || value > 255) return false;
            continue;
        }
        if ((character != '.' && character != '\0') || digits == 0) return false;
        if (character == '\0') return dots == groups - 1;
        ++dots;
        digits = value = 0;
    }
    return false;
}

bool read_dotted_quad(const char* text, uint32_t& host) {
    uint32_t address = 0;
    for (int group = 0; group < groups; ++group) {
        const uint32_t base = *text == '0' ? 8 : 10;
        uint32_t value = 0;
        for (; is_digit(*text); ++text) {
            const auto digit = static_cast<uint32_t>(*text - '0');
            if (digit >= base) return false;
            value = value * base + digit;
        }
        address = address << 8 | value;
        if (*text == '.') ++text;
    }
    host = address;
    return true;
}

void write_dotted_quad(uint32_t host, char (&text)[16]) {
    char* end = text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        end = std::to_chars(end, text + sizeof text, host >> shift & 0xFF).ptr;
        *end++ = shift ? '.' : '\0';
    }
}

} // namespace vel
