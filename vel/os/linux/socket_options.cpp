// Socket options: the interface's own level is translated, other levels go to the system as they are.
#include <vel/os/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>

namespace vel::os {
namespace {

constexpr int own_level = 0xFFFF;

// How the value of an option looks to the caller.
enum class Form : uint8_t { number, buffer_size, milliseconds, linger, error, ignored };

struct Option {
    int name;
    int system_name;
    Form form;
};

constexpr Option options[] = {
    {0x0004, SO_REUSEADDR, Form::number},
    {0x0008, SO_KEEPALIVE, Form::number},
    {0x0020, SO_BROADCAST, Form::number},
    {0x0080, SO_LINGER, Form::linger},
    {0x1001, SO_SNDBUF, Form::buffer_size},
    {0x1002, SO_RCVBUF, Form::buffer_size},
    {0x1005, SO_SNDTIMEO, Form::milliseconds},
    {0x1006, SO_RCVTIMEO, Form::milliseconds},
    {0x1007, SO_ERROR, Form::error},
    {0x1008, SO_TYPE, Form::number},
    {0x3002, 0, Form::ignored},
    {0x700B, 0, Form::ignored},
    {0x7010, 0, Form::ignored},
};

const Option* find_option(int name) {
    const auto* found = std::find_if(std::begin(options), std::end(options),
                                     [name](const Option& option) { return option.name == name; });
    return found == std::end(options) ? nullptr : found;
}

uint32_t set_system(int descriptor, int level, int name, const void* value, size_t length) {
    const int result = ::setsockopt(descriptor, level, name, value, static_cast<socklen_t>(length));
    return result < 0 ? socket_error(errno) : error::none;
}

template <class Value>
uint32_t get_system(int descriptor, int name, Value& value) {
    socklen_t length = sizeof value;
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &length) < 0 ? socket_error(errno) : error::none;
}

// Two 16-bit numbers are the interface's record; a longer value is the system's own with two 32-bit ones.
linger read_linger(const void* value, size_t length) {
    linger record{};
    if (length >= sizeof record) {
        std::memcpy(&record, value, sizeof record);
        return record;
    }
    uint16_t pair[2];
    std::memcpy(pair, value, sizeof pair);
    return {pair[0], pair[1]};
}

size_t write_linger(const linger& record, void* value, size_t length) {
    if (length >= sizeof record) {
        std::memcpy(value, &record, sizeof record);
        return sizeof record;
    }
    const uint16_t pair[2] = {static_cast<uint16_t>(record.l_onoff), static_cast<uint16_t>(record.l_linger)};
    std::memcpy(value, pair, sizeof pair);
    return sizeof pair;
}

timeval to_timeval(uint32_t milliseconds) {
    return {static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000) * 1000};
}

uint32_t set_own(int descriptor, const Option& option, const void* value, size_t length) {
    int32_t number;
    if (!value || length < sizeof number) return error::socket_fault;
    std::memcpy(&number, value, sizeof number);
    if (option.form == Form::linger) {
        const linger record = read_linger(value, length);
        return set_system(descriptor, SOL_SOCKET, option.system_name, &record, sizeof record);
    }
    if (option.form == Form::milliseconds) {
        const timeval time = to_timeval(static_cast<uint32_t>(number));
        return set_system(descriptor, SOL_SOCKET, option.system_name, &time, sizeof time);
    }
    return set_system(descriptor, SOL_SOCKET, option.system_name, &number, sizeof number);
}

uint32_t get_number(int descriptor, const Option& option, int32_t& number) {
    if (option.form == Form::milliseconds) {
        timeval time{};
        const uint32_t code = get_system(descriptor, option.system_name, time);
        number = static_cast<int32_t>(time.tv_sec * 1000 + time.tv_usec / 1000);
        return code;
    }
    const uint32_t code = get_system(descriptor, option.system_name, number);
    if (option.form == Form::buffer_size) number /= 2; // the system counts its own overhead in
    if (option.form == Form::error && number != 0) number = static_cast<int32_t>(socket_error(number));
    return code;
}

uint32_t get_own(int descriptor, const Option& option, void* value, int32_t& length) {
    int32_t number = 0;
    if (!value || length < static_cast<int32_t>(sizeof number)) return error::socket_fault;
    if (option.form == Form::linger) {
        linger record{};
        if (const uint32_t code = get_system(descriptor, option.system_name, record)) return code;
        length = static_cast<int32_t>(write_linger(record, value, static_cast<size_t>(length)));
        return error::none;
    }
    if (const uint32_t code = get_number(descriptor, option, number)) return code;
    std::memcpy(value, &number, sizeof number);
    length = sizeof number;
    return error::none;
}

} // namespace

uint32_t get_option(uint64_t socket, int level, int name, void* value, int32_t& length) {
    const Pinned<SocketObject> object(socket, HandleKind::socket);
    if (!object) return error::not_a_socket;
    if (level == own_level) {
        const Option* option = find_option(name);
        if (!option) return socket_error(ENOPROTOOPT);
        if (option->form == Form::ignored) return error::none;
        const uint32_t code = get_own(object->descriptor(), *option, value, length);
        uint32_t taken = error::none;
        if (!code && option->form == Form::error) std::memcpy(&taken, value, sizeof taken);
        object->notices.error_taken(taken);
        return code;
    }
    auto room = static_cast<socklen_t>(length);
    if (::getsockopt(object->descriptor(), level, name, value, &room) < 0) return socket_error(errno);
    length = static_cast<int32_t>(room);
    return error::none;
}

uint32_t set_option(uint64_t socket, int level, int name, const void* value, int32_t length) {
    const Pinned<SocketObject> object(socket, HandleKind::socket);
    if (!object) return error::not_a_socket;
    const auto size = static_cast<size_t>(std::max(length, 0));
    if (level != own_level) return set_system(object->descriptor(), level, name, value, size);
    const Option* option = find_option(name);
    if (!option) return socket_error(ENOPROTOOPT);
    return option->form == Form::ignored ? error::none : set_own(object->descriptor(), *option, value, size);
}

} // namespace vel::os
