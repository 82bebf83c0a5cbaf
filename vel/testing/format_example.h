// The worked examples of docs/formats, read by the tests that keep them true.
#pragma once

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vel::testing {

/// The bytes of a page's block that starts with ```bytes: two hex digits each, up to a '|' on every line.
inline std::vector<uint8_t> format_example(const char* page) {
    std::ifstream file(page);
    std::vector<uint8_t> bytes;
    std::string line, byte;
    while (std::getline(file, line) && line != "```bytes") continue;
    while (std::getline(file, line) && line != "```") {
        std::istringstream digits(line.substr(0, line.find('|')));
        while (digits >> byte) bytes.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    }
    return bytes;
}

} // namespace vel::testing
