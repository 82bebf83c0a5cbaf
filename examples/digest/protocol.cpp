// Packing and unpacking of the messages, and what else client and server share.
#include "protocol.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <vel/frame/error.h>

namespace digest {

int Begin::serialize(VEL_Archive& archive) const {
    archive << name;
    return 0;
}

int Begin::deserialize(VEL_Archive& archive) {
    archive >> name;
    return 0;
}

void Begin::calc_size(VEL_Archive& archive) const { archive += name; }

int Chunk::serialize(VEL_Archive& archive) const {
    archive << data;
    return 0;
}

int Chunk::deserialize(VEL_Archive& archive) {
    archive >> data;
    return 0;
}

void Chunk::calc_size(VEL_Archive& archive) const { archive += data; }

int End::serialize(VEL_Archive& archive) const {
    archive << size;
    return 0;
}

int End::deserialize(VEL_Archive& archive) {
    archive >> size;
    return 0;
}

void End::calc_size(VEL_Archive& archive) const { archive += size; }

int Reply::serialize(VEL_Archive& archive) const {
    archive << size << lines << md5 << milliseconds;
    return 0;
}

int Reply::deserialize(VEL_Archive& archive) {
    archive >> size >> lines >> md5 >> milliseconds;
    return 0;
}

void Reply::calc_size(VEL_Archive& archive) const {
    archive += size;
    archive += lines;
    archive += md5;
    archive += milliseconds;
}

VEL_Serializable* Message_Factory::create_stream(uint16_t stype, uint16_t sid) const {
    if (stype != family) return nullptr;
    switch (static_cast<Kind>(sid)) {
    case Kind::begin: return new Begin;
    case Kind::chunk: return new Chunk;
    case Kind::end: return new End;
    case Kind::reply: return new Reply;
    }
    return nullptr;
}

std::string error_text(uint32_t code) {
    char text[512];
    char number[32];
    VELLib::GetErrorMsg(code, text, sizeof text);
    std::snprintf(number, sizeof number, code < 0x20000000 ? " (%u)" : " (0x%X)", code);
    return std::string(text) + number;
}

bool parse_number(const char* text, uint32_t largest, uint32_t& number) {
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end && stop != text && number <= largest;
}

} // namespace digest
