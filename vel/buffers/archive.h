// Messages: one serializable object behind a 20-byte header, packed and unpacked.
#pragma once

#include <vel/buffers/byte_block.h>
#include <vel/buffers/input_cdr.h>
#include <vel/buffers/output_cdr.h>

class VEL_INET_Addr;
class VEL_Object_Factory;
class VEL_Serializable;

namespace vel {
struct ArchiveStream;
}

/// Packs a VEL_Serializable into a self-contained message and unpacks messages again, from a whole buffer, from pieces
/// as they arrive or from a socket. docs/formats/archive.md has the bytes.
///
/// Threads:   one at a time.
/// Ownership: unpacked objects belong to the caller. Between the pieces of a message the archive owns what has arrived
///            of its body; the buffer grows with the bytes, never by what the header claims.
/// Errors:    -1 with the thread's code, and the archive is ready for the next message:
///            0x2000000C  buffer below 20 bytes, body does not fit, or not the size that calc_size added up
///            0x2000000D, 0x2000000E, 0x20000010  an element of the wrong type, with a wrong length, or missing
///            0x2000000F  the element sizes do not add up to the body, or a socket ended within a message
///            0x20000011  no message header, or a kind that the factory does not make
///            0x20000004  elements announced in an empty body, or written where only the header has room
///            8           out of memory
/// Limits:    a packed message has at most 2^31 - 1 bytes. An incoming body may claim up to 2^32 - 1; one of 2 GiB or
///            more is taken in pieces only.
///
///     VEL_Archive archive;
///     VEL_Byte_Block message;
///     if (archive.serialize(message, login) > 0) stream.send(message);
///     // the other side, for every piece that arrives
///     int used = archive.deserialize(data, size, factory, object); // 0: more is needed, > 0: object is there
class VEL_API VEL_Archive {
public:
    VEL_Archive() = default;
    VEL_Archive(const VEL_Archive& other);
    VEL_Archive& operator=(const VEL_Archive& other);
    virtual ~VEL_Archive();

    /// Writes one message into the buffer. Returns its length in bytes.
    /// @param size  bytes of `buffer`
    int serialize(void* buffer, uint64_t size, const VEL_Serializable& object);

    /// Writes one message into a new block of exactly the size that calc_size adds up. Returns its length.
    int serialize(VEL_Byte_Block& out, const VEL_Serializable& object);

    /// Writes one message to a socket or file. Returns what VELLib::write_n returns: the length, or -1.
    int serialize(void* socket, const VEL_Serializable& object);

    /// Takes the next piece of a stream of messages. Returns how many bytes of the piece belong to the message once that
    /// is complete (`out` is the new object then; the rest of the piece must be offered again), 0 while more is needed.
    int deserialize(const void* data, uint64_t size, const VEL_Object_Factory& factory, VEL_Serializable*& out);

    /// The same with all bytes of a block.
    int deserialize(const VEL_Byte_Block& in, const VEL_Object_Factory& factory, VEL_Serializable*& out);

    /// Reads one message from a socket or file. Returns its length; 0 at the end of the stream and -1 on an error, with
    /// `out` null.
    ///
    /// After a message with an empty body it deliberately reads on as if another header followed: no sender puts empty
    /// bodies on a socket. The object of the later message is the one that is handed out.
    int deserialize(void* socket, const VEL_Object_Factory& factory, VEL_Serializable*& out);

    /// Writes one element under a key, for use in VEL_Serializable::serialize. Returns its size in bytes. Every built-in
    /// number keeps its width: eight-byte integers are type 4, so a `long` is not a `int32_t` on the wire.
    int set_element(uint16_t key, char value) { return put(key, value); }
    int set_element(uint16_t key, signed char value) { return put(key, value); }
    int set_element(uint16_t key, unsigned char value) { return put(key, value); }
    int set_element(uint16_t key, short value) { return put(key, value); }
    int set_element(uint16_t key, unsigned short value) { return put(key, value); }
    int set_element(uint16_t key, int value) { return put(key, value); }
    int set_element(uint16_t key, unsigned int value) { return put(key, value); }
    int set_element(uint16_t key, long value) { return put(key, value); }
    int set_element(uint16_t key, unsigned long value) { return put(key, value); }
    int set_element(uint16_t key, long long value) { return put(key, value); }
    int set_element(uint16_t key, unsigned long long value) { return put(key, value); }
    int set_element(uint16_t key, float value) { return put(key, value); }
    int set_element(uint16_t key, double value) { return put(key, value); }
    int set_element(uint16_t key, const char* value);
    int set_element(uint16_t key, const wchar_t* value);
    int set_element(uint16_t key, const std::string& value);
    int set_element(uint16_t key, const std::wstring& value);
    int set_element(uint16_t key, const VEL_Byte_Block& value);
    int set_element(uint16_t key, const VEL_Bitfield& value);

    /// Reads the element with the key, for use in VEL_Serializable::deserialize; the search starts behind the element
    /// read last and wraps around once. Returns its size in bytes. A bit field is not found this way, see VEL_InputCDR.
    int get_element(uint16_t key, char& value) { return get(key, value); }
    int get_element(uint16_t key, signed char& value) { return get(key, value); }
    int get_element(uint16_t key, unsigned char& value) { return get(key, value); }
    int get_element(uint16_t key, short& value) { return get(key, value); }
    int get_element(uint16_t key, unsigned short& value) { return get(key, value); }
    int get_element(uint16_t key, int& value) { return get(key, value); }
    int get_element(uint16_t key, unsigned int& value) { return get(key, value); }
    int get_element(uint16_t key, long& value) { return get(key, value); }
    int get_element(uint16_t key, unsigned long& value) { return get(key, value); }
    int get_element(uint16_t key, long long& value) { return get(key, value); }
    int get_element(uint16_t key, unsigned long long& value) { return get(key, value); }
    int get_element(uint16_t key, float& value) { return get(key, value); }
    int get_element(uint16_t key, double& value) { return get(key, value); }
    int get_element(uint16_t key, std::string& value);
    int get_element(uint16_t key, std::wstring& value);
    int get_element(uint16_t key, VEL_Byte_Block& value);
    int get_element(uint16_t key, VEL_Bitfield& value);

    /// The header of the message that was packed, or is being unpacked; zeros once that is done.
    uint32_t get_ver() const { return version_; }
    uint16_t get_stype() const { return stype_; }
    uint16_t get_sid() const { return sid_; }
    uint32_t get_bodysize() const { return body_size_; }
    uint32_t get_elements() const { return elements_; }

    /// Forgets everything, a message that has arrived in part included.
    void reset();

private:
    friend struct vel::ArchiveStream;

    template <class T>
    int put(uint32_t id, T value);
    template <class T>
    int get(uint32_t id, T& value);
    void add_size(uint64_t size);

    void copy_from(const VEL_Archive& other);
    void build_header(uint8_t* at) const;
    int parse_header();
    uint64_t take_header(const uint8_t* data, uint64_t size);
    int take_body(const uint8_t* data, uint64_t count);
    int decode(const void* body, const VEL_Object_Factory& factory, VEL_Serializable*& out);
    int abandon();

    uint8_t header_[20] = {};
    uint8_t* body_ = nullptr;    // what has arrived of the body, when it comes in pieces
    uint64_t body_capacity_ = 0; // bytes of body_
    uint64_t received_ = 0;      // bytes of the incoming message, header and body
    uint32_t version_ = 0;
    uint16_t stype_ = 0;
    uint16_t sid_ = 0;
    uint32_t body_size_ = 0;
    uint32_t estimate_ = 0; // sum of operator+=; stays at its largest value once it gets there
    uint32_t elements_ = 0;
    VEL_OutputCDR output_;
    VEL_InputCDR input_;
};

template <class T>
[[gnu::always_inline]] inline int VEL_Archive::put(uint32_t id, T value) {
    return output_.put_number(id, value);
}

template <class T>
int VEL_Archive::get(uint32_t id, T& value) {
    if (input_.take_number(id, value)) [[likely]]
        return static_cast<int>(vel::cdr::header_size + sizeof(T));
    using Wire = std::conditional_t<std::is_floating_point_v<T>, T, vel::cdr::Bits<T>>;
    Wire wire;
    const int size = input_.get_value(id, wire);
    if (size > 0) value = static_cast<T>(wire);
    return size;
}

inline void VEL_Archive::add_size(uint64_t size) {
    const uint64_t sum = estimate_ + size;
    estimate_ = sum < size || sum > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<uint32_t>(sum);
}

namespace vel {

/// What the operators do inside an archive: append an element with the next id, read the next element, add a size.
/// Appending and reading throw VEL_Exception.
struct ArchiveStream {
    template <class T>
    [[gnu::always_inline]] static VEL_Archive& append(VEL_Archive& archive, T value) {
        if (archive.put(archive.output_.elements(), value) < 0) [[unlikely]]
            cdr::throw_last_error();
        return archive;
    }

    [[gnu::always_inline]] static VEL_Archive& append_bytes(VEL_Archive& archive, uint8_t tag, const void* data,
                                                            uint64_t size) {
        if (archive.output_.put_bytes(archive.output_.elements(), tag, data, size) < 0) [[unlikely]]
            cdr::throw_last_error();
        return archive;
    }

    template <class T>
    [[gnu::always_inline]] static VEL_Archive& take(VEL_Archive& archive, T& value) {
        if (archive.input_.take_number(value)) [[likely]]
            return archive;
        std::conditional_t<std::is_floating_point_v<T>, T, cdr::Bits<T>> wire;
        archive.input_ >> wire;
        value = static_cast<T>(wire);
        return archive;
    }

    template <class T>
    static VEL_Archive& add(VEL_Archive& archive, const T& value) {
        if constexpr (std::is_arithmetic_v<T>)
            return add_bytes(archive, cdr::header_size + sizeof(T));
        else
            return add_bytes(archive, VEL_CDR::size_of(value));
    }

    static VEL_Archive& add_bytes(VEL_Archive& archive, uint64_t size) {
        archive.add_size(size);
        return archive;
    }

    static bool take_bytes(VEL_Archive& archive, uint8_t tag, cdr::Element& element) {
        return archive.input_.take_bytes(tag, element);
    }

    static VEL_OutputCDR& output(VEL_Archive& archive) { return archive.output_; }
    static VEL_InputCDR& input(VEL_Archive& archive) { return archive.input_; }
};

} // namespace vel

/// Appends a value as the next element: ids 0, 1, 2, ... in the order of writing. Throws VEL_Exception.
inline VEL_Archive& operator<<(VEL_Archive& to, char value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, signed char value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, unsigned char value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, short value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, unsigned short value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, int value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, unsigned int value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, long value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, unsigned long value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, long long value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, unsigned long long value) {
    return vel::ArchiveStream::append(to, value);
}
inline VEL_Archive& operator<<(VEL_Archive& to, float value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, double value) { return vel::ArchiveStream::append(to, value); }
inline VEL_Archive& operator<<(VEL_Archive& to, const std::string& text) {
    return vel::ArchiveStream::append_bytes(to, vel::cdr::tag_string, text.data(), text.size());
}
inline VEL_Archive& operator<<(VEL_Archive& to, const VEL_Byte_Block& block) {
    return vel::ArchiveStream::append_bytes(to, vel::cdr::tag_bytes, block.c_ptr(0), block.size());
}
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const char* value);
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const wchar_t* value);
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const std::wstring& value);
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const VEL_Bitfield& value);
/// As the 64-bit file time; throws 87 for a time that does not exist.
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const SYSTEMTIME& time);
/// Two elements: the address, then the port.
VEL_API VEL_Archive& operator<<(VEL_Archive& to, const VEL_INET_Addr& address);

/// Reads the next element, whatever its id. Throws VEL_Exception, with 0x2000000D when it has another type.
inline VEL_Archive& operator>>(VEL_Archive& in, char& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, signed char& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, unsigned char& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, short& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, unsigned short& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, int& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, unsigned int& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, long& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, unsigned long& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, long long& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, unsigned long long& value) {
    return vel::ArchiveStream::take(in, value);
}
inline VEL_Archive& operator>>(VEL_Archive& in, float& value) { return vel::ArchiveStream::take(in, value); }
inline VEL_Archive& operator>>(VEL_Archive& in, double& value) { return vel::ArchiveStream::take(in, value); }
VEL_API VEL_Archive& operator>>(VEL_Archive& in, std::string& value);
VEL_API VEL_Archive& operator>>(VEL_Archive& in, std::wstring& value);
VEL_API VEL_Archive& operator>>(VEL_Archive& in, VEL_Byte_Block& value);
VEL_API VEL_Archive& operator>>(VEL_Archive& in, VEL_Bitfield& value);
VEL_API VEL_Archive& operator>>(VEL_Archive& in, SYSTEMTIME& value);
VEL_API VEL_Archive& operator>>(VEL_Archive& in, VEL_INET_Addr& value);

/// Adds the size that the value takes as an element, for use in VEL_Serializable::calc_size.
inline VEL_Archive& operator+=(VEL_Archive& to, char value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, signed char value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, unsigned char value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, short value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, unsigned short value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, int value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, unsigned int value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, long value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, unsigned long value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, long long value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, unsigned long long value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, float value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, double value) { return vel::ArchiveStream::add(to, value); }
inline VEL_Archive& operator+=(VEL_Archive& to, const char* text) { return vel::ArchiveStream::add(to, text); }
inline VEL_Archive& operator+=(VEL_Archive& to, const std::string& text) { return vel::ArchiveStream::add(to, text); }
inline VEL_Archive& operator+=(VEL_Archive& to, const wchar_t* text) { return vel::ArchiveStream::add(to, text); }
inline VEL_Archive& operator+=(VEL_Archive& to, const std::wstring& text) { return vel::ArchiveStream::add(to, text); }
inline VEL_Archive& operator+=(VEL_Archive& to, const VEL_Byte_Block& block) {
    return vel::ArchiveStream::add(to, block);
}
inline VEL_Archive& operator+=(VEL_Archive& to, const VEL_Bitfield& bits) { return vel::ArchiveStream::add(to, bits); }
inline VEL_Archive& operator+=(VEL_Archive& to, const SYSTEMTIME&) { return vel::ArchiveStream::add_bytes(to, 17); }
inline VEL_Archive& operator+=(VEL_Archive& to, const VEL_INET_Addr&) {
    return vel::ArchiveStream::add_bytes(to, 13 + 11);
}
