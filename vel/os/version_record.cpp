// Reader of the fixed version record in the resources of a PE image. Trusts no offset, no length and no count.
#include <vel/os/version_record.h>

#include <algorithm>
#include <cstring>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

/// Where the bytes of an image come from. A read outside of it fails.
class ImageSource {
public:
    virtual ~ImageSource() = default;
    virtual bool read(uint64_t offset, void* target, uint64_t count) = 0;
};

class MemorySource : public ImageSource {
public:
    MemorySource(const void* image, uint64_t size) : image_(static_cast<const char*>(image)), size_(size) {}

    bool read(uint64_t offset, void* target, uint64_t count) override {
        if (offset > size_ || count > size_ - offset) return false;
        std::memcpy(target, image_ + offset, count);
        return true;
    }

private:
    const char* image_;
    uint64_t size_;
};

/// Reads through a window, since tables are walked a few bytes at a time. Not a mapping: a file that shrinks
/// meanwhile must end as a failed read, not as a fault.
class FileSource : public ImageSource {
public:
    explicit FileSource(void* file) : file_(file) {}

    bool read(uint64_t offset, void* target, uint64_t count) override {
        if (!contains(offset, count) && !load(offset)) return false;
        if (!contains(offset, count)) return false;
        std::memcpy(target, window_ + (offset - start_), count);
        return true;
    }

    /// Code of the read that failed; 0 when the file merely ended.
    uint32_t code() const { return code_; }

private:
    bool contains(uint64_t offset, uint64_t count) const {
        return offset >= start_ && offset - start_ <= filled_ && count <= filled_ - (offset - start_);
    }

    bool load(uint64_t offset) {
        start_ = offset;
        filled_ = 0;
        code_ = read_file_at(file_, window_, sizeof window_, offset, filled_);
        return code_ == error::none;
    }

    void* file_;
    uint64_t start_ = 0;
    uint64_t filled_ = 0;
    uint32_t code_ = 0;
    char window_[4096];
};

/// A few little-endian fields of the image.
template <size_t Size>
class Fields {
public:
    bool read(ImageSource& source, uint64_t offset) { return source.read(offset, bytes_, Size); }

    uint16_t u16(size_t at) const { return static_cast<uint16_t>(bytes_[at] | bytes_[at + 1] << 8); }
    uint32_t u32(size_t at) const { return u16(at) | uint32_t{u16(at + 2)} << 16; }

private:
    uint8_t bytes_[Size] = {};
};

enum class Outcome { found, absent, malformed };

constexpr size_t section_size = 40;
constexpr size_t directory_size = 16;
constexpr size_t entry_size = 8;
constexpr uint32_t high_bit = 0x80000000; // of an entry: named, or leading to a directory
constexpr uint32_t version_type = 16;
constexpr uint32_t version_name = 1;
constexpr uint32_t any_name = high_bit; // no entry with a number has this bit
constexpr uint32_t record_signature = 0xFEEF04BD;
constexpr size_t block_header_size = 40; // lengths, type, the key L"VS_VERSION_INFO" and padding
constexpr size_t record_size = 52;

class VersionFinder {
public:
    explicit VersionFinder(ImageSource& source) : source_(source) {}

    Outcome find(VersionRecord& record);

private:
    Outcome find_headers();
    Outcome find_resources();
    Outcome find_entry(uint32_t directory, uint32_t name, uint32_t& target);
    Outcome find_directory(uint32_t directory, uint32_t name, uint32_t& target);
    Outcome read_data_entry(uint32_t entry, uint64_t& offset);
    Outcome read_block(uint64_t offset, VersionRecord& record);

    bool map(uint32_t address, uint64_t& offset, uint64_t& room);
    template <size_t Size>
    bool read_resource(Fields<Size>& fields, uint64_t at);

    ImageSource& source_;
    uint64_t optional_header_ = 0; // offset in the image
    uint16_t optional_size_ = 0;
    uint16_t section_count_ = 0;
    uint64_t resources_ = 0; // offset of the resource directory in the image
    uint64_t resource_room_ = 0;
};

Outcome VersionFinder::find(VersionRecord& record) {
    uint32_t names = 0, languages = 0, entry = 0;
    uint64_t block = 0;
    Outcome outcome = find_headers();
    if (outcome == Outcome::found) outcome = find_resources();
    if (outcome == Outcome::found) outcome = find_directory(0, version_type, names);
    if (outcome == Outcome::found) outcome = find_directory(names, version_name, languages);
    if (outcome == Outcome::found) outcome = find_entry(languages, any_name, entry);
    if (outcome == Outcome::found) outcome = read_data_entry(entry, block);
    if (outcome == Outcome::found) outcome = read_block(block, record);
    return outcome;
}

Outcome VersionFinder::find_headers() {
    Fields<64> dos;
    Fields<24> pe;
    if (!dos.read(source_, 0) || dos.u16(0) != 0x5A4D) return Outcome::absent;
    const uint64_t start = dos.u32(60);
    if (!pe.read(source_, start) || pe.u32(0) != 0x00004550) return Outcome::absent;
    section_count_ = pe.u16(6);
    optional_size_ = pe.u16(20);
    optional_header_ = start + 24;
    return Outcome::found;
}

Outcome VersionFinder::find_resources() {
    Fields<2> magic;
    if (optional_size_ < 2) return Outcome::absent;
    if (!magic.read(source_, optional_header_)) return Outcome::malformed;
    if (magic.u16(0) != 0x10B && magic.u16(0) != 0x20B) return Outcome::absent;
    const uint64_t directories = magic.u16(0) == 0x10B ? 96 : 112; // the count stands before them
    if (optional_size_ < directories + 24) return Outcome::absent;
    Fields<28> fields;
    if (!fields.read(source_, optional_header_ + directories - 4)) return Outcome::malformed;
    const uint32_t address = fields.u32(20);
    if (fields.u32(0) < 3 || address == 0 || fields.u32(24) == 0) return Outcome::absent;
    return map(address, resources_, resource_room_) ? Outcome::found : Outcome::malformed;
}

// Offset of a virtual address in the image, and how many bytes of its section follow.
bool VersionFinder::map(uint32_t address, uint64_t& offset, uint64_t& room) {
    const uint64_t table = optional_header_ + optional_size_;
    for (uint64_t i = 0; i < section_count_; ++i) {
        Fields<section_size> section;
        if (!section.read(source_, table + i * section_size)) return false;
        const uint32_t start = section.u32(12);
        const uint32_t length = section.u32(16);
        if (address < start || address - start >= length) continue;
        offset = uint64_t{section.u32(20)} + (address - start);
        room = length - (address - start);
        return true;
    }
    return false;
}

template <size_t Size>
bool VersionFinder::read_resource(Fields<Size>& fields, uint64_t at) {
    return at <= resource_room_ && Size <= resource_room_ - at && fields.read(source_, resources_ + at);
}

// The three levels of the tree are walked by name, never by recursion, so a tree that loops costs nothing.
Outcome VersionFinder::find_entry(uint32_t directory, uint32_t name, uint32_t& target) {
    Fields<directory_size> header;
    if (!read_resource(header, directory)) return Outcome::malformed;
    const uint32_t count = uint32_t{header.u16(12)} + header.u16(14);
    for (uint64_t i = 0; i < count; ++i) {
        Fields<entry_size> entry;
        if (!read_resource(entry, directory + directory_size + i * entry_size)) return Outcome::malformed;
        if (name != any_name && entry.u32(0) != name) continue;
        target = entry.u32(4);
        return Outcome::found;
    }
    return Outcome::absent;
}

Outcome VersionFinder::find_directory(uint32_t directory, uint32_t name, uint32_t& target) {
    const Outcome outcome = find_entry(directory, name, target);
    if (outcome != Outcome::found) return outcome;
    if (!(target & high_bit)) return Outcome::malformed;
    target &= ~high_bit;
    return Outcome::found;
}

Outcome VersionFinder::read_data_entry(uint32_t entry, uint64_t& offset) {
    Fields<directory_size> data;
    uint64_t room = 0;
    if (entry & high_bit || !read_resource(data, entry)) return Outcome::malformed;
    if (!map(data.u32(0), offset, room)) return Outcome::malformed;
    const uint32_t length = data.u32(4);
    return length <= room && length >= block_header_size + record_size ? Outcome::found : Outcome::malformed;
}

Outcome VersionFinder::read_block(uint64_t offset, VersionRecord& record) {
    constexpr char key[] = "VS_VERSION_INFO";
    Fields<block_header_size> header;
    if (!header.read(source_, offset)) return Outcome::malformed;
    for (size_t i = 0; i < sizeof key; ++i)
        if (header.u16(6 + 2 * i) != static_cast<unsigned char>(key[i])) return Outcome::malformed;
    if (header.u16(2) == 0) return Outcome::absent; // only texts, no fixed record
    if (header.u16(2) < record_size || header.u16(0) < block_header_size + record_size) return Outcome::malformed;
    Fields<record_size> fields;
    if (!fields.read(source_, offset + block_header_size) || fields.u32(0) != record_signature)
        return Outcome::malformed;
    record = {fields.u32(8), fields.u32(12), fields.u32(16), fields.u32(20)};
    return Outcome::found;
}

uint32_t find(ImageSource& source, VersionRecord& record, bool& found) {
    const Outcome outcome = VersionFinder(source).find(record);
    found = outcome == Outcome::found;
    return outcome == Outcome::malformed ? error::resource_malformed : error::none;
}

} // namespace

uint32_t find_version_record(const void* image, uint64_t size, VersionRecord& record, bool& found) {
    MemorySource source(image, size);
    return find(source, record, found);
}

uint32_t read_version_record(const char* path, VersionRecord& record, bool& found) {
    void* file = nullptr;
    found = false;
    if (const uint32_t code = open_file(path, FileOpen::open_read, file)) return code;
    FileSource source(file);
    const uint32_t code = find(source, record, found);
    close_handle(file);
    return source.code() ? source.code() : code;
}

} // namespace vel::os
