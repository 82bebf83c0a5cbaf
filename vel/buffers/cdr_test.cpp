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
    EXPECT_EQ(out_.elements(), 5u);
}

TEST_F(Output, RefusesWhatDoesNotFitAsAWhole) {
    out_.set(buffer_, 25);
    EXPECT_EQ(out_.set_value(0, uint32_t{1}), 13);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(i == 0 ? out_.set_value(1, uint32_t{2}) : out_.set_value(1, VEL_Bitfield("1")), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), library + 12);
        EXPECT_EQ(out_.offset(), 13);
        EXPECT_EQ(out_.set_size(), 13u);
        EXPECT_EQ(out_.elements(), 1u);
    }
    EXPECT_EQ(buffer_[13], 0);
    EXPECT_EQ(out_.set_value(1, "abc"), 12); // to the last byte
    EXPECT_EQ(out_.set_value(2, buffer_, uint64_t{1} << 40), -1);
    EXPECT_EQ(out_.write(buffer_, ~uint64_t{0}), -1);
    EXPECT_EQ(out_.write(uint8_t{1}), -1);
    EXPECT_EQ(code_thrown_by([&] { out_ << uint8_t{1}; }), library + 12);

    EXPECT_EQ(out_.set_value(0, static_cast<const char*>(nullptr)), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 4);
    VEL_OutputCDR detached(nullptr, 100);
    EXPECT_EQ(detached.set_value(0, uint8_t{1}), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 4);
}

TEST_F(Output, MovingBackPatchesWithoutShrinking) {
    out_ << uint32_t{1} << uint32_t{2};
    EXPECT_EQ(out_.move(9), 9);
    EXPECT_EQ(out_.write(uint32_t{7}), 4);
    EXPECT_EQ(out_.set_size(), 26u);
    EXPECT_EQ(buffer_[12], 7);
    EXPECT_EQ(out_.move(200), 200);
    EXPECT_EQ(out_.set_size(), 200u);
    EXPECT_EQ(out_.move(257), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 12);
}

/// Sees every primitive write, and refuses after `allowed` of them.
class WatchedOutput : public VEL_OutputCDR {
public:
    using VEL_OutputCDR::VEL_OutputCDR;
    using VEL_OutputCDR::write;
    int write(uint32_t value) override {
        return count([&] { return VEL_OutputCDR::write(value); });
    }
    int write(uint8_t value) override {
        return count([&] { return VEL_OutputCDR::write(value); });
    }
    int write(const void* data, uint64_t size) override {
        return count([&] { return VEL_OutputCDR::write(data, size); });
    }
    int count(const auto& call) { return writes++ < allowed ? call() : -1; }
    int writes = 0;
    int allowed = 1000;
};

TEST_F(Output, DerivedStreamsSeeEveryWrite) {
    WatchedOutput watched(buffer_, sizeof buffer_);
    EXPECT_EQ(watched.set_value(5, uint32_t{0x01020304}), 13);
    EXPECT_EQ(watched.writes, 4);
    EXPECT_EQ(watched.set_value(6, "abc"), 12);
    EXPECT_EQ(watched.set_value(7, VEL_Bitfield("1")), 14);
    EXPECT_EQ(watched.writes, 4 + 4 + 5);
    EXPECT_EQ(Bytes(buffer_, buffer_ + 13), element(5, 3, 4, {1, 2, 3, 4}));
    watched.allowed = watched.writes + 3;
    EXPECT_EQ(watched.set_value(8, "refused"), -1);
    EXPECT_EQ(watched.elements(), 3u);
}

TEST(CdrBase, WhatAStreamDoesNotDoIsNotImplemented) {
    uint8_t byte = 0;
    unsigned long long wide = 0;
    VEL_CDR base;
    VEL_OutputCDR out(&byte, 1);
    VEL_InputCDR in(&byte, 1);
    const int results[] = {base.write(1.0), base.read(byte), base.offset(),  base.move(0),
                           out.read(byte),  out.read(wide),  in.write(byte), in.write(wide)};
    for (int result : results) EXPECT_EQ(result, -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 3);
    EXPECT_EQ(VEL_CDR::swap16(0x0102), 0x0201);
    EXPECT_EQ(VEL_CDR::swap64(0x0102030405060708), 0x0807060504030201u);
    EXPECT_EQ(VEL_CDR::swapdbl(VEL_CDR::swapdbl(2.5)), 2.5);
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
        {2, 0, {}, 14},
        {5, 8, {0, 0, 0, 0, 0, 0, 0, 0}, 14},
        {6, 4, {0, 0, 0, 0}, 14},
        {7, 0, {}, 0},
        {7, 3, {'a', 'b'}, 14},
        {9, 0xFFFFFFFF, {1}, 14},
        {8, 5, {0, 0, 0, 8, 0xFF}, 0},
        {8, 5, {0, 0, 0, 9, 0xFF}, 14},
        {8, 4, {0xFF, 0xFF, 0xFF, 0xFF}, 14}, // its byte count must not wrap to 0
        {8, 3, {0, 0, 0}, 14},
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
            EXPECT_EQ(size, -1);
            EXPECT_EQ(VELLib::GetErrorCode(), library + row.code);
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
    EXPECT_EQ(in_.get_value(99, value_), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 16);
    in_.initlookup();
    EXPECT_EQ(in_.get_value(99, value_), -1);
    EXPECT_EQ(in_.offset(), 0);
}

TEST_F(Search, ChecksTheTypeOfWhatItFound) {
    uint16_t narrow = 7;
    EXPECT_EQ(in_.get_value(11, narrow), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 13);
    EXPECT_EQ(narrow, 7);
    in_.initlookup();
    EXPECT_EQ(code_thrown_by([&] { in_ >> narrow; }), library + 13);
}

TEST_F(Search, AnElementThatClaimsMoreThanThereIsEndsTheStream) {
    Bytes bytes = element(1, 99, 1000, {});
    VEL_InputCDR in(bytes.data(), bytes.size());
    EXPECT_EQ(in.get_value(2, value_), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 16);
    uint8_t byte;
    in.initlookup();
    EXPECT_EQ(in.get_value(1, byte), -1); // found, of another type, and the position is far behind the end
    EXPECT_EQ(in.read(byte), -1);
    EXPECT_EQ(in.get_value(2, byte), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 16);
    EXPECT_EQ(code_thrown_by([&] { in >> byte; }), library + 15);
}

TEST_F(Search, WithoutABufferLookupThrowsAndGetValueDoesNot) {
    VEL_InputCDR in;
    EXPECT_EQ(code_thrown_by([&] { in >> value_; }), library + 4);
    EXPECT_EQ(in.get_value(0, value_), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 16);
    EXPECT_EQ(in.move(1), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 15);
}

TEST(InputCdr, BitFieldsAreFoundByIdOnlyAsByteBlocks) {
    const Bytes as_field = element(1, 8, 5, {0, 0, 0, 8, 0xF0});
    const Bytes as_block = element(1, 9, 5, {0, 0, 0, 8, 0xF0});
    const Bytes lying_block = element(1, 9, 5, {0, 0, 1, 0, 0xF0}); // 256 bits in one byte
    const Bytes short_block = element(1, 9, 3, {0, 0, 0});
    VEL_Bitfield bits;
    VEL_InputCDR in(as_field.data(), as_field.size());
    EXPECT_EQ(in.get_value(1, bits), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 13);
    in.set(as_block.data(), as_block.size());
    EXPECT_EQ(in.get_value(1, bits), 14);
    EXPECT_EQ(bits.get_setbitcnt(), 4u);
    for (const Bytes& bad : {lying_block, short_block}) {
        in.set(bad.data(), bad.size());
        EXPECT_EQ(in.get_value(1, bits), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), library + 14);
    }
}

} // namespace
