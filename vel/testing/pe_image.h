// A small executable image with a version record 1.2.3.4, product 5.6.7.8, for tests to cut and spoil.
#pragma once

#include <cstdint>
#include <string>
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
        put16(0, 0x5A4D);
        put32(60, headers_at);
        put32(headers_at, 0x00004550);
        put16(headers_at + 6, 2); // sections
        put16(headers_at + 20, static_cast<uint16_t>(directories_ + 24 - headers_at - 24));
        put16(headers_at + 24, magic);
        put32(directories_ - 4, 3);
        section(0, 0x400, 0x200, 0x200);
        const uint32_t raw = directories_ + 24 + 80;
        section(1, section_address, 0x200, raw);
        put32(directories_ + 16, section_address + resources_in_section);
        put32(directories_ + 20, 0x180);
        resources_ = raw + resources_in_section;
        tree();
        block();
    }

    void put16(uint32_t at, uint16_t value) {
        if (bytes.size() < at + 2) bytes.resize(at + 2);
        bytes[at] = static_cast<uint8_t>(value);
        bytes[at + 1] = static_cast<uint8_t>(value >> 8);
    }
    void put32(uint32_t at, uint32_t value) {
        put16(at, static_cast<uint16_t>(value));
        put16(at + 2, static_cast<uint16_t>(value >> 16));
    }

    uint32_t resources() const { return resources_; }
    uint32_t block_at() const { return resources_ + block_in_resources; }
    uint32_t directories() const { return directories_; }

    std::string text() const { return {bytes.begin(), bytes.end()}; }

    std::vector<uint8_t> bytes;

private:
    void section(uint32_t index, uint32_t address, uint32_t size, uint32_t raw) {
        const uint32_t at = directories_ + 24 + 40 * index;
        put32(at + 12, address);
        put32(at + 16, size);
        put32(at + 20, raw);
    }

    void directory(uint32_t at, uint16_t named, uint16_t numbered) {
        put16(resources_ + at + 12, named);
        put16(resources_ + at + 14, numbered);
    }

    void entry(uint32_t at, uint32_t name, uint32_t target) {
        put32(resources_ + at, name);
        put32(resources_ + at + 4, target);
    }

    void tree() {
        directory(0, 1, 1);
        entry(16, 0x80000100, 0x80000000); // a named type, which leads back to the root
        entry(24, 16, 0x80000000 | 0x20);
        directory(0x20, 0, 1);
        entry(0x30, 1, 0x80000000 | 0x38);
        put16(resources_ + 0x38 + 14, 1);
        entry(0x48, 1033, 0x50);
        // The data entry shares bytes with nothing: address, length.
        put32(resources_ + 0x50, section_address + resources_in_section + block_in_resources);
        put32(resources_ + 0x54, 92);
    }

    void block() {
        const uint32_t at = block_at() + 8; // behind the rest of the data entry
        put32(resources_ + 0x50, section_address + resources_in_section + block_in_resources + 8);
        put16(at, 92);
        put16(at + 2, 52);
        const char key[] = "VS_VERSION_INFO";
        for (uint32_t i = 0; i < sizeof key; ++i) put16(at + 6 + 2 * i, static_cast<uint8_t>(key[i]));
        put32(at + 40, 0xFEEF04BD);
        put32(at + 48, 0x00010002);
        put32(at + 52, 0x00030004);
        put32(at + 56, 0x00050006);
        put32(at + 60, 0x00070008);
        put32(at + 88, 0);
    }

    uint32_t directories_;
    uint32_t resources_ = 0;
};

} // namespace vel::testing
