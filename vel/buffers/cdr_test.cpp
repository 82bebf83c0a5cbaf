// Element streams: the bytes, the refusals, the searches, hostile input.
#include <vel/buffers/input_cdr.h>
#include <vel/buffers/output_cdr.h>

#include <tuple>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/exception.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/expect_failure.h>
#include <vel/testing/format_example.h>

namespace {

using Bytes = std::vector<uint8_t>;
using vel::testing::expect_failure;
constexpr uint32_t library = 0x20000000;

uint32_t code_thrown_by(const auto& call) {
    try {
        call();
    } catch (const VEL_Exception& exception) {
        return exception.GetErrorCode();
    }
    return 0;
}

/// An element of id 1 by hand; `length` may lie.
Bytes element(uint8_t type, uint32_t length, const Bytes& payload) {
    Bytes bytes = {0, 0, 0, 1, type};
    for (int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(length >> shift));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

class Output : public ::testing::Test {
protected:
    Bytes written() const { return {buffer_, buffer_ + out_.set_size()}; }
    uint8_t buffer_[256] = {};
    VEL_OutputCDR out_{buffer_, sizeof buffer_};
};

TEST_F(Output, WritesTheDocumentedBytes) {
    const uint8_t block[] = {0xFE, 0xFF};
    EXPECT_EQ(out_.set_value(5, uint32_t{0x01020304}), 13);
    EXPECT_EQ(out_.set_value(6, "abc"), 12);
    EXPECT_EQ(out_.set_value(7, VEL_Bitfield("1010000001")), 15);
    EXPECT_EQ(out_.set_value(8, 1.0), 17);
    EXPECT_EQ(out_.set_value(9, block, 2), 11);
    EXPECT_EQ(written(), vel::testing::format_example(VEL_FORMATS "/elements.md"));
}

TEST_F(Output, RefusesWhatDoesNotFitAsAWhole) {
    out_.set(buffer_, 25);
    EXPECT_EQ(out_.set_value(0, uint32_t{1}), 13);
    expect_failure(library + 12, out_.set_value(1, uint32_t{2}));
    expect_failure(library + 12, out_.set_value(1, VEL_Bitfield("1")));
    EXPECT_EQ(out_.set_size(), 13u);
    EXPECT_EQ(out_.elements(), 1u);
    EXPECT_EQ(out_.set_value(1, "abc"), 12); // to the last byte
    EXPECT_EQ(out_.write(buffer_, ~uint64_t{0}), -1);
    EXPECT_EQ(code_thrown_by([&] { out_ << uint8_t{1}; }), library + 12);
}

TEST(InputCdr, LookupChecksTheLengthAgainstTheTag) {
    const std::tuple<uint8_t, uint32_t, Bytes, uint32_t> rows[] = {
        // type, length, payload, code or 0
        {3, 4, {0, 0, 0, 1}, 0},
        {3, 3, {0, 0, 0, 1}, 14},
        {1, 2, {0, 0}, 14},
        {5, 8, {0, 0, 0, 0, 0, 0, 0, 0}, 14},
        {7, 3, {'a', 'b'}, 14},
        {9, 0xFFFFFFFF, {1}, 14},
        {8, 5, {0, 0, 0, 8, 0xFF}, 0},
        {8, 5, {0, 0, 0, 9, 0xFF}, 14},
        {8, 4, {0xFF, 0xFF, 0xFF, 0xFF}, 14}, // its byte count must not wrap to 0
        {8, 4, {0, 0, 0, 0}, 0},
        {200, 0, {}, 0},
        {0, 900, {1, 2}, 0},
        {10, 0xFFFFFFF6, {}, 14}, // 9 + length would be -1
        {10, 0x7FFFFFF6, {}, 0},
    };
    for (const auto& [tag, claim, payload, code] : rows) {
        const Bytes bytes = element(tag, claim, payload);
        VEL_InputCDR in(bytes.data(), bytes.size());
        uint32_t id, length;
        uint8_t type;
        const void* data = nullptr;
        const int size = in.lookup(id, type, length, data);
        SCOPED_TRACE(testing::Message() << "type " << int{tag} << " length " << claim);
        if (code != 0) {
            expect_failure(library + code, size);
            EXPECT_EQ(in.offset(), 9);
        } else {
            EXPECT_EQ(size, static_cast<int>(9 + claim));
            EXPECT_EQ(data, bytes.data() + 9);
        }
    }
}

TEST_F(Output, SearchesWrapAroundOnceFromThePosition) {
    for (uint32_t id : {10u, 11u, 12u}) out_.set_value(id, id * 2);
    VEL_InputCDR in(buffer_, out_.set_size());
    uint32_t value = 0;
    for (const uint32_t id : {12, 10, 10}) { // the last time from behind it
        EXPECT_EQ(in.get_value(id, value), 13);
        EXPECT_EQ(value, 2 * id);
        EXPECT_EQ(in.offset(), id == 12 ? 39 : 13);
    }
    expect_failure(library + 16, in.get_value(99, value));
}

TEST(InputCdr, AnElementThatClaimsMoreThanThereIsEndsTheStream) {
    const Bytes bytes = element(99, 1000, {});
    VEL_InputCDR in(bytes.data(), bytes.size());
    uint8_t byte;
    expect_failure(library + 16, in.get_value(2, byte));
    in.initlookup();
    EXPECT_EQ(in.get_value(1, byte), -1); // found, of another type, and the position is far behind the end
    expect_failure(library + 16, in.get_value(2, byte));
    EXPECT_EQ(code_thrown_by([&] { in >> byte; }), library + 15);
}

TEST(InputCdr, BitFieldsAreFoundByIdOnlyAsByteBlocks) {
    VEL_Bitfield bits;
    const auto read = [&](const Bytes& bytes) { return VEL_InputCDR(bytes.data(), bytes.size()).get_value(1, bits); };
    expect_failure(library + 13, read(element(8, 5, {0, 0, 0, 8, 0xF0})));
    expect_failure(library + 14, read(element(9, 5, {0, 0, 1, 0, 0xF0}))); // 256 bits in one byte
    expect_failure(library + 14, read(element(9, 3, {0, 0, 0})));
    EXPECT_EQ(read(element(9, 5, {0, 0, 0, 8, 0xF0})), 14);
    EXPECT_EQ(bits.get_setbitcnt(), 4u);
}

} // namespace
