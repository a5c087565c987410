#include "agent/device_report.h"

#include <glib.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <optional>
#include <utility>

#include "agent/attestation_context.h"
#include "foundation/base64.h"
#include "foundation/json.h"
#include "identity/orv_serial.h"
#include "tpm/tpm2_attestor.h"
#include "watch/app_logger.h"

namespace {

void setIdentifier(JSON& identifiers, const char* key, bool present, const std::string& value) {
    if (present)
        identifiers.set(key, JSON::String(value));
}

// otherIdentifiers returns an object even if none is known: readers find the member in every report.
JSON::root otherIdentifiers() {
    JSON::root identifiers = JSON::Object();
    setIdentifier(*identifiers, "userSerial", ORVSerial::ms_bHasUserSerialNumber, ORVSerial::ms_strUserSerialNumber);
    setIdentifier(*identifiers, "boardSerial", ORVSerial::ms_bHasBoardSerialNumber, ORVSerial::ms_strBoardSerialNumber);
    setIdentifier(*identifiers, "systemSerial", ORVSerial::ms_bHasSystemSerialNumber,
                  ORVSerial::ms_strSystemSerialNumber);
    setIdentifier(*identifiers, "chassisSerial", ORVSerial::ms_bHasChassisSerialNumber,
                  ORVSerial::ms_strChassisSerialNumber);
    return identifiers;
}

// loadIdentifiers returns false also if one source failed while the other had the serial number: the report shows the
// identifiers of both.
bool loadIdentifiers() {
    if (ORVSerial::load() && ORVSerial::ms_bHasSerialNumber)
        return true;
    ORVLOG_ERROR(gs_pAppLogger, "failed to load serial number");
    return false;
}

using Bytes = TPM2Attestor::Bytes;

JSON::root base64Text(const Bytes& bytes) {
    return JSON::String(orv::base64Encode(bytes.data(), bytes.size()));
}

// setCounter sets the counter's value: certified for the context's nonce, or only read if there is no context. Above
// 2^53 the number loses low digits.
bool setCounter(JSON& tpm2, const AttestationContext* context, TPM2Attestor& tpm) {
    JSON::root counter = JSON::Object();
    uint64_t value = 0;
    if (context != nullptr) {
        const auto [attestation, signature] = tpm.certifyCounterWithAudit(&value, context->nonce);
        if (attestation.empty() || signature.empty())
            return false;
        counter->set("att", base64Text(attestation));
        counter->set("sig", base64Text(signature));
    } else if (!tpm.readCounter(&value)) {
        return false;
    }
    counter->set("val", JSON::Number(static_cast<double>(value)));
    tpm2.set("tallyCounter", std::move(counter));
    return true;
}

// setAttestationKey sets the key's areas, and the answer to the challenge if there was one.
bool setAttestationKey(JSON& tpm2, const Bytes& activation, TPM2Attestor& tpm) {
    const auto [publicArea, privateArea] = tpm.getAttestationKeyTPMPubPriv();
    if (publicArea.empty() || privateArea.empty())
        return false;
    JSON::root key = JSON::Object();
    key->set("pubTpm2B", base64Text(publicArea));
    key->set("privTpm2B", base64Text(privateArea));
    if (!activation.empty())
        key->set("actResp", base64Text(activation));
    tpm2.set("ak", std::move(key));
    return true;
}

// answerContext loads the context's key and answers its challenge with it, as far as it has them. The answer is stored
// in `activation`.
bool answerContext(const AttestationContext& context, Bytes& activation, TPM2Attestor& tpm) {
    if (!context.akPriv.empty() && !tpm.loadAttestationKey(context.akPub, context.akPriv))
        return false;
    if (context.akActChall.empty())
        return true;
    activation = tpm.activateAttestationKey(context.akActChall);
    return !activation.empty();
}

// setTPM sets what the TPM vouches for; `context` is null if the report is not certified. The order is fixed: the key
// is loaded before the challenge is answered, then the counter is certified with it, and its areas are taken last,
// because certifying makes a key where there is none. The TPM layer has logged the reason of any failure.
bool setTPM(JSON& report, const AttestationContext* context, TPM2Attestor& tpm) {
    if (!tpm.isOpen() && !tpm.open())
        return false;
    const Bytes endorsementKey = tpm.getEndorsementKeyTPMPub();
    if (endorsementKey.empty())
        return false;
    Bytes activation;
    if (context != nullptr && !answerContext(*context, activation, tpm))
        return false;
    JSON::root tpm2 = JSON::Object();
    tpm2->set("ekEccNistP256PubTpm2B", base64Text(endorsementKey));
    if (!setCounter(*tpm2, context, tpm) || !setAttestationKey(*tpm2, activation, tpm))
        return false;
    report.set("tpm2", std::move(tpm2));
    return true;
}

// print returns false, after a record, if standard output did not take the document.
bool print(const JSON& report) {
    std::string text;
    report.stringify(text, 0);
    std::cout << text << '\n' << std::flush;
    if (std::cout)
        return true;
    ORVLOG_ERROR(gs_pAppLogger, "failed to write the device report: %s", g_strerror(errno));
    return false;
}

}  // namespace

bool printDeviceInfo(const char* attestationFile, TPM2Attestor* tpm) {
    std::optional<AttestationContext> context;
    if (attestationFile != nullptr && !context.emplace().parseFile(attestationFile))
        return false;
    if (!loadIdentifiers())
        return false;
    const JSON::root report = JSON::Object();
    report->set("serial", JSON::String(ORVSerial::ms_strSerialNumber));
    report->set("altSerial", otherIdentifiers());
    if (context && !context->cbData.empty())
        report->set("cbData", JSON::String(context->cbData));
    if (TPM2Attestor::isEnabled() && !setTPM(*report, context ? &*context : nullptr, *tpm))
        return false;
    return print(*report);
}
