// The reader of version records against a small image that is cut and spoilt in every place.
#include <vel/os/version_record.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/testing/pe_image.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

using namespace vel::testing;

struct Answer {
    uint32_t code = 0;
    bool found = false;
    VersionRecord record{};
};

Answer read(const std::vector<uint8_t>& bytes) {
    Answer answer;
    answer.code = find_version_record(bytes.data(), bytes.size(), answer.record, answer.found);
    return answer;
}

// In a file the record lies so far behind that the reader's window has to move.
TEST(VersionRecord, FoundInBothWidthsFromMemoryAndFile) {
    const TemporaryDirectory directory;
    for (const uint16_t magic : {0x10B, 0x20B}) {
        Answer answer = read(PeImage(magic).bytes);
        EXPECT_TRUE(answer.found);
        EXPECT_EQ(answer.record.file_high, 0x00010002u);
        EXPECT_EQ(answer.record.product_low, 0x00070008u);

        PeImage large(magic);
        large.bytes.insert(large.bytes.begin() + large.resources() - resources_in_section, 10'000, 0);
        large.put32(large.directories() + 24 + 40 + 20, large.resources() - resources_in_section + 10'000);
        const std::string path = directory.file("image.exe", large.text());
        EXPECT_EQ(read_version_record(path.c_str(), answer.record, answer.found), error::none);
        EXPECT_TRUE(answer.found);
        EXPECT_EQ(answer.record.file_low, 0x00030004u);
        EXPECT_EQ(answer.record.product_high, 0x00050006u);
    }
}

TEST(VersionRecord, EachWayToHaveNoneOrABrokenOne) {
    const PeImage good(0x20B);
    const uint32_t directories = good.directories();
    const uint32_t tree = good.resources(), block = good.block_at() + 8;
    struct Row {
        const char* what;
        uint32_t at;
        uint32_t value;
        uint32_t code;
    };
    const Row rows[] = {
        {"headers beyond the end", 60, 0xFFFFFFF0, error::none},
        {"too few directories", directories - 4, 2, error::none},
        {"resources outside of every section", directories + 16, 0xFFFFFFFF, error::resource_malformed},
        {"section beyond the end", directories + 24 + 40 + 20, 0xFFFFFFF0, error::resource_malformed},
        {"type leads to itself", tree + 28, 0x80000000, error::none},
        {"language leads to a directory", tree + 0x4C, 0x80000050, error::resource_malformed},
        {"data outside of every section", tree + 0x50, 0xFFFFFF00, error::resource_malformed},
        {"data shorter than a record", tree + 0x54, 91, error::resource_malformed},
        {"texts only", block, 92, error::none},
        {"record too short", block, 92 | 51 << 16, error::resource_malformed},
        {"no record signature", block + 40, 0xFEEF04BE, error::resource_malformed},
    };
    for (const Row& row : rows) {
        PeImage image(0x20B);
        image.put32(row.at, row.value);
        const Answer answer = read(image.bytes);
        EXPECT_EQ(answer.code, row.code) << row.what;
        EXPECT_FALSE(answer.found) << row.what;
    }
}

TEST(VersionRecord, CutAnywhereIsNeverFoundAndSpoiltAnywhereNeverFaults) {
    const std::vector<uint8_t> good = PeImage(0x20B).bytes;
    for (size_t at = 0; at < good.size(); ++at) {
        // exactly this long, so that the sanitizers see a step outside
        const Answer cut = read({good.begin(), good.begin() + static_cast<ptrdiff_t>(at)});
        EXPECT_FALSE(cut.found) << at;
        EXPECT_EQ(cut.code, at < headers_at + 24 ? error::none : error::resource_malformed) << at;
        for (const uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
            std::vector<uint8_t> bytes = good;
            bytes[at] = value;
            const Answer spoilt = read(bytes);
            EXPECT_TRUE(spoilt.code == error::none || (spoilt.code == error::resource_malformed && !spoilt.found))
                << at;
        }
    }
}

} // namespace
} // namespace vel::os
