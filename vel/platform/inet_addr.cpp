// IPv4 socket address: conversions between text, numbers and the socket layer's record.
#include <vel/platform/inet_addr.h>

#include <bit>
#include <cstring>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/socket.h>
#include <vel/platform/dotted_quad.h>
#include <vel/platform/report.h>

namespace {

constexpr uint16_t ipv4 = 2;
constexpr int record_length = 16;

// Between host and network order; its own inverse.
uint16_t swap_order(uint16_t value) {
    if constexpr (std::endian::native == std::endian::big) return value;
    return static_cast<uint16_t>(value << 8 | value >> 8);
}

uint32_t swap_order(uint32_t value) {
    if constexpr (std::endian::native == std::endian::big) return value;
    return value << 24 | (value & 0xFF00) << 8 | (value >> 8 & 0xFF00) | value >> 24;
}

void throw_on(int result) {
    if (result < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

} // namespace

VEL_INET_Addr::VEL_INET_Addr() { reset(); }

VEL_INET_Addr::VEL_INET_Addr(uint16_t port, uint32_t host) { set(port, host); }

VEL_INET_Addr::VEL_INET_Addr(uint16_t port, const char* host) : VEL_INET_Addr() { throw_on(set(port, host)); }

VEL_INET_Addr::VEL_INET_Addr(const sockaddr* address, int length) : VEL_INET_Addr() { throw_on(set(address, length)); }

VEL_INET_Addr::VEL_INET_Addr(const VEL_INET_Addr& other) : VEL_INET_Addr() { throw_on(set(other, other.length_)); }

VEL_INET_Addr& VEL_INET_Addr::operator=(const VEL_INET_Addr& other) {
    if (this != &other) throw_on(set(other, other.length_));
    return *this;
}

VEL_INET_Addr::~VEL_INET_Addr() = default;

int VEL_INET_Addr::set(uint16_t port, uint32_t host) {
    record_ = {ipv4, swap_order(port), swap_order(host), {}};
    length_ = record_length;
    return 0;
}

int VEL_INET_Addr::set(uint16_t port, const char* host) {
    if (!host) return set(port, uint32_t{0});
    uint32_t address = 0;
    if (isiptext(host)) {
        // Refused rather than read as the broadcast address, which the socket layer's parser would answer.
        if (!vel::read_dotted_quad(host, address)) return vel::report(vel::error::address_not_available);
        return set(port, address);
    }
    uint32_t count = 1;
    if (const uint32_t code = vel::os::resolve_host(host, &address, count)) return vel::report(code);
    return set(port, address);
}

int VEL_INET_Addr::set(const sockaddr* address, int length) {
    if (!address || length < record_length) return vel::report(vel::error::address_not_available);
    Record record;
    std::memcpy(&record, address, sizeof record);
    if (record.family != ipv4) return vel::report(vel::error::address_not_available);
    record_ = record;
    return 0;
}

void VEL_INET_Addr::reset() { set(0, uint32_t{0}); }

uint32_t VEL_INET_Addr::getiplong() const { return record_.family == ipv4 ? swap_order(record_.address) : 0xFFFFFFFF; }

uint16_t VEL_INET_Addr::getport() const { return record_.family == ipv4 ? swap_order(record_.port) : 0xFFFF; }

const char* VEL_INET_Addr::getiptext() const {
    if (record_.family != ipv4 || length_ < record_length) {
        VELLib::SetErrorCode(vel::error::address_not_available);
        return nullptr;
    }
    thread_local char text[16];
    vel::write_dotted_quad(swap_order(record_.address), text);
    return text;
}

bool VEL_INET_Addr::operator==(const VEL_INET_Addr& other) const {
    return record_.family == other.record_.family && record_.address == other.record_.address &&
           record_.port == other.record_.port;
}

bool VEL_INET_Addr::isiptext(const char* text) { return vel::is_dotted_quad(text); }
