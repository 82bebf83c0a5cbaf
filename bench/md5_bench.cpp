// MD5 digests of whole buffers: VEL_MD5 against the two one-shot calls of OpenSSL's libcrypto.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <vel/cache/md5.h>

#include <benchmark/benchmark.h>
#include <cstring>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <vector>

namespace {

using Digest = unsigned char[16];

std::vector<unsigned char> input(benchmark::State& state) {
    std::vector<unsigned char> bytes(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
    return bytes;
}

void digest_vel(const std::vector<unsigned char>& data, Digest& digest) {
    VEL_MD5 md5;
    md5.update(data.data(), static_cast<uint32_t>(data.size()));
    md5.final();
    md5.getMD5res(digest, sizeof digest);
}

void digest_evp(const std::vector<unsigned char>& data, Digest& digest) {
    EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
}

void digest_md5(const std::vector<unsigned char>& data, Digest& digest) { MD5(data.data(), data.size(), digest); }

template <void (*digest_one)(const std::vector<unsigned char>&, Digest&)>
void measure(benchmark::State& state) {
    std::vector<unsigned char> data = input(state);
    Digest digest, expected;
    digest_evp(data, expected);
    for (auto _ : state) {
        digest_one(data, digest);
        benchmark::DoNotOptimize(digest);
    }
    if (memcmp(digest, expected, sizeof digest) != 0) state.SkipWithError("wrong digest");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void sizes(benchmark::internal::Benchmark* bench) { bench->Arg(64)->Arg(1024)->Arg(16 << 20); }

BENCHMARK(measure<digest_vel>)->Name("md5/vel")->Apply(sizes);
BENCHMARK(measure<digest_evp>)->Name("md5/openssl_evp")->Apply(sizes);
BENCHMARK(measure<digest_md5>)->Name("md5/openssl_md5")->Apply(sizes);

} // namespace
