// Address text: the dotted-quad recogniser and reader against a second, plainer parser.
#include <vel/platform/inet_addr.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>
#include <vel/platform/dotted_quad.h>

namespace {

std::vector<std::string> split_at_dots(const std::string& text) {
    std::vector<std::string> groups{""};
    for (const char character : text) {
        if (character == '.')
            groups.emplace_back();
        else
            groups.back() += character;
    }
    return groups;
}

bool is_group(const std::string& group) {
    return !group.empty() && group.size() <= 3 && group.find_first_not_of("0123456789") == std::string::npos &&
           std::stoul(group) <= 255;
}

bool is_quad(const std::vector<std::string>& groups) {
    bool all = groups.size() == 4;
    for (const std::string& group : groups) all = all && is_group(group);
    return all;
}

// The address of a quad, or nothing when a group with a leading 0 is not octal.
std::optional<uint32_t> address_of(const std::vector<std::string>& groups) {
    uint32_t address = 0;
    for (const std::string& group : groups) {
        char* end = nullptr;
        address = address * 256 + static_cast<uint32_t>(std::strtoul(group.c_str(), &end, 0));
        if (*end != '\0') return std::nullopt;
    }
    return address;
}

void check(bool holds) {
    if (!holds) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str()); // to the first NUL
    const std::vector<std::string> groups = split_at_dots(text);
    const bool accepted = vel::is_dotted_quad(text.c_str());
    check(accepted == is_quad(groups));
    if (!accepted) return 0; // anything else would be looked up as a name

    const std::optional<uint32_t> expected = address_of(groups);
    VEL_INET_Addr address(9, 9);
    check(address.set(4711, text.c_str()) == (expected ? 0 : -1));
    check(address.getiplong() == expected.value_or(9));
    check(address.getport() == (expected ? 4711 : 9));
    uint32_t again = 0;
    const std::string written = address.getiptext();
    check(vel::is_dotted_quad(written.c_str()) && vel::read_dotted_quad(written.c_str(), again));
    check(again == address.getiplong());
    return 0;
}
