// tpm2_attestation_key_test.cpp: making, loading and handing out the attestation key, and answering the credential
// challenge.

#include <openssl/evp.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

using Areas = std::pair<Bytes, Bytes>;

const Areas NO_AREAS;

// TEMPLATE is a marshalled TPM2B_PUBLIC: size, type, nameAlg, attributes, policy (none), symmetric (null), scheme
// (ECDSA, SHA-256), curve, kdf (null), unique (empty).
const std::string TEMPLATE = "0018"
                             "0023"
                             "000b"
                             "00050072"
                             "0000"
                             "0010"
                             "0018"
                             "000b"
                             "0003"
                             "0010"
                             "0000"
                             "0000";

const Lines CREATED = {"DEBUG creating ECC AK", "DEBUG TPM2 salted policy session established", "DEBUG created ECC AK"};

const Lines LOADED = {"DEBUG TPM2 salted policy session established"};

const char* const NONE_LOADED = "ERROR cannot activate attestation key if none is loaded";

// unmarshalCode is what the library says of bytes that are to be a structure.
template <class Structure>
TSS2_RC unmarshalCode(const Bytes& bytes, TSS2_RC (*unmarshal)(const uint8_t[], size_t, size_t*, Structure*)) {
    const Unseen unseen;
    Structure structure{};
    size_t offset = 0;
    return unmarshal(bytes.data(), bytes.size(), &offset, &structure);
}

// AttestationKey is opened on a TPM whose EK an earlier run made.
class AttestationKey : public TPMTest {
protected:
    void SetUp() override {
        makeEK();
        open();
    }

    // created makes an AK.
    Areas created() {
        Areas areas = attestor().getAttestationKeyTPMPubPriv();
        EXPECT_FALSE(areas.first.empty());
        EXPECT_FALSE(areas.second.empty());
        clear();
        return areas;
    }

    // loaded makes an AK and loads it.
    Areas loaded() {
        Areas areas = created();
        EXPECT_TRUE(attestor().loadAttestationKey(areas.first, areas.second));
        clear();
        return areas;
    }

    // nameOf is the name of a key with this public area: algorithm and digest of the area without its size.
    static std::string nameOf(const Bytes& publicArea) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        EVP_Digest(publicArea.data() + 2, publicArea.size() - 2, digest, &size, EVP_sha256(), nullptr);
        return "000b" + hex(digest, size);
    }

    // challenge has the TPM's own tools make a credential challenge for the key with this name.
    Bytes challenge(const std::string& name, const Bytes& secret) {
        write("ek.pub", attestor().getEndorsementKeyTPMPub());
        write("secret", secret);
        tool("tpm2_makecredential -Q -T none -u " + path("ek.pub") + " -s " + path("secret") + " -n " + name + " -o " +
             path("challenge"));
        const Bytes file = read("challenge");
        EXPECT_GT(file.size(), 8U);
        clear();
        return {file.begin() + 8, file.end()};  // after the file's own head
    }

    // idObjectSize is the size of the first part of a challenge.
    static size_t idObjectSize(const Bytes& blob) { return 2 + size_t{blob[0]} * 256 + blob[1]; }

    // expectPolicySessionGone: the instance's own session is the only one.
    static void expectPolicySessionGone() { EXPECT_EQ(loadedSessions(), "- 0x2000000\n"); }

    // expectLoaded expects that the AK in use is the one with these areas.
    void expectLoaded(const Areas& areas) {
        g_oFaults.reset();
        const Bytes secret = {1, 2, 3};
        EXPECT_EQ(attestor().activateAttestationKey(challenge(nameOf(areas.first), secret)), secret);
        EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
    }

    void expectNoneLoaded() {
        g_oFaults.reset();
        clear();
        EXPECT_THAT(attestor().activateAttestationKey({}), IsEmpty());
        EXPECT_THAT(lines(), ElementsAre(NONE_LOADED));
        EXPECT_EQ(transientObjects(), "");
    }
};

TEST_F(AttestationKey, TemplateIsExactByteByByte) {
    const TPM2B_PUBLIC& publicArea = TPM2Attestor::ms_sEcc256AKTemplate;
    unsigned char buffer[sizeof(TPM2B_PUBLIC)];
    size_t size = 0;
    ASSERT_EQ(Tss2_MU_TPM2B_PUBLIC_Marshal(&publicArea, buffer, sizeof(buffer), &size), TSS2_RC_SUCCESS);
    EXPECT_EQ(hex(buffer, size), TEMPLATE);
    EXPECT_EQ(publicArea.size, 0);
    EXPECT_EQ(publicArea.publicArea.parameters.eccDetail.symmetric.keyBits.sym, 0);
    EXPECT_EQ(publicArea.publicArea.parameters.eccDetail.symmetric.mode.sym, 0);
}

// --- createAK

TEST_F(AttestationKey, CreateMakesButDoesNotLoad) {
    EXPECT_TRUE(attestor().createAK());
    EXPECT_EQ(lines(), CREATED);
    EXPECT_THAT(
        g_oFaults.calls(),
        ElementsAre("Esys_StartAuthSession 0x8101000a none none none none null 0x1 {0x10,0,0x0} 0xb &",
                    "Esys_PolicySecret endorsement 0x3000001 0x2000000 none none null null null 0x0 null null",
                    "Esys_Create 0x8101000a 0x3000001 none none zero " + TEMPLATE + " [] pcrs:0 out out null null null",
                    "Esys_FlushContext 0x3000001"));
    EXPECT_EQ(transientObjects(), "");
    expectPolicySessionGone();
}

TEST_F(AttestationKey, EachCreatedKeyIsNew) {
    const Areas first = created();
    EXPECT_TRUE(attestor().createAK());
    const Areas second = attestor().getAttestationKeyTPMPubPriv();
    EXPECT_NE(first.first, second.first);
    EXPECT_NE(first.second, second.second);
}

TEST_F(AttestationKey, CreateWhileAKeyIsLoadedEmptiesIt) {
    loaded();
    EXPECT_NE(transientObjects(), "");
    EXPECT_TRUE(attestor().createAK());
    EXPECT_EQ(lines(), CREATED);
    EXPECT_EQ(g_oFaults.made("Esys_FlushContext"), 2U);
    expectNoneLoaded();
}

TEST_F(AttestationKey, FailedCreationChangesNothing) {
    const struct {
        const char* function;
        Lines records;
    } ROWS[] = {
        {"Esys_StartAuthSession",
         {"DEBUG creating ECC AK", "ERROR " + failedWith("failed to create TPM2 session for endorsement hierarchy")}},
        {"Esys_PolicySecret",
         {"DEBUG creating ECC AK", LOADED[0],
          "ERROR " + failedWith("failed to set secret on policy session for endorsement hierarchy")}},
        {"Esys_Create",
         {"DEBUG creating ECC AK", LOADED[0],
          "ERROR " + failedWith("failed to create attestation key in endorsement hierarchy")}},
    };
    const Areas areas = loaded();
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.function);
        clear();
        g_oFaults.reset();
        g_oFaults.fail(row.function);
        EXPECT_FALSE(attestor().createAK());
        EXPECT_EQ(lines(), row.records);
        expectPolicySessionGone();
        expectLoaded(areas);
    }
}

// --- loadAK, loadAttestationKey

TEST_F(AttestationKey, LoadTakesAPolicySessionAndKeepsTheAreas) {
    const Areas areas = created();
    EXPECT_TRUE(attestor().loadAttestationKey(areas.first, areas.second));
    EXPECT_EQ(lines(), LOADED);
    const std::string publicArea = hex(areas.first);
    EXPECT_THAT(g_oFaults.commands(), UnorderedElementsAre("StartAuthSession", "PolicySecret", "Load", "FlushContext"));
    EXPECT_THAT(g_oFaults.calls("Esys_Load"),
                ElementsAre("Esys_Load 0x8101000a 0x3000001 none none & " + publicArea + " &"));
    EXPECT_THAT(g_oFaults.calls("Tss2_MU_TPM2B_PRIVATE_Unmarshal"),
                ElementsAre("Tss2_MU_TPM2B_PRIVATE_Unmarshal 0x80"));
    EXPECT_THAT(transientObjects(), StartsWith("- 0x8000000"));
    expectPolicySessionGone();
    expectLoaded(areas);
}

TEST_F(AttestationKey, KeyOfAnEarlierRunIsReturnedByteForByte) {
    const Areas areas = created();
    openAgain();
    EXPECT_TRUE(attestor().loadAttestationKey(areas.first, areas.second));
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
    EXPECT_EQ(g_oFaults.made("Esys_Create"), 0U);
    expectLoaded(areas);
}

TEST_F(AttestationKey, BytesAfterThePublicAreaAreIgnored) {
    const Areas areas = created();
    Bytes longer = areas.first;
    longer.push_back(0x55);
    EXPECT_TRUE(attestor().loadAttestationKey(longer, areas.second));
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
}

TEST_F(AttestationKey, OnlyRestrictedSigningKeysAreLoaded) {
    const struct {
        const char* what;
        uint32_t attributes;
        const char* record;
    } ROWS[] = {
        {"not restricted", 0x00040072,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0x40072)"},
        {"not for signing", 0x00010072,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0x10072)"},
        {"restricted for decryption", 0x00030072,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0x30072)"},
        {"neither", 0x00000072,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0x72)"},
        {"none at all", 0,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0x0)"},
        {"all but restricted", 0xfffeffff,
         "ERROR an attestation key must be a restricted signing key, cannot load key with attributes 0xfffeffff)"},
    };
    const Areas areas = loaded();
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        clear();
        Bytes publicArea = areas.first;
        for (int i = 0; i < 4; ++i) {
            publicArea[static_cast<size_t>(6 + i)] = static_cast<unsigned char>(row.attributes >> (24 - 8 * i));
        }
        EXPECT_FALSE(attestor().loadAttestationKey(publicArea, areas.second));
        EXPECT_THAT(lines(), ElementsAre(row.record));
        EXPECT_THAT(g_oFaults.commands(), IsEmpty());
    }
    expectLoaded(areas);
}

TEST_F(AttestationKey, MoreAttributesPassTheTest) {
    const Areas areas = created();
    Bytes publicArea = areas.first;
    publicArea[8] |= 0x04;  // TPMA_OBJECT_NODA; the TPM then finds that the two areas do not belong together
    EXPECT_FALSE(attestor().loadAttestationKey(publicArea, areas.second));
    EXPECT_THAT(lines(), ElementsAre(LOADED[0], StartsWith("ERROR failed to load attestation key in endorsement "
                                                           "hierarchy: ")));
}

TEST_F(AttestationKey, FailedLoadingChangesNothing) {
    const struct {
        const char* function;
        Lines records;
    } ROWS[] = {
        {"Esys_StartAuthSession", {"ERROR " + failedWith("failed to create TPM2 session for endorsement hierarchy")}},
        {"Esys_PolicySecret",
         {LOADED[0], "ERROR " + failedWith("failed to set secret on policy session for endorsement hierarchy")}},
        {"Esys_Load", {LOADED[0], "ERROR " + failedWith("failed to load attestation key in endorsement hierarchy")}},
    };
    const Areas other = created();
    ASSERT_TRUE(attestor().createAK());
    const Areas areas = loaded();
    ASSERT_NE(areas, other);
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.function);
        clear();
        g_oFaults.reset();
        g_oFaults.fail(row.function);
        EXPECT_FALSE(attestor().loadAttestationKey(other.first, other.second));
        EXPECT_EQ(lines(), row.records);
        expectPolicySessionGone();
        expectLoaded(areas);
    }
}

TEST_F(AttestationKey, LoadingAnotherKeyFlushesTheOneInUse) {
    const Areas first = loaded();
    ASSERT_TRUE(attestor().createAK());
    const Areas second = created();
    ASSERT_NE(first, second);
    ASSERT_TRUE(attestor().loadAttestationKey(second.first, second.second));
    ASSERT_TRUE(attestor().loadAttestationKey(first.first, first.second));
    const std::string objects = transientObjects();
    EXPECT_EQ(objects.find('-'), objects.rfind('-')) << objects;
    expectLoaded(first);
}

TEST_F(AttestationKey, SameKeyMayBeLoadedAgain) {
    const Areas areas = loaded();
    EXPECT_TRUE(attestor().loadAttestationKey(areas.first, areas.second));
    const std::string objects = transientObjects();
    EXPECT_EQ(objects.find('-'), objects.rfind('-')) << objects;
    expectLoaded(areas);
}

TEST_F(AttestationKey, MalformedPublicAreaIsRefused) {
    const Areas areas = loaded();
    for (const size_t size : {1U, 2U, 3U, 10U, 89U}) {
        clear();
        const Bytes cut(areas.first.begin(), areas.first.begin() + static_cast<ptrdiff_t>(size));
        const TSS2_RC code = unmarshalCode(cut, Tss2_MU_TPM2B_PUBLIC_Unmarshal);
        ASSERT_NE(code, TSS2_RC_SUCCESS) << size;
        EXPECT_FALSE(attestor().loadAttestationKey(cut, areas.second));
        EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed de-serializing AK areas", code))) << size;
        EXPECT_THAT(g_oFaults.commands(), IsEmpty());
    }
    clear();
    EXPECT_FALSE(attestor().loadAttestationKey({}, areas.second));
    EXPECT_THAT(lines(), ElementsAre(StartsWith("ERROR failed de-serializing AK areas: ")));
    expectLoaded(areas);
}

TEST_F(AttestationKey, MalformedPrivateAreaFailsInTheTPM) {
    const Areas areas = created();
    const Bytes& good = areas.second;
    Bytes tampered = good;
    tampered.back() ^= 1;
    const struct {
        const char* what;
        Bytes privateArea;
    } ROWS[] = {
        {"empty", {}},
        {"one byte", {0}},
        {"cut", Bytes(good.begin(), good.begin() + 60)},
        {"size beyond the structure", {0xff, 0xff, 1, 2, 3}},
        {"size 0", {0, 0}},
        {"tampered with", tampered},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        clear();
        EXPECT_FALSE(attestor().loadAttestationKey(areas.first, row.privateArea));
        EXPECT_THAT(lines(), ElementsAre(LOADED[0], StartsWith("ERROR failed to load attestation key in endorsement "
                                                               "hierarchy: ")));
        EXPECT_EQ(g_oFaults.made("Esys_Load"), 1U);
    }
    clear();
    attestor().loadAttestationKey(areas.first, {});
    EXPECT_EQ(lines()[1], "ERROR " + failedWith("failed to load attestation key in endorsement hierarchy", 0x1d5));
    expectPolicySessionGone();
    expectNoneLoaded();
}

TEST_F(AttestationKey, KeyOfAnotherTPMIsRefused) {
    const Areas areas = created();
    renewTPM();
    makeEK();
    open();
    EXPECT_FALSE(attestor().loadAttestationKey(areas.first, areas.second));
    EXPECT_EQ(problems(),
              Lines{"ERROR " + failedWith("failed to load attestation key in endorsement hierarchy", 0x1df)});
}

// --- getAttestationKeyTPMPubPriv

TEST_F(AttestationKey, FirstRequestMakesAKey) {
    const Areas areas = attestor().getAttestationKeyTPMPubPriv();
    EXPECT_EQ(lines(), CREATED);
    EXPECT_EQ(areas.first.size(), 90U);
    EXPECT_EQ(areas.second.size(), 128U);
    EXPECT_EQ(hex(areas.first).substr(0, 40), "0058" + TEMPLATE.substr(4, 36));
    EXPECT_THAT(g_oFaults.calls("Tss2_MU_TPM2B_PUBLIC_Marshal"), ElementsAre("Tss2_MU_TPM2B_PUBLIC_Marshal 0x268"));
    EXPECT_THAT(g_oFaults.calls("Tss2_MU_TPM2B_PRIVATE_Marshal"), ElementsAre("Tss2_MU_TPM2B_PRIVATE_Marshal 0x610"));
    EXPECT_EQ(g_oFaults.made("Esys_Load"), 0U);
    EXPECT_EQ(transientObjects(), "");

    clear();
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.commands(), IsEmpty());
}

TEST_F(AttestationKey, TPMsOwnToolsLoadIt) {
    const Areas areas = created();
    write("ak.pub", areas.first);
    write("ak.priv", areas.second);
    m_oTPM->endAttestor();
    tool("tpm2_startauthsession -Q --policy-session -S " + path("session"));
    tool("tpm2_policysecret -Q -S " + path("session") + " -c e");
    tool("tpm2_load -Q -C 0x8101000a -P session:" + path("session") + " -u " + path("ak.pub") + " -r " +
         path("ak.priv") + " -c " + path("ak.ctx") + " -n " + path("ak.name"));
    EXPECT_EQ(hex(read("ak.name")), nameOf(areas.first));
    EXPECT_THAT(tool("tpm2_readpublic -c " + path("ak.ctx")),
                AllOf(HasSubstr("value: fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|sign"),
                      HasSubstr("value: NIST p256"), HasSubstr("value: ecdsa")));
}

TEST_F(AttestationKey, FailedCreationReturnsNoAreas) {
    g_oFaults.fail("Esys_Create");
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), NO_AREAS);
    EXPECT_THAT(problems(),
                ElementsAre("ERROR " + failedWith("failed to create attestation key in endorsement hierarchy")));
    EXPECT_NE(attestor().getAttestationKeyTPMPubPriv(), NO_AREAS);
}

TEST_F(AttestationKey, FailedMarshallingReturnsNoAreas) {
    const Areas areas = created();
    for (const char* const function : {"Tss2_MU_TPM2B_PUBLIC_Marshal", "Tss2_MU_TPM2B_PRIVATE_Marshal"}) {
        clear();
        g_oFaults.reset();
        g_oFaults.fail(function);
        EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), NO_AREAS) << function;
        EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed serializing AK areas"))) << function;
    }
    g_oFaults.reset();
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
}

// --- activateAK, activateAttestationKey

TEST_F(AttestationKey, ChallengeIsAnswered) {
    const Areas areas = loaded();
    for (const size_t size : {1U, 16U, 32U}) {
        const Bytes secret(size, 0x5a);
        const Bytes blob = challenge(nameOf(areas.first), secret);
        EXPECT_EQ(attestor().activateAttestationKey(blob), secret);
        EXPECT_EQ(lines(), LOADED);
        expectPolicySessionGone();
    }
    EXPECT_THAT(g_oFaults.commands(),
                UnorderedElementsAre("StartAuthSession", "PolicySecret", "ActivateCredential", "FlushContext"));
    EXPECT_THAT(g_oFaults.calls("Esys_ActivateCredential"),
                ElementsAre(AllOf(StartsWith("Esys_ActivateCredential 0x8000000"),
                                  EndsWith(" 0x8101000a 0x2000000 0x3000001 none & & out"))));
}

TEST_F(AttestationKey, BytesAfterTheChallengeAreIgnored) {
    const Areas areas = loaded();
    const Bytes secret = {1, 2, 3, 4};
    Bytes blob = challenge(nameOf(areas.first), secret);
    blob.insert(blob.end(), 100, 0xee);
    EXPECT_EQ(attestor().activateAttestationKey(blob), secret);
}

TEST_F(AttestationKey, OnlyALoadedKeyIsActivated) {
    EXPECT_THAT(attestor().activateAttestationKey(Bytes(100)), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(NONE_LOADED));

    const Areas areas = created();
    const Bytes blob = challenge(nameOf(areas.first), {1});
    EXPECT_THAT(attestor().activateAttestationKey(blob), IsEmpty()) << "areas alone are not enough";
    EXPECT_THAT(lines(), ElementsAre(NONE_LOADED));
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(AttestationKey, MalformedChallengeIsRefused) {
    const Areas areas = loaded();
    const Bytes blob = challenge(nameOf(areas.first), {1, 2, 3});
    const size_t first = idObjectSize(blob);
    const std::string failed = "failed de-serializing encrypted data for attestation key activation";
    for (const size_t size : {size_t{1}, size_t{2}, first - 1, first, first + 1, first + 2, blob.size() - 1}) {
        SCOPED_TRACE(size);
        clear();
        const Bytes cut(blob.begin(), blob.begin() + static_cast<ptrdiff_t>(size));
        const TSS2_RC code = size < first ? unmarshalCode(cut, Tss2_MU_TPM2B_ID_OBJECT_Unmarshal)
                                          : unmarshalCode(Bytes(cut.begin() + static_cast<ptrdiff_t>(first), cut.end()),
                                                          Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal);
        EXPECT_THAT(attestor().activateAttestationKey(cut), IsEmpty());
        if (size == first) {
            EXPECT_THAT(lines(), ElementsAre(StartsWith("ERROR " + failed + ": ")));
        } else {
            EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith(failed, code)));
        }
        EXPECT_EQ(g_oFaults.made("Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal"), size < first ? 0U : 1U);
        EXPECT_THAT(g_oFaults.commands(), IsEmpty());
    }
    clear();
    EXPECT_THAT(attestor().activateAttestationKey({}), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(StartsWith("ERROR " + failed + ": ")));
}

TEST_F(AttestationKey, ChallengeForAnotherKeyOrDamagedIsRefusedByTheTPM) {
    const Areas areas = loaded();
    Bytes damaged = challenge(nameOf(areas.first), {1, 2, 3});
    damaged[idObjectSize(damaged) - 1] ^= 1;
    const Bytes foreign = challenge(nameOf(attestor().getEndorsementKeyTPMPub()), {1, 2, 3});
    for (const Bytes& blob : {damaged, foreign}) {
        clear();
        EXPECT_THAT(attestor().activateAttestationKey(blob), IsEmpty());
        EXPECT_THAT(lines(),
                    ElementsAre(LOADED[0], "ERROR " + failedWith("failed to activate attestation key", 0x1df)));
        expectPolicySessionGone();
    }
    expectLoaded(areas);
}

TEST_F(AttestationKey, FailedActivationChangesNothing) {
    const struct {
        const char* function;
        Lines records;
    } ROWS[] = {
        {"Esys_StartAuthSession", {"ERROR " + failedWith("failed to create TPM2 session for endorsement hierarchy")}},
        {"Esys_PolicySecret",
         {LOADED[0], "ERROR " + failedWith("failed to set secret on policy session for endorsement hierarchy")}},
        {"Esys_ActivateCredential", {LOADED[0], "ERROR " + failedWith("failed to activate attestation key")}},
        {"Tss2_MU_TPM2B_ID_OBJECT_Unmarshal",
         {"ERROR " + failedWith("failed de-serializing encrypted data for attestation key activation")}},
        {"Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal",
         {"ERROR " + failedWith("failed de-serializing encrypted data for attestation key activation")}},
    };
    const Areas areas = loaded();
    const Bytes blob = challenge(nameOf(areas.first), {1, 2, 3});
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.function);
        clear();
        g_oFaults.reset();
        g_oFaults.fail(row.function);
        EXPECT_THAT(attestor().activateAttestationKey(blob), IsEmpty());
        EXPECT_EQ(lines(), row.records);
        expectPolicySessionGone();
        expectLoaded(areas);
    }
}

TEST_F(AttestationKey, DigestOfSize0ReturnsTheEmptyVector) {
    const Areas areas = loaded();
    const Bytes blob = challenge(nameOf(areas.first), {1, 2, 3});
    g_oFaults.alter<TPM2B_DIGEST>("Esys_ActivateCredential", [](TPM2B_DIGEST& digest) { digest.size = 0; });
    EXPECT_THAT(attestor().activateAttestationKey(blob), IsEmpty());
    EXPECT_EQ(lines(), LOADED);
}

TEST_F(AttestationKey, ActivateAKTakesTheStructures) {
    const Areas areas = loaded();
    const Bytes secret = {7, 8, 9};
    const Bytes blob = challenge(nameOf(areas.first), secret);
    TPM2B_ID_OBJECT credential{};
    TPM2B_ENCRYPTED_SECRET encrypted{};
    size_t offset = 0;
    ASSERT_EQ(Tss2_MU_TPM2B_ID_OBJECT_Unmarshal(blob.data(), blob.size(), &offset, &credential), TSS2_RC_SUCCESS);
    ASSERT_EQ(Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal(blob.data(), blob.size(), &offset, &encrypted), TSS2_RC_SUCCESS);
    const ESysOutUPtr<TPM2B_DIGEST> digest = attestor().activateAK(&credential, &encrypted);
    ASSERT_TRUE(digest);
    EXPECT_EQ(hex(digest->buffer, digest->size), hex(secret));
    g_oFaults.fail("Esys_ActivateCredential");
    EXPECT_FALSE(attestor().activateAK(&credential, &encrypted));
}

// --- life

TEST_F(AttestationKey, CloseForgetsTheKey) {
    const Areas areas = loaded();
    attestor().close();
    expectNothingLeft();
    ASSERT_TRUE(attestor().open());
    expectNoneLoaded();
    EXPECT_NE(attestor().getAttestationKeyTPMPubPriv(), areas);
}

TEST_F(AttestationKey, EndOfTheInstanceLeavesNothing) {
    loaded();
    StderrText text;
    m_oTPM->endAttestor();
    EXPECT_EQ(text.take(), "");
    expectNothingLeft();
}

TEST_F(AttestationKey, ConstantsBelongToTheClass) {
    TPM2B_PUBLIC copy = TPM2Attestor::ms_sEcc256AKTemplate;
    auto privateArea = std::make_unique<TPM2B_PRIVATE>();
    // the template alone is not a key: the TPM says so, and the constant stays as it is
    EXPECT_FALSE(attestor().loadAK(&TPM2Attestor::ms_sEcc256AKTemplate, privateArea.get()));
    EXPECT_EQ(std::memcmp(&copy, &TPM2Attestor::ms_sEcc256AKTemplate, sizeof(copy)), 0);
}

}  // namespace
