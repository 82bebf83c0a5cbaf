// A small executable image with a version record 1.2.3.4, product 5.6.7.8, for tests to cut and spoil.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vel::testing {

inline constexpr uint32_t headers_at = 0x40; // of the PE signature
inline constexpr uint32_t section_address = 0x1000;
inline constexpr uint32_t resources_in_section = 0x10;
inline constexpr uint32_t block_in_resources = 0x58;

class PeImage {
public:
    /// @param magic  0x10B for 32 bits, 0x20B for 64
    explicit PeImage(uint16_t magic) : directories_(headers_at + 24 + (magic == 0x10B ? 96 : 112)) {
        const uint32_t sections = directories_ + 24, tree = resources(), block = block_at() + 8;
        put(0, {0x5A4D});
        put(60, {headers_at});
        put(headers_at, {0x00004550, 2 << 16}); // two sections
        put(headers_at + 20, {directories_ - headers_at, magic});
        put(directories_ - 4, {3});
        put(directories_ + 16, {section_address + resources_in_section, 0x180});
        put(sections + 12, {0x400, 0x200, 0x200}); // address, size, place in the file
        put(sections + 52, {section_address, 0x200, tree - resources_in_section});
        // type, name and language; a named type leads back to the root
        put(tree + 12, {1 | 1 << 16, 0x80000100, 0x80000000, 16, 0x80000020});
        put(tree + 0x2C, {1 << 16, 1, 0x80000038});
        put(tree + 0x44, {1 << 16, 1033, 0x50});
        put(tree + 0x50, {section_address + resources_in_section + block_in_resources + 8, 92});
        put(block, {92 | 52 << 16});
        put(block + 40, {0xFEEF04BD});
        put(block + 48, {0x00010002, 0x00030004, 0x00050006, 0x00070008});
        put(block + 88, {0});
        uint32_t at = block + 6;
        for (const char letter : std::string_view("VS_VERSION_INFO")) put32(std::exchange(at, at + 2), letter);
    }

    void put(uint32_t at, std::initializer_list<uint32_t> words) {
        for (const uint32_t word : words) put32(std::exchange(at, at + 4), word);
    }
    void put32(uint32_t at, uint32_t value) {
        if (bytes.size() < at + 4) bytes.resize(at + 4);
        for (uint32_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(value >> 8 * i);
    }

    uint32_t directories() const { return directories_; }
    uint32_t resources() const { return directories_ + 24 + 80 + resources_in_section; }
    uint32_t block_at() const { return resources() + block_in_resources; }
    std::string text() const { return {bytes.begin(), bytes.end()}; }

    std::vector<uint8_t> bytes;

private:
    uint32_t directories_;
};

} // namespace vel::testing
