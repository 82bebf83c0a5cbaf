// Hash functions for the keys of VEL_Hash_Map.
#pragma once

#include <string>
#include <vel/frame/thread_id.h>
#include <vel/types.h>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // used by value only, so it has no place for a destructor

/// One hash function for each kind of key; derive from it to supply others.
///
/// A key of a built-in type picks the function of that very type. A class that replaces some of them says
/// `using VEL_HFunc::HashFunc;` to keep the rest visible.
/// Every function takes the number of buckets (at least 1) and returns a value below it:
///  - integers hash by their bit pattern, zero-extended, modulo the buckets; `float` and `double` by their IEEE pattern;
///  - text hashes by a sampled 32-bit FNV-1: about ten characters spread over the text contribute, on purpose. Wide
///    text counts in 16-bit units. Text pointers are not null;
///  - std::string and std::wstring hash as their `c_str()`, a thread by its id.
class VEL_API VEL_HFunc {
public:
    virtual uint64_t HashFunc(const VEL_thread_t& key, uint64_t buckets) const;
    virtual uint64_t HashFunc(const void* key, uint64_t buckets) const { return bits(key) % buckets; }
    virtual uint64_t HashFunc(const std::wstring& key, uint64_t buckets) const;
    virtual uint64_t HashFunc(const wchar_t* key, uint64_t buckets) const;
    virtual uint64_t HashFunc(const std::string& key, uint64_t buckets) const;
    virtual uint64_t HashFunc(const char* key, uint64_t buckets) const;
    virtual uint64_t HashFunc(long long key, uint64_t buckets) const { return uint64_t(key) % buckets; }
    virtual uint64_t HashFunc(long key, uint64_t buckets) const { return static_cast<unsigned long>(key) % buckets; }
    virtual uint64_t HashFunc(int key, uint64_t buckets) const { return static_cast<unsigned>(key) % buckets; }
    virtual uint64_t HashFunc(short key, uint64_t buckets) const { return uint16_t(key) % buckets; }
    virtual uint64_t HashFunc(char key, uint64_t buckets) const { return uint8_t(key) % buckets; }
    virtual uint64_t HashFunc(unsigned long long key, uint64_t buckets) const { return key % buckets; }
    virtual uint64_t HashFunc(unsigned long key, uint64_t buckets) const { return key % buckets; }
    virtual uint64_t HashFunc(unsigned int key, uint64_t buckets) const { return key % buckets; }
    virtual uint64_t HashFunc(unsigned short key, uint64_t buckets) const { return key % buckets; }
    virtual uint64_t HashFunc(unsigned char key, uint64_t buckets) const { return key % buckets; }
    virtual uint64_t HashFunc(double key, uint64_t buckets) const;
    virtual uint64_t HashFunc(float key, uint64_t buckets) const;

private:
    static uint64_t bits(const void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }
};

#pragma GCC diagnostic pop
