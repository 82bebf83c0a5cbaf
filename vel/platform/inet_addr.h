// IPv4 socket address as a value.
#pragma once

#include <concepts>
#include <string>
#include <vel/types.h>

struct sockaddr;

/// An IPv4 address and port, kept as the socket layer's own 16-byte record.
///
/// Threads:   a plain value; `getiptext` answers in a buffer of the calling thread.
/// Errors:    10049 for a record that is no IPv4 address, 11001 to 11004 from the name look-up. Constructors and
///            assignment throw VEL_Exception with the code that `set` left.
/// Limits:    the record holds 16 bytes; longer addresses are cut.
///
///     VEL_INET_Addr any;                           // 0.0.0.0:0
///     VEL_INET_Addr server(8080, "192.168.0.1");
///     VELLib::connect(socket, server);
class VEL_API VEL_INET_Addr {
public:
    /// Family IPv4, port 0, address 0 (any local address), length 16.
    VEL_INET_Addr();

    /// @param port  host order
    /// @param host  address in host order
    VEL_INET_Addr(uint16_t port, uint32_t host);

    /// Numbers of other types; this makes a literal 0 a number and no null pointer.
    template <std::integral Port, std::integral Host>
    VEL_INET_Addr(Port port, Host host) : VEL_INET_Addr(static_cast<uint16_t>(port), static_cast<uint32_t>(host)) {}

    /// @param host  dotted text, a host name, or null for any local address
    VEL_INET_Addr(uint16_t port, const char* host);

    /// @param length  bytes of `address`, at least 16
    VEL_INET_Addr(const sockaddr* address, int length);

    VEL_INET_Addr(const VEL_INET_Addr& other);
    VEL_INET_Addr& operator=(const VEL_INET_Addr& other);
    virtual ~VEL_INET_Addr();

    /// Sets address and port, both in host order. Returns 0.
    int set(uint16_t port, uint32_t host);
    template <std::integral Port, std::integral Host>
    int set(Port port, Host host) {
        return set(static_cast<uint16_t>(port), static_cast<uint32_t>(host));
    }

    /// Sets the address from dotted text at once, or from the first address of a host by a blocking name look-up.
    /// A group of dotted text that starts with 0 is octal, as everywhere in the socket layer.
    /// @param host  null stands for any local address
    /// @return 0, or -1 with the look-up's code, or with 10049 for dotted text with a digit that is not octal
    int set(uint16_t port, const char* host);

    /// Copies an IPv4 record as it is, at most 16 bytes; the length field keeps its value.
    /// @return 0, or -1 with 10049: null, another family, or fewer than 16 bytes
    int set(const sockaddr* address, int length);

    /// Back to the default address.
    void reset();

    /// Address in host order; 0xFFFFFFFF when the family is not IPv4.
    uint32_t getiplong() const;

    /// Port in host order; 0xFFFF when the family is not IPv4.
    uint16_t getport() const;

    /// Dotted text, valid until the calling thread's next call; null with 10049 when the family is not IPv4 or the
    /// length is below 16.
    const char* getiptext() const;

    /// Length of the record in bytes; calls that receive an address write it.
    int& length() { return length_; }
    int length() const { return length_; }

    /// The record, for the socket layer.
    operator sockaddr*() { return reinterpret_cast<sockaddr*>(&record_); }
    operator const sockaddr*() const { return reinterpret_cast<const sockaddr*>(&record_); }

    /// Equal in family, address and port; the length does not count.
    bool operator==(const VEL_INET_Addr& other) const;
    bool operator!=(const VEL_INET_Addr& other) const { return !(*this == other); }

private:
    struct Record {
        uint16_t family;
        uint16_t port;    // network order
        uint32_t address; // network order
        uint8_t zero[8];
    };

    static bool isiptext(const char* text);

    std::string host_text_; // stays empty: nothing fills it
    Record record_;
    int length_; // bytes of the record that count
};
