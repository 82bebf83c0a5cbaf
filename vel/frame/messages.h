// The message texts of the error codes (internal).
#pragma once

#include <cstdint>
#include <string_view>

namespace vel {

/// Text of a library code by its index 1 to 39, UTF-8; empty for any other index.
std::string_view library_text(uint32_t index);

/// Text of a system, socket or Internet code, without a line end; empty when there is none.
std::string_view system_text(uint32_t code);

/// What is said for a code without a text.
std::string_view fallback_text();

} // namespace vel
