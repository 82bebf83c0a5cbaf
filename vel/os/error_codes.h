// Names for the error numbers that the boundary and the folders above it return; the numbers are the interface's.
#pragma once

#include <cstdint>

namespace vel::error {

// System codes.
inline constexpr uint32_t none = 0;
inline constexpr uint32_t file_not_found = 2;
inline constexpr uint32_t path_not_found = 3;
inline constexpr uint32_t too_many_open_files = 4;
inline constexpr uint32_t access_denied = 5;
inline constexpr uint32_t invalid_handle = 6;
inline constexpr uint32_t not_enough_memory = 8;
inline constexpr uint32_t not_same_device = 17;
inline constexpr uint32_t write_protected = 19;
inline constexpr uint32_t bad_unit = 20;
inline constexpr uint32_t sharing_violation = 32;
inline constexpr uint32_t lock_violation = 33;
inline constexpr uint32_t end_of_file = 38;
inline constexpr uint32_t not_supported = 50;
inline constexpr uint32_t file_exists = 80;
inline constexpr uint32_t invalid_parameter = 87;
inline constexpr uint32_t broken_pipe = 109;
inline constexpr uint32_t disk_full = 112;
inline constexpr uint32_t insufficient_buffer = 122;
inline constexpr uint32_t directory_not_empty = 145;
inline constexpr uint32_t not_locked = 158;
inline constexpr uint32_t bad_path_name = 161;
inline constexpr uint32_t busy = 170;
inline constexpr uint32_t already_exists = 183;
inline constexpr uint32_t name_too_long = 206;
inline constexpr uint32_t file_too_large = 223;
inline constexpr uint32_t wait_timeout = 258;
inline constexpr uint32_t not_owner = 288;
inline constexpr uint32_t arithmetic_overflow = 534;
inline constexpr uint32_t port_closed = 735;
inline constexpr uint32_t operation_cancelled = 995;
inline constexpr uint32_t io_pending = 997;
inline constexpr uint32_t invalid_address = 998;
inline constexpr uint32_t io_device = 1117;
inline constexpr uint32_t possible_deadlock = 1131;
inline constexpr uint32_t invalid_window = 1400;
inline constexpr uint32_t no_system_resources = 1450;
inline constexpr uint32_t resource_data_not_found = 1812;
inline constexpr uint32_t resource_malformed = 1813;
inline constexpr uint32_t not_enough_quota = 1816;
inline constexpr uint32_t cannot_resolve_name = 1921;

// Socket codes.
inline constexpr uint32_t socket_access_denied = 10013;
inline constexpr uint32_t socket_fault = 10014;
inline constexpr uint32_t socket_invalid = 10022;
inline constexpr uint32_t too_many_sockets = 10024;
inline constexpr uint32_t would_block = 10035;
inline constexpr uint32_t in_progress = 10036;
inline constexpr uint32_t not_a_socket = 10038;
inline constexpr uint32_t destination_required = 10039;
inline constexpr uint32_t message_too_long = 10040;
inline constexpr uint32_t operation_not_supported = 10045;
inline constexpr uint32_t address_in_use = 10048;
inline constexpr uint32_t address_not_available = 10049;
inline constexpr uint32_t connection_aborted = 10053;
inline constexpr uint32_t connection_reset = 10054;
inline constexpr uint32_t no_buffer_space = 10055;
inline constexpr uint32_t already_connected = 10056;
inline constexpr uint32_t not_connected = 10057;
inline constexpr uint32_t socket_shut_down = 10058;
inline constexpr uint32_t socket_timed_out = 10060;
inline constexpr uint32_t connection_refused = 10061;
inline constexpr uint32_t socket_version_not_supported = 10092;
inline constexpr uint32_t host_not_found = 11001;
inline constexpr uint32_t resolver_try_again = 11002;
inline constexpr uint32_t resolver_failed = 11003;
inline constexpr uint32_t resolver_no_data = 11004;

// Library codes: bit 29 and the index into the message table.
inline constexpr uint32_t library_bit = 0x20000000;
inline constexpr uint32_t unknown = library_bit + 1;
inline constexpr uint32_t not_initialised = library_bit + 2;
inline constexpr uint32_t not_implemented = library_bit + 3;
inline constexpr uint32_t null_member = library_bit + 4;
inline constexpr uint32_t bad_hash = library_bit + 5;
inline constexpr uint32_t bad_md5_size = library_bit + 6;
inline constexpr uint32_t object_closed = library_bit + 7;
inline constexpr uint32_t too_many_events = library_bit + 8;
inline constexpr uint32_t remote_failed = library_bit + 9;
inline constexpr uint32_t not_found = library_bit + 10;
inline constexpr uint32_t zero_size = library_bit + 11;
inline constexpr uint32_t output_too_small = library_bit + 12;
inline constexpr uint32_t bad_element_type = library_bit + 13;
inline constexpr uint32_t bad_element_length = library_bit + 14;
inline constexpr uint32_t input_too_short = library_bit + 15;
inline constexpr uint32_t element_not_found = library_bit + 16;
inline constexpr uint32_t bad_protocol = library_bit + 17;
inline constexpr uint32_t peer_closed = library_bit + 18;
inline constexpr uint32_t task_init_failed = library_bit + 19;
inline constexpr uint32_t no_completion_key = library_bit + 20;
inline constexpr uint32_t too_many_workers = library_bit + 21;

// An errno without a number above is this bit plus the errno.
inline constexpr uint32_t errno_bit = 0x40000000;

} // namespace vel::error
