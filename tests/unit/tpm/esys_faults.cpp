// esys_faults.cpp: the functions of the TSS library that the TPM layer calls, replaced so that the fault injector
// sees them.

#include "unit/tpm/esys_faults.h"

#include <tss2/tss2_mu.h>

#include "unit/tpm/fault_injector.h"

NvCertify g_fNvCertify;

extern "C" {

// --- context, handles and sessions

TSS2_RC Esys_Initialize(ESYS_CONTEXT** context, TSS2_TCTI_CONTEXT* tcti, TSS2_ABI_VERSION* abiVersion) {
    const std::string call = callText(__func__, static_cast<void*>(tcti), abiVersion);
    return interceptAs(call, __func__, Esys_Initialize, context, tcti, abiVersion);
}

void Esys_Finalize(ESYS_CONTEXT** context) {
    interceptAs(__func__, __func__, Esys_Finalize, context);
}

void Esys_Free(void* output) {
    const Unseen unseen;
    realFunction<void(void*)>(__func__)(output);
}

// Esys_FlushContext fails only after it was done, so that nothing stays in the TPM.
TSS2_RC Esys_FlushContext(ESYS_CONTEXT* context, ESYS_TR handle) {
    if (LibraryCall::isUnderWay()) {
        return realFunction<decltype(Esys_FlushContext)>(__func__)(context, handle);
    }
    g_oFaults.enter(callText(__func__, context, handle), __func__);
    const Unseen underWay;
    const TSS2_RC code = realFunction<decltype(Esys_FlushContext)>(__func__)(context, handle);
    return g_oFaults.fault(__func__).value_or(code);
}

TSS2_RC Esys_TR_Close(ESYS_CONTEXT* context, ESYS_TR* handle) {
    const std::string call = LibraryCall::isUnderWay() ? std::string() : callText(__func__, context, *handle);
    return interceptAs(call, __func__, Esys_TR_Close, context, handle);
}

TSS2_RC Esys_TR_FromTPMPublic(ESYS_CONTEXT* context, TPM2_HANDLE handle, ESYS_TR session1, ESYS_TR session2,
                              ESYS_TR session3, ESYS_TR* object) {
    return intercept(__func__, Esys_TR_FromTPMPublic, context, handle, session1, session2, session3, object);
}

TSS2_RC Esys_TR_GetName(ESYS_CONTEXT* context, ESYS_TR handle, TPM2B_NAME** name) {
    return intercept(__func__, Esys_TR_GetName, context, handle, name);
}

TSS2_RC Esys_TRSess_SetAttributes(ESYS_CONTEXT* context, ESYS_TR session, TPMA_SESSION flags, TPMA_SESSION mask) {
    return intercept(__func__, Esys_TRSess_SetAttributes, context, session, flags, mask);
}

TSS2_RC Esys_StartAuthSession(ESYS_CONTEXT* context, ESYS_TR tpmKey, ESYS_TR bind, ESYS_TR session1, ESYS_TR session2,
                              ESYS_TR session3, const TPM2B_NONCE* nonceCaller, TPM2_SE sessionType,
                              const TPMT_SYM_DEF* symmetric, TPMI_ALG_HASH authHash, ESYS_TR* session) {
    return intercept(__func__, Esys_StartAuthSession, context, tpmKey, bind, session1, session2, session3, nonceCaller,
                     sessionType, symmetric, authHash, session);
}

TSS2_RC Esys_PolicySecret(ESYS_CONTEXT* context, ESYS_TR authHandle, ESYS_TR policySession, ESYS_TR session1,
                          ESYS_TR session2, ESYS_TR session3, const TPM2B_NONCE* nonceTPM, const TPM2B_DIGEST* cpHashA,
                          const TPM2B_NONCE* policyRef, INT32 expiration, TPM2B_TIMEOUT** timeout,
                          TPMT_TK_AUTH** policyTicket) {
    return intercept(__func__, Esys_PolicySecret, context, authHandle, policySession, session1, session2, session3,
                     nonceTPM, cpHashA, policyRef, expiration, timeout, policyTicket);
}

TSS2_RC Esys_GetCapability(ESYS_CONTEXT* context, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                           TPM2_CAP capability, UINT32 property, UINT32 propertyCount, TPMI_YES_NO* moreData,
                           TPMS_CAPABILITY_DATA** capabilityData) {
    return intercept(__func__, Esys_GetCapability, context, session1, session2, session3, capability, property,
                     propertyCount, moreData, capabilityData);
}

// --- keys

TSS2_RC Esys_ReadPublic(ESYS_CONTEXT* context, ESYS_TR object, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                        TPM2B_PUBLIC** outPublic, TPM2B_NAME** name, TPM2B_NAME** qualifiedName) {
    return intercept(__func__, Esys_ReadPublic, context, object, session1, session2, session3, outPublic, name,
                     qualifiedName);
}

TSS2_RC Esys_CreatePrimary(ESYS_CONTEXT* context, ESYS_TR primaryHandle, ESYS_TR session1, ESYS_TR session2,
                           ESYS_TR session3, const TPM2B_SENSITIVE_CREATE* inSensitive, const TPM2B_PUBLIC* inPublic,
                           const TPM2B_DATA* outsideInfo, const TPML_PCR_SELECTION* creationPCR, ESYS_TR* object,
                           TPM2B_PUBLIC** outPublic, TPM2B_CREATION_DATA** creationData, TPM2B_DIGEST** creationHash,
                           TPMT_TK_CREATION** creationTicket) {
    return intercept(__func__, Esys_CreatePrimary, context, primaryHandle, session1, session2, session3, inSensitive,
                     inPublic, outsideInfo, creationPCR, object, outPublic, creationData, creationHash, creationTicket);
}

TSS2_RC Esys_EvictControl(ESYS_CONTEXT* context, ESYS_TR auth, ESYS_TR object, ESYS_TR session1, ESYS_TR session2,
                          ESYS_TR session3, TPMI_DH_PERSISTENT persistentHandle, ESYS_TR* newObject) {
    return intercept(__func__, Esys_EvictControl, context, auth, object, session1, session2, session3, persistentHandle,
                     newObject);
}

TSS2_RC Esys_Create(ESYS_CONTEXT* context, ESYS_TR parent, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                    const TPM2B_SENSITIVE_CREATE* inSensitive, const TPM2B_PUBLIC* inPublic,
                    const TPM2B_DATA* outsideInfo, const TPML_PCR_SELECTION* creationPCR, TPM2B_PRIVATE** outPrivate,
                    TPM2B_PUBLIC** outPublic, TPM2B_CREATION_DATA** creationData, TPM2B_DIGEST** creationHash,
                    TPMT_TK_CREATION** creationTicket) {
    return intercept(__func__, Esys_Create, context, parent, session1, session2, session3, inSensitive, inPublic,
                     outsideInfo, creationPCR, outPrivate, outPublic, creationData, creationHash, creationTicket);
}

TSS2_RC Esys_Load(ESYS_CONTEXT* context, ESYS_TR parent, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                  const TPM2B_PRIVATE* inPrivate, const TPM2B_PUBLIC* inPublic, ESYS_TR* object) {
    return intercept(__func__, Esys_Load, context, parent, session1, session2, session3, inPrivate, inPublic, object);
}

TSS2_RC Esys_ActivateCredential(ESYS_CONTEXT* context, ESYS_TR activateHandle, ESYS_TR keyHandle, ESYS_TR session1,
                                ESYS_TR session2, ESYS_TR session3, const TPM2B_ID_OBJECT* credentialBlob,
                                const TPM2B_ENCRYPTED_SECRET* secret, TPM2B_DIGEST** certInfo) {
    return intercept(__func__, Esys_ActivateCredential, context, activateHandle, keyHandle, session1, session2,
                     session3, credentialBlob, secret, certInfo);
}

// --- NV indices and attestation

TSS2_RC Esys_NV_ReadPublic(ESYS_CONTEXT* context, ESYS_TR index, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                           TPM2B_NV_PUBLIC** nvPublic, TPM2B_NAME** nvName) {
    return intercept(__func__, Esys_NV_ReadPublic, context, index, session1, session2, session3, nvPublic, nvName);
}

TSS2_RC Esys_NV_Read(ESYS_CONTEXT* context, ESYS_TR auth, ESYS_TR index, ESYS_TR session1, ESYS_TR session2,
                     ESYS_TR session3, UINT16 size, UINT16 offset, TPM2B_MAX_NV_BUFFER** data) {
    return intercept(__func__, Esys_NV_Read, context, auth, index, session1, session2, session3, size, offset, data);
}

TSS2_RC Esys_NV_Increment(ESYS_CONTEXT* context, ESYS_TR auth, ESYS_TR index, ESYS_TR session1, ESYS_TR session2,
                          ESYS_TR session3) {
    return intercept(__func__, Esys_NV_Increment, context, auth, index, session1, session2, session3);
}

TSS2_RC Esys_NV_DefineSpace(ESYS_CONTEXT* context, ESYS_TR auth, ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                            const TPM2B_AUTH* authValue, const TPM2B_NV_PUBLIC* publicInfo, ESYS_TR* index) {
    return intercept(__func__, Esys_NV_DefineSpace, context, auth, session1, session2, session3, authValue, publicInfo,
                     index);
}

TSS2_RC Esys_NV_UndefineSpace(ESYS_CONTEXT* context, ESYS_TR auth, ESYS_TR index, ESYS_TR session1, ESYS_TR session2,
                              ESYS_TR session3) {
    return intercept(__func__, Esys_NV_UndefineSpace, context, auth, index, session1, session2, session3);
}

TSS2_RC Esys_NV_Certify(ESYS_CONTEXT* context, ESYS_TR sign, ESYS_TR auth, ESYS_TR index, ESYS_TR session1,
                        ESYS_TR session2, ESYS_TR session3, const TPM2B_DATA* qualifyingData,
                        const TPMT_SIG_SCHEME* inScheme, UINT16 size, UINT16 offset, TPM2B_ATTEST** certifyInfo,
                        TPMT_SIGNATURE** signature) {
    if (g_fNvCertify) {
        return g_fNvCertify(certifyInfo, signature);
    }
    return intercept(__func__, Esys_NV_Certify, context, sign, auth, index, session1, session2, session3,
                     qualifyingData, inScheme, size, offset, certifyInfo, signature);
}

TSS2_RC Esys_GetSessionAuditDigest(ESYS_CONTEXT* context, ESYS_TR privacyAdmin, ESYS_TR sign, ESYS_TR session,
                                   ESYS_TR session1, ESYS_TR session2, ESYS_TR session3,
                                   const TPM2B_DATA* qualifyingData, const TPMT_SIG_SCHEME* inScheme,
                                   TPM2B_ATTEST** auditInfo, TPMT_SIGNATURE** signature) {
    return intercept(__func__, Esys_GetSessionAuditDigest, context, privacyAdmin, sign, session, session1, session2,
                     session3, qualifyingData, inScheme, auditInfo, signature);
}

// --- marshalling

TSS2_RC Tss2_MU_TPM2B_PUBLIC_Marshal(const TPM2B_PUBLIC* source, uint8_t buffer[], size_t size, size_t* offset) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_PUBLIC_Marshal, source, buffer, size, offset);
}

TSS2_RC Tss2_MU_TPM2B_PRIVATE_Marshal(const TPM2B_PRIVATE* source, uint8_t buffer[], size_t size, size_t* offset) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_PRIVATE_Marshal, source, buffer, size, offset);
}

TSS2_RC Tss2_MU_TPM2B_PUBLIC_Unmarshal(const uint8_t buffer[], size_t size, size_t* offset, TPM2B_PUBLIC* target) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_PUBLIC_Unmarshal, buffer, size, offset, target);
}

TSS2_RC Tss2_MU_TPM2B_PRIVATE_Unmarshal(const uint8_t buffer[], size_t size, size_t* offset, TPM2B_PRIVATE* target) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_PRIVATE_Unmarshal, buffer, size, offset, target);
}

TSS2_RC Tss2_MU_TPM2B_ID_OBJECT_Unmarshal(const uint8_t buffer[], size_t size, size_t* offset,
                                          TPM2B_ID_OBJECT* target) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_ID_OBJECT_Unmarshal, buffer, size, offset, target);
}

TSS2_RC Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal(const uint8_t buffer[], size_t size, size_t* offset,
                                                 TPM2B_ENCRYPTED_SECRET* target) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal, buffer, size, offset, target);
}

TSS2_RC Tss2_MU_UINT64_Unmarshal(const uint8_t buffer[], size_t size, size_t* offset, UINT64* target) {
    const std::string call = callText(__func__, size);
    return interceptAs(call, __func__, Tss2_MU_UINT64_Unmarshal, buffer, size, offset, target);
}

}  // extern "C"
