// Narrow code page, system messages and random bytes.
#pragma once

#include <string>
#include <string_view>
#include <vel/types.h>

namespace vel::os {

/// Converts between the process's narrow code page and code points. The code page is UTF-8 unless the environment
/// names another. What is invalid becomes U+FFFD, what cannot be written '?'. Throws nothing but std::bad_alloc.
std::wstring narrow_to_wide(std::string_view text);
std::string wide_to_narrow(std::wstring_view text);

/// The same for UTF-8, whatever the code page.
std::wstring utf8_to_wide(std::string_view text);
std::string wide_to_utf8(std::wstring_view text);

/// The system's own text for an errno without a number of ours; empty when there is none.
std::string system_message(int system_error);

/// Fills from the system's random source. Errors: 1117.
uint32_t random_bytes(void* buffer, uint64_t size);

} // namespace vel::os
