// Hash functions for text, threads and floating-point numbers.
#include <bit>
#include <cstring>
#include <vel/memory/hash_function.h>

namespace {

// FNV-1 over about ten units spread over the text. The sampling is deliberate: a long text costs no more than a short
// one. Units are fed in order.
class SampledHash {
public:
    /// @param length  units of the text; counts modulo 2^32
    explicit SampledHash(uint64_t length) : step_(static_cast<uint32_t>(length) / 10 + 1) {}

    uint64_t step() const { return step_; }
    uint64_t result() const { return hash_; }

    void mix(uint32_t unit) { hash_ = (hash_ * 16777619u) ^ unit; }

private:
    uint64_t step_;
    uint32_t hash_ = 0x811C9DC5;
};

uint64_t hash_narrow(const char* text) {
    const uint32_t length = static_cast<uint32_t>(std::strlen(text));
    SampledHash hash(length);
    for (uint64_t i = 0; i < length; i += hash.step())
        hash.mix(static_cast<uint32_t>(static_cast<signed char>(text[i]))); // sign-extended
    return hash.result();
}

bool needs_two_units(wchar_t c) { return static_cast<uint32_t>(c) > 0xFFFF; }

// Wide text counts in 16-bit units, so that it hashes alike wherever wchar_t has another width.
uint64_t hash_wide(const wchar_t* text) {
    uint32_t length = 0;
    for (const wchar_t* c = text; *c; ++c) length += needs_two_units(*c) ? 2 : 1;
    SampledHash hash(length);
    uint64_t position = 0, next = 0;
    const auto feed = [&](uint32_t unit) {
        if (position++ != next) return;
        hash.mix(unit & 0xFFFF);
        next += hash.step();
    };
    for (const wchar_t* c = text; *c; ++c) {
        const uint32_t code = static_cast<uint32_t>(*c);
        if (needs_two_units(*c)) feed(0xD800 + ((code - 0x10000) >> 10));
        feed(needs_two_units(*c) ? 0xDC00 + (code & 0x3FF) : code);
    }
    return hash.result();
}

} // namespace

uint64_t VEL_HFunc::HashFunc(const VEL_thread_t& key, uint64_t buckets) const {
    return HashFunc(static_cast<unsigned long>(key.thr_id()), buckets);
}

uint64_t VEL_HFunc::HashFunc(const std::wstring& key, uint64_t buckets) const { return HashFunc(key.c_str(), buckets); }

uint64_t VEL_HFunc::HashFunc(const wchar_t* key, uint64_t buckets) const { return hash_wide(key) % buckets; }

uint64_t VEL_HFunc::HashFunc(const std::string& key, uint64_t buckets) const { return HashFunc(key.c_str(), buckets); }

uint64_t VEL_HFunc::HashFunc(const char* key, uint64_t buckets) const { return hash_narrow(key) % buckets; }

uint64_t VEL_HFunc::HashFunc(double key, uint64_t buckets) const { return std::bit_cast<uint64_t>(key) % buckets; }

uint64_t VEL_HFunc::HashFunc(float key, uint64_t buckets) const { return std::bit_cast<uint32_t>(key) % buckets; }
