// Look-up of host names through the system's resolver.
#include <vel/os/socket.h>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vel/os/error_codes.h>

namespace vel::os {
namespace {

uint32_t resolver_error(int error_number) {
    switch (error_number) {
    case EAI_NONAME: return error::host_not_found;
    case EAI_AGAIN: return error::resolver_try_again;
    case EAI_ADDRFAMILY:
    case EAI_NODATA: return error::resolver_no_data;
    case EAI_MEMORY: return error::not_enough_memory;
    default: return error::resolver_failed;
    }
}

} // namespace

uint32_t resolve_host(const char* name, uint32_t* addresses, uint32_t& count) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM; // one entry an address
    addrinfo* list = nullptr;
    const int result = ::getaddrinfo(name, nullptr, &wanted, &list);
    if (result != 0) return resolver_error(result);
    uint32_t found = 0;
    for (const addrinfo* entry = list; entry && found < count; entry = entry->ai_next) {
        if (entry->ai_family != AF_INET) continue;
        addresses[found++] = ntohl(reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr);
    }
    ::freeaddrinfo(list);
    count = found;
    return found > 0 ? error::none : error::resolver_no_data;
}

uint32_t host_name(char* buffer, uint64_t size) {
    if (size == 0 || ::gethostname(buffer, size) < 0) return error::socket_fault;
    buffer[size - 1] = '\0'; // a name that was cut may lack its end
    return error::none;
}

} // namespace vel::os
