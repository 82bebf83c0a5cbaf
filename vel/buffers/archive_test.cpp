// Archive messages: the bytes, every split point, hostile headers and bodies, sockets.
#include <vel/buffers/archive.h>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/message_block.h>
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
    int serialize(VEL_Archive& archive) const override {
        archive << c << sc << s << i << l << ll << ull << f << d << "literal" << L"wide" << time << address << block
                << bits;
        archive.set_element(300, c);
        archive.set_element(301, size_t{9});
        archive.set_element(302, L"\u00e4");
        return archive.set_element(303, block);
    }
    int deserialize(VEL_Archive& archive) override {
        archive >> c >> sc >> s >> i >> l >> ll >> ull >> f >> d >> text >> wide >> time >> address >> block >> bits;
        size_t nine = 0;
        archive.get_element(301, nine);
        archive.get_element(302, wide_key);
        archive.get_element(303, block);
        return nine == 9 ? archive.get_element(300, c) : -1;
    }
    void calc_size(VEL_Archive& archive) const override {
        archive += c, archive += sc, archive += s, archive += i, archive += l, archive += ll, archive += ull;
        archive += f, archive += d, archive += "literal", archive += L"wide", archive += time, archive += address;
        archive += block, archive += bits, archive += c, archive += size_t{9}, archive += L"\u00e4", archive += block;
    }

    char c = 0;
    signed char sc = 0;
    short s = 0;
    int i = 0;
    long l = 0;
    long long ll = 0;
    unsigned long long ull = 0;
    float f = 0;
    double d = 0;
    std::string text;
    std::wstring wide, wide_key;
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
    EXPECT_EQ(archive_.get_ver(), 0x00010000u);
    EXPECT_EQ(archive_.get_stype(), 7);
    EXPECT_EQ(archive_.get_sid(), 2);
    EXPECT_EQ(archive_.get_bodysize(), 24u);
    EXPECT_EQ(archive_.get_elements(), 2u);
    EXPECT_EQ(archive_.set_element(1, 1), -1); // the caller's buffer is let go
    EXPECT_EQ(VELLib::GetErrorCode(), library + 4);
}

TEST_F(Archive, EveryKindSurvivesTheTrip) {
    Everything sent;
    sent.c = 'c', sent.sc = -2, sent.s = -300, sent.i = -70000, sent.l = -5000000000, sent.ll = -6000000000;
    sent.ull = ~0ull, sent.f = 0.5f, sent.d = -1e-300;
    sent.time = {2024, 2, 4, 29, 23, 59, 58, 999};
    sent.address.set(8080, 0xC0A80001u);
    sent.block.set(4, "data");
    sent.bits = "10101";
    std::unique_ptr<VEL_Serializable> copy(sent.clone(factory_));
    auto* got = dynamic_cast<Everything*>(copy.get());
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->c, 'c');
    EXPECT_EQ(got->sc, -2);
    EXPECT_EQ(got->s, -300);
    EXPECT_EQ(got->i, -70000);
    EXPECT_EQ(got->l, -5000000000);
    EXPECT_EQ(got->ll, -6000000000);
    EXPECT_EQ(got->ull, ~0ull);
    EXPECT_EQ(got->f, 0.5f);
    EXPECT_EQ(got->d, -1e-300);
    EXPECT_EQ(got->text, "literal");
    EXPECT_EQ(got->wide, L"wide");
    EXPECT_EQ(got->wide_key, L"\u00e4");
    EXPECT_EQ(std::memcmp(&got->time, &sent.time, sizeof sent.time), 0);
    EXPECT_EQ(got->address, sent.address);
    EXPECT_EQ(std::memcmp(got->block.c_ptr(0), "data", 4), 0);
    EXPECT_EQ(got->bits.get_setbitcnt(), 3u);

    sent.time.wMonth = 13;
    EXPECT_EQ(sent.clone(factory_), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
}

TEST_F(Archive, IntegersAreTaggedByTheirWidth) {
    struct Widths : VEL_Serializable {
        int serialize(VEL_Archive& archive) const override {
            archive << 1 << 1u << 1l << size_t{1} << 'a' << short{1};
            return 0;
        }
    };
    uint8_t buffer[256];
    ASSERT_GT(archive_.serialize(buffer, sizeof buffer, Widths()), 0);
    VEL_InputCDR in(buffer + 20, archive_.get_bodysize());
    for (uint8_t expected : {3, 3, 4, 4, 1, 2}) {
        uint32_t id, length;
        uint8_t type = 0;
        const void* data;
        in.lookup(id, type, length, data);
        EXPECT_EQ(type, expected);
    }
}

TEST_F(Archive, BuffersAndSizesHaveToFitExactly) {
    const Note note(1, "hi");
    uint8_t buffer[44];
    const std::pair<uint64_t, uint32_t> rows[] = {{0, 12}, {19, 12}, {20, 4}, {43, 12}};
    for (const auto& [size, code] : rows) {
        EXPECT_EQ(archive_.serialize(buffer, size, note), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), library + code) << size;
    }
    EXPECT_EQ(archive_.serialize(buffer, 44, note), 44);
    EXPECT_EQ(archive_.serialize(buffer, 20, VEL_Serializable(9, 0)), 20);

    VEL_Byte_Block block(3, "old");
    Note over(1, "hi"), failing(1, "hi");
    over.overcount = 1;
    failing.result = -1;
    EXPECT_EQ(archive_.serialize(block, over), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 12);
    EXPECT_EQ(archive_.serialize(block, failing), -1);
    EXPECT_EQ(block.size(), 3u); // untouched by failures
}

TEST_F(Archive, EverySplitPointGivesTheSameObject) {
    const Bytes message = packed(Note(77, "split me"));
    for (uint64_t cut = 0; cut <= message.size(); ++cut) {
        object_.reset();
        const int first = feed(message.data(), cut);
        if (cut < message.size()) {
            EXPECT_EQ(first, 0) << cut;
            EXPECT_EQ(feed(message.data() + cut, message.size() - cut), static_cast<int>(message.size() - cut)) << cut;
        } else {
            EXPECT_EQ(first, static_cast<int>(message.size()));
        }
        ASSERT_NE(note(), nullptr) << cut;
        EXPECT_EQ(note()->number, 77u);
        EXPECT_EQ(note()->text, "split me");
    }
}

TEST_F(Archive, ByteByByteTheLastOneCompletes) {
    const Bytes message = packed(Note(1, "hi"));
    for (uint64_t i = 0; i + 1 < message.size(); ++i) EXPECT_EQ(feed(&message[i], 1), 0);
    EXPECT_EQ(archive_.get_bodysize(), 24u);
    VEL_Archive copy = archive_; // with a body of its own
    EXPECT_EQ(feed(&message.back(), 1), 1);
    EXPECT_EQ(note()->text, "hi");
    VEL_Serializable* made = nullptr;
    EXPECT_EQ(copy.deserialize(&message.back(), 1, factory_, made), 1);
    object_.reset(made);
    EXPECT_EQ(note()->text, "hi");
}

TEST_F(Archive, TwoMessagesInOnePieceAreTakenOneByOne) {
    const Bytes first = packed(Note(1, "one")), second = packed(Note(2, "two"));
    Bytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(feed(both), static_cast<int>(first.size()));
    EXPECT_EQ(note()->text, "one");
    EXPECT_EQ(feed(both.data() + first.size(), second.size()), static_cast<int>(second.size()));
    EXPECT_EQ(note()->text, "two");
}

TEST_F(Archive, ABodyCollectedFromManyPiecesIsWhole) {
    const Note big(3, std::string(300'000, 'b'));
    const Bytes message = packed(big);
    uint64_t at = 0;
    for (uint64_t step = 1; at < message.size(); step = step % 7 + 1) {
        const uint64_t count = std::min<uint64_t>(step, message.size() - at);
        const int used = feed(&message[at], count);
        at += count;
        EXPECT_EQ(used, at == message.size() ? static_cast<int>(count) : 0);
    }
    EXPECT_EQ(note()->text, big.text);
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
        EXPECT_EQ(feed(message), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), library + row.code);
        EXPECT_EQ(object_, nullptr);
        expect_usable();
        object_.reset();
    }
    Bytes version = packed(Note(1, "hi"));
    version[4] = 0xEE; // nobody looks at it
    EXPECT_GT(feed(version), 0);
}

TEST_F(Archive, ElementsAreCheckedEvenWhenTheObjectReadsNone) {
    Bytes message = {'V', 'E', 'L', 'S', 0, 1, 0, 0, 0, 9, 0, 0, 0, 0, 0, 14, 0, 0, 0, 1};
    const uint8_t bit_field[] = {0, 0, 0, 0, 8, 0, 0, 0, 5, 0, 0, 0, 8, 0xFF};
    message.insert(message.end(), bit_field, bit_field + sizeof bit_field);
    EXPECT_EQ(feed(message), 34);
    message[32] = 9; // nine bits in one byte
    EXPECT_EQ(feed(message), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 14);
    message[24] = 99; // a kind that nobody knows is skipped
    EXPECT_EQ(feed(message), 34);
}

TEST_F(Archive, AClaimedBodyIsNotBelieved) {
    Bytes header = {'V', 'E', 'L', 'S', 0, 1, 0, 0, 0, 7, 0, 2, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(feed(header), 0); // waits; the replay of the fuzz corpus bounds what is allocated
    EXPECT_EQ(archive_.get_bodysize(), 0xFFFFFFFFu);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(feed(header), 0);
    archive_.reset();
    header[12] = header[13] = header[14] = header[15] = 0;
    EXPECT_EQ(feed(header), -1); // elements in an empty body
    EXPECT_EQ(VELLib::GetErrorCode(), library + 4);
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

/// A file stands for the socket: the archive reads and writes both through the same calls.
class ArchiveStreamTest : public Archive {
protected:
    ArchiveStreamTest() { file_ = VELLib::create(directory_.path("stream").c_str(), true, 0); }
    ~ArchiveStreamTest() override { VELLib::close(file_); }
    void write(const Bytes& bytes) {
        EXPECT_EQ(VELLib::write_n(file_, bytes.data(), bytes.size()), static_cast<int>(bytes.size()));
    }
    void rewind() { EXPECT_EQ(VELLib::seek(file_, 0, 0), 0); }
    int receive() {
        VEL_Serializable* made = reinterpret_cast<VEL_Serializable*>(this); // has to be overwritten
        const int length = archive_.deserialize(file_, factory_, made);
        object_.reset(made);
        return length;
    }
    vel::testing::TemporaryDirectory directory_;
    void* file_;
};

TEST_F(ArchiveStreamTest, MessagesFollowEachOtherUntilTheEnd) {
    const Note small(1, "small"), large(2, std::string(10'000, 'l'));
    EXPECT_EQ(archive_.serialize(file_, small), 20 + 13 + 14);
    EXPECT_EQ(archive_.serialize(file_, large), 20 + 13 + 10'009);
    rewind();
    EXPECT_EQ(receive(), 47);
    EXPECT_EQ(note()->text, "small");
    EXPECT_EQ(receive(), 10'042);
    EXPECT_EQ(note()->text, large.text);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(object_, nullptr);
    VELLib::close(file_);
    EXPECT_EQ(archive_.serialize(file_, small), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 6u);
}

TEST_F(ArchiveStreamTest, AStreamThatEndsWithinAMessageIsTooShort) {
    Bytes message = packed(Note(1, "cut off"));
    message.pop_back();
    write(message);
    rewind();
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 15);
    EXPECT_EQ(object_, nullptr);
    expect_usable();
}

TEST_F(ArchiveStreamTest, AnEmptyBodyIsFollowedByAnotherHeader) {
    const Bytes empty = packed(VEL_Serializable(9, 0)), full = packed(Note(2, "next"));
    write(empty);
    write(full);
    write(empty);
    rewind();
    EXPECT_EQ(receive(), static_cast<int>(empty.size() + full.size()));
    EXPECT_NE(note(), nullptr);
    EXPECT_EQ(receive(), 0); // the last one waits for a header that never comes
}

TEST_F(Archive, AMessageBlockIsRebuiltFromItsBytes) {
    const Bytes message = packed(Note(4, "four"));
    VEL_Byte_Block bytes(message.size(), message.data());
    VEL_Message_Block block(bytes, factory_, false);
    EXPECT_EQ(dynamic_cast<Note*>(block.c_ptr())->text, "four");
    VEL_Byte_Block cut(message.size() - 1, message.data());
    EXPECT_EQ(block.set(cut, factory_, false), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 15);
    EXPECT_TRUE(block.is_null());
    EXPECT_EQ(VEL_Object_Factory().create_stream(1, 1), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), library + 3);
}

} // namespace
