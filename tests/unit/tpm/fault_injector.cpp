#include "unit/tpm/fault_injector.h"

#include <tss2/tss2_mu.h>

#include <algorithm>

#include "foundation/strfmt.h"

FaultInjector g_oFaults;

namespace {

// gs_bTssQuiet: the library would report each refusal of the TPM on standard error.
[[maybe_unused]] const bool gs_bTssQuiet = setenv("TSS2_LOG", "all+NONE", 0) == 0;

// The range from which ESYS takes the handles of what it knows in a TPM, beginning anywhere in it.
constexpr ESYS_TR FIRST_OBJECT_HANDLE = TPM2_RH_LAST + 1 + 0x1000;
constexpr ESYS_TR LAST_OBJECT_HANDLE = 0x4fffffff;

std::string nameOf(const std::string& call) {
    return call.substr(0, call.find(' '));
}

template <class Structure, class Marshal>
std::string marshalled(const Structure* structure, Marshal marshal) {
    if (!structure) {
        return "null";
    }
    const Unseen unseen;
    unsigned char buffer[sizeof(Structure)];
    size_t size = 0;
    if (marshal(structure, buffer, sizeof(buffer), &size) != TSS2_RC_SUCCESS) {
        return "invalid";
    }
    return hex(buffer, size);
}

}  // namespace

std::vector<std::string> FaultInjector::calls(const std::string& function) const {
    std::vector<std::string> result;
    std::copy_if(m_aCalls.begin(), m_aCalls.end(), std::back_inserter(result),
                 [&](const std::string& call) { return nameOf(call) == function; });
    return result;
}

std::vector<std::string> FaultInjector::commands() const {
    static const char* const LOCAL[] = {"Esys_Initialize", "Esys_Finalize", "Esys_TR_Close", "Esys_TR_GetName",
                                        "Esys_TRSess_SetAttributes"};
    std::vector<std::string> result;
    for (const std::string& call : m_aCalls) {
        const std::string name = nameOf(call);
        if (name.starts_with("Esys_") && std::find(std::begin(LOCAL), std::end(LOCAL), name) == std::end(LOCAL)) {
            result.push_back(name.substr(5));
        }
    }
    return result;
}

void FaultInjector::enter(const std::string& call, const std::string& function) {
    m_aCalls.push_back(call);
    if (const auto found = m_aBefore.find(function); found != m_aBefore.end()) {
        found->second();
    }
}

std::optional<uint32_t> FaultInjector::fault(const std::string& function) {
    std::optional<uint32_t> result;
    for (Fault& fault : m_aFaults) {
        if (!fault.function.empty() && fault.function != function) {
            continue;
        }
        ++fault.seen;
        if (fault.seen >= fault.first && fault.seen <= fault.last) {
            m_strFailed = function;
            result = fault.code;
        }
    }
    return result;
}

void FaultInjector::alterOutput(const std::string& function, void* output) const {
    const auto found = m_aAlter.find(function);
    if (found != m_aAlter.end() && output) {
        found->second(output);
    }
}

std::string hex(const unsigned char* bytes, size_t size) {
    std::string result;
    for (size_t i = 0; i < size; ++i) {
        result += strfmt("%02x", bytes[i]);
    }
    return result;
}

std::string CallText::operator()(uint64_t number) const {
    static const std::map<uint64_t, std::string> WORDS = {{ESYS_TR_NONE, "none"},
                                                          {ESYS_TR_PASSWORD, "password"},
                                                          {ESYS_TR_RH_OWNER, "owner"},
                                                          {ESYS_TR_RH_ENDORSEMENT, "endorsement"}};
    if (const auto found = WORDS.find(number); found != WORDS.end()) {
        return found->second;
    }
    TPM2_HANDLE handle = 0;
    if (m_pContext && number >= FIRST_OBJECT_HANDLE && number <= LAST_OBJECT_HANDLE &&
        Esys_TR_GetTpmHandle(m_pContext, static_cast<ESYS_TR>(number), &handle) == TSS2_RC_SUCCESS) {
        number = handle;
    }
    return strfmt("0x%llx", static_cast<unsigned long long>(number));
}

std::string CallText::operator()(const TSS2_ABI_VERSION* version) const {
    return version
               ? strfmt("%u.%u.%u.%u", version->tssCreator, version->tssFamily, version->tssLevel, version->tssVersion)
               : "null";
}

std::string CallText::operator()(const TPMT_SYM_DEF* symmetric) const {
    return symmetric ? strfmt("{0x%x,%u,0x%x}", symmetric->algorithm, symmetric->keyBits.sym, symmetric->mode.sym)
                     : "null";
}

std::string CallText::operator()(const TPMT_SIG_SCHEME* scheme) const {
    if (!scheme) {
        return "null";
    }
    return strfmt("{0x%x,", scheme->scheme) +
           hex(reinterpret_cast<const unsigned char*>(&scheme->details), sizeof(scheme->details)) + '}';
}

std::string CallText::operator()(const TPM2B_DATA* data) const {
    return data ? '[' + hex(data->buffer, data->size) + ']' : "null";
}

std::string CallText::operator()(const TPML_PCR_SELECTION* selection) const {
    return selection ? strfmt("pcrs:%u", selection->count) : "null";
}

std::string CallText::operator()(const TPM2B_PUBLIC* publicArea) const {
    return marshalled(publicArea, Tss2_MU_TPM2B_PUBLIC_Marshal);
}

std::string CallText::operator()(const TPM2B_NV_PUBLIC* publicArea) const {
    return marshalled(publicArea, Tss2_MU_TPM2B_NV_PUBLIC_Marshal);
}

std::string CallText::operator()(const TPM2B_SENSITIVE_CREATE* sensitive) const {
    if (!sensitive) {
        return "null";
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(sensitive);
    return std::all_of(bytes, bytes + sizeof(*sensitive), [](unsigned char byte) { return byte == 0; }) ? "zero"
                                                                                                        : "filled";
}
