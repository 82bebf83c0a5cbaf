// Address text: the dotted-quad recogniser and reader against a second, plainer parser.
#include "target.h"

#include <regex>
#include <string>
#include <vel/platform/dotted_quad.h>
#include <vel/platform/inet_addr.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str()); // to the first NUL
    static const std::regex pattern("([0-9]{1,3})\\.([0-9]{1,3})\\.([0-9]{1,3})\\.([0-9]{1,3})");
    std::smatch groups;
    bool is_quad = std::regex_match(text, groups, pattern), is_octal = true;
    uint32_t expected = 0;
    for (size_t i = 1; is_quad && i <= 4; ++i) {
        const std::string group = groups[i];
        size_t used = 0;
        is_quad = std::stoul(group) <= 255;
        expected = expected * 256 + static_cast<uint32_t>(std::stoul(group, &used, 0));
        is_octal = is_octal && used == group.size(); // where it starts with 0
    }
    require(vel::is_dotted_quad(text.c_str()) == is_quad);
    if (!is_quad) return 0; // anything else would be looked up as a name

    VEL_INET_Addr address(9, 9);
    require(address.set(4711, text.c_str()) == (is_octal ? 0 : -1));
    require(address.getiplong() == (is_octal ? expected : 9));
    require(address.getport() == (is_octal ? 4711 : 9));
    return 0;
}
