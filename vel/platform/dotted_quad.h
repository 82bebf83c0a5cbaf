// Dotted text of an IPv4 address: recognised, read and written without the system's help (internal).
#pragma once

#include <vel/types.h>

namespace vel {

/// True for four groups of 1 to 3 digits, none above 255, between dots, in at most 15 characters.
VEL_API bool is_dotted_quad(const char* text);

/// Reads a text that `is_dotted_quad` accepts. A group that starts with 0 is octal, as the socket layer reads it.
/// @param host  receives the address in host order
/// @return false when such a group holds an 8 or a 9; `host` keeps its value
VEL_API bool read_dotted_quad(const char* text, uint32_t& host);

/// Writes the text of an address in host order, without leading zeros, and its NUL.
VEL_API void write_dotted_quad(uint32_t host, char (&text)[16]);

} // namespace vel
