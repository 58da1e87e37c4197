// Cost of the payload envelope on the paths that run it: one fencode per record written by the
// background loop, one fdecode per line read back, and the raw AES-256-CBC rate against OpenSSL's
// (compare the bytes_per_second of the two Cbc benchmarks for the ratio).
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "Rijndael.h"
#include "Util.h"

namespace {

// A record of the usual shape and size: base fields, session id, time stamp and a few call keys.
std::string typical_record() {
    std::string json =
        "{\"BRAND\":\"acme\",\"did\":\"{3f2a9c1e5b7d4e0f8a6b2c9d1e3f5a7b}\",\"dtype\":\"data_event\","
        "\"modver\":\"1.1.1.1113\",\"ostime\":\"1717243200\",\"procid\":\"41234\",\"procname\":\"Editor\","
        "\"sid\":\"{0b1c2d3e4f5a6b7c8d9e0f1a2b3c4d5e}\",\"tstart\":\"1717240000\"";
    while (json.size() < 599) json += ",\"k" + std::to_string(json.size()) + "\":\"value\"";
    json.resize(599);
    return json + "}";
}

const char kKey[] = "0123456789abcdef0123456789abcdef";
const char kIv[] = "fedcba9876543210";

void BM_Fencode600(benchmark::State& state) {
    const std::string record = typical_record();
    for (auto _ : state) benchmark::DoNotOptimize(Velto::Util::fencode(record));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(record.size()));
}
BENCHMARK(BM_Fencode600);

void BM_Fdecode600(benchmark::State& state) {
    const std::string token = Velto::Util::fencode(typical_record());
    for (auto _ : state) benchmark::DoNotOptimize(Velto::Util::fdecode(token));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(token.size()));
}
BENCHMARK(BM_Fdecode600);

void BM_CbcVelto(benchmark::State& state) {
    std::vector<char> in(size_t(state.range(0)), 'x'), out(in.size());
    Velto::CRijndael cipher;
    cipher.MakeKey(kKey, kIv, 32, 16);
    for (auto _ : state) {
        cipher.Encrypt(in.data(), out.data(), in.size(), Velto::CRijndael::CBC);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_CbcVelto)->Arg(64 << 10);

void BM_CbcOpenSsl(benchmark::State& state) {
    std::vector<unsigned char> in(size_t(state.range(0)), 'x'), out(in.size() + 16);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, reinterpret_cast<const unsigned char*>(kKey),
                       reinterpret_cast<const unsigned char*>(kIv));
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    for (auto _ : state) {
        int n = 0;
        EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), int(in.size()));
        benchmark::DoNotOptimize(out.data());
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_CbcOpenSsl)->Arg(64 << 10);

}  // namespace
