// The messages between digest client and server.
//
// A file travels as one Begin, any number of Chunks and one End; the server answers the End with a Reply. The next file
// may follow on the same connection at once.
#pragma once

#include <cstdint>
#include <string>
#include <vel/buffers/archive.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/object_factory.h>
#include <vel/buffers/serializable.h>

namespace digest {

/// The first number of every message's kind; the second one is below.
inline constexpr uint16_t family = 0x4447;

enum class Kind : uint16_t { begin = 1, chunk, end, reply };

/// Bytes of a file in one chunk, at most.
inline constexpr uint64_t chunk_size = 256 * 1024;

/// Bytes of a message's body, at most; whoever announces more is not one of us.
inline constexpr uint64_t largest_body = chunk_size + 1024;

/// What all messages have in common: they know their kind.
class Message : public VEL_Serializable {
public:
    explicit Message(Kind kind) : VEL_Serializable(family, static_cast<uint16_t>(kind)) {}
    Kind kind() const { return static_cast<Kind>(get_sid()); }
};

/// A file comes.
class Begin : public Message {
public:
    explicit Begin(std::string file_name = {}) : Message(Kind::begin), name(std::move(file_name)) {}
    int serialize(VEL_Archive& archive) const override;
    int deserialize(VEL_Archive& archive) override;
    void calc_size(VEL_Archive& archive) const override;

    std::string name;
};

/// The next bytes of the file.
class Chunk : public Message {
public:
    explicit Chunk(const VEL_Byte_Block& bytes = {}) : Message(Kind::chunk), data(bytes) {}
    int serialize(VEL_Archive& archive) const override;
    int deserialize(VEL_Archive& archive) override;
    void calc_size(VEL_Archive& archive) const override;

    VEL_Byte_Block data;
};

/// The file is complete.
class End : public Message {
public:
    explicit End(uint64_t bytes = 0) : Message(Kind::end), size(bytes) {}
    int serialize(VEL_Archive& archive) const override;
    int deserialize(VEL_Archive& archive) override;
    void calc_size(VEL_Archive& archive) const override;

    uint64_t size; // bytes sent; the server compares
};

/// What the server found out about the file.
class Reply : public Message {
public:
    Reply() : Message(Kind::reply) {}
    int serialize(VEL_Archive& archive) const override;
    int deserialize(VEL_Archive& archive) override;
    void calc_size(VEL_Archive& archive) const override;

    uint64_t size = 0;
    uint64_t lines = 0;
    std::string md5;           // 32 hexadecimal characters, lower case
    uint32_t milliseconds = 0; // from Begin to End, at the server
};

/// Makes the messages that an archive reads.
class Message_Factory : public VEL_Object_Factory {
public:
    VEL_Serializable* create_stream(uint16_t stype, uint16_t sid) const override;
};

/// The text of an error code.
std::string error_text(uint32_t code);

/// Reads the number behind an option; false when it is none or beyond `largest`.
bool parse_number(const char* text, uint32_t largest, uint32_t& number);

} // namespace digest
