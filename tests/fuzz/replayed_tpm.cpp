#include "replayed_tpm.h"

#include <dlfcn.h>
#include <openssl/evp.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_tcti.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <span>
#include <sstream>
#include <vector>

#include "agent/device_report.h"
#include "fuzz.h"
#include "tpm/tpm2_attestor.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t CODE_END = 10;  // a command's header is tag, size and code

// Answer is one that no command took yet, and the low byte of the code that it is for.
struct Answer {
    uint8_t code;
    Bytes bytes;
};

std::vector<Answer> gs_answers;
Bytes gs_response;

TSS2_RC transmit(TSS2_TCTI_CONTEXT*, size_t size, const uint8_t* command) {
    require(size >= CODE_END);
    const auto found = std::find_if(gs_answers.begin(), gs_answers.end(),
                                    [command](const Answer& answer) { return answer.code == command[CODE_END - 1]; });
    if (found == gs_answers.end())
        return TSS2_TCTI_RC_IO_ERROR;
    gs_response = found->bytes;
    gs_answers.erase(found);
    return TSS2_RC_SUCCESS;
}

// receive with a null `response` asks for the size only.
TSS2_RC receive(TSS2_TCTI_CONTEXT*, size_t* size, uint8_t* response, int32_t) {
    if (response != nullptr) {
        if (*size < gs_response.size())
            return TSS2_TCTI_RC_INSUFFICIENT_BUFFER;
        std::copy(gs_response.begin(), gs_response.end(), response);
    }
    *size = gs_response.size();
    return TSS2_RC_SUCCESS;
}

TSS2_TCTI_CONTEXT_COMMON_V1 gs_connection = {.magic = 0x7265706c6179,
                                             .version = 1,
                                             .transmit = transmit,
                                             .receive = receive,
                                             .finalize = nullptr,
                                             .cancel = nullptr,
                                             .getPollHandles = nullptr,
                                             .setLocality = nullptr};

// realFunction returns the library's own function of that name.
template <class Function>
Function* realFunction(const char* name) {
    auto* function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    require(function != nullptr);
    return function;
}

// What the TSS library says of each failed call would be most of the output.
const int gs_silenced = setenv("TSS2_LOG", "all+NONE", 1);

}  // namespace

void replayAnswers(const uint8_t* data, size_t size) {
    gs_answers.clear();
    Bytes rest(data, size);
    while (rest.size() >= 3) {
        const uint8_t code = rest[0];
        const size_t length = std::min<size_t>(size_t{rest[1]} << 8 | rest[2], rest.size() - 3);
        gs_answers.push_back({code, rest.subspan(3, length)});
        rest = rest.subspan(3 + length);
    }
}

JSON::root printedReport(const char* attestationFile, bool increment) {
    TPM2Attestor tpm;
    std::ostringstream output;
    std::streambuf* const standardOutput = std::cout.rdbuf(output.rdbuf());
    const bool reported =
        (!increment || (tpm.open() && tpm.incrementCounter())) && printDeviceInfo(attestationFile, &tpm);
    std::cout.rdbuf(standardOutput);
    JSON::root report = JSON::parse(output.str());
    require(reported ? isObject(report.get()) && report->get("tpm2") != nullptr : output.str().empty());
    return report;
}

extern "C" {

TSS2_RC Esys_Initialize(ESYS_CONTEXT** context, TSS2_TCTI_CONTEXT*, TSS2_ABI_VERSION* version) {
    static auto* const real = realFunction<decltype(Esys_Initialize)>(__func__);
    return real(context, reinterpret_cast<TSS2_TCTI_CONTEXT*>(&gs_connection), version);
}

int EVP_DigestSignFinal(EVP_MD_CTX* context, unsigned char* digest, size_t* size) {
    static auto* const real = realFunction<decltype(EVP_DigestSignFinal)>(__func__);
    const int result = real(context, digest, size);
    if (result == 1 && digest != nullptr)
        memset(digest, 0, *size);
    return result;
}

// The TSS library makes an OpenSSL context for each digest, which takes most of the time of a run.
OSSL_LIB_CTX* OSSL_LIB_CTX_new() {
    static OSSL_LIB_CTX* const shared = realFunction<decltype(OSSL_LIB_CTX_new)>(__func__)();
    return shared;
}

void OSSL_LIB_CTX_free(OSSL_LIB_CTX*) {}

int nanosleep(const timespec*, timespec*) {
    return 0;
}

FILE* __real_fopen(const char* path, const char* mode);

FILE* __wrap_fopen(const char* path, const char* mode) {
    static char cpuInfo[] = "Serial\t\t: 0000abcd\n";
    return strcmp(path, "/proc/cpuinfo") == 0 ? fmemopen(cpuInfo, sizeof cpuInfo - 1, "r") : __real_fopen(path, mode);
}

}  // extern "C"
