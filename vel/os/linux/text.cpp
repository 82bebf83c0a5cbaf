// The process's narrow code page, system messages and random bytes.
#include <vel/os/text.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/code_page.h>

namespace vel::os {
namespace {

// Read once, so that a conversion never meets an environment that is being changed.
const std::string& process_code_page() {
    static const std::string codeset =
        code_page_of_environment(std::getenv("LC_ALL"), std::getenv("LC_CTYPE"), std::getenv("LANG"));
    return codeset;
}

} // namespace

std::wstring narrow_to_wide(std::string_view text) { return code_page_to_wide(process_code_page(), text); }

std::string wide_to_narrow(std::wstring_view text) { return wide_to_code_page(process_code_page(), text); }

std::string system_message(int system_error) {
    const char* text = ::strerrordesc_np(system_error);
    return text ? text : "";
}

uint32_t random_bytes(void* buffer, uint64_t size) {
    auto* target = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const ssize_t count = ::getrandom(target, size, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return error::io_device;
        target += count;
        size -= static_cast<uint64_t>(count);
    }
    return error::none;
}

} // namespace vel::os
