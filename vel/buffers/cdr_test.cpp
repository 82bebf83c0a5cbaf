// Element streams: the bytes, the refusals, the searches, hostile input.
#include <vel/buffers/input_cdr.h>
#include <vel/buffers/output_cdr.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/format_example.h>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t library = 0x20000000;

/// Checks that a call failed, and with which of the library's codes.
void expect_failure(uint32_t code, int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + code);
}

uint32_t code_thrown_by(const auto& call) {
    try {
        call();
    } catch (const VEL_Exception& exception) {
        return exception.GetErrorCode();
    }
    return 0;
}

/// An element by hand; `length` may lie.
Bytes element(uint32_t id, uint8_t type, uint32_t length, const Bytes& payload) {
    Bytes bytes;
    for (int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(id >> shift));
    bytes.push_back(type);
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
    for (int i = 0; i < 2; ++i) {
        expect_failure(12, i == 0 ? out_.set_value(1, uint32_t{2}) : out_.set_value(1, VEL_Bitfield("1")));
        EXPECT_EQ(out_.offset(), 13);
        EXPECT_EQ(out_.set_size(), 13u);
        EXPECT_EQ(out_.elements(), 1u);
    }
    EXPECT_EQ(out_.set_value(1, "abc"), 12); // to the last byte
    EXPECT_EQ(out_.write(buffer_, ~uint64_t{0}), -1);
    EXPECT_EQ(code_thrown_by([&] { out_ << uint8_t{1}; }), library + 12);

    expect_failure(4, out_.set_value(0, static_cast<const char*>(nullptr)));
    VEL_OutputCDR detached(nullptr, 100);
    expect_failure(4, detached.set_value(0, uint8_t{1}));
}

TEST(InputCdr, LookupChecksTheLengthAgainstTheTag) {
    struct Row {
        uint8_t type;
        uint32_t length;
        Bytes payload;
        uint32_t code; // 0: accepted
    };
    const Row rows[] = {
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
    for (const Row& row : rows) {
        const Bytes bytes = element(1, row.type, row.length, row.payload);
        VEL_InputCDR in(bytes.data(), bytes.size());
        uint32_t id, length;
        uint8_t type;
        const void* data = nullptr;
        const int size = in.lookup(id, type, length, data);
        SCOPED_TRACE(testing::Message() << "type " << int{row.type} << " length " << row.length);
        if (row.code != 0) {
            expect_failure(row.code, size);
            EXPECT_EQ(in.offset(), 9);
        } else {
            EXPECT_EQ(size, static_cast<int>(9 + row.length));
            EXPECT_EQ(data, bytes.data() + 9);
        }
    }
}

TEST(InputCdr, EveryTruncationIsTooShortOrWrongLength) {
    uint8_t buffer[64];
    VEL_OutputCDR out(buffer, sizeof buffer);
    out << uint32_t{1} << "text";
    for (uint64_t size = 1; size < out.set_size(); ++size) {
        // Freshly allocated, so that a read beyond it is seen by the sanitizers.
        const std::vector<uint8_t> cut(buffer, buffer + size);
        VEL_InputCDR in(cut.data(), cut.size());
        uint32_t number = 0;
        std::string text;
        const uint32_t code = code_thrown_by([&] { in >> number >> text; });
        const bool is_length = (size >= 9 && size < 13) || size >= 22;
        EXPECT_EQ(code, library + (is_length ? 14 : 15)) << size;
        in.set(cut.data(), cut.size());
        EXPECT_EQ(in.get_value(1, text), -1) << size;
        EXPECT_EQ(VELLib::GetErrorCode() == library + 16, size == 13) << size; // one whole element, of another id
    }
}

class Search : public Output {
protected:
    Search() {
        for (uint32_t id : {10u, 11u, 12u}) out_.set_value(id, id * 2);
        in_.set(buffer_, out_.set_size());
    }
    VEL_InputCDR in_;
    uint32_t value_ = 0;
};

TEST_F(Search, WrapsAroundOnceFromThePosition) {
    EXPECT_EQ(in_.get_value(12, value_), 13);
    EXPECT_EQ(value_, 24u);
    EXPECT_EQ(in_.offset(), 39);
    EXPECT_EQ(in_.get_value(10, value_), 13);
    EXPECT_EQ(value_, 20u);
    EXPECT_EQ(in_.offset(), 13);
    EXPECT_EQ(in_.get_value(10, value_), 13); // before the position
    expect_failure(16, in_.get_value(99, value_));
    in_.initlookup();
    EXPECT_EQ(in_.get_value(99, value_), -1);
    EXPECT_EQ(in_.offset(), 0);
}

TEST_F(Search, AnElementThatClaimsMoreThanThereIsEndsTheStream) {
    Bytes bytes = element(1, 99, 1000, {});
    VEL_InputCDR in(bytes.data(), bytes.size());
    expect_failure(16, in.get_value(2, value_));
    uint8_t byte;
    in.initlookup();
    EXPECT_EQ(in.get_value(1, byte), -1); // found, of another type, and the position is far behind the end
    expect_failure(16, in.get_value(2, byte));
    EXPECT_EQ(code_thrown_by([&] { in >> byte; }), library + 15);
}

TEST(InputCdr, BitFieldsAreFoundByIdOnlyAsByteBlocks) {
    const Bytes as_field = element(1, 8, 5, {0, 0, 0, 8, 0xF0});
    const Bytes as_block = element(1, 9, 5, {0, 0, 0, 8, 0xF0});
    const Bytes lying_block = element(1, 9, 5, {0, 0, 1, 0, 0xF0}); // 256 bits in one byte
    const Bytes short_block = element(1, 9, 3, {0, 0, 0});
    VEL_Bitfield bits;
    VEL_InputCDR in(as_field.data(), as_field.size());
    expect_failure(13, in.get_value(1, bits));
    in.set(as_block.data(), as_block.size());
    EXPECT_EQ(in.get_value(1, bits), 14);
    EXPECT_EQ(bits.get_setbitcnt(), 4u);
    for (const Bytes& bad : {lying_block, short_block}) {
        in.set(bad.data(), bad.size());
        expect_failure(14, in.get_value(1, bits));
    }
}

} // namespace
