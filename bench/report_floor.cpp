// report_floor.cpp: the least that a device report can cost on this machine. It sends the same TPM commands as
// featurewatch, in the same order and through the same library, and does nothing else: no checks of what the TPM
// answers, no conversions, no document, no log. bench/report measures featurewatch beside it and verifies that the
// commands are the same.
//
//     report_floor -d                              a report on a device that has made one before
//     report_floor -A PUBLIC PRIVATE CHALLENGE NONCE
//                                                  the same with an attestation context, its members in binary files
//     report_floor -R                              the same as -d, with an increment of the counter before it
//
// A command that fails ends it with status 1. The order of the functions is that of the commands.

#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr TPM2_HANDLE EK_NONCE_INDEX = 0x01c0000b;
constexpr TPM2_HANDLE EK_TEMPLATE_INDEX = 0x01c0000c;
constexpr TPM2_HANDLE EK_HANDLE = 0x8101000a;
constexpr TPM2_HANDLE COUNTER_INDEX = 0x018c811f;
constexpr TPM2_HANDLE TEMPORARY_INDEX = 0x018c8120;

constexpr TPMA_NV COUNTER_ATTRIBUTES =
    TPMA_NV_AUTHWRITE | (TPM2_NT_COUNTER << TPMA_NV_TPM2_NT_SHIFT) | TPMA_NV_AUTHREAD | TPMA_NV_NO_DA;
constexpr TPMA_SESSION AUDIT_ATTRIBUTES = TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITRESET | TPMA_SESSION_AUDITEXCLUSIVE;

constexpr TPMT_SYM_DEF NO_SYMMETRIC = {.algorithm = TPM2_ALG_NULL, .keyBits = {}, .mode = {}};
constexpr TPMT_SIG_SCHEME SCHEME_OF_KEY = {.scheme = TPM2_ALG_NULL, .details = {}};

const TPM2B_PUBLIC AK_TEMPLATE = {
    .size = 0,
    .publicArea = {
        .type = TPM2_ALG_ECC,
        .nameAlg = TPM2_ALG_SHA256,
        .objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                            TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_SIGN_ENCRYPT,
        .authPolicy = {},
        .parameters = {.eccDetail = {.symmetric = {.algorithm = TPM2_ALG_NULL, .keyBits = {}, .mode = {}},
                                     .scheme = {.scheme = TPM2_ALG_ECDSA,
                                                .details = {.ecdsa = {.hashAlg = TPM2_ALG_SHA256}}},
                                     .curveID = TPM2_ECC_NIST_P256,
                                     .kdf = {.scheme = TPM2_ALG_NULL, .details = {}}}},
        .unique = {.ecc = {}},
    }};

ESYS_CONTEXT* g_pTPM = nullptr;
ESYS_TR g_hEK = ESYS_TR_NONE;
ESYS_TR g_hSession = ESYS_TR_NONE;
ESYS_TR g_hCounter = ESYS_TR_NONE;

[[noreturn]] void fail(const char* what, unsigned code) {
    fprintf(stderr, "report_floor: %s: 0x%x\n", what, code);
    exit(1);
}

void must(TSS2_RC rc, const char* what) {
    if (rc != TSS2_RC_SUCCESS)
        fail(what, rc);
}

// --- context and session ---------------------------------------------------------------------------------------------

// lookFor asks whether the TPM has this object.
void lookFor(TPM2_HANDLE handle) {
    TPMS_CAPABILITY_DATA* found = nullptr;
    must(Esys_GetCapability(g_pTPM, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_HANDLES, handle, 1, nullptr,
                            &found),
         "GetCapability");
    Esys_Free(found);
}

// open looks for an object that is there, and returns its handle.
ESYS_TR open(TPM2_HANDLE handle) {
    ESYS_TR object = ESYS_TR_NONE;
    lookFor(handle);
    must(Esys_TR_FromTPMPublic(g_pTPM, handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &object), "TR_FromTPMPublic");
    return object;
}

ESYS_TR startSession(TPM2_SE type) {
    ESYS_TR session = ESYS_TR_NONE;
    must(Esys_StartAuthSession(g_pTPM, g_hEK, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, nullptr, type,
                               &NO_SYMMETRIC, TPM2_ALG_SHA256, &session),
         "StartAuthSession");
    return session;
}

void setSessionAttributes(TPMA_SESSION flags, TPMA_SESSION mask) {
    must(Esys_TRSess_SetAttributes(g_pTPM, g_hSession, flags, mask), "TRSess_SetAttributes");
}

void flush(ESYS_TR handle) {
    must(Esys_FlushContext(g_pTPM, handle), "FlushContext");
}

void openTPM() {
    TSS2_ABI_VERSION abi = {.tssCreator = 1, .tssFamily = 2, .tssLevel = 1, .tssVersion = 108};
    must(Esys_Initialize(&g_pTPM, nullptr, &abi), "Initialize");
    lookFor(EK_TEMPLATE_INDEX);
    lookFor(EK_NONCE_INDEX);
    g_hEK = open(EK_HANDLE);
    TPM2B_PUBLIC* publicArea = nullptr;
    must(Esys_ReadPublic(g_pTPM, g_hEK, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &publicArea, nullptr, nullptr),
         "ReadPublic");
    Esys_Free(publicArea);
    g_hSession = startSession(TPM2_SE_HMAC);
}

void closeTPM() {
    flush(g_hSession);
    Esys_Finalize(&g_pTPM);
}

// startPolicySession authorises one use of the EK.
ESYS_TR startPolicySession() {
    const ESYS_TR policy = startSession(TPM2_SE_POLICY);
    must(Esys_PolicySecret(g_pTPM, ESYS_TR_RH_ENDORSEMENT, policy, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE, nullptr,
                           nullptr, nullptr, 0, nullptr, nullptr),
         "PolicySecret");
    return policy;
}

// --- counter ---------------------------------------------------------------------------------------------------------

void openCounter() {
    g_hCounter = open(COUNTER_INDEX);
    TPM2B_NV_PUBLIC* publicArea = nullptr;
    setSessionAttributes(TPMA_SESSION_AUDIT, TPMA_SESSION_AUDIT);
    must(Esys_NV_ReadPublic(g_pTPM, g_hCounter, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE, &publicArea, nullptr),
         "NV_ReadPublic");
    setSessionAttributes(0, TPMA_SESSION_AUDIT);
    Esys_Free(publicArea);
}

void readCounter() {
    TPM2B_MAX_NV_BUFFER* data = nullptr;
    must(Esys_NV_Read(g_pTPM, g_hCounter, g_hCounter, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE, sizeof(uint64_t), 0,
                      &data),
         "NV_Read");
    Esys_Free(data);
}

void increment(ESYS_TR index) {
    must(Esys_NV_Increment(g_pTPM, index, index, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE), "NV_Increment");
}

// incrementCounter has the cycle on the temporary index first.
void incrementCounter() {
    const TPM2B_NV_PUBLIC publicArea = {.size = 0,
                                        .nvPublic = {.nvIndex = TEMPORARY_INDEX,
                                                     .nameAlg = TPM2_ALG_SHA256,
                                                     .attributes = COUNTER_ATTRIBUTES,
                                                     .authPolicy = {},
                                                     .dataSize = sizeof(uint64_t)}};
    ESYS_TR temporary = ESYS_TR_NONE;
    lookFor(TEMPORARY_INDEX);
    must(Esys_NV_DefineSpace(g_pTPM, ESYS_TR_RH_OWNER, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE, nullptr, &publicArea,
                             &temporary),
         "NV_DefineSpace");
    increment(temporary);
    must(Esys_NV_UndefineSpace(g_pTPM, ESYS_TR_RH_OWNER, temporary, g_hSession, ESYS_TR_NONE, ESYS_TR_NONE),
         "NV_UndefineSpace");
    increment(g_hCounter);
}

void certifyCounter(ESYS_TR key, const TPM2B_DATA& nonce) {
    TPM2B_ATTEST* attestation = nullptr;
    TPMT_SIGNATURE* signature = nullptr;
    setSessionAttributes(TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITRESET, AUDIT_ATTRIBUTES);
    readCounter();
    setSessionAttributes(TPMA_SESSION_AUDIT | TPMA_SESSION_AUDITEXCLUSIVE, AUDIT_ATTRIBUTES);
    must(Esys_GetSessionAuditDigest(g_pTPM, ESYS_TR_RH_ENDORSEMENT, key, g_hSession, ESYS_TR_PASSWORD, g_hSession,
                                    ESYS_TR_NONE, &nonce, &SCHEME_OF_KEY, &attestation, &signature),
         "GetSessionAuditDigest");
    setSessionAttributes(0, AUDIT_ATTRIBUTES);
    Esys_Free(attestation);
    Esys_Free(signature);
}

// --- attestation key -------------------------------------------------------------------------------------------------

void createKey() {
    const TPM2B_SENSITIVE_CREATE noSensitive = {};
    const TPM2B_DATA noOutsideInfo = {};
    const TPML_PCR_SELECTION noPCR = {};
    TPM2B_PRIVATE* privateArea = nullptr;
    TPM2B_PUBLIC* publicArea = nullptr;
    const ESYS_TR policy = startPolicySession();
    must(Esys_Create(g_pTPM, g_hEK, policy, ESYS_TR_NONE, ESYS_TR_NONE, &noSensitive, &AK_TEMPLATE, &noOutsideInfo,
                     &noPCR, &privateArea, &publicArea, nullptr, nullptr, nullptr),
         "Create");
    flush(policy);
    Esys_Free(privateArea);
    Esys_Free(publicArea);
}

ESYS_TR loadKey(const TPM2B_PUBLIC& publicArea, const TPM2B_PRIVATE& privateArea) {
    ESYS_TR key = ESYS_TR_NONE;
    const ESYS_TR policy = startPolicySession();
    must(Esys_Load(g_pTPM, g_hEK, policy, ESYS_TR_NONE, ESYS_TR_NONE, &privateArea, &publicArea, &key), "Load");
    flush(policy);
    return key;
}

void answerChallenge(ESYS_TR key, const TPM2B_ID_OBJECT& credential, const TPM2B_ENCRYPTED_SECRET& secret) {
    TPM2B_DIGEST* answer = nullptr;
    const ESYS_TR policy = startPolicySession();
    must(Esys_ActivateCredential(g_pTPM, key, g_hEK, g_hSession, policy, ESYS_TR_NONE, &credential, &secret, &answer),
         "ActivateCredential");
    flush(policy);
    Esys_Free(answer);
}

// --- reports ---------------------------------------------------------------------------------------------------------

void report() {
    openTPM();
    openCounter();
    readCounter();
    createKey();
    closeTPM();
}

void reportWithIncrement() {
    openTPM();
    openCounter();
    incrementCounter();
    readCounter();
    createKey();
    closeTPM();
}

// Context is what an attestation context holds for the TPM.
struct Context {
    TPM2B_PUBLIC publicArea = {};
    TPM2B_PRIVATE privateArea = {};
    TPM2B_ID_OBJECT credential = {};
    TPM2B_ENCRYPTED_SECRET secret = {};
    TPM2B_DATA nonce = {};
};

void reportWithContext(const Context& context) {
    openTPM();
    const ESYS_TR key = loadKey(context.publicArea, context.privateArea);
    answerChallenge(key, context.credential, context.secret);
    openCounter();
    certifyCounter(key, context.nonce);
    flush(key);
    closeTPM();
}

// Bytes is a file's content; no library of C++ is needed for it, whose loading would cost time here.
struct Bytes {
    uint8_t data[4096];
    size_t size = 0;
    size_t taken = 0;
};

Bytes readFile(const char* path) {
    Bytes bytes;
    FILE* file = fopen(path, "rb");
    if (!file)
        fail(path, 0);
    bytes.size = fread(bytes.data, 1, sizeof bytes.data, file);
    fclose(file);
    return bytes;
}

// take unmarshals the next structure out of `bytes`.
template <class T>
void take(TSS2_RC (*fromWire)(const uint8_t*, size_t, size_t*, T*), Bytes& bytes, T& structure) {
    must(fromWire(bytes.data, bytes.size, &bytes.taken, &structure), "unmarshalling");
}

Context readContext(char** paths) {
    Context context;
    Bytes publicArea = readFile(paths[0]);
    Bytes privateArea = readFile(paths[1]);
    Bytes challenge = readFile(paths[2]);
    const Bytes nonce = readFile(paths[3]);
    take(Tss2_MU_TPM2B_PUBLIC_Unmarshal, publicArea, context.publicArea);
    take(Tss2_MU_TPM2B_PRIVATE_Unmarshal, privateArea, context.privateArea);
    take(Tss2_MU_TPM2B_ID_OBJECT_Unmarshal, challenge, context.credential);
    take(Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal, challenge, context.secret);
    if (nonce.size > sizeof context.nonce.buffer)
        fail("nonce too long", static_cast<unsigned>(nonce.size));
    context.nonce.size = static_cast<uint16_t>(nonce.size);
    memcpy(context.nonce.buffer, nonce.data, nonce.size);
    return context;
}

}  // namespace

int main(int argc, char** argv) {
    const auto isMode = [&](const char* mode, int count) { return argc == count && strcmp(argv[1], mode) == 0; };
    if (isMode("-d", 2))
        report();
    else if (isMode("-R", 2))
        reportWithIncrement();
    else if (isMode("-A", 6))
        reportWithContext(readContext(argv + 2));
    else
        fail("usage: report_floor -d | -R | -A PUBLIC PRIVATE CHALLENGE NONCE", static_cast<unsigned>(argc));
}
