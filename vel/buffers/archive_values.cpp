// The archive's stream operators for the class types.
#include <vel/buffers/archive.h>

#include <new>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/platform/inet_addr.h>
#include <vel/platform/times.h>

namespace {

template <class V>
VEL_Archive& append(VEL_Archive& archive, const V& value) {
    vel::ArchiveStream::output(archive) << value;
    return archive;
}

template <class V>
VEL_Archive& take(VEL_Archive& archive, V& value) {
    vel::ArchiveStream::input(archive) >> value;
    return archive;
}

void throw_unless(bool holds) {
    if (!holds) VEL_Exception::ThrowException(vel::error::invalid_parameter);
}

} // namespace

VEL_Archive& operator<<(VEL_Archive& to, const char* text) { return append(to, text); }
VEL_Archive& operator<<(VEL_Archive& to, const wchar_t* text) { return append(to, text); }
VEL_Archive& operator<<(VEL_Archive& to, const std::wstring& text) { return append(to, text); }
VEL_Archive& operator<<(VEL_Archive& to, const VEL_Bitfield& bits) { return append(to, bits); }

VEL_Archive& operator<<(VEL_Archive& to, const SYSTEMTIME& time) {
    FILETIME ticks;
    throw_unless(vel::system_time_to_file_time(time, ticks));
    return to << vel::file_time_ticks(ticks);
}

VEL_Archive& operator<<(VEL_Archive& to, const VEL_INET_Addr& address) {
    return to << address.getiplong() << address.getport();
}

VEL_Archive& operator>>(VEL_Archive& in, std::string& text) {
    vel::cdr::Element element;
    if (!vel::ArchiveStream::take_bytes(in, vel::cdr::tag_string, element)) return take(in, text);
    try {
        text.assign(reinterpret_cast<const char*>(element.data), element.length);
    } catch (const std::bad_alloc&) {
        VEL_Exception::ThrowException(vel::error::not_enough_memory);
    }
    return in;
}

VEL_Archive& operator>>(VEL_Archive& in, std::wstring& text) { return take(in, text); }
VEL_Archive& operator>>(VEL_Archive& in, VEL_Byte_Block& block) {
    vel::cdr::Element element;
    if (!vel::ArchiveStream::take_bytes(in, vel::cdr::tag_bytes, element)) return take(in, block);
    if (block.set(element.length, element.data) < 0) vel::cdr::throw_last_error();
    return in;
}

VEL_Archive& operator>>(VEL_Archive& in, VEL_Bitfield& bits) { return take(in, bits); }

VEL_Archive& operator>>(VEL_Archive& in, SYSTEMTIME& time) {
    uint64_t ticks;
    in >> ticks;
    throw_unless(vel::file_time_to_system_time(vel::make_file_time(ticks), time));
    return in;
}

VEL_Archive& operator>>(VEL_Archive& in, VEL_INET_Addr& address) {
    uint32_t host;
    uint16_t port;
    in >> host >> port;
    address.set(port, host);
    return in;
}
