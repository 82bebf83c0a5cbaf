// One ten-field message through the archive, a hand-written coder and the usual serialization libraries.
//
// All encode the same values into memory that is there before, and decode into a new object that is deleted again. Each
// coder's round trip is checked against the values before anything is timed.
#include <atomic>
#include <benchmark/benchmark.h>
#include <cereal/archives/binary.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>
#include <codec.pb.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <memory>
#include <msgpack.hpp>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>
#include <vel/buffers/archive.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/object_factory.h>
#include <vel/buffers/serializable.h>
#include <vel/memory/malloc.h>

namespace {

constexpr uint64_t digest_size = 64;

/// The values; a library of plain members describes itself through MSGPACK_DEFINE and `serialize`.
struct Plain {
    uint32_t sequence = 0;
    uint32_t flags = 0;
    uint64_t timestamp = 0;
    double price = 0;
    std::string symbol, venue, account;
    uint8_t side = 0;
    uint16_t lot = 0;
    std::vector<uint8_t> digest;

    bool operator==(const Plain&) const = default;
    MSGPACK_DEFINE(sequence, flags, timestamp, price, symbol, venue, account, side, lot, digest)
    template <class A>
    void serialize(A& archive) {
        archive(sequence, flags, timestamp, price, symbol, venue, account, side, lot, digest);
    }
};

Plain sample() {
    Plain plain{
        0x01020304, 0xA0B0C0D0, 0x1122334455667788, 1234.5678, "EURUSD-SPOT1", "FRANKFURT-02", "ACCT-0001234", 7,
        515,        {}};
    for (uint64_t i = 0; i < digest_size; ++i) plain.digest.push_back(static_cast<uint8_t>(i * 7));
    return plain;
}

// --- the archive ---------------------------------------------------------------------------------------------------

class Record : public VEL_Serializable {
public:
    Record() : VEL_Serializable(1, 1) {}
    explicit Record(const Plain& p)
        : VEL_Serializable(1, 1),
          sequence(p.sequence),
          flags(p.flags),
          timestamp(p.timestamp),
          price(p.price),
          symbol(p.symbol),
          venue(p.venue),
          account(p.account),
          side(p.side),
          lot(p.lot),
          digest(p.digest.size(), p.digest.data()) {}

    int serialize(VEL_Archive& archive) const override {
        archive << sequence << flags << timestamp << price << symbol << venue << account << side << lot << digest;
        return 0;
    }
    int deserialize(VEL_Archive& archive) override {
        archive >> sequence >> flags >> timestamp >> price >> symbol >> venue >> account >> side >> lot >> digest;
        return 0;
    }
    void calc_size(VEL_Archive& archive) const override {
        archive += sequence, archive += flags, archive += timestamp, archive += price, archive += symbol;
        archive += venue, archive += account, archive += side, archive += lot, archive += digest;
    }
    Plain plain() const {
        const auto* at = static_cast<const uint8_t*>(digest.c_ptr(0));
        return {sequence, flags, timestamp, price, symbol, venue, account, side, lot, {at, at + digest.size()}};
    }

    uint32_t sequence = 0;
    uint32_t flags = 0;
    uint64_t timestamp = 0;
    double price = 0;
    std::string symbol, venue, account;
    uint8_t side = 0;
    uint16_t lot = 0;
    VEL_Byte_Block digest;
};

class Factory : public VEL_Object_Factory {
public:
    VEL_Serializable* create_stream(uint16_t stype, uint16_t) const override {
        return stype == 1 ? new Record : nullptr;
    }
};

// --- by hand: the archive's bytes, every length checked, the same allocations -----------------------------------------

struct HandBlock {
    std::atomic<int>* references = nullptr;
    uint8_t* data = nullptr;
    uint64_t size = 0;
    ~HandBlock() {
        if (references == nullptr || references->fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        delete references;
        std::free(data);
    }
    void set(const uint8_t* source, uint64_t count) {
        references = new std::atomic<int>(1);
        data = static_cast<uint8_t*>(std::malloc(count));
        std::memcpy(data, source, count);
        size = count;
    }
};

struct HandRecord {
    virtual ~HandRecord() = default;
    uint32_t sequence = 0;
    uint32_t flags = 0;
    uint64_t timestamp = 0;
    double price = 0;
    std::string symbol, venue, account;
    uint8_t side = 0;
    uint16_t lot = 0;
    HandBlock digest;
};

template <class T>
void store(uint8_t* at, T value) {
    if constexpr (sizeof(T) == 2) value = __builtin_bswap16(value);
    if constexpr (sizeof(T) == 4) value = __builtin_bswap32(value);
    if constexpr (sizeof(T) == 8) value = __builtin_bswap64(value);
    std::memcpy(at, &value, sizeof value);
}

template <class T>
T load(const uint8_t* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    if constexpr (sizeof(T) == 2) value = __builtin_bswap16(value);
    if constexpr (sizeof(T) == 4) value = __builtin_bswap32(value);
    if constexpr (sizeof(T) == 8) value = __builtin_bswap64(value);
    return value;
}

struct HandWriter {
    uint8_t* at;
    uint8_t* end;
    uint32_t id = 0;
    bool good = true;

    uint8_t* element(uint8_t tag, uint64_t length) {
        if (static_cast<uint64_t>(end - at) < 9 + length) {
            good = false;
            return nullptr;
        }
        store(at, id++);
        at[4] = tag;
        store(at + 5, static_cast<uint32_t>(length));
        uint8_t* payload = at + 9;
        at = payload + length;
        return payload;
    }
    template <class T>
    void number(uint8_t tag, T value) {
        if (uint8_t* payload = element(tag, sizeof(T))) store(payload, value);
    }
    void bytes(uint8_t tag, const void* data, uint64_t length) {
        if (uint8_t* payload = element(tag, length)) std::memcpy(payload, data, length);
    }
};

uint64_t hand_encode(const HandRecord& record, uint8_t* buffer, uint64_t capacity) {
    if (capacity < 20) return 0;
    HandWriter out{buffer + 20, buffer + capacity};
    out.number(3, record.sequence);
    out.number(3, record.flags);
    out.number(4, record.timestamp);
    uint64_t price;
    std::memcpy(&price, &record.price, sizeof price);
    out.number(6, price);
    out.bytes(7, record.symbol.data(), record.symbol.size());
    out.bytes(7, record.venue.data(), record.venue.size());
    out.bytes(7, record.account.data(), record.account.size());
    out.number(1, record.side);
    out.number(2, record.lot);
    out.bytes(9, record.digest.data, record.digest.size);
    if (!out.good) return 0;
    std::memcpy(buffer, "VELS", 4);
    store(buffer + 4, uint32_t{0x00010000});
    store(buffer + 8, uint16_t{1});
    store(buffer + 10, uint16_t{1});
    store(buffer + 12, static_cast<uint32_t>(out.at - buffer - 20));
    store(buffer + 16, out.id);
    return static_cast<uint64_t>(out.at - buffer);
}

struct HandReader {
    const uint8_t* at;
    const uint8_t* end;
    bool good = true;

    const uint8_t* element(uint8_t tag, uint64_t& length) {
        const auto left = static_cast<uint64_t>(end - at);
        if (!good || left < 9 || at[4] != tag || (length = load<uint32_t>(at + 5)) > left - 9) {
            good = false;
            return nullptr;
        }
        const uint8_t* payload = at + 9;
        at = payload + length;
        return payload;
    }
    template <class T>
    void number(uint8_t tag, T& value) {
        uint64_t length;
        const uint8_t* payload = element(tag, length);
        if (payload == nullptr) return;
        if (length == sizeof(T))
            value = load<T>(payload);
        else
            good = false;
    }
    void text(std::string& value) {
        uint64_t length;
        if (const uint8_t* payload = element(7, length)) value.assign(reinterpret_cast<const char*>(payload), length);
    }
};

HandRecord* hand_decode(const uint8_t* data, uint64_t size) {
    if (size < 20 || std::memcmp(data, "VELS", 4) != 0 || load<uint16_t>(data + 8) != 1) return nullptr;
    if (load<uint32_t>(data + 12) != size - 20 || load<uint32_t>(data + 16) != 10) return nullptr;
    auto record = std::make_unique<HandRecord>();
    HandReader in{data + 20, data + size};
    uint64_t price = 0;
    uint64_t length = 0;
    in.number(3, record->sequence);
    in.number(3, record->flags);
    in.number(4, record->timestamp);
    in.number(6, price);
    std::memcpy(&record->price, &price, sizeof price);
    in.text(record->symbol);
    in.text(record->venue);
    in.text(record->account);
    in.number(1, record->side);
    in.number(2, record->lot);
    if (const uint8_t* payload = in.element(9, length)) record->digest.set(payload, length);
    return in.good && in.at == in.end ? record.release() : nullptr;
}

// --- the streams that a memory archive needs ----------------------------------------------------------------------------

class MemoryBuffer : public std::streambuf {
public:
    MemoryBuffer(char* data, uint64_t size) {
        setp(data, data + size);
        setg(data, data, data + size);
    }
    uint64_t written() const { return static_cast<uint64_t>(pptr() - pbase()); }
    void rewind() {
        setp(pbase(), epptr());
        setg(eback(), eback(), egptr());
    }
};

/// What every coder starts from and is held to.
struct Fixture {
    Fixture() {
        hand.sequence = plain.sequence;
        hand.flags = plain.flags;
        hand.timestamp = plain.timestamp;
        hand.price = plain.price;
        hand.symbol = plain.symbol;
        hand.venue = plain.venue;
        hand.account = plain.account;
        hand.side = plain.side;
        hand.lot = plain.lot;
        hand.digest.set(plain.digest.data(), plain.digest.size());
        proto.set_sequence(plain.sequence);
        proto.set_flags(plain.flags);
        proto.set_timestamp(plain.timestamp);
        proto.set_price(plain.price);
        proto.set_symbol(plain.symbol);
        proto.set_venue(plain.venue);
        proto.set_account(plain.account);
        proto.set_side(plain.side);
        proto.set_lot(plain.lot);
        proto.set_digest(plain.digest.data(), plain.digest.size());
    }
    static void require(bool holds, const char* what) {
        if (!holds) fail(what);
    }
    [[noreturn]] static void fail(const char* what) {
        std::fprintf(stderr, "codec_bench: %s\n", what);
        std::abort();
    }

    int allocator_set = VELLib::set_allocator(VEL_Std_Allocator::instance()); // first: the record allocates
    Plain plain = sample();
    Record record{plain};
    HandRecord hand;
    codec_bench::Record proto;
    Factory factory;
    uint8_t buffer[512] = {};
};

Fixture& fixture() {
    static Fixture the_fixture;
    return the_fixture;
}

Plain plain_of(const HandRecord& r) {
    return {r.sequence, r.flags,   r.timestamp, r.price, r.symbol,
            r.venue,    r.account, r.side,      r.lot,   {r.digest.data, r.digest.data + r.digest.size}};
}

Plain plain_of(const codec_bench::Record& r) {
    return {r.sequence(),
            r.flags(),
            r.timestamp(),
            r.price(),
            r.symbol(),
            r.venue(),
            r.account(),
            static_cast<uint8_t>(r.side()),
            static_cast<uint16_t>(r.lot()),
            {r.digest().begin(), r.digest().end()}};
}

void encode_hand(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) {
        benchmark::DoNotOptimize(hand_encode(f.hand, f.buffer, sizeof f.buffer));
        benchmark::ClobberMemory();
    }
}

void encode_vel_buffer(benchmark::State& state) {
    Fixture& f = fixture();
    VEL_Archive archive;
    uint8_t by_hand[512];
    const int length = archive.serialize(f.buffer, sizeof f.buffer, f.record);
    f.require(length > 0 && hand_encode(f.hand, by_hand, sizeof by_hand) == static_cast<uint64_t>(length) &&
                  std::memcmp(by_hand, f.buffer, static_cast<uint64_t>(length)) == 0,
              "archive and hand-written coder write different bytes");
    for (auto _ : state) {
        benchmark::DoNotOptimize(archive.serialize(f.buffer, sizeof f.buffer, f.record));
        benchmark::ClobberMemory();
    }
}

void encode_vel_block(benchmark::State& state) {
    Fixture& f = fixture();
    VEL_Archive archive;
    for (auto _ : state) {
        VEL_Byte_Block block;
        benchmark::DoNotOptimize(archive.serialize(block, f.record));
        benchmark::ClobberMemory();
    }
}

void encode_protobuf(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) {
        f.require(f.proto.SerializeToArray(f.buffer, sizeof f.buffer), "protobuf does not encode");
        benchmark::ClobberMemory();
    }
}

void encode_msgpack(benchmark::State& state) {
    Fixture& f = fixture();
    msgpack::sbuffer buffer(512);
    for (auto _ : state) {
        buffer.clear();
        msgpack::pack(buffer, f.plain);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
}

void encode_cereal(benchmark::State& state) {
    Fixture& f = fixture();
    MemoryBuffer memory(reinterpret_cast<char*>(f.buffer), sizeof f.buffer);
    std::ostream stream(&memory);
    for (auto _ : state) {
        memory.rewind();
        cereal::BinaryOutputArchive archive(stream);
        archive(f.plain);
        benchmark::ClobberMemory();
    }
}

void decode_hand(benchmark::State& state) {
    Fixture& f = fixture();
    const uint64_t size = hand_encode(f.hand, f.buffer, sizeof f.buffer);
    const std::unique_ptr<HandRecord> first(hand_decode(f.buffer, size));
    f.require(first != nullptr && plain_of(*first) == f.plain, "hand-written coder does not round-trip");
    for (auto _ : state) {
        HandRecord* record = hand_decode(f.buffer, size);
        benchmark::DoNotOptimize(record);
        delete record;
    }
}

void decode_vel(benchmark::State& state) {
    Fixture& f = fixture();
    VEL_Archive archive;
    const auto size = static_cast<uint64_t>(archive.serialize(f.buffer, sizeof f.buffer, f.record));
    VEL_Serializable* object = nullptr;
    f.require(archive.deserialize(f.buffer, size, f.factory, object) == static_cast<int>(size) &&
                  static_cast<Record*>(object)->plain() == f.plain,
              "archive does not round-trip");
    delete object;
    for (auto _ : state) {
        archive.deserialize(f.buffer, size, f.factory, object);
        benchmark::DoNotOptimize(object);
        delete object;
    }
}

void decode_protobuf(benchmark::State& state) {
    Fixture& f = fixture();
    const std::string bytes = f.proto.SerializeAsString();
    codec_bench::Record first;
    f.require(first.ParseFromString(bytes) && plain_of(first) == f.plain, "protobuf does not round-trip");
    for (auto _ : state) {
        auto* record = new codec_bench::Record;
        f.require(record->ParseFromArray(bytes.data(), static_cast<int>(bytes.size())), "protobuf does not decode");
        benchmark::DoNotOptimize(record);
        delete record;
    }
}

void decode_msgpack(benchmark::State& state) {
    Fixture& f = fixture();
    msgpack::sbuffer bytes;
    msgpack::pack(bytes, f.plain);
    auto decode = [&] {
        auto* record = new Plain;
        msgpack::unpack(bytes.data(), bytes.size()).get().convert(*record);
        return record;
    };
    const std::unique_ptr<Plain> first(decode());
    f.require(*first == f.plain, "msgpack does not round-trip");
    for (auto _ : state) {
        Plain* record = decode();
        benchmark::DoNotOptimize(record);
        delete record;
    }
}

void decode_cereal(benchmark::State& state) {
    Fixture& f = fixture();
    MemoryBuffer memory(reinterpret_cast<char*>(f.buffer), sizeof f.buffer);
    std::ostream out(&memory);
    cereal::BinaryOutputArchive{out}(f.plain);
    std::istream in(&memory);
    auto decode = [&] {
        auto* record = new Plain;
        memory.rewind();
        cereal::BinaryInputArchive archive(in);
        archive(*record);
        return record;
    };
    const std::unique_ptr<Plain> first(decode());
    f.require(*first == f.plain, "cereal does not round-trip");
    for (auto _ : state) {
        Plain* record = decode();
        benchmark::DoNotOptimize(record);
        delete record;
    }
}

BENCHMARK(encode_hand)->Name("encode/hand_written");
BENCHMARK(encode_vel_buffer)->Name("encode/vel");
BENCHMARK(encode_vel_block)->Name("encode/vel_new_block");
BENCHMARK(encode_protobuf)->Name("encode/protobuf");
BENCHMARK(encode_msgpack)->Name("encode/msgpack");
BENCHMARK(encode_cereal)->Name("encode/cereal");
BENCHMARK(decode_hand)->Name("decode/hand_written");
BENCHMARK(decode_vel)->Name("decode/vel");
BENCHMARK(decode_protobuf)->Name("decode/protobuf");
BENCHMARK(decode_msgpack)->Name("decode/msgpack");
BENCHMARK(decode_cereal)->Name("decode/cereal");

} // namespace
