// Archive messages: the bytes, every split point, hostile headers and bodies, sockets.
#include <vel/buffers/archive.h>

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/object_factory.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/platform/files.h>
#include <vel/platform/inet_addr.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/format_example.h>
#include <vel/testing/temporary_directory.h>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t library = 0x20000000;

/// Checks that a call failed, and with which of the library's codes.
void expect_failure(uint32_t code, int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + code);
}

/// Kind 7/2: a number and a text; knows how many of its like are alive.
class Note : public VEL_Serializable {
public:
    explicit Note(uint32_t n = 0, std::string t = "") : VEL_Serializable(7, 2), number(n), text(std::move(t)) {
        ++alive;
    }
    ~Note() override { --alive; }
    int serialize(VEL_Archive& archive) const override {
        archive << number << text;
        return result;
    }
    int deserialize(VEL_Archive& archive) override {
        archive >> number >> text;
        if (text == "throw") throw std::runtime_error("from the application");
        return text == "refuse" ? -1 : 0;
    }
    void calc_size(VEL_Archive& archive) const override {
        archive += number;
        archive += text;
        for (int i = 0; i < overcount; ++i) archive += 'x';
    }

    uint32_t number;
    std::string text;
    int result = 0;
    int overcount = 0;
    static inline int alive = 0;
};

/// Everything an archive can carry, by operator and by key.
class Everything : public VEL_Serializable {
public:
    Everything() : VEL_Serializable(8, 0) {}
    static void each(auto& self, auto call) {
        call(self.c), call(self.s), call(self.i), call(self.l), call(self.ull), call(self.f), call(self.d);
        call(self.text), call(self.wide), call(self.time), call(self.address), call(self.block), call(self.bits);
    }
    int serialize(VEL_Archive& archive) const override {
        each(*this, [&](const auto& value) { archive << value; });
        archive.set_element(301, size_t{9});
        archive.set_element(302, L"\u00e4");
        return archive.set_element(303, block);
    }
    int deserialize(VEL_Archive& archive) override {
        each(*this, [&](auto& value) { archive >> value; });
        archive.get_element(303, block);
        archive.get_element(302, wide_key);
        return archive.get_element(301, nine);
    }
    void calc_size(VEL_Archive& archive) const override {
        each(*this, [&](const auto& value) { archive += value; });
        archive += size_t{9}, archive += L"\u00e4", archive += block;
    }

    char c = 0;
    short s = 0;
    int i = 0;
    long l = 0;
    unsigned long long ull = 0;
    float f = 0;
    double d = 0;
    std::string text;
    std::wstring wide, wide_key;
    size_t nine = 0;
    SYSTEMTIME time = {};
    VEL_INET_Addr address;
    VEL_Byte_Block block;
    VEL_Bitfield bits;
};

class Factory : public VEL_Object_Factory {
public:
    VEL_Serializable* create_stream(uint16_t stype, uint16_t sid) const override {
        if (stype == 7 && sid == 2) return new Note;
        if (stype == 8) return new Everything;
        if (stype == 9) return new VEL_Serializable(9, 0);
        return nullptr;
    }
};

class Archive : public ::testing::Test {
protected:
    ~Archive() override {
        object_.reset();
        EXPECT_EQ(Note::alive, 0);
    }
    static Bytes packed(const VEL_Serializable& object) {
        VEL_Archive archive;
        VEL_Byte_Block block;
        EXPECT_GT(archive.serialize(block, object), 0);
        const auto* at = static_cast<const uint8_t*>(block.c_ptr(0));
        return {at, at + block.size()};
    }
    /// Feeds a piece from memory of exactly its size, so that the sanitizers see a read beyond it.
    int feed(const uint8_t* data, uint64_t size) {
        const Bytes piece(data, data + size);
        VEL_Serializable* made = nullptr;
        const int used = archive_.deserialize(piece.data(), piece.size(), factory_, made);
        if (made != nullptr) object_.reset(made);
        return used;
    }
    int feed(const Bytes& bytes) { return feed(bytes.data(), bytes.size()); }
    void expect_usable() {
        EXPECT_EQ(archive_.get_bodysize(), 0u);
        const Bytes good = packed(Note(5, "five"));
        EXPECT_EQ(feed(good), static_cast<int>(good.size()));
        ASSERT_NE(note(), nullptr);
        EXPECT_EQ(note()->text, "five");
    }
    Note* note() { return dynamic_cast<Note*>(object_.get()); }

    Factory factory_;
    VEL_Archive archive_;
    std::unique_ptr<VEL_Serializable> object_;
};

TEST_F(Archive, WritesTheDocumentedBytes) {
    const Bytes expected = vel::testing::format_example(VEL_FORMATS "/archive.md");
    EXPECT_EQ(packed(Note(1, "hi")), expected);
    Bytes buffer(expected.size());
    EXPECT_EQ(archive_.serialize(buffer.data(), buffer.size(), Note(1, "hi")), static_cast<int>(expected.size()));
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(archive_.get_stype(), 7);
    EXPECT_EQ(archive_.get_bodysize(), 24u);
    EXPECT_EQ(archive_.get_elements(), 2u);
    expect_failure(4, archive_.set_element(1, 1)); // the caller's buffer is let go
}

TEST_F(Archive, EveryKindSurvivesTheTrip) {
    Everything sent;
    sent.c = 'c', sent.s = -300, sent.i = -70000, sent.l = -5000000000, sent.ull = ~0ull;
    sent.f = 0.5f, sent.d = -1e-300, sent.text = "text", sent.wide = L"wide", sent.bits = "10101";
    sent.time = {2024, 2, 4, 29, 23, 59, 58, 999};
    sent.address.set(8080, 0xC0A80001u);
    sent.block.set(4, "data");
    const Bytes message = packed(sent);
    VEL_InputCDR in(message.data() + 20, message.size() - 20);
    for (uint8_t expected : {1, 2, 3, 4, 4, 5, 6, 7}) {
        uint32_t id, length;
        uint8_t type = 0;
        const void* data;
        in.lookup(id, type, length, data);
        EXPECT_EQ(type, expected) << "integers are tagged by their width";
    }
    std::unique_ptr<VEL_Serializable> copy(sent.clone(factory_));
    auto* got = dynamic_cast<Everything*>(copy.get());
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(packed(*got), message);
    EXPECT_EQ(std::tuple(got->s, got->l, got->f, got->d), std::tuple(sent.s, sent.l, sent.f, sent.d));
    EXPECT_EQ(got->wide + got->wide_key, L"wide\u00e4");
    EXPECT_EQ(got->nine, 9u);
    EXPECT_EQ(got->time.wMilliseconds, 999);
    EXPECT_EQ(got->address, sent.address);
    sent.time.wMonth = 13;
    EXPECT_EQ(sent.clone(factory_), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
}

TEST_F(Archive, BuffersAndSizesHaveToFitExactly) {
    const Note note(1, "hi");
    uint8_t buffer[44];
    const std::pair<uint64_t, uint32_t> rows[] = {{0, 12}, {19, 12}, {20, 4}, {43, 12}};
    for (const auto& [size, code] : rows) {
        expect_failure(code, archive_.serialize(buffer, size, note));
    }

    VEL_Byte_Block block(3, "old");
    Note over(1, "hi"), failing(1, "hi");
    over.overcount = 1;
    failing.result = -1;
    expect_failure(12, archive_.serialize(block, over));
    EXPECT_EQ(archive_.serialize(block, failing), -1);
    EXPECT_EQ(block.size(), 3u); // untouched by failures
}

TEST_F(Archive, EverySplitPointGivesTheSameObject) {
    const Bytes message = packed(Note(77, "split me"));
    for (uint64_t cut = 0; cut < message.size(); ++cut) {
        object_.reset();
        EXPECT_EQ(feed(message.data(), cut), 0) << cut;
        VEL_Archive copy = archive_; // with a body of its own
        archive_ = copy;
        EXPECT_EQ(feed(message.data() + cut, message.size() - cut), static_cast<int>(message.size() - cut)) << cut;
        ASSERT_NE(note(), nullptr) << cut;
        EXPECT_EQ(note()->number, 77u);
        EXPECT_EQ(note()->text, "split me");
    }
}

TEST_F(Archive, MessagesComeOneByOneOutOfPiecesOfAnySize) {
    const std::string big(100'000, 'b');
    Bytes stream = packed(Note(1, big));
    const Bytes second = packed(Note(2, "two"));
    stream.insert(stream.end(), second.begin(), second.end());
    for (uint64_t piece : {uint64_t{7}, uint64_t{997}, stream.size()}) {
        std::vector<std::string> texts;
        for (uint64_t at = 0; at < stream.size();) {
            const uint64_t count = std::min(piece, stream.size() - at);
            const int used = feed(&stream[at], count);
            if (used > 0) texts.push_back(note()->text);
            at += used > 0 ? static_cast<uint64_t>(used) : count;
        }
        EXPECT_EQ(texts, (std::vector<std::string>{big, "two"}));
    }
}

TEST_F(Archive, CorruptHeadersFailWithTheirCode) {
    struct Row {
        uint64_t offset;
        uint8_t value;
        uint32_t code;
    };
    const Row rows[] = {
        {0, 'X', 17}, {3, 's', 17},               // magic
        {9, 6, 17},   {11, 9, 17},                // kinds that the factory does not know
        {15, 23, 14}, {15, 12, 14}, {15, 13, 15}, // body cut inside a payload, between elements
        {19, 1, 15},  {19, 3, 15},  {16, 1, 15},  // too few elements, one too many, millions
    };
    for (const Row& row : rows) {
        Bytes message = packed(Note(1, "hi"));
        message[row.offset] = row.value;
        SCOPED_TRACE(testing::Message() << "offset " << row.offset << " value " << int{row.value});
        expect_failure(row.code, feed(message));
        EXPECT_EQ(object_, nullptr);
        expect_usable();
        object_.reset();
    }
    Bytes version = packed(Note(1, "hi"));
    version[4] = 0xEE; // nobody looks at it
    EXPECT_GT(feed(version), 0);
}

TEST_F(Archive, AClaimedBodyIsNotBelieved) {
    Bytes header = {'V', 'E', 'L', 'S', 0, 1, 0, 0, 0, 7, 0, 2, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(feed(header), 0); // waits; the replay of the fuzz corpus bounds what is allocated
    EXPECT_EQ(archive_.get_bodysize(), 0xFFFFFFFFu);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(feed(header), 0);
    archive_.reset();
    header[12] = header[13] = header[14] = header[15] = 0;
    expect_failure(4, feed(header)); // elements in an empty body
    expect_usable();
}

TEST_F(Archive, WhatTheObjectRefusesLeavesTheArchiveUsable) {
    EXPECT_EQ(feed(packed(Note(1, "refuse"))), -1);
    expect_usable();
    object_.reset();
    EXPECT_THROW(feed(packed(Note(1, "throw"))), std::runtime_error);
    EXPECT_EQ(Note::alive, 0);
    expect_usable();
}

// A file stands for the socket: the archive reads and writes both through the same calls.
TEST_F(Archive, AStreamIsReadMessageByMessageToItsEnd) {
    const vel::testing::TemporaryDirectory directory;
    void* file = VELLib::create(directory.path("stream").c_str(), true, 0);
    const auto receive = [&] {
        VEL_Serializable* made = reinterpret_cast<VEL_Serializable*>(this); // has to be overwritten
        const int length = archive_.deserialize(file, factory_, made);
        object_.reset(made);
        return length;
    };
    const Note small(1, "small"), large(2, std::string(10'000, 'l'));
    EXPECT_EQ(archive_.serialize(file, small), 20 + 13 + 14);
    EXPECT_EQ(archive_.serialize(file, VEL_Serializable(9, 0)), 20); // without a body: read on to the next
    EXPECT_EQ(archive_.serialize(file, large), 20 + 13 + 10'009);
    EXPECT_EQ(VELLib::write_n(file, packed(small).data(), 46), 46); // cut off
    VELLib::seek(file, 0, 0);
    EXPECT_EQ(receive(), 47);
    EXPECT_EQ(note()->text, "small");
    EXPECT_EQ(receive(), 20 + 10'042);
    EXPECT_EQ(note()->text, large.text);
    expect_failure(15, receive());
    EXPECT_EQ(object_, nullptr);
    EXPECT_EQ(receive(), 0);
    expect_usable();
    VELLib::close(file);
}

} // namespace
