// Base64 both ways beside OpenSSL and GLib, in one run, for 64 bytes to 1 MiB of random bytes.
//
// Ours always returns a fresh string or vector. The peers appear twice where they can: as a caller gets a fresh buffer
// from them (`Fresh`, the same job as ours) and writing into a buffer that is used again and again (`Reused`, no
// allocation at all, a smaller job than ours). The rate is in bytes of the binary side, so encoding and decoding
// compare.
//
// `Lines` decodes the same bytes from text broken after 64 letters, as PEM has it. EVP_DecodeBlock takes no line
// breaks, so there the peer is OpenSSL's step form, EVP_DecodeUpdate.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <openssl/evp.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/base64.h"
#include "least_time.h"

namespace {

std::vector<unsigned char> randomBytes(size_t size) {
    std::mt19937 generator(1);  // the same bytes in every run
    std::vector<unsigned char> bytes(size);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

std::string encodedText(size_t size) {
    const auto bytes = randomBytes(size);
    return orv::base64Encode(bytes.data(), bytes.size());
}

std::string textInLines(size_t size) {
    std::string text = encodedText(size);
    for (size_t end = 64; end < text.size(); end += 65)
        text.insert(end, 1, '\n');
    return text + '\n';
}

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}
const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

size_t binarySize(const benchmark::State& state) {
    return static_cast<size_t>(state.range(0));
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Times `job`, which takes the prepared input and returns something that keeps its work alive.
template <class Input, class Job>
void run(benchmark::State& state, const Input& input, Job job) {
    for (auto _ : state)
        benchmark::DoNotOptimize(job(input));
    countBytes(state);
}

void EncodeOurs(benchmark::State& state) {
    run(state, randomBytes(binarySize(state)),
        [](const auto& bytes) { return orv::base64Encode(bytes.data(), bytes.size()); });
}

void EncodeOpenSSLFresh(benchmark::State& state) {
    run(state, randomBytes(binarySize(state)), [](const auto& bytes) {
        std::string text(4 * ((bytes.size() + 2) / 3), '\0');  // the terminating NUL goes where the string has its own
        EVP_EncodeBlock(bytesOf(text), bytes.data(), static_cast<int>(bytes.size()));
        return text;
    });
}

void EncodeOpenSSLReused(benchmark::State& state) {
    std::string text(4 * ((binarySize(state) + 2) / 3), '\0');
    run(state, randomBytes(binarySize(state)), [&text](const auto& bytes) {
        EVP_EncodeBlock(bytesOf(text), bytes.data(), static_cast<int>(bytes.size()));
        benchmark::ClobberMemory();
        return text.data();
    });
}

void EncodeGLibFresh(benchmark::State& state) {
    run(state, randomBytes(binarySize(state)), [](const auto& bytes) {
        return std::unique_ptr<char, decltype(&g_free)>(g_base64_encode(bytes.data(), bytes.size()), g_free);
    });
}

void EncodeGLibReused(benchmark::State& state) {
    std::string text(4 * (binarySize(state) / 3 + 1) + 4, '\0');  // as much as GLib asks for
    run(state, randomBytes(binarySize(state)), [&text](const auto& bytes) {
        int stepState = 0;
        int save = 0;
        size_t size = g_base64_encode_step(bytes.data(), bytes.size(), FALSE, text.data(), &stepState, &save);
        size += g_base64_encode_close(FALSE, text.data() + size, &stepState, &save);
        benchmark::ClobberMemory();
        return size;
    });
}

void DecodeOurs(benchmark::State& state) {
    run(state, encodedText(binarySize(state)),
        [](const auto& text) { return orv::base64Decode(text.data(), text.size()); });
}

void DecodeOpenSSLFresh(benchmark::State& state) {
    run(state, encodedText(binarySize(state)), [](const auto& text) {
        std::vector<unsigned char> bytes(3 * (text.size() / 4));
        EVP_DecodeBlock(bytes.data(), bytesOf(text), static_cast<int>(text.size()));
        return bytes;
    });
}

void DecodeOpenSSLReused(benchmark::State& state) {
    std::vector<unsigned char> bytes(binarySize(state) + 3);
    run(state, encodedText(binarySize(state)), [&bytes](const auto& text) {
        const int size = EVP_DecodeBlock(bytes.data(), bytesOf(text), static_cast<int>(text.size()));
        benchmark::ClobberMemory();
        return size;
    });
}

void DecodeGLibFresh(benchmark::State& state) {
    run(state, encodedText(binarySize(state)), [](const auto& text) {
        size_t size = 0;
        return std::unique_ptr<guchar, decltype(&g_free)>(g_base64_decode(text.c_str(), &size), g_free);
    });
}

void DecodeGLibReused(benchmark::State& state) {
    std::vector<unsigned char> bytes(binarySize(state) + 3);
    run(state, encodedText(binarySize(state)), [&bytes](const auto& text) {
        int stepState = 0;
        guint save = 0;
        const size_t size = g_base64_decode_step(text.data(), text.size(), bytes.data(), &stepState, &save);
        benchmark::ClobberMemory();
        return size;
    });
}

void LinesOurs(benchmark::State& state) {
    run(state, textInLines(binarySize(state)),
        [](const auto& text) { return orv::base64Decode(text.data(), text.size()); });
}

void LinesOpenSSLReused(benchmark::State& state) {
    const std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> context(EVP_ENCODE_CTX_new(),
                                                                                  EVP_ENCODE_CTX_free);
    std::vector<unsigned char> bytes(binarySize(state) + 3);
    run(state, textInLines(binarySize(state)), [&](const auto& text) {
        int size = 0;
        int rest = 0;
        EVP_DecodeInit(context.get());
        EVP_DecodeUpdate(context.get(), bytes.data(), &size, bytesOf(text), static_cast<int>(text.size()));
        EVP_DecodeFinal(context.get(), bytes.data() + size, &rest);
        benchmark::ClobberMemory();
        return size + rest;
    });
}

void LinesGLibFresh(benchmark::State& state) {
    run(state, textInLines(binarySize(state)), [](const auto& text) {
        size_t size = 0;
        return std::unique_ptr<guchar, decltype(&g_free)>(g_base64_decode(text.c_str(), &size), g_free);
    });
}

void sizes(benchmark::internal::Benchmark* bench) {
    bench->Arg(64)->Arg(1 << 10)->Arg(64 << 10)->Arg(1 << 20);
    tellLeastTime(bench);
}

BENCHMARK(EncodeOurs)->Apply(sizes);
BENCHMARK(EncodeOpenSSLFresh)->Apply(sizes);
BENCHMARK(EncodeOpenSSLReused)->Apply(sizes);
BENCHMARK(EncodeGLibFresh)->Apply(sizes);
BENCHMARK(EncodeGLibReused)->Apply(sizes);
BENCHMARK(DecodeOurs)->Apply(sizes);
BENCHMARK(DecodeOpenSSLFresh)->Apply(sizes);
BENCHMARK(DecodeOpenSSLReused)->Apply(sizes);
BENCHMARK(DecodeGLibFresh)->Apply(sizes);
BENCHMARK(DecodeGLibReused)->Apply(sizes);
BENCHMARK(LinesOurs)->Apply(sizes);
BENCHMARK(LinesOpenSSLReused)->Apply(sizes);
BENCHMARK(LinesGLibFresh)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
