// Any bytes as a stream of archive messages, in one piece and in pieces that the input chooses: both ways give the same
// objects and the same error, and memory stays in proportion to the bytes.
//
// Input: one byte n, n sizes of pieces (used in turn, 0 is a piece of 256), the stream.
#include "target.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/object_factory.h>
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>
#include <vel/platform/inet_addr.h>
#include <vel/testing/fields.h>

namespace {

/// Refuses what no input of this size can need.
class BoundedAllocator : public VEL_Allocator {
public:
    void* malloc(uint64_t size, bool zero) override { return require(size <= limit), heap->malloc(size, zero); }
    void* realloc(void* block, uint64_t size) override { return require(size <= limit), heap->realloc(block, size); }
    void free(void* block) override { heap->free(block); }

    VEL_Allocator* const heap = VEL_Std_Allocator::instance();
    uint64_t limit = 0;
};

BoundedAllocator allocator;

using vel::testing::FieldsOf;
using Searched = FieldsOf<int, std::string, VEL_Byte_Block, VEL_Bitfield>;

/// Fields that are looked for.
class ByKey : public Searched {
public:
    using Searched::Searched;
    int deserialize(VEL_Archive& archive) override {
        auto& [number, text, block, bits] = fields;
        if (get_stype() == 5) return archive.get_element(get_sid(), bits);
        if (archive.get_element(2, text) < 0 || archive.get_element(1, number) < 0) return -1;
        return archive.get_element(0, block);
    }
};

class Factory : public VEL_Object_Factory {
public:
    VEL_Serializable* create_stream(uint16_t stype, uint16_t sid) const override {
        switch (stype) {
        case 0: return new VEL_Serializable(stype, sid);
        case 1: return new Searched(stype, sid);
        case 2: return new FieldsOf<SYSTEMTIME, VEL_INET_Addr, std::wstring>(stype, sid);
        case 4: return new FieldsOf<char, short, long, float, double>(stype, sid);
        case 3:
        case 5: return new ByKey(stype, sid);
        default: return nullptr;
        }
    }
};

const Factory factory;

/// What a stream came to: the bytes of its objects, and the error that ended it.
struct Outcome {
    std::vector<std::vector<uint8_t>> objects;
    uint32_t code = 0;

    bool operator==(const Outcome&) const = default;
};

/// Offers one piece until it is used up. False once the stream has failed.
bool feed(VEL_Archive& archive, const uint8_t* data, uint64_t size, uint64_t stream_size, Outcome& outcome) {
    while (size > 0) {
        VEL_Serializable* made = nullptr;
        const int used = archive.deserialize(data, size, factory, made);
        const std::unique_ptr<VEL_Serializable> object(made);
        if (used < 0) {
            outcome.code = VELLib::GetErrorCode();
            require(archive.get_bodysize() == 0 && made == nullptr);
            return false;
        }
        require((used > 0) == (made != nullptr) && static_cast<uint64_t>(used) <= size);
        if (used == 0) return true;
        std::vector<uint8_t> bytes(1024 + 8 * stream_size);
        const int length = VEL_Archive().serialize(bytes.data(), bytes.size(), *object);
        require(length > 0);
        bytes.resize(static_cast<uint64_t>(length));
        outcome.objects.push_back(bytes);
        data += used;
        size -= static_cast<uint64_t>(used);
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    VELLib::set_allocator(&allocator);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size < data[0] + size_t{1}) return 0;
    const uint64_t pieces = data[0];
    const uint8_t* sizes = data + 1;
    const uint8_t* stream = sizes + pieces;
    const uint64_t length = size - 1 - pieces;
    allocator.limit = 256 + 2 * length;

    Outcome whole;
    VEL_Archive archive;
    feed(archive, stream, length, length, whole);

    archive.reset();
    Outcome pieced;
    uint64_t at = 0;
    for (uint64_t i = 0; at < length; ++i) {
        const uint64_t wanted = pieces == 0 ? 1 : sizes[i % pieces] == 0 ? 256 : sizes[i % pieces];
        // Each piece in memory of its own, so that a read beyond it is seen by the sanitizers.
        const uint64_t count = std::min(wanted, length - at);
        const std::vector<uint8_t> piece(stream + at, stream + at + count);
        if (!feed(archive, piece.data(), count, length, pieced)) break;
        at += count;
    }
    require(pieced == whole);
    return 0;
}
