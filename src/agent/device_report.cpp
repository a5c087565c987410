#include "agent/device_report.h"

#include <glib.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
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

// setCounter sets the counter's value, certified for the nonce or only read. Above 2^53 the number loses low digits.
bool setCounter(JSON& tpm2, bool certified, const Bytes& nonce, TPM2Attestor& tpm) {
    JSON::root counter = JSON::Object();
    uint64_t value = 0;
    if (certified) {
        const auto [attestation, signature] = tpm.certifyCounterWithAudit(&value, nonce);
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

// setTPM sets what the TPM vouches for. The order is fixed: the key is loaded before the challenge is answered, then
// the counter is certified with it, and its areas are taken last, as certifying makes a key where there is none. The
// TPM layer has logged the reason of any failure.
bool setTPM(JSON& report, bool certified, const AttestationContext& context, TPM2Attestor& tpm) {
    if (!tpm.isOpen() && !tpm.open())
        return false;
    const Bytes endorsementKey = tpm.getEndorsementKeyTPMPub();
    if (endorsementKey.empty())
        return false;
    if (!context.akPriv.empty() && !tpm.loadAttestationKey(context.akPub, context.akPriv))
        return false;
    Bytes activation;
    if (!context.akActChall.empty()) {
        activation = tpm.activateAttestationKey(context.akActChall);
        if (activation.empty())
            return false;
    }
    JSON::root tpm2 = JSON::Object();
    tpm2->set("ekEccNistP256PubTpm2B", base64Text(endorsementKey));
    if (!setCounter(*tpm2, certified, context.nonce, tpm) || !setAttestationKey(*tpm2, activation, tpm))
        return false;
    report.set("tpm2", std::move(tpm2));
    return true;
}

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
    const bool certified = attestationFile != nullptr;
    AttestationContext context;
    if (certified && !context.parseFile(attestationFile))
        return false;
    if (!loadIdentifiers())
        return false;
    const JSON::root report = JSON::Object();
    report->set("serial", JSON::String(ORVSerial::ms_strSerialNumber));
    report->set("altSerial", otherIdentifiers());
    if (!context.cbData.empty())
        report->set("cbData", JSON::String(context.cbData));
    if (TPM2Attestor::isEnabled() && !setTPM(*report, certified, context, *tpm))
        return false;
    return print(*report);
}
