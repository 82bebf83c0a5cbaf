// Packing and unpacking of messages.
#include <vel/buffers/archive.h>

#include <algorithm>
#include <memory>
#include <new>
#include <vel/buffers/bit_field.h>
#include <vel/buffers/byte_block.h>
#include <vel/buffers/object_factory.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/memory/malloc.h>
#include <vel/os/error_codes.h>
#include <vel/platform/files.h>

namespace {

constexpr uint64_t header_size = 20;
constexpr uint64_t message_limit = 0x7FFFFFFF; // the results are int
constexpr uint64_t socket_step = 4096;         // most bytes that are asked of a socket at once
constexpr uint64_t smallest_body_buffer = 256;
constexpr uint8_t magic[4] = {'V', 'E', 'L', 'S'};
constexpr uint32_t version_1 = 0x00010000;

int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

/// Runs what calls into an object of the application. What it threw becomes the thread's error code and -1.
template <class Call>
int guarded(const Call& call) {
    try {
        return call();
    } catch (const VEL_Exception& exception) {
        return fail(exception.GetErrorCode());
    } catch (const std::bad_alloc&) {
        return fail(vel::error::not_enough_memory);
    }
}

} // namespace

VEL_Archive::VEL_Archive(const VEL_Archive& other) { copy_from(other); }

VEL_Archive& VEL_Archive::operator=(const VEL_Archive& other) {
    if (this == &other) return *this;
    reset();
    copy_from(other);
    return *this;
}

VEL_Archive::~VEL_Archive() { reset(); }

int VEL_Archive::serialize(void* buffer, uint64_t size, const VEL_Serializable& object) {
    reset();
    estimate_ = static_cast<uint32_t>(std::min<uint64_t>(size, 0xFFFFFFFF));
    if (size < header_size) return fail(vel::error::output_too_small);
    if (buffer == nullptr) return fail(vel::error::null_member);

    auto* at = static_cast<uint8_t*>(buffer);
    output_.set(at + header_size, std::min(size, message_limit) - header_size);
    version_ = version_1;
    stype_ = object.get_stype();
    sid_ = object.get_sid();
    const int result = guarded([&] { return object.serialize(*this); });
    body_size_ = static_cast<uint32_t>(output_.set_size());
    elements_ = output_.elements();
    output_.reset(); // the buffer is the caller's again
    if (result < 0) return -1;
    build_header(at);
    return static_cast<int>(header_size + body_size_);
}

int VEL_Archive::serialize(VEL_Byte_Block& out, const VEL_Serializable& object) {
    estimate_ = header_size;
    const int counted = guarded([&] {
        object.calc_size(*this);
        return 0;
    });
    if (counted < 0) return -1;
    const uint64_t size = estimate_;
    if (size > message_limit) return fail(vel::error::output_too_small);
    VEL_Byte_Block block;
    if (block.set(size, nullptr) < 0) return -1;
    const int length = serialize(block.c_ptr(0), size, object);
    if (length < 0) return -1;
    // A message that came out shorter is refused as well: calc_size has to account for every byte.
    if (static_cast<uint64_t>(length) != size) return fail(vel::error::output_too_small);
    out = block;
    return length;
}

int VEL_Archive::serialize(void* socket, const VEL_Serializable& object) {
    VEL_Byte_Block message;
    const int length = serialize(message, object);
    if (length < 0) return -1;
    return VELLib::write_n(socket, message.c_ptr(0), static_cast<uint64_t>(length));
}

int VEL_Archive::deserialize(const void* data, uint64_t size, const VEL_Object_Factory& factory,
                             VEL_Serializable*& out) {
    if (data == nullptr && size != 0) return fail(vel::error::null_member);
    const auto* piece = static_cast<const uint8_t*>(data);
    uint64_t used = 0;
    if (received_ < header_size) {
        used = take_header(piece, size);
        if (received_ < header_size) return 0;
        if (parse_header() < 0) return abandon();
    }

    const uint64_t missing = header_size + body_size_ - received_;
    const uint64_t left = size - used;
    const void* body = piece + used;
    if (body_ != nullptr || left < missing) {
        if (take_body(piece + used, std::min(left, missing)) < 0) return abandon();
        if (left < missing) return 0;
        body = body_;
    }
    used += missing;
    if (used > message_limit) { // the result could not tell how much was used
        VELLib::SetErrorCode(vel::error::not_enough_memory);
        return abandon();
    }
    // Also when an exception that is not the library's passes through, the next message finds a fresh archive.
    struct Reset {
        VEL_Archive& archive;
        ~Reset() { archive.reset(); }
    } at_the_end{*this};
    return decode(body, factory, out) < 0 ? -1 : static_cast<int>(used);
}

int VEL_Archive::deserialize(const VEL_Byte_Block& in, const VEL_Object_Factory& factory, VEL_Serializable*& out) {
    return deserialize(in.c_ptr(0), in.size(), factory, out);
}

int VEL_Archive::deserialize(void* socket, const VEL_Object_Factory& factory, VEL_Serializable*& out) {
    reset();
    out = nullptr;
    std::unique_ptr<VEL_Serializable> object;
    uint8_t step[socket_step];
    uint64_t total = 0;
    for (uint64_t wanted = header_size;; wanted = std::min(header_size + body_size_ - received_, socket_step)) {
        const int count = VELLib::read_n(socket, step, wanted);
        if (count <= 0) {
            reset();
            return count;
        }
        if (static_cast<uint64_t>(count) < wanted) {
            VELLib::SetErrorCode(vel::error::input_too_short);
            return abandon();
        }
        const bool is_header = total == 0;
        total += wanted;
        VEL_Serializable* made = nullptr;
        const int used = deserialize(step, wanted, factory, made);
        if (used < 0) return -1;
        // A message without a body is complete here already, and yet the next header is read: deliberate, see the
        // header of the class. Its object gives way to the one that follows.
        if (used > 0) object.reset(made);
        if (used > 0 && !is_header) break;
        if (total + header_size + body_size_ - received_ > message_limit) {
            VELLib::SetErrorCode(vel::error::not_enough_memory);
            return abandon();
        }
    }
    out = object.release();
    return static_cast<int>(total);
}

int VEL_Archive::set_element(uint16_t key, const char* text) { return output_.set_value(key, text); }
int VEL_Archive::set_element(uint16_t key, const wchar_t* text) { return output_.set_value(key, text); }
int VEL_Archive::set_element(uint16_t key, const std::string& text) { return output_.set_value(key, text); }
int VEL_Archive::set_element(uint16_t key, const std::wstring& text) { return output_.set_value(key, text); }
int VEL_Archive::set_element(uint16_t key, const VEL_Byte_Block& block) { return output_.set_value(key, block); }
int VEL_Archive::set_element(uint16_t key, const VEL_Bitfield& bits) { return output_.set_value(key, bits); }

int VEL_Archive::get_element(uint16_t key, std::string& text) { return input_.get_value(key, text); }
int VEL_Archive::get_element(uint16_t key, std::wstring& text) { return input_.get_value(key, text); }
int VEL_Archive::get_element(uint16_t key, VEL_Byte_Block& block) { return input_.get_value(key, block); }
int VEL_Archive::get_element(uint16_t key, VEL_Bitfield& bits) { return input_.get_value(key, bits); }

void VEL_Archive::reset() {
    if (body_ != nullptr) VELLib::free(body_);
    body_ = nullptr;
    body_capacity_ = 0;
    std::memset(header_, 0, sizeof header_);
    received_ = 0;
    version_ = 0;
    stype_ = 0;
    sid_ = 0;
    body_size_ = 0;
    estimate_ = 0;
    elements_ = 0;
    output_.reset();
    input_.reset();
}

/// Copies everything into an archive that was just reset; the copy has a body buffer of its own.
void VEL_Archive::copy_from(const VEL_Archive& other) {
    if (other.body_ != nullptr) {
        body_ = static_cast<uint8_t*>(VELLib::malloc(other.body_capacity_, false));
        if (body_ == nullptr) vel::cdr::throw_last_error();
        body_capacity_ = other.body_capacity_;
        std::memcpy(body_, other.body_, other.received_ - header_size);
    }
    std::memcpy(header_, other.header_, sizeof header_);
    received_ = other.received_;
    version_ = other.version_;
    stype_ = other.stype_;
    sid_ = other.sid_;
    body_size_ = other.body_size_;
    estimate_ = other.estimate_;
    elements_ = other.elements_;
    output_ = other.output_;
    input_ = other.input_;
    if (body_ != nullptr && input_.buffer_ == other.body_) input_.buffer_ = body_;
}

/// Writes magic and header fields.
void VEL_Archive::build_header(uint8_t* at) const {
    std::memcpy(at, magic, sizeof magic);
    vel::cdr::store(at + 4, version_);
    vel::cdr::store(at + 8, stype_);
    vel::cdr::store(at + 10, sid_);
    vel::cdr::store(at + 12, body_size_);
    vel::cdr::store(at + 16, elements_);
}

/// The version is read but never checked.
int VEL_Archive::parse_header() {
    if (std::memcmp(header_, magic, sizeof magic) != 0) return fail(vel::error::bad_protocol);
    version_ = vel::cdr::load<uint32_t>(header_ + 4);
    stype_ = vel::cdr::load<uint16_t>(header_ + 8);
    sid_ = vel::cdr::load<uint16_t>(header_ + 10);
    body_size_ = vel::cdr::load<uint32_t>(header_ + 12);
    elements_ = vel::cdr::load<uint32_t>(header_ + 16);
    return 0;
}

/// Takes what is still missing of the header. Returns the bytes taken.
uint64_t VEL_Archive::take_header(const uint8_t* data, uint64_t size) {
    const uint64_t count = std::min(size, header_size - received_);
    if (count != 0) std::memcpy(header_ + received_, data, count);
    received_ += count;
    return count;
}

/// Appends bytes of the body. The buffer doubles, up to the size that the header announced, but never runs ahead of what
/// has arrived by more than that.
int VEL_Archive::take_body(const uint8_t* data, uint64_t count) {
    if (count == 0) return 0;
    const uint64_t filled = received_ - header_size;
    if (filled + count > body_capacity_) {
        const uint64_t grown = std::max({filled + count, 2 * body_capacity_, smallest_body_buffer});
        const uint64_t capacity = std::min<uint64_t>(grown, body_size_);
        void* larger = VELLib::realloc(body_, capacity);
        if (larger == nullptr) return -1;
        body_ = static_cast<uint8_t*>(larger);
        body_capacity_ = capacity;
    }
    std::memcpy(body_ + filled, data, count);
    received_ += count;
    return 0;
}

/// Makes the object and lets it read a body that is there as a whole.
int VEL_Archive::decode(const void* body, const VEL_Object_Factory& factory, VEL_Serializable*& out) {
    input_.set(body, body_size_);
    std::unique_ptr<VEL_Serializable> object;
    const int result = guarded([&] {
        object.reset(factory.create_stream(stype_, sid_));
        if (object == nullptr) return fail(vel::error::bad_protocol);
        const int64_t walked = input_.walk(elements_);
        if (walked < 0) return -1;
        if (walked != body_size_) return fail(vel::error::input_too_short);
        input_.initlookup();
        return object->deserialize(*this);
    });
    if (result < 0) return -1;
    out = object.release();
    return 0;
}

/// Forgets the message that could not be taken. -1; the error code stands.
int VEL_Archive::abandon() {
    reset();
    return -1;
}

VEL_Serializable* VEL_Serializable::clone(const VEL_Object_Factory& factory) const {
    VEL_Archive archive;
    VEL_Byte_Block message;
    VEL_Serializable* copy = nullptr;
    if (archive.serialize(message, *this) < 0 || archive.deserialize(message, factory, copy) <= 0) return nullptr;
    return copy;
}
