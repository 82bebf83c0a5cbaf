// MD5 digest whose running state can be exported and imported again.
#pragma once

#include <string>
#include <vel/types.h>

/// Computes an MD5 digest (RFC 1321) in any number of steps, also across processes.
///
/// The running state, the count of bits and the tail of the input that does not fill a block yet can be saved and
/// loaded into another object, which then goes on as if it had seen the whole input. MD5 finds damage; it does not
/// authenticate.
///
/// Threads:   one at a time an object; different objects need no lock.
/// Ownership: a plain value; copies go on independently.
/// Errors:    -1 with code 122 for a buffer that is too small, with library error 6 for state of a wrong size.
/// Limits:    the bit count wraps at 2^64, as the algorithm has it.
///
///     VEL_MD5 md5;
///     md5.update(data, length);
///     md5.final();
///     std::string digest = md5.getMD5reshex();
class VEL_API VEL_MD5 {
public:
    VEL_MD5();
    VEL_MD5(const VEL_MD5& other);
    VEL_MD5& operator=(const VEL_MD5& other);
    virtual ~VEL_MD5();

    /// Starts again with the digest of no input.
    void init();

    /// Digests `length` bytes at `data`; a length of 0 does nothing.
    void update(const void* data, uint32_t length);

    /// Pads the input and digests the padding. The object is not reset: the getters now give the digest.
    void final();

    /// Writes the 16 bytes of the digest. Returns 16, or -1 with 122 when `size` is below 16.
    int getMD5res(unsigned char* out, uint32_t size) const;

    /// Writes the digest as 32 upper-case hexadecimal characters and a NUL. Returns 32, or -1 with 122 when `size` is
    /// below 33.
    int getMD5reshex(char* out, uint32_t size) const;
    std::string getMD5reshex() const;

    /// Saves the running state (16 bytes) and the bit count (8 bytes). Returns 0, or -1 with 122 when either does not
    /// fit.
    int getMD5(unsigned char* state, uint32_t state_size, unsigned char* count, uint32_t count_size) const;

    /// The same as hexadecimal text; needs 33 and 17 bytes.
    int getMD5(char* state_hex, uint32_t state_size, char* count_hex, uint32_t count_size) const;

    /// The same into strings of 32 and 16 characters. Returns 0.
    int getMD5(std::string& state_hex, std::string& count_hex) const;

    /// Loads a saved state and count; the lengths are exactly 16 and 8. Returns 0, or -1 with library error 6, which
    /// leaves the object as it was.
    int setMD5(unsigned char* state, uint32_t state_len, unsigned char* count, uint32_t count_len);

    /// The same from texts of exactly 32 and 16 characters.
    int setMD5(const char* state_hex, const char* count_hex);

    /// Saves the tail of the input that is not digested yet, at most 63 bytes. Returns its length, 0 when there is
    /// none, or -1 with 122 when it does not fit into `size` bytes.
    int getRemData(void* out, uint64_t size);

    /// Loads the saved tail after `setMD5`. Returns its length, 0 when the loaded count has no tail, or -1 with library
    /// error 6 when `size` is not the very length of the tail.
    int setRemData(const void* data, uint64_t size);

    /// Writes two upper-case hexadecimal characters and a NUL.
    static void Char2Hex(unsigned char value, char* out);

    /// Writes `n` bytes as 2 `n` characters and a NUL.
    static void Binary2HexStr(const unsigned char* data, uint32_t n, char* out);

    /// Converts two characters of either case. Stops at the first that is not hexadecimal and keeps what was converted
    /// so far.
    static void Hex2Char(const char* hex, unsigned char& out);

    /// Clears `size` bytes at `out`, then converts pairs of characters until the text or the bytes are used up.
    static void HexStr2Binary(const char* hex, unsigned char* out, uint32_t size);

    /// Writes `length / 4` words as `length` little-endian bytes.
    static void encode(unsigned char* out, const uint32_t* words, uint32_t length);

    /// Reads `length` little-endian bytes as `length / 4` words.
    static void decode(uint32_t* words, const unsigned char* in, uint32_t length);

private:
    uint32_t tail_size() const;
    void advance(uint64_t bytes);

    uint32_t state_[4];        // A, B, C, D
    uint32_t count_[2];        // bits so far, low word first
    unsigned char buffer_[64]; // the first count / 8 mod 64 bytes wait for the rest of their block
};
