// tpm2_attestor.h: the system's only access to the device's TPM 2.0: endorsement key, attestation key, and the tally
// counter, read, incremented and certified.
//
// It uses the Enhanced System API (ESYS) of the TCG software stack, whose default chooses the connection. Endorsement
// and owner hierarchy, keys and NV indices are all used with the empty authorisation value: no password is set or
// stored anywhere.
//
// No operation throws because of a failure of the TPM or of the stack: it makes a record through the logger "orv.tally"
// and returns false, an empty vector, text or pair, or a null holder. The instance stays open and usable; what an
// earlier step of the same operation made (a counter, an AK) stays. Only exhausted memory throws, and the holders then
// release the TPM's resources. Byte vectors hold TPM structures in their wire form.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tpm/esys_holders.h"

// The types of the TPM software stack, so that its headers reach only those who use them.
struct TPM2B_DATA;
struct TPM2B_DIGEST;
struct TPM2B_ENCRYPTED_SECRET;
struct TPM2B_ID_OBJECT;
struct TPM2B_MAX_NV_BUFFER;
struct TPM2B_NAME;
struct TPM2B_NV_PUBLIC;
struct TPM2B_PRIVATE;
struct TPM2B_PUBLIC;
struct TPMT_PUBLIC;
struct TPMT_SIGNATURE;
using TPM2_HANDLE = uint32_t;

// TPM2Attestor is one connection to the TPM.
//
// Life: made closed, without touching the TPM; `open`; any operation; `close` or the destructor. It may be opened
// again. An open instance owns the ESYS context, an HMAC session salted with the endorsement key (EK), the EK itself,
// and as soon as they are needed the attestation key (AK) and the handle of the tally counter. Operations that need the
// TPM fail with the record "TPM2 not open" on a closed instance.
//
// What stays in the TPM after `close`: the EK at its persistent handle, the counter, and on the run that made the EK
// its transient copy, until the TPM starts again.
//
// Threads: one at a time for each instance. No operation is atomic with respect to other programs that use the same
// TPM.
class TPM2Attestor {
public:
    // Bytes is the form in which all blobs of the TPM leave this class.
    using Bytes = std::vector<unsigned char>;

    TPM2Attestor();
    TPM2Attestor(const TPM2Attestor&) = delete;
    TPM2Attestor& operator=(const TPM2Attestor&) = delete;
    ~TPM2Attestor();

    // isEnabled returns whether this build uses a TPM: always true.
    static bool isEnabled();

    // isOpen returns whether the instance has a connection.
    bool isOpen() const { return m_pContext != nullptr; }

    // open connects, finds or makes the EK and starts the salted session. On false everything is released again; an
    // instance that was open already stays as it is.
    bool open();

    // close releases all that `open` and later operations took. It does nothing on a closed instance.
    void close();

    // --- endorsement key ---------------------------------------------------------------------------------------------

    // getEndorsementKeyTPMPub returns the EK's public area as a marshalled TPM2B_PUBLIC.
    Bytes getEndorsementKeyTPMPub();

    // getEndorsementKeyPEM and getEndorsementKeyDER return its SubjectPublicKeyInfo (RFC 5280, 4.1).
    std::string getEndorsementKeyPEM();
    Bytes getEndorsementKeyDER();

    // --- attestation key ---------------------------------------------------------------------------------------------

    // loadAttestationKey loads an AK that an earlier run handed out: a marshalled TPM2B_PUBLIC and TPM2B_PRIVATE. It
    // must be a restricted signing key and a child of this TPM's EK; on false the AK in use stays.
    bool loadAttestationKey(Bytes publicArea, Bytes privateArea);

    // activateAttestationKey answers a credential challenge, a marshalled TPM2B_ID_OBJECT followed by a marshalled
    // TPM2B_ENCRYPTED_SECRET, and returns the secret. Only a loaded AK can be activated. Bytes after the challenge are
    // ignored.
    Bytes activateAttestationKey(Bytes blob);

    // getAttestationKeyTPMPubPriv returns the AK as `loadAttestationKey` takes it, first public, second private area.
    // A missing AK is made first. It loads nothing.
    std::pair<Bytes, Bytes> getAttestationKeyTPMPubPriv();

    // --- tally counter -----------------------------------------------------------------------------------------------

    // incrementCounter adds one to the tally counter. A missing counter is made first, and making it adds one as well.
    bool incrementCounter();

    // readCounter reads the tally counter into `value`, which is left as it was on failure. A missing counter is made
    // first.
    bool readCounter(uint64_t* value);

    // certifyCounterWithAudit reads the counter in a TPM audit session and has the AK sign the session's digest
    // together with `qualifyingData` (the caller's nonce, 64 bytes at most). A missing AK and a missing counter are
    // made first.
    //
    // It returns a marshalled TPMS_ATTEST and the ECDSA signature over it in DER; `counter` is what the attestation
    // covers, and may be written even on failure. Other clients of the TPM can end the session's exclusivity:
    // certifyCounterWithAudit then tries again, ten times in all, and sleeps up to a second before each further
    // attempt.
    std::pair<Bytes, Bytes> certifyCounterWithAudit(uint64_t* counter, const Bytes& qualifyingData);

    // certifyCounterWithCmd does the same in the single TPM command NV_Certify. Nothing here calls it. Kept: it is the
    // short alternative on TPMs that take it with one authorisation.
    std::pair<Bytes, Bytes> certifyCounterWithCmd(const Bytes& qualifyingData);

    // --- conversions: pure functions, usable from any thread ---------------------------------------------------------

    // eccPubkeyToOssl returns an ECC key on NIST P-256 as an OpenSSL key; null for any other key and for a point that
    // is not on the curve.
    static EC_KEY_UPtr eccPubkeyToOssl(const TPMT_PUBLIC* publicArea);

    // ecdsaToOssl returns an ECDSA signature as an OpenSSL object; null for a signature of another scheme.
    static ECDSA_SIG_UPtr ecdsaToOssl(const TPMT_SIGNATURE* signature);

    // toPEM returns the SubjectPublicKeyInfo of `key` as a PEM block; empty for a null key, with a record.
    static std::string toPEM(const EC_KEY_UPtr& key);

    // toDER returns the SubjectPublicKeyInfo of `key`, or the SEQUENCE of r and s, in DER; empty and without a record
    // for null.
    static Bytes toDER(const EC_KEY_UPtr& key);
    static Bytes toDER(const ECDSA_SIG_UPtr& signature);

    // --- steps of the operations above, on an open instance ----------------------------------------------------------

    // getTPMObject writes an ESYS handle for `handle`, a persistent object or NV index, to `out`, or `NO_HANDLE` if the
    // TPM has no such object. It returns whether the TPM answered. It works without a session.
    bool getTPMObject(TPM2_HANDLE handle, ESYS_TR* out);

    // createEK finds the EK at its persistent handle or makes it and saves it there, by the rules of the TCG EK
    // Credential Profile: template L-2, unless NV indices of the TPM's maker hold another one. It works without a
    // session, but then those indices can't be read.
    bool createEK();

    // createEHPolSession returns a new policy session that authorises one use of the EK; an empty holder on failure.
    ESysTransient createEHPolSession();

    // readNVIndex reads the whole NV index into `out`, in chunks of 512 bytes at most. On false `out` holds what was
    // read until then.
    bool readNVIndex(ESYS_TR index, Bytes* out);

    // getEkPubkeyOssl returns the EK as an OpenSSL key.
    EC_KEY_UPtr getEkPubkeyOssl();

    // createAK makes a new AK without loading it. An AK that was loaded until now is flushed.
    bool createAK();

    // loadAK loads an AK and keeps copies of its areas; on false nothing changes.
    bool loadAK(const TPM2B_PUBLIC* publicArea, const TPM2B_PRIVATE* privateArea);

    // activateAK answers a credential challenge with the loaded AK.
    ESysOutUPtr<TPM2B_DIGEST> activateAK(const TPM2B_ID_OBJECT* credential, const TPM2B_ENCRYPTED_SECRET* secret);

    // openCounter finds or makes the counter and checks it; on false no handle of it is kept.
    bool openCounter();

    // defineCounter makes the counter's NV index, never written.
    bool defineCounter();

    // checkCounter tests kind and name of the index that the counter's handle refers to. An index that was never
    // written is incremented first, because it has no value yet.
    bool checkCounter();

    // incrementOpenCounter increments the counter once, after workaroundCounterRollbackOnClear.
    bool incrementOpenCounter();

    // workaroundCounterRollbackOnClear defines a temporary counter, increments it and removes it. A TPM starts a new
    // counter at the highest value that any counter ever had, and keeps that value for good; passing it through here
    // keeps the tally counter from rolling back when the TPM is cleared. What an interrupted run left is taken over or
    // removed.
    bool workaroundCounterRollbackOnClear();

    // ms_sEcc256EKTemplateL2 is template L-2 of the TCG EK Credential Profile (B.3.4), the default EK.
    static const TPM2B_PUBLIC ms_sEcc256EKTemplateL2;

    // ms_sEcc256AKTemplate makes a restricted ECDSA signing key on NIST P-256.
    static const TPM2B_PUBLIC ms_sEcc256AKTemplate;

    // ms_sCounterPublicTemplate is the public area of the tally counter's NV index before its first write.
    static const TPM2B_NV_PUBLIC ms_sCounterPublicTemplate;

    // ms_sCounterName is the TPM's name of that index after its first write.
    static const TPM2B_NAME ms_sCounterName;

private:
    bool requireOpen() const;
    bool startSession(ESysTransient& session, uint8_t type, const char* failure);
    uint32_t setSessionAttributes(uint8_t flags, uint8_t mask);
    uint32_t readNVPublic(ESYS_TR index, ESysOutUPtr<TPM2B_NV_PUBLIC>& publicArea);

    bool haveEK();
    bool chooseEKTemplate(TPM2B_PUBLIC* ekTemplate);
    bool readEKTemplate(ESYS_TR index, TPM2B_PUBLIC* ekTemplate);
    bool applyEKNonce(ESYS_TR index, TPM2B_PUBLIC* ekTemplate);
    bool takePersistentEK(ESysClosable& persistent, const TPM2B_PUBLIC& ekTemplate);
    bool createPrimaryEK(const TPM2B_PUBLIC& ekTemplate, ESysTransient& primary, ESysOutUPtr<TPM2B_PUBLIC>& publicArea);
    void saveEK(ESysTransient& primary, ESysClosable& persistent);
    void releaseEK();

    bool haveAK();
    void keepAKAreas(const TPM2B_PUBLIC& publicArea, const TPM2B_PRIVATE& privateArea);

    bool haveCounter();
    bool checkCounterName();
    uint32_t readOpenCounter(ESysOutUPtr<TPM2B_MAX_NV_BUFFER>& data);
    uint32_t defineIndex(const TPM2B_NV_PUBLIC& publicArea, ESysClosable& index);
    uint32_t incrementIndex(const ESysClosable& index);
    bool takeLeftOver(ESysClosable& temporary, const TPM2B_NV_PUBLIC& expected);
    bool undefineTemporary(ESysClosable& temporary, const char* failure);

    struct AuditedReading;
    bool prepareCertification();
    void readAudited(AuditedReading& reading, const TPM2B_DATA& qualifyingData);
    bool attemptAuditedReading(AuditedReading& reading, const TPM2B_DATA& qualifyingData);

    ESysTransient m_oSession;
    ESysClosable m_oCounter;

    // m_hEK and m_bEKPersistent keep their values through `close` until the next `createEK` sets them. Kept: an `open`
    // that fails before it has an EK thus reports on standard error that the old handle couldn't be released.
    ESYS_TR m_hEK = ESysResource::NO_HANDLE;

    // m_bEKPersistent is whether `m_hEK` refers to a persistent object, which is closed and not flushed.
    bool m_bEKPersistent = false;

    ESysOutUPtr<TPM2B_PUBLIC> m_pEKPublic;

    // m_pAKPublic and m_pAKPrivate may be set while `m_oAK` is empty: the AK exists then, but is not loaded.
    std::unique_ptr<TPM2B_PUBLIC> m_pAKPublic;
    std::unique_ptr<TPM2B_PRIVATE> m_pAKPrivate;
    ESysTransient m_oAK;

    // m_pContext is null while the instance is closed.
    ESYS_CONTEXT* m_pContext = nullptr;
};
