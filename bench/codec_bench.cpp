// Cost of the payload envelope and of its codecs, against OpenSSL in the same run.
//   Fencode600 / Fdecode600   one record of the usual size through fencode / fdecode (the background
//                             loop runs one fencode per record written, one fdecode per line read back)
//   CbcEncrypt_*, CbcDecrypt_*  AES-256-CBC over 64 KiB: our cipher (hardware path where the CPU has
//                             AES-NI), our table code alone, and OpenSSL's EVP
//   Base64Encode_*, Base64Decode_*  our Base64 against EVP_EncodeBlock / EVP_DecodeBlock
// After the usual table, a summary gives each of ours as a speed ratio to OpenSSL's figure from this
// run (OpenSSL time / our time: above 1 is faster than OpenSSL), next to the ratio it should reach.
// Times are CPU time per iteration (median of the repetitions), which other load on the machine
// disturbs less than wall time.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Rijndael.h"
#include "Util.h"
#include "Zip.h"

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

std::vector<unsigned char> random_bytes(size_t n) {
    std::mt19937 rng(7);
    std::vector<unsigned char> b(n);
    for (auto& c : b) c = static_cast<unsigned char>(rng());
    return b;
}

const char kKey[] = "0123456789abcdef0123456789abcdef";
const char kIv[] = "fedcba9876543210";
const int kCbcBytes = 64 << 10;

void Fencode600(benchmark::State& state) {
    const std::string record = typical_record();
    for (auto _ : state) benchmark::DoNotOptimize(Velto::Util::fencode(record));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(record.size()));
}
BENCHMARK(Fencode600);

void Fdecode600(benchmark::State& state) {
    const std::string token = Velto::Util::fencode(typical_record());
    for (auto _ : state) benchmark::DoNotOptimize(Velto::Util::fdecode(token));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(token.size()));
}
BENCHMARK(Fdecode600);

void velto_cbc(benchmark::State& state, bool encrypt, bool tables_only) {
    const std::vector<unsigned char> data = random_bytes(size_t(state.range(0)));
    std::vector<char> in(data.begin(), data.end()), out(in.size());
    Velto::CRijndael cipher;
    cipher.UseTablesOnly(tables_only);
    cipher.MakeKey(kKey, kIv, 32, 16);
    for (auto _ : state) {
        if (encrypt)
            cipher.Encrypt(in.data(), out.data(), in.size(), Velto::CRijndael::CBC);
        else
            cipher.Decrypt(in.data(), out.data(), in.size(), Velto::CRijndael::CBC);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void openssl_cbc(benchmark::State& state, bool encrypt) {
    const std::vector<unsigned char> in = random_bytes(size_t(state.range(0)));
    std::vector<unsigned char> out(in.size() + 16);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_256_cbc(), nullptr, reinterpret_cast<const unsigned char*>(kKey),
                      reinterpret_cast<const unsigned char*>(kIv), encrypt ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    for (auto _ : state) {
        int n = 0;
        EVP_CipherUpdate(ctx, out.data(), &n, in.data(), int(in.size()));
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void CbcEncrypt_Velto(benchmark::State& state) {
    velto_cbc(state, true, false);
}
void CbcEncrypt_VeltoTables(benchmark::State& state) {
    velto_cbc(state, true, true);
}
void CbcEncrypt_OpenSsl(benchmark::State& state) {
    openssl_cbc(state, true);
}
void CbcDecrypt_Velto(benchmark::State& state) {
    velto_cbc(state, false, false);
}
void CbcDecrypt_VeltoTables(benchmark::State& state) {
    velto_cbc(state, false, true);
}
void CbcDecrypt_OpenSsl(benchmark::State& state) {
    openssl_cbc(state, false);
}
BENCHMARK(CbcEncrypt_Velto)->Arg(kCbcBytes);
BENCHMARK(CbcEncrypt_VeltoTables)->Arg(kCbcBytes);
BENCHMARK(CbcEncrypt_OpenSsl)->Arg(kCbcBytes);
BENCHMARK(CbcDecrypt_Velto)->Arg(kCbcBytes);
BENCHMARK(CbcDecrypt_VeltoTables)->Arg(kCbcBytes);
BENCHMARK(CbcDecrypt_OpenSsl)->Arg(kCbcBytes);

// Encoding: range(0) raw bytes (a record's cipher text, and a large upload).
void Base64Encode_Velto(benchmark::State& state) {
    const std::vector<unsigned char> in = random_bytes(size_t(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(Velto::base64_encode(in.data(), unsigned(in.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
void Base64Encode_OpenSsl(benchmark::State& state) {
    const std::vector<unsigned char> in = random_bytes(size_t(state.range(0)));
    for (auto _ : state) {
        // Sized like the string our encoder returns, so both sides pay for their output buffer.
        std::string out((in.size() + 2) / 3 * 4 + 1, '\0');
        benchmark::DoNotOptimize(
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), in.data(), int(in.size())));
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(Base64Encode_Velto)->Arg(608)->Arg(48 << 10);
BENCHMARK(Base64Encode_OpenSsl)->Arg(608)->Arg(48 << 10);

// Decoding: the Base64 text of range(0) raw bytes, into a buffer sized once.
void Base64Decode_Velto(benchmark::State& state) {
    const std::vector<unsigned char> raw = random_bytes(size_t(state.range(0)));
    const std::string text = Velto::base64_encode(raw.data(), unsigned(raw.size()));
    std::vector<unsigned char> out(text.size() / 4 * 3 + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Velto::base64_decode(text.c_str(), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
void Base64Decode_OpenSsl(benchmark::State& state) {
    const std::vector<unsigned char> raw = random_bytes(size_t(state.range(0)));
    const std::string text = Velto::base64_encode(raw.data(), unsigned(raw.size()));
    std::vector<unsigned char> out(text.size() / 4 * 3 + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_DecodeBlock(
            out.data(), reinterpret_cast<const unsigned char*>(text.data()), int(text.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(Base64Decode_Velto)->Arg(608)->Arg(48 << 10);
BENCHMARK(Base64Decode_OpenSsl)->Arg(608)->Arg(48 << 10);

// Console output as usual, then the summary: each "<op>_<ours>/<arg>" against "<op>_OpenSsl/<arg>".
class SummaryReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        // Single runs, or the "median" aggregate when only aggregates are reported.
        for (const Run& r : runs) {
            if (r.error_occurred || r.iterations == 0) continue;
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
            seconds_[r.run_name.str()].push_back(r.cpu_accumulated_time / double(r.iterations));
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        static const std::map<std::string, double> kTargets = {{"CbcEncrypt_Velto", 0.8},
                                                               {"CbcDecrypt_Velto", 1.0},
                                                               {"Base64Encode_Velto", 1.0},
                                                               {"Base64Decode_Velto", 1.0}};
        std::printf("\n%-30s %12s %12s %8s %8s\n", "ours vs OpenSSL", "ours ns", "OpenSSL ns", "ratio",
                    "target");
        for (const auto& entry : seconds_) {
            const std::string& name = entry.first;
            const size_t us = name.find('_'), slash = name.find('/');
            if (us == std::string::npos || name.compare(us, 8, "_OpenSsl") == 0) continue;
            const std::string theirs =
                name.substr(0, us) + "_OpenSsl" + (slash == std::string::npos ? "" : name.substr(slash));
            const auto other = seconds_.find(theirs);
            if (other == seconds_.end()) continue;
            const double mine = median(entry.second), floor = median(other->second);
            const auto target = kTargets.find(name.substr(0, slash));
            std::printf("%-30s %12.1f %12.1f %7.2fx %8s\n", name.c_str(), mine * 1e9, floor * 1e9,
                        floor / mine,
                        target == kTargets.end() ? "-" : (">= " + fixed(target->second)).c_str());
        }
        const auto fencode = seconds_.find("Fencode600");
        if (fencode != seconds_.end())
            std::printf("%-30s %12.1f %12s %8s %8s\n", "Fencode600 (600-byte record)",
                        median(fencode->second) * 1e9, "-", "-", "<= 1000");
    }

  private:
    static double median(std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    }
    static std::string fixed(double v) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "%.1fx", v);
        return buf;
    }
    std::map<std::string, std::vector<double>> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
