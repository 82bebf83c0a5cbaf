// The reader of version records against small images, 1.2.3.4 of product 5.6.7.8, cut and spoilt in every place.
#include <vel/os/version_record.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vel/os/error_codes.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

const std::string corpus = VEL_CORPUS "/version_record/";

// Places in the wider of the images.
constexpr size_t directories = 0xC8, section = 0x108, resources = 0x140, record = 0x1A0;

std::string wide_image() { return testing::content_of(corpus + "pe32_plus"); }

void put(std::string& image, size_t at, uint32_t value) { std::memcpy(&image[at], &value, sizeof value); }

struct Answer {
    uint32_t code = 0;
    bool found = false;
    VersionRecord record{};
};

Answer read(const std::string& bytes) {
    Answer answer;
    const std::vector<char> exact(bytes.begin(), bytes.end()); // so that the sanitizers see a step outside
    answer.code = find_version_record(exact.data(), exact.size(), answer.record, answer.found);
    return answer;
}

TEST(VersionRecord, FoundInBothWidthsFromMemoryAndFile) {
    const testing::TemporaryDirectory directory;
    std::string large = wide_image(); // the record so far behind that the reader's window has to move
    large.insert(resources - 16, 10'000, '\0');
    put(large, section + 20, resources - 16 + 10'000);
    Answer file;
    EXPECT_EQ(read_version_record(directory.file("image.exe", large).c_str(), file.record, file.found), error::none);
    for (const Answer& answer : {file, read(wide_image()), read(testing::content_of(corpus + "pe32"))}) {
        EXPECT_TRUE(answer.found);
        EXPECT_EQ(answer.record.file_high, 0x00010002u);
        EXPECT_EQ(answer.record.file_low, 0x00030004u);
        EXPECT_EQ(answer.record.product_high, 0x00050006u);
        EXPECT_EQ(answer.record.product_low, 0x00070008u);
    }
}

TEST(VersionRecord, EachWayToHaveNoneOrABrokenOne) {
    const struct {
        const char* what;
        size_t at;
        uint32_t value, code;
    } rows[] = {
        {"headers beyond the end", 60, 0xFFFFFFF0, error::none},
        {"too few directories", directories - 4, 2, error::none},
        {"resources outside of every section", directories + 16, 0xFFFFFFFF, error::resource_malformed},
        {"section beyond the end", section + 20, 0xFFFFFFF0, error::resource_malformed},
        {"type leads to itself", resources + 28, 0x80000000, error::none},
        {"language leads to a directory", resources + 0x4C, 0x80000050, error::resource_malformed},
        {"data outside of every section", resources + 0x50, 0xFFFFFF00, error::resource_malformed},
        {"data shorter than a record", resources + 0x54, 91, error::resource_malformed},
        {"texts only", record, 92, error::none},
        {"record too short", record, 92 | 51 << 16, error::resource_malformed},
        {"no record signature", record + 40, 0xFEEF04BE, error::resource_malformed},
    };
    for (const auto& row : rows) {
        std::string image = wide_image();
        put(image, row.at, row.value);
        const Answer answer = read(image);
        EXPECT_EQ(answer.code, row.code) << row.what;
        EXPECT_FALSE(answer.found) << row.what;
    }
}

TEST(VersionRecord, CutAnywhereIsNeverFoundAndSpoiltAnywhereNeverFaults) {
    const std::string good = wide_image();
    for (size_t at = 0; at < good.size(); ++at) {
        const Answer cut = read(good.substr(0, at));
        EXPECT_FALSE(cut.found) << at;
        EXPECT_EQ(cut.code, at < 0x40 + 24 ? error::none : error::resource_malformed) << at;
        for (const char value : {'\0', '\x01', '\x7F', '\x80', '\xFF'}) {
            std::string bytes = good;
            bytes[at] = value;
            const Answer spoilt = read(bytes);
            EXPECT_TRUE(spoilt.code == error::none || (spoilt.code == error::resource_malformed && !spoilt.found));
        }
    }
}

} // namespace
} // namespace vel::os
