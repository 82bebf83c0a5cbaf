// MD5: block transform, padding, export and import of the running state.
#include <vel/cache/md5.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>

namespace vel {
namespace {

constexpr uint32_t block_size = 64;
constexpr uint32_t state_size = 16;
constexpr uint32_t count_size = 8;
constexpr char hex_digits[] = "0123456789ABCDEF";

constexpr uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501, //
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821, //
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8, //
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, //
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, //
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, //
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1, //
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr int shifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Which of the block's 16 words step `i` mixes in.
constexpr int word_of(int i) {
    switch (i / 16) {
    case 0: return i;
    case 1: return (5 * i + 1) % 16;
    case 2: return (3 * i + 5) % 16;
    default: return 7 * i % 16;
    }
}

[[gnu::always_inline]] inline uint32_t load(const unsigned char* in) {
    return uint32_t{in[0]} | uint32_t{in[1]} << 8 | uint32_t{in[2]} << 16 | uint32_t{in[3]} << 24;
}

[[gnu::always_inline]] inline void store(unsigned char* out, uint32_t word) {
    out[0] = static_cast<unsigned char>(word);
    out[1] = static_cast<unsigned char>(word >> 8);
    out[2] = static_cast<unsigned char>(word >> 16);
    out[3] = static_cast<unsigned char>(word >> 24);
}

// Keeps a sum that is ready early apart from what comes late. Left alone, compilers regroup the additions and put one
// more of them on the chain from step to step, which alone sets the speed.
[[gnu::always_inline]] inline uint32_t ready_early(uint32_t sum) {
    asm("" : "+r"(sum));
    return sum;
}

// One of the 64 steps. Of its inputs only `b` is fresh from the step before, so everything else is summed first.
template <int i>
[[gnu::always_inline]] inline void step(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, const unsigned char* block) {
    constexpr int round = i / 16;
    uint32_t sum = ready_early(a + (load(block + 4 * word_of(i)) + sines[i]));
    if constexpr (round == 0) {
        sum += ((c ^ d) & b) ^ d;
    } else if constexpr (round == 1) {
        // The two halves of the selection never share a bit: adding them one by one takes the late one alone at last.
        sum = ready_early(sum + (~d & c)) + (d & b);
    } else if constexpr (round == 2) {
        sum += (c ^ d) ^ b;
    } else {
        sum += c ^ (b | ~d);
    }
    a = b + std::rotl(sum, shifts[round][i % 4]);
}

template <int... quads>
[[gnu::always_inline]] inline void steps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d, const unsigned char* block,
                                         std::integer_sequence<int, quads...>) {
    ((step<4 * quads>(a, b, c, d, block), step<4 * quads + 1>(d, a, b, c, block),
      step<4 * quads + 2>(c, d, a, b, block), step<4 * quads + 3>(b, c, d, a, block)),
     ...);
}

void transform(uint32_t (&state)[4], const unsigned char* data, uint64_t blocks) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; blocks != 0; --blocks, data += block_size) {
        const uint32_t a0 = a, b0 = b, c0 = c, d0 = d;
        steps(a, b, c, d, data, std::make_integer_sequence<int, 16>{});
        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

// The value of a hexadecimal digit of either case, -1 for any other character.
int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

} // namespace
} // namespace vel

using namespace vel;

VEL_MD5::VEL_MD5() { init(); }

VEL_MD5::VEL_MD5(const VEL_MD5& other) = default;

VEL_MD5& VEL_MD5::operator=(const VEL_MD5& other) = default;

VEL_MD5::~VEL_MD5() = default;

void VEL_MD5::init() {
    state_[0] = 0x67452301;
    state_[1] = 0xefcdab89;
    state_[2] = 0x98badcfe;
    state_[3] = 0x10325476;
    count_[0] = count_[1] = 0;
    memset(buffer_, 0, sizeof buffer_);
}

uint32_t VEL_MD5::tail_size() const { return count_[0] / 8 % block_size; }

void VEL_MD5::advance(uint64_t bytes) {
    uint64_t bits = (uint64_t{count_[1]} << 32 | count_[0]) + bytes * 8;
    count_[0] = static_cast<uint32_t>(bits);
    count_[1] = static_cast<uint32_t>(bits >> 32);
}

void VEL_MD5::update(const void* data, uint32_t length) {
    if (length == 0) return;
    const unsigned char* in = static_cast<const unsigned char*>(data);
    uint32_t tail = tail_size();
    advance(length);

    if (tail != 0) {
        uint32_t part = std::min(block_size - tail, length);
        memcpy(buffer_ + tail, in, part);
        if (tail + part < block_size) return;
        transform(state_, buffer_, 1);
        in += part;
        length -= part;
    }
    transform(state_, in, length / block_size);
    uint32_t whole = length / block_size * block_size;
    if (length != whole) memcpy(buffer_, in + whole, length - whole);
}

void VEL_MD5::final() {
    unsigned char bits[count_size];
    encode(bits, count_, count_size);

    // The count takes the padding in as well, so that no tail is left behind.
    uint32_t tail = tail_size();
    advance(tail < block_size - count_size ? block_size - tail : 2 * block_size - tail);

    buffer_[tail++] = 0x80;
    memset(buffer_ + tail, 0, block_size - tail);
    if (tail > block_size - count_size) {
        transform(state_, buffer_, 1);
        memset(buffer_, 0, block_size);
    }
    memcpy(buffer_ + block_size - count_size, bits, count_size);
    transform(state_, buffer_, 1);
}

int VEL_MD5::getMD5res(unsigned char* out, uint32_t size) const {
    if (size < state_size) return fail(error::insufficient_buffer);
    encode(out, state_, state_size);
    return state_size;
}

int VEL_MD5::getMD5reshex(char* out, uint32_t size) const {
    if (size <= 2 * state_size) return fail(error::insufficient_buffer);
    unsigned char digest[state_size];
    encode(digest, state_, state_size);
    Binary2HexStr(digest, state_size, out);
    return 2 * state_size;
}

std::string VEL_MD5::getMD5reshex() const {
    char text[2 * state_size + 1];
    getMD5reshex(text, sizeof text);
    return text;
}

int VEL_MD5::getMD5(unsigned char* state, uint32_t state_room, unsigned char* count, uint32_t count_room) const {
    if (state_room < state_size || count_room < count_size) return fail(error::insufficient_buffer);
    encode(state, state_, state_size);
    encode(count, count_, count_size);
    return 0;
}

int VEL_MD5::getMD5(char* state_hex, uint32_t state_room, char* count_hex, uint32_t count_room) const {
    if (state_room <= 2 * state_size || count_room <= 2 * count_size) return fail(error::insufficient_buffer);
    unsigned char state[state_size];
    unsigned char count[count_size];
    getMD5(state, state_size, count, count_size);
    Binary2HexStr(state, state_size, state_hex);
    Binary2HexStr(count, count_size, count_hex);
    return 0;
}

int VEL_MD5::getMD5(std::string& state_hex, std::string& count_hex) const {
    char state[2 * state_size + 1];
    char count[2 * count_size + 1];
    getMD5(state, sizeof state, count, sizeof count);
    state_hex = state;
    count_hex = count;
    return 0;
}

int VEL_MD5::setMD5(unsigned char* state, uint32_t state_len, unsigned char* count, uint32_t count_len) {
    if (state_len != state_size || count_len != count_size) return fail(error::bad_md5_size);
    init();
    decode(state_, state, state_size);
    decode(count_, count, count_size);
    return 0;
}

int VEL_MD5::setMD5(const char* state_hex, const char* count_hex) {
    if (strlen(state_hex) != 2 * state_size || strlen(count_hex) != 2 * count_size) return fail(error::bad_md5_size);
    unsigned char state[state_size];
    unsigned char count[count_size];
    HexStr2Binary(state_hex, state, state_size);
    HexStr2Binary(count_hex, count, count_size);
    return setMD5(state, state_size, count, count_size);
}

int VEL_MD5::getRemData(void* out, uint64_t size) {
    uint32_t tail = tail_size();
    if (tail == 0) return 0;
    if (size < tail) return fail(error::insufficient_buffer);
    memcpy(out, buffer_, tail);
    return static_cast<int>(tail);
}

int VEL_MD5::setRemData(const void* data, uint64_t size) {
    uint32_t tail = tail_size();
    if (tail == 0) return 0;
    if (size != tail) return fail(error::bad_md5_size);
    memcpy(buffer_, data, tail);
    return static_cast<int>(tail);
}

void VEL_MD5::Char2Hex(unsigned char value, char* out) {
    out[0] = hex_digits[value >> 4];
    out[1] = hex_digits[value & 15];
    out[2] = '\0';
}

void VEL_MD5::Binary2HexStr(const unsigned char* data, uint32_t n, char* out) {
    out[0] = '\0';
    for (uint32_t i = 0; i < n; ++i, out += 2) Char2Hex(data[i], out);
}

void VEL_MD5::Hex2Char(const char* hex, unsigned char& out) {
    out = 0;
    for (int i = 0; i < 2; ++i) {
        int value = digit_value(hex[i]);
        if (value < 0) return;
        out = static_cast<unsigned char>(out << 4 | value);
    }
}

void VEL_MD5::HexStr2Binary(const char* hex, unsigned char* out, uint32_t size) {
    memset(out, 0, size);
    for (uint32_t i = 0; i < size && *hex != '\0'; ++i) {
        Hex2Char(hex, out[i]);
        hex += hex[1] == '\0' ? 1 : 2; // the last character of an odd text stands alone
    }
}

void VEL_MD5::encode(unsigned char* out, const uint32_t* words, uint32_t length) {
    for (uint32_t i = 0; i + 4 <= length; i += 4) store(out + i, words[i / 4]);
}

void VEL_MD5::decode(uint32_t* words, const unsigned char* in, uint32_t length) {
    for (uint32_t i = 0; i + 4 <= length; i += 4) words[i / 4] = load(in + i);
}
