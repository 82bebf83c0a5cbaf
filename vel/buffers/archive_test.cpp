// Archive messages: the bytes, every split point, hostile headers and bodies, sockets.
#include <vel/buffers/archive.h>

#include <stdexcept>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/object_factory.h>
#include <vel/platform/files.h>
#include <vel/platform/inet_addr.h>
#include <vel/testing/balanced_test.h>
#include <vel/testing/fields.h>
#include <vel/testing/format_example.h>
#include <vel/testing/temporary_directory.h>

namespace vel::testing {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t library = 0x20000000;

/// Kind 7/2: a number, and a text by key; both are looked for.
struct Note : FieldsOf<uint32_t, std::string>, Counted {
    explicit Note(uint32_t number = 0, std::string text = "") : FieldsOf(7, 2) { fields = {number, std::move(text)}; }
    int serialize(VEL_Archive& archive) const override {
        return (archive << std::get<0>(fields)).set_element(1, text());
    }
    int deserialize(VEL_Archive& archive) override {
        auto& [number, text] = fields;
        if (archive.get_element(1, text) < 0 || archive.get_element(0, number) < 0) return -1;
        if (text == "throw") throw std::runtime_error("from the application");
        return text == "refuse" ? -1 : 0;
    }
    const std::string& text() const { return std::get<1>(fields); }
};

/// Everything an archive can carry by operator.
using Everything = FieldsOf<char, short, int, long, unsigned long long, float, double, std::string, std::wstring,
                            SYSTEMTIME, VEL_INET_Addr, VEL_Byte_Block, VEL_Bitfield>;

class Factory : public VEL_Object_Factory {
public:
    VEL_Serializable* create_stream(uint16_t stype, uint16_t sid) const override {
        if (stype == 7 && sid == 2) return new Note;
        if (stype == 8) return new Everything(8, 0);
        if (stype == 9) return new VEL_Serializable(9, 0);
        return nullptr;
    }
};

class Archive : public BalancedTest {
protected:
    static Bytes packed(const VEL_Serializable& object) {
        VEL_Byte_Block block;
        EXPECT_GT(VEL_Archive().serialize(block, object), 0);
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
        EXPECT_EQ(note()->text(), "five");
    }
    Note* note() { return dynamic_cast<Note*>(object_.get()); }

    Factory factory_;
    VEL_Archive archive_;
    std::unique_ptr<VEL_Serializable> object_;
};

TEST_F(Archive, WritesTheDocumentedBytes) {
    const Bytes expected = format_example(VEL_FORMATS "/archive.md");
    EXPECT_EQ(packed(Note(1, "hi")), expected);
    Bytes buffer(expected.size());
    EXPECT_EQ(archive_.serialize(buffer.data(), buffer.size(), Note(1, "hi")), static_cast<int>(expected.size()));
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(archive_.get_stype(), 7);
    expect_failure(library + 4, archive_.set_element(1, 1)); // the caller's buffer is let go
}

TEST_F(Archive, EveryKindSurvivesTheTrip) {
    Everything sent(8, 0);
    const SYSTEMTIME time = {2024, 2, 4, 29, 23, 59, 58, 999};
    sent.fields = std::make_tuple('c', -300, -70000, -5000000000, ~0ull, 0.5f, -1e-300, "text", L"wid\u00e9", time,
                                  VEL_INET_Addr(8080, 0xC0A80001u), VEL_Byte_Block(4, "data"), VEL_Bitfield("10101"));
    const Bytes message = packed(sent);
    EXPECT_EQ(message.size(), 213u) << "every number keeps its width";
    std::unique_ptr<VEL_Serializable> copy(sent.clone(factory_));
    auto* got = dynamic_cast<Everything*>(copy.get());
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(packed(*got), message);
    EXPECT_EQ(std::get<long>(got->fields), -5000000000);
    EXPECT_EQ(std::get<std::wstring>(got->fields), L"wid\u00e9");
    std::get<SYSTEMTIME>(sent.fields).wMonth = 13;
    EXPECT_EQ(sent.clone(factory_), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
}

TEST_F(Archive, BuffersAndSizesHaveToFitExactly) {
    struct Overcounting : Note {
        void calc_size(VEL_Archive& archive) const override { Note::calc_size(archive), archive += 'x'; }
    };
    uint8_t buffer[44];
    for (const uint64_t size : {0, 19, 32, 43})
        expect_failure(library + 12, archive_.serialize(buffer, size, Note(1, "hi")));
    VEL_Byte_Block block(3, "old");
    expect_failure(library + 12, archive_.serialize(block, Overcounting()));
    EXPECT_EQ(block.size(), 3u); // untouched by a failure
}

TEST_F(Archive, EverySplitPointGivesTheSameObjects) {
    const std::string big(3000, 'b');
    Bytes stream = packed(Note(1, "split me"));
    const uint64_t first = stream.size();
    const Bytes second = packed(Note(2, big));
    stream.insert(stream.end(), second.begin(), second.end());
    for (uint64_t piece = 1; piece <= first + 21; ++piece) { // each place of the first message and of a header
        std::vector<std::string> texts;
        for (uint64_t at = 0; at < stream.size();) {
            const uint64_t count = std::min(piece, stream.size() - at);
            const int used = feed(&stream[at], count);
            if (used > 0) texts.push_back(note()->text());
            at += used > 0 ? static_cast<uint64_t>(used) : count;
            const VEL_Archive copy = archive_; // with a body of its own
            archive_ = copy;
        }
        EXPECT_EQ(texts, (std::vector<std::string>{"split me", big})) << piece;
    }
}

TEST_F(Archive, CorruptMessagesFailWithTheirCodeAndLeaveTheArchiveUsable) {
    const std::tuple<uint64_t, uint8_t, uint32_t> rows[] = {
        // offset, value, code
        {0, 'X', 17}, {3, 's', 17},               // magic
        {9, 6, 17},   {11, 9, 17},                // kinds that the factory does not know
        {15, 23, 14}, {15, 12, 14}, {15, 13, 15}, // body cut inside a payload, between elements
        {19, 1, 15},  {19, 3, 15},  {16, 1, 15},  // too few elements, one too many, millions
        {15, 0, 4},                               // elements in an empty body
    };
    for (const auto& [offset, value, code] : rows) {
        Bytes message = packed(Note(1, "hi"));
        message[offset] = value;
        expect_failure(library + code, feed(message));
        EXPECT_EQ(object_, nullptr);
        expect_usable();
        object_.reset();
    }
    EXPECT_EQ(feed(packed(Note(1, "refuse"))), -1);
    expect_usable();
    object_.reset();
    EXPECT_THROW(feed(packed(Note(1, "throw"))), std::runtime_error);
    EXPECT_EQ(live_objects, 0);
    expect_usable();
}

// A file stands for the socket: the archive reads and writes both through the same calls.
TEST_F(Archive, AStreamIsReadMessageByMessageToItsEnd) {
    const TemporaryDirectory directory;
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
    EXPECT_EQ(note()->text(), "small");
    EXPECT_EQ(receive(), 20 + 10'042);
    EXPECT_EQ(note()->text(), large.text());
    expect_failure(library + 15, receive());
    EXPECT_EQ(object_, nullptr);
    EXPECT_EQ(receive(), 0);
    expect_usable();
    VELLib::close(file);
}

} // namespace
} // namespace vel::testing
