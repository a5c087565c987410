#include "tpm/tpm2_attestor.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_rc.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <exception>
#include <random>

#include "foundation/strfmt.h"
#include "runtime/openssl.h"
#include "runtime/orvlog.h"

// Template L-2 of the TCG EK Credential Profile, B.3.4: each field is part of the key's identity.
const TPM2B_PUBLIC TPM2Attestor::ms_sEcc256EKTemplateL2 = {
    .size = 0,  // filled in by marshalling
    .publicArea = {
        .type = TPM2_ALG_ECC,
        .nameAlg = TPM2_ALG_SHA256,
        // a storage key that never leaves this TPM and is used only by way of its policy
        .objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_ADMINWITHPOLICY | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT,
        // PolicySecret of the endorsement hierarchy, B.6.2
        .authPolicy = {.size = 32, .buffer = {0x83, 0x71, 0x97, 0x67, 0x44, 0x84, 0xb3, 0xf8, 0x1a, 0x90, 0xcc,
                                              0x8d, 0x46, 0xa5, 0xd7, 0x24, 0xfd, 0x52, 0xd7, 0x6e, 0x06, 0x52,
                                              0x0b, 0x64, 0xf2, 0xa1, 0xda, 0x1b, 0x33, 0x14, 0x69, 0xaa}},
        // what children are wrapped with; no scheme, as storage keys neither sign nor agree on keys by themselves
        .parameters = {.eccDetail = {.symmetric = {.algorithm = TPM2_ALG_AES,
                                                   .keyBits = {.aes = 128},
                                                   .mode = {.aes = TPM2_ALG_CFB}},
                                     .scheme = {.scheme = TPM2_ALG_NULL, .details = {}},
                                     .curveID = TPM2_ECC_NIST_P256,
                                     .kdf = {.scheme = TPM2_ALG_NULL, .details = {}}}},
        // the nonce of the TPM's maker, if there is one, goes into x
        .unique = {.ecc = {.x = {.size = 32, .buffer = {}}, .y = {.size = 32, .buffer = {}}}},
    }};

const TPM2B_PUBLIC TPM2Attestor::ms_sEcc256AKTemplate = {
    .size = 0,
    .publicArea = {
        .type = TPM2_ALG_ECC,
        .nameAlg = TPM2_ALG_SHA256,
        // a restricted signing key signs only what the TPM itself made: that is what a verifier relies on
        .objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_SIGN_ENCRYPT,
        .authPolicy = {},  // used with the empty authorisation value
        .parameters = {.eccDetail = {.symmetric = {.algorithm = TPM2_ALG_NULL, .keyBits = {}, .mode = {}},
                                     .scheme = {.scheme = TPM2_ALG_ECDSA,
                                                .details = {.ecdsa = {.hashAlg = TPM2_ALG_SHA256}}},
                                     .curveID = TPM2_ECC_NIST_P256,
                                     .kdf = {.scheme = TPM2_ALG_NULL, .details = {}}}},
        .unique = {.ecc = {}},  // filled in by the TPM
    }};

const TPM2B_NV_PUBLIC TPM2Attestor::ms_sCounterPublicTemplate = {
    .size = 0,
    .nvPublic = {
        .nvIndex = 0x018c811f,
        .nameAlg = TPM2_ALG_SHA256,
        // read and incremented with the empty authorisation value, which no dictionary attack can lock
        .attributes = TPMA_NV_AUTHWRITE | (TPM2_NT_COUNTER << TPMA_NV_TPM2_NT_SHIFT) | TPMA_NV_AUTHREAD | TPMA_NV_NO_DA,
        .authPolicy = {},
        .dataSize = sizeof(uint64_t),
    }};

const TPM2B_NAME TPM2Attestor::ms_sCounterName = {
    .size = 34,
    .name = {0x00, 0x0b,  // SHA-256, of the public area with TPMA_NV_WRITTEN
             0x21, 0x54, 0xe1, 0xc6, 0x9f, 0x9c, 0xc0, 0x77, 0x49, 0xa8, 0x8f, 0x98, 0x35, 0xad, 0x83, 0x54,
             0x26, 0xae, 0xdb, 0x46, 0xaa, 0x9d, 0x6c, 0x41, 0xd6, 0x76, 0x4a, 0xc3, 0x80, 0x73, 0x48, 0x78}};

namespace {

using Bytes = TPM2Attestor::Bytes;

// Handles in the TPM. The two indices of the TPM's maker are those of the TCG EK Credential Profile, 2.2.1.4.
constexpr TPM2_HANDLE EK_NONCE_INDEX = 0x01c0000b;
constexpr TPM2_HANDLE EK_TEMPLATE_INDEX = 0x01c0000c;
constexpr TPM2_HANDLE EK_HANDLE = 0x8101000a;
constexpr TPM2_HANDLE TEMPORARY_INDEX = 0x018c8120;

constexpr uint16_t EK_NONCE_SIZE = 32;
constexpr uint16_t NV_CHUNK_SIZE = 512;
constexpr size_t PUBLIC_ROOM = 616;
constexpr size_t PRIVATE_ROOM = 1552;
constexpr size_t MAX_QUALIFYING_DATA = 64;

constexpr uint8_t AUDIT_ATTRIBUTES = TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITRESET | TPMA_SESSION_AUDITEXCLUSIVE;
constexpr uint32_t RESTRICTED_SIGNING = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_SIGN_ENCRYPT;

constexpr int MAX_AUDIT_TRIES = 10;
constexpr int MIN_RETRY_DELAY = 100;  // milliseconds
constexpr int MAX_RETRY_DELAY = 1000;

constexpr TPMT_SYM_DEF NO_SYMMETRIC = {.algorithm = TPM2_ALG_NULL, .keyBits = {}, .mode = {}};
constexpr TPMT_SIG_SCHEME SCHEME_OF_KEY = {.scheme = TPM2_ALG_NULL, .details = {}};

// Log readers search for the texts of the records below, slips of the pen included: those are marked "kept".
const log4cxx::LoggerPtr gs_pTallyLogger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "tally"));

// recordError makes an error record of what failed and the code that the TPM software stack returned.
void recordError(const std::string& failure, TSS2_RC rc) {
    ORVLOG_ERROR(gs_pTallyLogger, "%s: %s (0x%x)", failure.c_str(), Tss2_RC_Decode(rc), rc);
}

// recordWarning is `recordError` at WARN level, for a failure after which the caller goes on.
void recordWarning(const std::string& failure, TSS2_RC rc) {
    ORVLOG_WARN(gs_pTallyLogger, "%s: %s (0x%x)", failure.c_str(), Tss2_RC_Decode(rc), rc);
}

// checkCall returns whether a call of the stack succeeded, and records its failure.
bool checkCall(TSS2_RC rc, const char* failure) {
    if (rc != TSS2_RC_SUCCESS)
        recordError(failure, rc);
    return rc == TSS2_RC_SUCCESS;
}

// checkOrWarn is `checkCall` with a warning instead of an error.
bool checkOrWarn(TSS2_RC rc, const char* failure) {
    if (rc != TSS2_RC_SUCCESS)
        recordWarning(failure, rc);
    return rc == TSS2_RC_SUCCESS;
}

// recordOpenSSLError makes an error record with the first entry of OpenSSL's queue and returns the null of any holder.
// Each conversion clears the queue first, so that the entry is its own.
std::nullptr_t recordOpenSSLError(const char* failure) {
    ORVLOG_ERROR(gs_pTallyLogger, "%s: %s", failure, takeOpenSSLError().c_str());
    return nullptr;
}

using BIO_UPtr = OpenSSLHolder<BIO>;
using BIGNUM_UPtr = OpenSSLHolder<BIGNUM>;
using OPENSSL_UPtr = OpenSSLHolder<unsigned char>;

// toBigNumber returns a coordinate or a half of a signature as OpenSSL's number; null when memory is exhausted.
BIGNUM_UPtr toBigNumber(const TPM2B_ECC_PARAMETER& number) {
    return BIGNUM_UPtr(BN_bin2bn(number.buffer, number.size, nullptr));
}

// OutputOf lends ESYS a null pointer for an output parameter. At the end of the call's expression the holder takes what
// came back, whatever the call returned.
template <class T>
class OutputOf {
public:
    explicit OutputOf(ESysOutUPtr<T>& holder) : m_rHolder(holder) {}
    OutputOf(const OutputOf&) = delete;
    OutputOf& operator=(const OutputOf&) = delete;
    ~OutputOf() { m_rHolder.reset(m_pOutput); }
    operator T**() { return &m_pOutput; }

private:
    ESysOutUPtr<T>& m_rHolder;
    T* m_pOutput = nullptr;
};

// marshal writes the wire form of `structure` to `out`, at most `room` bytes, and returns the stack's code.
template <class T>
TSS2_RC marshal(TSS2_RC (*toWire)(const T*, uint8_t*, size_t, size_t*), const T& structure, size_t room, Bytes& out) {
    size_t length = 0;
    out.resize(room);
    const TSS2_RC rc = toWire(&structure, out.data(), out.size(), &length);
    out.resize(length);
    return rc;
}

template <class T>
Bytes bytesOf(const T& buffer, size_t size) {
    return Bytes(buffer, buffer + size);
}

bool isWritten(TPMA_NV attributes) {
    return (attributes & TPMA_NV_WRITTEN) != 0;
}

// withWritten returns attributes that compare alike whether or not the index was ever written.
TPMA_NV withWritten(TPMA_NV attributes) {
    return attributes | TPMA_NV_WRITTEN;
}

// toTPMData copies the caller's nonce to `data`; false and a record if it is too long.
bool toTPMData(const Bytes& qualifyingData, TPM2B_DATA& data) {
    if (qualifyingData.size() > MAX_QUALIFYING_DATA) {
        ORVLOG_ERROR(gs_pTallyLogger, "qualifying data exceed maximum size (%zu > %zu)", qualifyingData.size(),
                     MAX_QUALIFYING_DATA);
        return false;
    }
    data = {};
    data.size = static_cast<uint16_t>(qualifyingData.size());
    std::copy(qualifyingData.begin(), qualifyingData.end(), data.buffer);
    return true;
}

// attestationAndSignature returns the TPMS_ATTEST without its size and the signature in DER; both are empty if the
// signature can't be converted.
std::pair<Bytes, Bytes> attestationAndSignature(const TPM2B_ATTEST& attestation, const TPMT_SIGNATURE& signature) {
    Bytes der = TPM2Attestor::toDER(TPM2Attestor::ecdsaToOssl(&signature));
    if (der.empty())
        return {};
    return {bytesOf(attestation.attestationData, attestation.size), std::move(der)};
}

// seed makes clients that disturb each other wait for different times. Without entropy the generator stays as it is.
void seed(std::minstd_rand0& generator) {
    try {
        generator.seed(std::random_device("default")());
    } catch (const std::exception&) {
    }
}

void sleepMilliseconds(int milliseconds) {
    timespec remaining = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1000000L};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

}  // namespace

// === context and session =============================================================================================

TPM2Attestor::TPM2Attestor() = default;

TPM2Attestor::~TPM2Attestor() {
    close();
}

bool TPM2Attestor::isEnabled() {
    return true;
}

bool TPM2Attestor::open() {
    if (isOpen()) {
        ORVLOG_ERROR(gs_pTallyLogger, "the TPM2 is already open");
        return false;
    }
    TSS2_ABI_VERSION abi = {.tssCreator = 1, .tssFamily = 2, .tssLevel = 1, .tssVersion = 108};
    if (!checkCall(Esys_Initialize(&m_pContext, nullptr, &abi), "failed to open TPM2"))
        return false;
    m_oCounter = ESysClosable(m_pContext);
    ORVLOG_DEBUG(gs_pTallyLogger, "opened TPM2");
    if (!createEK()) {
        ORVLOG_ERROR(gs_pTallyLogger, "cannot establish a session");
        close();
        return false;
    }
    ESysTransient session(m_pContext);
    if (!startSession(session, TPM2_SE_HMAC, "failed to create TPM2 session")) {
        close();
        return false;
    }
    ORVLOG_DEBUG(gs_pTallyLogger, "TPM2 salted session established");
    m_oSession = std::move(session);
    return true;
}

void TPM2Attestor::close() {
    if (!isOpen())
        return;
    ORVLOG_DEBUG(gs_pTallyLogger, "closing TPM2");
    m_oCounter.closeHeld();
    releaseEK();
    m_pEKPublic.reset();
    m_pAKPublic.reset();
    m_pAKPrivate.reset();
    m_oAK.flush();
    m_oSession.flush();
    Esys_Finalize(&m_pContext);
}

bool TPM2Attestor::requireOpen() const {
    if (!isOpen())
        ORVLOG_ERROR(gs_pTallyLogger, "TPM2 not open");
    return isOpen();
}

// startSession starts a session salted with the EK and bound to nothing, without parameter encryption.
bool TPM2Attestor::startSession(ESysTransient& session, TPM2_SE type, const char* failure) {
    if (checkCall(Esys_StartAuthSession(m_pContext, m_hEK, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                        nullptr, type, &NO_SYMMETRIC, TPM2_ALG_SHA256, &session.handle),
                  failure))
        return true;
    session.release();  // when memory is exhausted, the library may leave a handle to nothing
    return false;
}

TSS2_RC TPM2Attestor::setSessionAttributes(TPMA_SESSION flags, TPMA_SESSION mask) {
    return Esys_TRSess_SetAttributes(m_pContext, m_oSession.handle, flags, mask);
}

bool TPM2Attestor::getTPMObject(TPM2_HANDLE handle, ESYS_TR* out) {
    ESysOutUPtr<TPMS_CAPABILITY_DATA> found;
    TSS2_RC rc = Esys_GetCapability(m_pContext, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_HANDLES, handle, 1,
                                    nullptr, OutputOf(found));
    if (rc != TSS2_RC_SUCCESS) {
        recordError(strfmt("failed to check existence of TPM object with handle 0x%x", handle), rc);
        return false;
    }
    const TPML_HANDLE& handles = found->data.handles;
    if (handles.count == 0 || handles.handle[0] != handle) {  // the TPM lists what it has from `handle` upward
        *out = ESYS_TR_NONE;
        return true;
    }
    rc = Esys_TR_FromTPMPublic(m_pContext, handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, out);
    if (rc != TSS2_RC_SUCCESS)
        recordError(strfmt("failed loading TPM object with handle 0x%xx", handle), rc);  // kept: "xx" is in the logs
    return rc == TSS2_RC_SUCCESS;
}

// readNVPublic reads an index's public area with the session's audit attribute on. Kept: the warning carries the code
// of the reading, even of one that succeeded, and names the counter whatever the index.
TSS2_RC TPM2Attestor::readNVPublic(ESYS_TR index, ESysOutUPtr<TPM2B_NV_PUBLIC>& publicArea) {
    TSS2_RC rc = setSessionAttributes(TPMA_SESSION_AUDIT, TPMA_SESSION_AUDIT);
    if (rc == TSS2_RC_SUCCESS)
        rc = Esys_NV_ReadPublic(m_pContext, index, m_oSession.handle, ESYS_TR_NONE, ESYS_TR_NONE, OutputOf(publicArea),
                                nullptr);
    if (setSessionAttributes(0, TPMA_SESSION_AUDIT) != TSS2_RC_SUCCESS)
        recordWarning("failed to restore session attributes after reading tally counter NV index public info", rc);
    return rc;
}

// === endorsement key =================================================================================================

bool TPM2Attestor::haveEK() {
    return requireOpen() && (m_pEKPublic || createEK());
}

Bytes TPM2Attestor::getEndorsementKeyTPMPub() {
    Bytes bytes;
    if (!haveEK() || !checkCall(marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, *m_pEKPublic, PUBLIC_ROOM, bytes),
                                "failed serializing EK public area"))
        return {};
    return bytes;
}

std::string TPM2Attestor::getEndorsementKeyPEM() {
    return haveEK() ? toPEM(getEkPubkeyOssl()) : std::string();
}

Bytes TPM2Attestor::getEndorsementKeyDER() {
    return haveEK() ? toDER(getEkPubkeyOssl()) : Bytes();
}

EC_KEY_UPtr TPM2Attestor::getEkPubkeyOssl() {
    EC_KEY_UPtr key = eccPubkeyToOssl(&m_pEKPublic->publicArea);
    if (!key)
        ORVLOG_ERROR(gs_pTallyLogger, "failed to extract endorsement key's public key");
    return key;
}

// createEK leaves the EK fields as they were on failure. Kept: an object at the persistent handle that is not an EK of
// ours belongs to the appliance's owner and is neither evicted nor replaced. `m_hEK` then names that object, and only
// the new key's public area is used, although the record speaks of a transient key.
bool TPM2Attestor::createEK() {
    ORVLOG_DEBUG(gs_pTallyLogger, "creating ECC NIST P256 EK");
    TPM2B_PUBLIC ekTemplate;
    if (!chooseEKTemplate(&ekTemplate))
        return false;
    ESysClosable persistent(m_pContext);
    if (!getTPMObject(EK_HANDLE, &persistent.handle))
        ORVLOG_WARN(gs_pTallyLogger, "failed checking for existence of persisten endorsement key");  // kept
    if (persistent.isHeld() && takePersistentEK(persistent, ekTemplate))
        return true;
    ESysTransient primary(m_pContext);
    ESysOutUPtr<TPM2B_PUBLIC> publicArea;
    if (!createPrimaryEK(ekTemplate, primary, publicArea))
        return false;
    if (!persistent.isHeld())
        saveEK(primary, persistent);
    m_bEKPersistent = persistent.isHeld();
    m_hEK = m_bEKPersistent ? persistent.release() : primary.release();
    m_pEKPublic = std::move(publicArea);
    ORVLOG_DEBUG(gs_pTallyLogger, "created ECC NIST P256 EK");
    return true;
}

// chooseEKTemplate writes the template that the TPM's maker stored, or else L-2; false if the indices contradict it.
bool TPM2Attestor::chooseEKTemplate(TPM2B_PUBLIC* ekTemplate) {
    ESysClosable templateIndex(m_pContext);
    ESysClosable nonceIndex(m_pContext);
    const bool templateKnown = getTPMObject(EK_TEMPLATE_INDEX, &templateIndex.handle);
    const bool nonceKnown = getTPMObject(EK_NONCE_INDEX, &nonceIndex.handle);
    if (!templateKnown || !nonceKnown) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed checking for non-default EK nonce or template");
        return false;
    }
    if (!templateIndex.isHeld() && nonceIndex.isHeld()) {
        ORVLOG_ERROR(gs_pTallyLogger,
                     "EK found non-default nonce but no non-default template, which is fobidden by spec");  // kept
        return false;
    }
    if (!templateIndex.isHeld()) {
        *ekTemplate = ms_sEcc256EKTemplateL2;
        return true;
    }
    return readEKTemplate(templateIndex.handle, ekTemplate) &&
           (!nonceIndex.isHeld() || applyEKNonce(nonceIndex.handle, ekTemplate));
}

bool TPM2Attestor::readEKTemplate(ESYS_TR index, TPM2B_PUBLIC* ekTemplate) {
    ORVLOG_DEBUG(gs_pTallyLogger, "found non-default ECC NIST P256 EK template");
    Bytes bytes;
    if (!readNVIndex(index, &bytes)) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed reading EK non-default template from NV-index");
        return false;
    }
    *ekTemplate = {};
    return checkCall(Tss2_MU_TPM2B_PUBLIC_Unmarshal(bytes.data(), bytes.size(), nullptr, ekTemplate),
                     "failed to parse EK non-default template");
}

// applyEKNonce writes the nonce to the template's x coordinate, cut or filled with zeros to its size.
bool TPM2Attestor::applyEKNonce(ESYS_TR index, TPM2B_PUBLIC* ekTemplate) {
    ORVLOG_DEBUG(gs_pTallyLogger, "found non-default ECC NIST P256 EK nonce");
    Bytes nonce;
    if (!readNVIndex(index, &nonce)) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed reading EK non-default nonce from NV-index");
        return false;
    }
    TPMT_PUBLIC& publicArea = ekTemplate->publicArea;
    if (publicArea.type != TPM2_ALG_ECC || publicArea.parameters.eccDetail.curveID != TPM2_ECC_NIST_P256) {
        ORVLOG_ERROR(gs_pTallyLogger, "EK non-default template for ECC NIST P256 EK specifies another key type");
        return false;
    }
    TPMS_ECC_POINT& point = publicArea.unique.ecc;
    nonce.resize(EK_NONCE_SIZE);
    std::copy(nonce.begin(), nonce.end(), point.x.buffer);
    std::fill_n(point.y.buffer, EK_NONCE_SIZE, 0);
    point.x.size = point.y.size = EK_NONCE_SIZE;
    return true;
}

// takePersistentEK makes the object at the persistent handle the EK if it equals the template in all but its point.
bool TPM2Attestor::takePersistentEK(ESysClosable& persistent, const TPM2B_PUBLIC& ekTemplate) {
    ESysOutUPtr<TPM2B_PUBLIC> publicArea;
    if (!checkOrWarn(Esys_ReadPublic(m_pContext, persistent.handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                     OutputOf(publicArea), nullptr, nullptr),
                     "failed reading public area of persistent endorsement key"))
        return false;
    TPM2B_PUBLIC comparable = *publicArea;
    comparable.publicArea.unique = ekTemplate.publicArea.unique;
    Bytes found, wanted;  // kept: no code is read; both structures were unmarshalled or are ours, so neither call fails
    marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, comparable, PUBLIC_ROOM, found);
    marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, ekTemplate, PUBLIC_ROOM, wanted);
    if (found != wanted) {
        ORVLOG_DEBUG(gs_pTallyLogger, "persistent EK does not match requirements, creating transient one");
        return false;
    }
    ORVLOG_DEBUG(gs_pTallyLogger, "found valid persistent ECC NIST P256 EK");
    m_hEK = persistent.release();
    m_bEKPersistent = true;
    m_pEKPublic = std::move(publicArea);
    return true;
}

bool TPM2Attestor::createPrimaryEK(const TPM2B_PUBLIC& ekTemplate, ESysTransient& primary,
                                   ESysOutUPtr<TPM2B_PUBLIC>& publicArea) {
    const TPM2B_SENSITIVE_CREATE noSensitive = {};
    const TPML_PCR_SELECTION noPCR = {};
    return checkCall(Esys_CreatePrimary(m_pContext, ESYS_TR_RH_ENDORSEMENT, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                        ESYS_TR_NONE, &noSensitive, &ekTemplate, nullptr, &noPCR, &primary.handle,
                                        OutputOf(publicArea), nullptr, nullptr, nullptr),
                     "failed to create endorsement key");
}

// saveEK makes the new key persistent, so that later runs need not make it again. Kept: its transient copy stays
// loaded. Without the right to save the key the run goes on with that copy.
void TPM2Attestor::saveEK(ESysTransient& primary, ESysClosable& persistent) {
    if (!checkOrWarn(Esys_EvictControl(m_pContext, ESYS_TR_RH_OWNER, primary.handle, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                       ESYS_TR_NONE, EK_HANDLE, &persistent.handle),
                     "failed to save endorsement key to persistent handle")) {
        persistent.release();  // as in `startSession`
        return;
    }
    ORVLOG_DEBUG(gs_pTallyLogger, "saved new ECC NIST P256 EK to persistent handle");
    primary.release();
}

void TPM2Attestor::releaseEK() {
    if (m_bEKPersistent)
        ESysClosable(m_pContext, m_hEK).closeHeld();
    else
        ESysTransient(m_pContext, m_hEK).flush();
}

bool TPM2Attestor::readNVIndex(ESYS_TR index, Bytes* out) {
    ESysOutUPtr<TPM2B_NV_PUBLIC> publicArea;
    if (!checkCall(readNVPublic(index, publicArea), "failed reading public info from NV-index"))
        return false;
    const size_t size = publicArea->nvPublic.dataSize;
    out->clear();
    while (out->size() < size) {
        const auto offset = static_cast<uint16_t>(out->size());
        const auto length = static_cast<uint16_t>(std::min<size_t>(NV_CHUNK_SIZE, size - offset));
        ESysOutUPtr<TPM2B_MAX_NV_BUFFER> data;
        TSS2_RC rc = Esys_NV_Read(m_pContext, index, index, m_oSession.handle, ESYS_TR_NONE, ESYS_TR_NONE, length,
                                  offset, OutputOf(data));
        if (rc == TSS2_RC_SUCCESS && (data->size == 0 || data->size > length))
            rc = TSS2_ESYS_RC_MALFORMED_RESPONSE;  // an empty chunk would be requested forever
        if (!checkCall(rc, "failed reading data from NV-index"))
            return false;
        out->insert(out->end(), data->buffer, data->buffer + data->size);
    }
    return true;
}

ESysTransient TPM2Attestor::createEHPolSession() {
    ESysTransient session(m_pContext);
    if (!startSession(session, TPM2_SE_POLICY, "failed to create TPM2 session for endorsement hierarchy"))
        return ESysTransient(m_pContext);
    ORVLOG_DEBUG(gs_pTallyLogger, "TPM2 salted policy session established");
    if (!checkCall(Esys_PolicySecret(m_pContext, ESYS_TR_RH_ENDORSEMENT, session.handle, m_oSession.handle,
                                     ESYS_TR_NONE, ESYS_TR_NONE, nullptr, nullptr, nullptr, 0, nullptr, nullptr),
                   "failed to set secret on policy session for endorsement hierarchy"))
        return ESysTransient(m_pContext);
    return session;
}

// === attestation key =================================================================================================

bool TPM2Attestor::loadAttestationKey(Bytes publicArea, Bytes privateArea) {
    if (!requireOpen())
        return false;
    TPM2B_PUBLIC publicStructure = {};
    TPM2B_PRIVATE privateStructure = {};
    if (!checkCall(Tss2_MU_TPM2B_PUBLIC_Unmarshal(publicArea.data(), publicArea.size(), nullptr, &publicStructure),
                   "failed de-serializing AK areas"))
        return false;
    // Kept: this code is not read; a bad private area is reported by the TPM on loading.
    Tss2_MU_TPM2B_PRIVATE_Unmarshal(privateArea.data(), privateArea.size(), nullptr, &privateStructure);
    return loadAK(&publicStructure, &privateStructure);
}

Bytes TPM2Attestor::activateAttestationKey(Bytes blob) {
    if (!requireOpen())
        return {};
    if (!m_oAK.isHeld()) {
        ORVLOG_ERROR(gs_pTallyLogger, "cannot activate attestation key if none is loaded");
        return {};
    }
    constexpr const char* FAILURE = "failed de-serializing encrypted data for attestation key activation";
    TPM2B_ID_OBJECT credential = {};
    TPM2B_ENCRYPTED_SECRET secret = {};
    size_t offset = 0;
    if (!checkCall(Tss2_MU_TPM2B_ID_OBJECT_Unmarshal(blob.data(), blob.size(), &offset, &credential), FAILURE) ||
        !checkCall(Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal(blob.data(), blob.size(), &offset, &secret), FAILURE))
        return {};
    const ESysOutUPtr<TPM2B_DIGEST> certInfo = activateAK(&credential, &secret);
    return certInfo ? bytesOf(certInfo->buffer, certInfo->size) : Bytes();
}

std::pair<Bytes, Bytes> TPM2Attestor::getAttestationKeyTPMPubPriv() {
    if (!requireOpen() || !haveAK())
        return {};
    constexpr const char* FAILURE = "failed serializing AK areas";
    std::pair<Bytes, Bytes> areas;
    if (!checkCall(marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, *m_pAKPublic, PUBLIC_ROOM, areas.first), FAILURE) ||
        !checkCall(marshal(Tss2_MU_TPM2B_PRIVATE_Marshal, *m_pAKPrivate, PRIVATE_ROOM, areas.second), FAILURE))
        return {};
    return areas;
}

bool TPM2Attestor::haveAK() {
    return (m_pAKPublic && m_pAKPrivate) || createAK();
}

bool TPM2Attestor::createAK() {
    ORVLOG_DEBUG(gs_pTallyLogger, "creating ECC AK");
    const ESysTransient policy = createEHPolSession();
    if (!policy.isHeld())
        return false;
    const TPM2B_SENSITIVE_CREATE noSensitive = {};
    const TPM2B_DATA noOutsideInfo = {};
    const TPML_PCR_SELECTION noPCR = {};
    ESysOutUPtr<TPM2B_PRIVATE> privateArea;
    ESysOutUPtr<TPM2B_PUBLIC> publicArea;
    if (!checkCall(Esys_Create(m_pContext, m_hEK, policy.handle, ESYS_TR_NONE, ESYS_TR_NONE, &noSensitive,
                               &ms_sEcc256AKTemplate, &noOutsideInfo, &noPCR, OutputOf(privateArea),
                               OutputOf(publicArea), nullptr, nullptr, nullptr),
                   "failed to create attestation key in endorsement hierarchy"))
        return false;
    keepAKAreas(*publicArea, *privateArea);
    m_oAK.flush();  // what was loaded until now no longer belongs to the areas
    ORVLOG_DEBUG(gs_pTallyLogger, "created ECC AK");
    return true;
}

bool TPM2Attestor::loadAK(const TPM2B_PUBLIC* publicArea, const TPM2B_PRIVATE* privateArea) {
    const TPMA_OBJECT attributes = publicArea->publicArea.objectAttributes;
    if ((attributes & RESTRICTED_SIGNING) != RESTRICTED_SIGNING) {
        ORVLOG_ERROR(
            gs_pTallyLogger,
            "an attestation key must be a restricted signing key, cannot load key with attributes 0x%x)",  // kept: ")"
            attributes);
        return false;
    }
    const ESysTransient policy = createEHPolSession();
    if (!policy.isHeld())
        return false;
    ESysTransient key(m_pContext);
    if (!checkCall(Esys_Load(m_pContext, m_hEK, policy.handle, ESYS_TR_NONE, ESYS_TR_NONE, privateArea, publicArea,
                             &key.handle),
                   "failed to load attestation key in endorsement hierarchy"))
        return false;
    if (publicArea != m_pAKPublic.get() || privateArea != m_pAKPrivate.get())
        keepAKAreas(*publicArea, *privateArea);
    m_oAK = std::move(key);
    return true;
}

// keepAKAreas copies both areas before it drops the old ones, as the arguments may be the old ones.
void TPM2Attestor::keepAKAreas(const TPM2B_PUBLIC& publicArea, const TPM2B_PRIVATE& privateArea) {
    auto publicCopy = std::make_unique<TPM2B_PUBLIC>(publicArea);
    auto privateCopy = std::make_unique<TPM2B_PRIVATE>(privateArea);
    m_pAKPublic = std::move(publicCopy);
    m_pAKPrivate = std::move(privateCopy);
}

ESysOutUPtr<TPM2B_DIGEST> TPM2Attestor::activateAK(const TPM2B_ID_OBJECT* credential,
                                                   const TPM2B_ENCRYPTED_SECRET* secret) {
    const ESysTransient policy = createEHPolSession();
    if (!policy.isHeld())
        return nullptr;
    ESysOutUPtr<TPM2B_DIGEST> certInfo;
    if (!checkCall(Esys_ActivateCredential(m_pContext, m_oAK.handle, m_hEK, m_oSession.handle, policy.handle,
                                           ESYS_TR_NONE, credential, secret, OutputOf(certInfo)),
                   "failed to activate attestation key"))
        return nullptr;
    return certInfo;
}

// === tally counter ===================================================================================================

bool TPM2Attestor::incrementCounter() {
    return requireOpen() && haveCounter() && incrementOpenCounter();
}

bool TPM2Attestor::readCounter(uint64_t* value) {
    if (!requireOpen() || !haveCounter())
        return false;
    ESysOutUPtr<TPM2B_MAX_NV_BUFFER> data;
    TSS2_RC rc = readOpenCounter(data);
    if (rc == TSS2_RC_SUCCESS)
        rc = Tss2_MU_UINT64_Unmarshal(data->buffer, data->size, nullptr, value);
    return checkCall(rc, "failed to read tally counter NV index");
}

bool TPM2Attestor::haveCounter() {
    return m_oCounter.isHeld() || openCounter();
}

TSS2_RC TPM2Attestor::readOpenCounter(ESysOutUPtr<TPM2B_MAX_NV_BUFFER>& data) {
    return Esys_NV_Read(m_pContext, m_oCounter.handle, m_oCounter.handle, m_oSession.handle, ESYS_TR_NONE, ESYS_TR_NONE,
                        sizeof(uint64_t), 0, OutputOf(data));
}

bool TPM2Attestor::openCounter() {
    const TPM2_HANDLE index = ms_sCounterPublicTemplate.nvPublic.nvIndex;
    m_oCounter.closeHeld();
    if (!getTPMObject(index, &m_oCounter.handle)) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed loading tally counter NV index with handle 0x%x", index);
        return false;
    }
    if (!m_oCounter.isHeld())
        ORVLOG_INFO(gs_pTallyLogger, "tally counter NV index does not exist, creating");
    if ((m_oCounter.isHeld() || defineCounter()) && checkCounter())
        return true;
    m_oCounter.closeHeld();
    return false;
}

bool TPM2Attestor::defineCounter() {
    m_oCounter.closeHeld();
    ORVLOG_DEBUG(gs_pTallyLogger, "defining tally counter NV index");
    return checkCall(defineIndex(ms_sCounterPublicTemplate, m_oCounter), "failed defining tally counter NV index");
}

TSS2_RC TPM2Attestor::defineIndex(const TPM2B_NV_PUBLIC& publicArea, ESysClosable& index) {
    return Esys_NV_DefineSpace(m_pContext, ESYS_TR_RH_OWNER, m_oSession.handle, ESYS_TR_NONE, ESYS_TR_NONE, nullptr,
                               &publicArea, &index.handle);
}

TSS2_RC TPM2Attestor::incrementIndex(const ESysClosable& index) {
    return Esys_NV_Increment(m_pContext, index.handle, index.handle, m_oSession.handle, ESYS_TR_NONE, ESYS_TR_NONE);
}

bool TPM2Attestor::checkCounter() {
    ESysOutUPtr<TPM2B_NV_PUBLIC> publicArea;
    if (!checkCall(readNVPublic(m_oCounter.handle, publicArea), "failed loading tally counter NV index public info"))
        return false;
    const TPMA_NV attributes = publicArea->nvPublic.attributes;
    if (withWritten(attributes) != withWritten(ms_sCounterPublicTemplate.nvPublic.attributes)) {
        ORVLOG_ERROR(gs_pTallyLogger, "the tally counter NV index exists but is of the wrong type, attribute mismatch");
        return false;
    }
    if (!isWritten(attributes) && !incrementOpenCounter()) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed setting an initial value for tally counter NV index");
        return false;
    }
    return checkCounterName();
}

bool TPM2Attestor::checkCounterName() {
    ESysOutUPtr<TPM2B_NAME> name;
    if (!checkCall(Esys_TR_GetName(m_pContext, m_oCounter.handle, OutputOf(name)),
                   "failed loading tally counter NV index name"))
        return false;
    if (bytesOf(name->name, name->size) != bytesOf(ms_sCounterName.name, ms_sCounterName.size)) {
        ORVLOG_ERROR(gs_pTallyLogger, "the tally counter NV index exists but is of the wrong type, name mismatch");
        return false;
    }
    ORVLOG_DEBUG(gs_pTallyLogger, "tally counter NV index checked OK");
    return true;
}

bool TPM2Attestor::incrementOpenCounter() {
    return workaroundCounterRollbackOnClear() &&
           checkCall(incrementIndex(m_oCounter), "failed to increment tally counter NV index");
}

// workaroundCounterRollbackOnClear increments only an index that was never written, and an interrupted run leaves at
// most one temporary index.
bool TPM2Attestor::workaroundCounterRollbackOnClear() {
    TPM2B_NV_PUBLIC publicArea = ms_sCounterPublicTemplate;
    publicArea.nvPublic.nvIndex = TEMPORARY_INDEX;
    ESysClosable temporary(m_pContext);
    if (!getTPMObject(TEMPORARY_INDEX, &temporary.handle)) {
        ORVLOG_ERROR(gs_pTallyLogger, "failed to check existence of temporary NV index for workaround");
        return false;
    }
    if (temporary.isHeld() && !takeLeftOver(temporary, publicArea))
        return false;
    if (!temporary.isHeld()) {
        ORVLOG_DEBUG(gs_pTallyLogger, "defining new temporary workaround NV index");
        if (!checkCall(defineIndex(publicArea, temporary), "failed to define temporary workaround NV index"))
            return false;
    }
    return checkCall(incrementIndex(temporary), "failed to increment temporary workaround NV index") &&
           undefineTemporary(temporary, "failed to delete temporary workaround NV index");
}

// takeLeftOver keeps the temporary index of an interrupted run if it was never written, and removes a written one. An
// index of another kind is left alone and is a failure.
bool TPM2Attestor::takeLeftOver(ESysClosable& temporary, const TPM2B_NV_PUBLIC& expected) {
    ORVLOG_DEBUG(gs_pTallyLogger, "found left-over temporary workaround NV index");
    ESysOutUPtr<TPM2B_NV_PUBLIC> found;
    if (!checkCall(Esys_NV_ReadPublic(m_pContext, temporary.handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                      OutputOf(found), nullptr),
                   "failed to read left-over temporary workaround NV index info"))
        return false;
    const TPMS_NV_PUBLIC& index = found->nvPublic;
    if (withWritten(index.attributes) != withWritten(expected.nvPublic.attributes) ||
        index.dataSize != expected.nvPublic.dataSize) {
        ORVLOG_ERROR(gs_pTallyLogger,
                     "found different NV index at location of temporary workaround NV index, aborting");
        return false;
    }
    if (!isWritten(index.attributes))
        return true;
    ORVLOG_DEBUG(gs_pTallyLogger, "deleting written left-over temporary workaround NV index");
    return undefineTemporary(temporary, "failed to delete left-over temporary workaround NV index");
}

// undefineTemporary removes the index from the TPM. On success it empties the holder, as the stack has dropped the
// handle.
bool TPM2Attestor::undefineTemporary(ESysClosable& temporary, const char* failure) {
    if (!checkCall(Esys_NV_UndefineSpace(m_pContext, ESYS_TR_RH_OWNER, temporary.handle, m_oSession.handle,
                                         ESYS_TR_NONE, ESYS_TR_NONE),
                   failure))
        return false;
    temporary.release();
    return true;
}

// === certification ===================================================================================================

// AuditedReading is the outputs of the latest attempt of one certification, and how that attempt ended.
struct TPM2Attestor::AuditedReading {
    ESysOutUPtr<TPM2B_MAX_NV_BUFFER> counter;
    ESysOutUPtr<TPM2B_ATTEST> attestation;
    ESysOutUPtr<TPMT_SIGNATURE> signature;
    int tries = 1;
    const char* step = nullptr;
    TSS2_RC rc = TSS2_RC_SUCCESS;

    // noteStep keeps how a step ended and returns whether it succeeded.
    bool noteStep(const char* name, TSS2_RC result) {
        step = name;
        rc = result;
        return rc == TSS2_RC_SUCCESS;
    }

    // checkStep returns whether `result`, of the latest step, is a success, and records a failure.
    bool checkStep(TSS2_RC result) const {
        if (result != TSS2_RC_SUCCESS)
            recordError(strfmt("failed to %s after %i tries", step, tries), result);
        return result == TSS2_RC_SUCCESS;
    }
};

std::pair<Bytes, Bytes> TPM2Attestor::certifyCounterWithAudit(uint64_t* counter, const Bytes& qualifyingData) {
    TPM2B_DATA data;
    if (!prepareCertification())
        return {};
    ORVLOG_DEBUG(gs_pTallyLogger, "certifying tally counter NV index with audit session");
    if (!toTPMData(qualifyingData, data))
        return {};
    AuditedReading reading;
    readAudited(reading, data);
    if (setSessionAttributes(0, AUDIT_ATTRIBUTES) != TSS2_RC_SUCCESS)  // kept: the code told is the reading's
        recordWarning("failed to restore session attributes after reading tally counter NV index", reading.rc);
    if (!reading.checkStep(reading.rc) ||
        !reading.checkStep(Tss2_MU_UINT64_Unmarshal(reading.counter->buffer, reading.counter->size, nullptr, counter)))
        return {};
    std::pair<Bytes, Bytes> result = attestationAndSignature(*reading.attestation, *reading.signature);
    if (!result.second.empty())
        ORVLOG_DEBUG(gs_pTallyLogger, "certified tally counter NV index with audit session in %i attempt(s)",
                     reading.tries);
    return result;
}

std::pair<Bytes, Bytes> TPM2Attestor::certifyCounterWithCmd(const Bytes& qualifyingData) {
    TPM2B_DATA data;
    if (!prepareCertification() || !toTPMData(qualifyingData, data))
        return {};
    ESysOutUPtr<TPM2B_ATTEST> attestation;
    ESysOutUPtr<TPMT_SIGNATURE> signature;
    if (!checkCall(Esys_NV_Certify(m_pContext, m_oAK.handle, m_oCounter.handle, m_oCounter.handle, m_oSession.handle,
                                   ESYS_TR_NONE, ESYS_TR_NONE, &data, &SCHEME_OF_KEY, sizeof(uint64_t), 0,
                                   OutputOf(attestation), OutputOf(signature)),
                   "failed to certify tally counter NV index"))
        return {};
    return attestationAndSignature(*attestation, *signature);
}

bool TPM2Attestor::prepareCertification() {
    return requireOpen() && haveCounter() && haveAK() &&
           (m_oAK.isHeld() || loadAK(m_pAKPublic.get(), m_pAKPrivate.get()));
}

// readAudited repeats the audited reading until no other client of the TPM disturbs it or the tries are used up. A
// client's command between the reading and the digest ends the exclusivity, so each attempt begins with the reading.
void TPM2Attestor::readAudited(AuditedReading& reading, const TPM2B_DATA& qualifyingData) {
    std::minstd_rand0 generator;
    std::uniform_int_distribution<int> delay(MIN_RETRY_DELAY, MAX_RETRY_DELAY);
    while (attemptAuditedReading(reading, qualifyingData) && reading.tries < MAX_AUDIT_TRIES) {
        if (reading.tries++ == 1)
            seed(generator);  // not earlier: the usual run needs no entropy
        sleepMilliseconds(delay(generator));
    }
}

// attemptAuditedReading returns whether another attempt may help: the audit session was not exclusive.
bool TPM2Attestor::attemptAuditedReading(AuditedReading& reading, const TPM2B_DATA& qualifyingData) {
    if (!reading.noteStep("setup audit session to read tally counter NV index",
                          setSessionAttributes(TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITRESET, AUDIT_ATTRIBUTES)) ||
        !reading.noteStep("read tally counter NV index in audit session", readOpenCounter(reading.counter)) ||
        !reading.noteStep("setup audit session to certify read tally counter NV index",
                          setSessionAttributes(TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITEXCLUSIVE, AUDIT_ATTRIBUTES)))
        return false;
    reading.noteStep("get audit session digest to certify read tally counter NV index",
                     Esys_GetSessionAuditDigest(m_pContext, ESYS_TR_RH_ENDORSEMENT, m_oAK.handle, m_oSession.handle,
                                                ESYS_TR_PASSWORD, m_oSession.handle, ESYS_TR_NONE, &qualifyingData,
                                                &SCHEME_OF_KEY, OutputOf(reading.attestation),
                                                OutputOf(reading.signature)));
    return reading.rc == TPM2_RC_EXCLUSIVE;
}

// === conversions =====================================================================================================

EC_KEY_UPtr TPM2Attestor::eccPubkeyToOssl(const TPMT_PUBLIC* publicArea) {
    if (publicArea->type != TPM2_ALG_ECC) {
        ORVLOG_ERROR(gs_pTallyLogger, "conversion to ECC key DER failed: input data is not an ECC key");
        return nullptr;
    }
    if (publicArea->parameters.eccDetail.curveID != TPM2_ECC_NIST_P256) {
        ORVLOG_ERROR(gs_pTallyLogger, "conversion to ECC key DER failed: unknown curve ID");
        return nullptr;
    }
    ERR_clear_error();
    EC_KEY_UPtr key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
    if (!key)
        return recordOpenSSLError("failed to create new ECC key by curve ID");
    const BIGNUM_UPtr x = toBigNumber(publicArea->unique.ecc.x);
    const BIGNUM_UPtr y = toBigNumber(publicArea->unique.ecc.y);
    if (!x || !y)
        return recordOpenSSLError("failed to create new ECC key points");
    if (EC_KEY_set_public_key_affine_coordinates(key.get(), x.get(), y.get()) != 1)
        return recordOpenSSLError("failed to set the public part of ECC key");
    return key;
}

std::string TPM2Attestor::toPEM(const EC_KEY_UPtr& key) {
    ERR_clear_error();
    const BIO_UPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        recordOpenSSLError("failed to create PEM memory buffer");
        return {};
    }
    if (PEM_write_bio_EC_PUBKEY(bio.get(), key.get()) < 1) {
        recordOpenSSLError("failed to write ECC public key to PEM memory buffer");
        return {};
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

Bytes TPM2Attestor::toDER(const EC_KEY_UPtr& key) {
    if (!key)
        return {};
    ERR_clear_error();
    unsigned char* buffer = nullptr;
    const int length = i2d_EC_PUBKEY(key.get(), &buffer);
    if (length < 0) {
        recordOpenSSLError("failed to serialize ECC public key to DER");
        return {};
    }
    const OPENSSL_UPtr owner(buffer);
    return bytesOf(buffer, static_cast<size_t>(length));
}

ECDSA_SIG_UPtr TPM2Attestor::ecdsaToOssl(const TPMT_SIGNATURE* signature) {
    if (signature->sigAlg != TPM2_ALG_ECDSA) {
        ORVLOG_ERROR(gs_pTallyLogger, "conversion to ECDSA signature failed: input data is not an ECDSA signature");
        return nullptr;
    }
    ERR_clear_error();
    ECDSA_SIG_UPtr result(ECDSA_SIG_new());
    if (!result)
        return recordOpenSSLError("failed to create new ECDS signature");  // kept
    BIGNUM_UPtr r = toBigNumber(signature->signature.ecdsa.signatureR);
    BIGNUM_UPtr s = toBigNumber(signature->signature.ecdsa.signatureS);
    if (!r || !s)
        return recordOpenSSLError("failed to create new ECDSA signature points");
    if (ECDSA_SIG_set0(result.get(), r.get(), s.get()) != 1)
        return recordOpenSSLError("failed to set the ECDSA signature points");
    static_cast<void>(r.release());  // both belong to the signature now
    static_cast<void>(s.release());
    return result;
}

Bytes TPM2Attestor::toDER(const ECDSA_SIG_UPtr& signature) {
    if (!signature)
        return {};
    ERR_clear_error();
    Bytes der;
    int length = i2d_ECDSA_SIG(signature.get(), nullptr);
    if (length > 0) {
        der.resize(static_cast<size_t>(length));
        unsigned char* end = der.data();
        length = i2d_ECDSA_SIG(signature.get(), &end);
    }
    if (length <= 0) {
        recordOpenSSLError("failed to serialize ECDSA signature to DER");
        return {};
    }
    return der;
}
