// Any bytes as an element stream: what is read lies in the buffer, a derived stream reads the same, and what was read
// writes the same bytes again.
#include "target.h"

#include <cstring>
#include <string>
#include <tuple>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/input_cdr.h>
#include <vel/buffers/output_cdr.h>
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>

namespace {

/// Takes the way through the primitive reads.
class Derived : public VEL_InputCDR {
public:
    using VEL_InputCDR::VEL_InputCDR;
};

/// Size, id, type, length and data of an element; the size is -1 after the last, the code in place of the length.
using Found = std::tuple<int, uint32_t, uint8_t, uint32_t, const void*>;

Found lookup(VEL_InputCDR& in) {
    Found found;
    auto& [size, id, type, length, data] = found;
    size = in.lookup(id, type, length, data);
    return size < 0 ? Found{-1, 0, 0, VELLib::GetErrorCode(), nullptr} : found;
}

/// Writes what was found; a number, a text or a block has to come out as the bytes it came from.
void write_again(uint32_t id, uint8_t type, const uint8_t* bytes, uint64_t size) {
    std::vector<uint8_t> buffer(size);
    VEL_InputCDR in(bytes, size);
    VEL_OutputCDR out(buffer.data(), buffer.size());
    auto copy = [&](auto value) {
        in >> value;
        require(out.set_value(id, value) == static_cast<int>(size));
    };
    switch (type) {
    case 1: copy(uint8_t{}); break;
    case 2: copy(uint16_t{}); break;
    case 3: copy(uint32_t{}); break;
    case 4: copy(uint64_t{}); break;
    case 5: copy(float{}); break;
    case 6: copy(double{}); break;
    case 7: copy(std::string()); break;
    case 8: copy(VEL_Bitfield()); break;
    default: copy(VEL_Byte_Block()); break;
    }
    require(std::memcmp(buffer.data(), bytes, size) == 0);
}

/// Looks for the id under every type, from wherever the search before ended.
void search(VEL_InputCDR& in, uint32_t id) {
    const auto find = [&](auto... values) {
        for (const int size : {in.get_value(id, values)...}) require(size == -1 || size >= 9);
    };
    find(uint8_t{}, uint16_t{}, uint32_t{}, uint64_t{}, float{}, double{});
    find(std::string(), std::wstring(), VEL_Byte_Block(), VEL_Bitfield());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    VELLib::set_allocator(VEL_Std_Allocator::instance());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    VEL_InputCDR plain(data, size);
    Derived derived(data, size);
    uint64_t at = 0;
    for (;;) {
        const Found found = lookup(plain);
        require(found == lookup(derived));
        require(plain.offset() == derived.offset());
        const auto& [length, id, type, code, element] = found;
        if (length < 0) {
            require(code == 0x20000004 || code == 0x2000000E || code == 0x2000000F);
            break;
        }
        require(element == data + at + 9);
        const uint64_t end = at + static_cast<uint64_t>(length);
        if (type != 0 && type <= 9) {
            require(end <= size);
            write_again(id, type, data + at, end - at);
        }
        at = end;
    }
    VEL_InputCDR in(data, size);
    in.move(size / 2); // a search may start anywhere
    search(in, size > 3 ? data[3] : 0);
    return 0;
}
