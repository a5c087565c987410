// tpm2_endorsement_key_test.cpp: finding or making the endorsement key, its policy session, the NV indices that change
// its template, and the ways in which it leaves the TPM layer.

#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/strfmt.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

using testing::StartsWith;
using testing::UnorderedElementsAre;

// POLICY is the profile's default EK policy: PolicySecret of the endorsement hierarchy.
const std::string POLICY = "837197674484b3f81a90cc8d46a5d724fd52d76e06520b64f2a1da1b331469aa";

const std::string ZEROS_32(64, '0');

// TEMPLATE_L2 is a marshalled TPM2B_PUBLIC: size, type, nameAlg, attributes, policy, symmetric (AES, 128, CFB), scheme
// (null), curve, kdf (null); UNIQUE_0 follows.
const std::string TEMPLATE_L2 = "007a"
                                "0023"
                                "000b"
                                "000300b2"
                                "0020" +
                                POLICY +
                                "000600800043"
                                "0010"
                                "0003"
                                "0010";
const std::string UNIQUE_0 = "0020" + ZEROS_32 + "0020" + ZEROS_32;

const std::string ATTRIBUTES = "fixedtpm|fixedparent|sensitivedataorigin|adminwithpolicy|restricted|decrypt";

const Lines SAVED = {"DEBUG creating ECC NIST P256 EK", "DEBUG saved new ECC NIST P256 EK to persistent handle",
                     "DEBUG created ECC NIST P256 EK"};

std::string createPrimaryCall(const std::string& publicArea) {
    return "Esys_CreatePrimary endorsement password none none zero " + publicArea + " null pcrs:0 & out null null null";
}

// marshalledTemplate is a TPM2B_PUBLIC in its wire form.
std::string marshalledTemplate(const TPM2B_PUBLIC& publicArea) {
    const Unseen unseen;
    unsigned char buffer[sizeof(TPM2B_PUBLIC)];
    size_t size = 0;
    EXPECT_EQ(Tss2_MU_TPM2B_PUBLIC_Marshal(&publicArea, buffer, sizeof(buffer), &size), TSS2_RC_SUCCESS);
    return hex(buffer, size);
}

class EndorsementKey : public TPMTest {
protected:
    // storeInSlot puts a primary key where the EK is looked for.
    void storeInSlot(const std::string& algorithm, const std::string& attributes, const std::string& more = "") {
        write("policy", fromHex(POLICY));
        const std::string policy =
            attributes.find("adminwithpolicy") == std::string::npos ? "" : "-L " + path("policy");
        tool("tpm2_createprimary -Q -C e -G " + algorithm + " -a '" + attributes + "' " + policy + " " + more + " -c " +
             path("key.ctx"));
        tool("tpm2_evictcontrol -Q -C o -c " + path("key.ctx") + " 0x8101000a");
        tool("tpm2_flushcontext -t");
    }

    // emptySlot removes the EK from the TPM, for good.
    static void emptySlot() {
        tool("tpm2_evictcontrol -Q -C o -c 0x8101000a");
        tool("tpm2_flushcontext -t");
    }

    // storeIndex makes an NV index with this content.
    void storeIndex(const char* index, const Bytes& content) {
        tool(strfmt("tpm2_nvdefine -Q -C o %s -s %zu -a 'authread|authwrite|no_da'", index, content.size()));
        write("content", content);
        if (!content.empty()) {
            tool(strfmt("tpm2_nvwrite -Q %s -i %s", index, path("content").c_str()));
        }
    }

    void storeTemplate(const Bytes& content) { storeIndex("0x1c0000c", content); }
    void storeNonce(const Bytes& content) { storeIndex("0x1c0000b", content); }

    // keyInSlot is what the TPM's own tools say of the key in the slot.
    std::string keyInSlot() {
        tool("tpm2_readpublic -Q -c 0x8101000a -f tss -o " + path("slot.pub"));
        return hex(read("slot.pub"));
    }

    // defaultEK is what the TPM's own tools make as the EK; they need the room that an open instance takes.
    std::string defaultEK() {
        m_oTPM->endAttestor();
        tool("tpm2_createek -Q -G ecc -c " + path("ek.ctx") + " -u " + path("ek.pub"));
        tool("tpm2_flushcontext -t");
        return hex(read("ek.pub"));
    }

    // expectTransientEKIsUsedAndFlushed looks at what an open instance does with an EK that it couldn't save; `text`
    // has run since before it was opened.
    void expectTransientEKIsUsedAndFlushed(StderrText& text) {
        EXPECT_THAT(g_oFaults.calls("Esys_StartAuthSession"),
                    ElementsAre(StartsWith("Esys_StartAuthSession 0x80000000 ")));
        EXPECT_EQ(transientObjects(), "- 0x80000000\n");
        EXPECT_TRUE(attestor().createAK()) << "it is a good EK";
        clear();
        m_oTPM->endAttestor();
        EXPECT_THAT(g_oFaults.calls("Esys_FlushContext"),
                    UnorderedElementsAre("Esys_FlushContext 0x80000000", "Esys_FlushContext 0x2000000"));
        EXPECT_EQ(text.take(), "");
        expectNothingLeft();
        EXPECT_EQ(persistentObjects(), "");
    }

    // openWithoutSlot opens and then empties the slot, so that `createEK` has a session but finds no key.
    void openWithoutSlot() {
        makeEK();
        open();
        emptySlot();
        clear();
    }
};

// --- template L-2

TEST_F(EndorsementKey, TemplateIsExactByteByByte) {
    EXPECT_EQ(TPM2Attestor::ms_sEcc256EKTemplateL2.size, 0);
    EXPECT_EQ(marshalledTemplate(TPM2Attestor::ms_sEcc256EKTemplateL2), TEMPLATE_L2 + UNIQUE_0);
}

// --- createEK

TEST_F(EndorsementKey, FirstOpenCreatesAndSaves) {
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(g_oFaults.commands(), UnorderedElementsAre("GetCapability", "GetCapability", "GetCapability",
                                                           "CreatePrimary", "EvictControl", "StartAuthSession"));
    const std::string question = "Esys_GetCapability none none none 0x1 ";
    EXPECT_THAT(g_oFaults.calls("Esys_GetCapability"),
                UnorderedElementsAre(question + "0x1c0000c 0x1 null out", question + "0x1c0000b 0x1 null out",
                                     question + "0x8101000a 0x1 null out"));
    EXPECT_THAT(g_oFaults.calls("Esys_CreatePrimary"), ElementsAre(createPrimaryCall(TEMPLATE_L2 + UNIQUE_0)));
    EXPECT_THAT(g_oFaults.calls("Esys_EvictControl"),
                ElementsAre("Esys_EvictControl owner 0x80000000 password none none 0x8101000a &"));
    const std::string key = hex(attestor().getEndorsementKeyTPMPub());
    EXPECT_EQ(key, keyInSlot());
    EXPECT_EQ(key, defaultEK());
}

TEST_F(EndorsementKey, TransientCopyOfASavedKeyStaysLoaded) {
    open();
    EXPECT_EQ(transientObjects(), "- 0x80000000\n");
    m_oTPM->endAttestor();
    EXPECT_EQ(transientObjects(), "- 0x80000000\n");
    EXPECT_EQ(g_oFaults.calls("Esys_FlushContext"), Lines{"Esys_FlushContext 0x2000000"});
}

TEST_F(EndorsementKey, SecondOpenFindsItAndCreatesNothing) {
    makeEK();
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(), testing::Contains("DEBUG found valid persistent ECC NIST P256 EK"));
    EXPECT_EQ(g_oFaults.made("Esys_CreatePrimary"), 0U);
    EXPECT_EQ(g_oFaults.made("Esys_EvictControl"), 0U);
    EXPECT_THAT(g_oFaults.calls("Esys_ReadPublic"),
                ElementsAre("Esys_ReadPublic 0x8101000a none none none out null null"));
    // the two sides of the comparison
    EXPECT_EQ(g_oFaults.calls("Tss2_MU_TPM2B_PUBLIC_Marshal"), Lines(2, "Tss2_MU_TPM2B_PUBLIC_Marshal 0x268"));
    EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), keyInSlot());
    EXPECT_EQ(transientObjects(), "");
}

TEST_F(EndorsementKey, KeyThatDiffersInUniqueAloneIsAccepted) {
    write("unique", fromHex("0400" + std::string(8, '5') + "0200" + "6666"));
    storeInSlot("ecc256:aes128cfb", ATTRIBUTES, "-u " + path("unique"));
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(), testing::Contains("DEBUG found valid persistent ECC NIST P256 EK"));
    const std::string key = hex(attestor().getEndorsementKeyTPMPub());
    EXPECT_EQ(key, keyInSlot());
    EXPECT_NE(key, defaultEK());
}

// An occupied slot: the key in it is used, whatever it is, and the key that is returned is the one just made.
TEST_F(EndorsementKey, KeyInTheSlotThatDoesNotMatchStaysAndIsUsed) {
    const struct {
        const char* what;
        std::string algorithm;
        std::string attributes;
        std::string more;
    } ROWS[] = {
        {"type", "rsa2048:aes128cfb", ATTRIBUTES, ""},
        {"name algorithm", "ecc256:aes128cfb", ATTRIBUTES, "-g sha384"},
        {"attributes and policy", "ecc256:aes128cfb",
         "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|decrypt", ""},
        {"attributes alone", "ecc256:aes128cfb", ATTRIBUTES + "|noda", ""},
        {"symmetric parameters", "ecc256:aes256cfb", ATTRIBUTES, ""},
        {"curve", "ecc384:aes128cfb", ATTRIBUTES, ""},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        renewTPM();
        const bool otherHash = row.more.find("sha384") != std::string::npos;
        // a policy is as long as the digest of the name algorithm
        storeInSlot(row.algorithm,
                    otherHash ? "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|decrypt"
                              : row.attributes,
                    row.more);
        const std::string occupant = keyInSlot();

        StderrText text;
        ASSERT_TRUE(attestor().open()) << testing::PrintToString(lines());
        EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                         "DEBUG persistent EK does not match requirements, creating transient one",
                                         "DEBUG created ECC NIST P256 EK", "DEBUG TPM2 salted session established"));
        EXPECT_EQ(g_oFaults.made("Esys_EvictControl"), 0U);
        EXPECT_THAT(g_oFaults.calls("Esys_StartAuthSession"),
                    ElementsAre(StartsWith("Esys_StartAuthSession 0x8101000a ")));
        EXPECT_EQ(transientObjects(), "") << "the new primary key is flushed";
        EXPECT_EQ(keyInSlot(), occupant);
        const std::string key = hex(attestor().getEndorsementKeyTPMPub());
        clear();
        m_oTPM->endAttestor();
        EXPECT_EQ(g_oFaults.calls("Esys_TR_Close"), Lines{"Esys_TR_Close 0x8101000a"});
        EXPECT_EQ(text.take(), "");
        expectNothingLeft();
        EXPECT_EQ(keyInSlot(), occupant);
        EXPECT_EQ(key, defaultEK());
    }
}

TEST_F(EndorsementKey, SigningKeyInTheSlotFailsTheSession) {
    storeInSlot("ecc256:ecdsa", "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|sign");
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith("failed to create TPM2 session", 0x182)));
    EXPECT_FALSE(attestor().isOpen());
    expectNothingLeft();
}

TEST_F(EndorsementKey, UnreadableKeyInTheSlotStaysAndIsUsed) {
    makeEK();
    g_oFaults.fail("Esys_ReadPublic");
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                     "WARN " + failedWith("failed reading public area of persistent endorsement key"),
                                     "DEBUG created ECC NIST P256 EK", "DEBUG TPM2 salted session established"));
    EXPECT_EQ(g_oFaults.made("Esys_EvictControl"), 0U);
    EXPECT_THAT(g_oFaults.calls("Esys_StartAuthSession"), ElementsAre(StartsWith("Esys_StartAuthSession 0x8101000a ")));
    EXPECT_EQ(transientObjects(), "");
    EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), keyInSlot());
}

TEST_F(EndorsementKey, FailedLookIntoTheSlotCountsAsAbsent) {
    g_oFaults.fail("Esys_GetCapability", INJECTED, 3);
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(),
                ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                            "ERROR " + failedWith("failed to check existence of TPM object with handle 0x8101000a"),
                            "WARN failed checking for existence of persisten endorsement key",
                            "DEBUG saved new ECC NIST P256 EK to persistent handle", "DEBUG created ECC NIST P256 EK",
                            "DEBUG TPM2 salted session established"));
    EXPECT_EQ(keyInSlot(), defaultEK());
}

TEST_F(EndorsementKey, FailedLoadingOfTheSlotEndsWithATransientKey) {
    makeEK();
    g_oFaults.fail("Esys_TR_FromTPMPublic");
    StderrText text;
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                     "ERROR " + failedWith("failed loading TPM object with handle 0x8101000ax"),
                                     "WARN failed checking for existence of persisten endorsement key",
                                     "WARN " + failedWith("failed to save endorsement key to persistent handle", 0x14c),
                                     "DEBUG created ECC NIST P256 EK", "DEBUG TPM2 salted session established"));
    EXPECT_THAT(g_oFaults.calls("Esys_StartAuthSession"), ElementsAre(StartsWith("Esys_StartAuthSession 0x80000000 ")));
    m_oTPM->endAttestor();
    EXPECT_EQ(text.take(), "");
    expectNothingLeft();
}

TEST_F(EndorsementKey, KeyThatCannotBeSavedIsUsedAndFlushed) {
    tool("tpm2_changeauth -c o secret");
    StderrText text;
    ASSERT_TRUE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                     "WARN " + failedWith("failed to save endorsement key to persistent handle", 0x9a2),
                                     "DEBUG created ECC NIST P256 EK", "DEBUG TPM2 salted session established"));
    expectTransientEKIsUsedAndFlushed(text);
}

// Out of memory the library fails and yet leaves a handle, to nothing.
TEST_F(EndorsementKey, HandleOfAFailedSaveCountsAsNotSaved) {
    g_oFaults.leaveHandles();
    g_oFaults.fail("Esys_EvictControl", TSS2_ESYS_RC_MEMORY);
    StderrText text;
    ASSERT_TRUE(attestor().open()) << testing::PrintToString(lines());
    EXPECT_THAT(problems(), ElementsAre("WARN " + failedWith("failed to save endorsement key to persistent handle",
                                                             TSS2_ESYS_RC_MEMORY)));
    expectTransientEKIsUsedAndFlushed(text);
}

TEST_F(EndorsementKey, FailedPrimaryFails) {
    g_oFaults.fail("Esys_CreatePrimary");
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith("failed to create endorsement key"),
                                        "ERROR cannot establish a session"));
}

TEST_F(EndorsementKey, FailedLookForTemplateOrNonceFails) {
    const char* const handles[] = {"0x1c0000c", "0x1c0000b"};
    for (int question = 1; question <= 2; ++question) {
        clear();
        g_oFaults.reset();
        g_oFaults.fail("Esys_GetCapability", INJECTED, question);
        EXPECT_FALSE(attestor().open());
        EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith(std::string("failed to check existence of TPM object "
                                                                              "with handle ") +
                                                                  handles[question - 1]),
                                            "ERROR failed checking for non-default EK nonce or template",
                                            "ERROR cannot establish a session"));
        EXPECT_EQ(g_oFaults.made("Esys_CreatePrimary"), 0U);
    }
}

TEST_F(EndorsementKey, FailureLeavesTheFieldsAsTheyWere) {
    openWithoutSlot();
    const std::string key = hex(attestor().getEndorsementKeyTPMPub());
    for (const char* const function : {"Esys_GetCapability", "Esys_CreatePrimary"}) {
        g_oFaults.reset();
        g_oFaults.fail(function);
        EXPECT_FALSE(attestor().createEK()) << function;
        EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), key) << function;
    }
    g_oFaults.reset();
    StderrText text;
    attestor().close();
    EXPECT_EQ(text.take(), "");
    EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), ElementsAre("Esys_TR_Close 0x8101000a"));
    expectNothingLeft();
}

// A transient EK is known while the slot is occupied; the next attempt fails after the look into the slot.
TEST_F(EndorsementKey, FailedPrimaryBesideAnOccupiedSlotLeavesTheFieldsAsTheyWere) {
    const char* const OTHER = "DEBUG persistent EK does not match requirements, creating transient one";
    const std::string UNREADABLE =
        "WARN " + failedWith("failed reading public area of persistent endorsement key", 0x123);
    const std::string NO_PRIMARY = "ERROR " + failedWith("failed to create endorsement key");
    for (const bool isReadable : {true, false}) {
        SCOPED_TRACE(isReadable ? "does not match" : "cannot be read");
        renewTPM();
        storeInSlot("ecc256:aes128cfb", ATTRIBUTES + "|noda");
        g_oFaults.fail("Esys_GetCapability", INJECTED, 3);  // so that the slot counts as empty
        StderrText text;
        open();
        const std::string key = hex(attestor().getEndorsementKeyTPMPub());
        ASSERT_EQ(transientObjects(), "- 0x80000000\n");

        clear();
        g_oFaults.reset();
        g_oFaults.fail("Esys_CreatePrimary");
        if (!isReadable) {
            g_oFaults.fail("Esys_ReadPublic", 0x123);
        }
        EXPECT_FALSE(attestor().createEK());
        EXPECT_THAT(lines(),
                    ElementsAre("DEBUG creating ECC NIST P256 EK", isReadable ? OTHER : UNREADABLE, NO_PRIMARY));
        EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), ElementsAre("Esys_TR_Close 0x8101000a"));
        EXPECT_EQ(g_oFaults.made("Esys_FlushContext"), 0U);
        EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), key);
        EXPECT_NE(keyInSlot(), key);

        clear();
        m_oTPM->endAttestor();
        EXPECT_THAT(g_oFaults.calls("Esys_FlushContext"),
                    UnorderedElementsAre("Esys_FlushContext 0x80000000", "Esys_FlushContext 0x2000000"));
        EXPECT_EQ(text.take(), "");
        expectNothingLeft();
    }
}

// --- non-default template and nonce

TEST_F(EndorsementKey, NonceWithoutTemplateFails) {
    storeNonce(Bytes(32, 0x11));
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(),
                ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                            "ERROR EK found non-default nonce but no non-default template, which is fobidden by spec",
                            "ERROR cannot establish a session", "DEBUG closing TPM2"));
    EXPECT_EQ(g_oFaults.made("Esys_CreatePrimary"), 0U);
    expectNothingLeft();
}

// Before there is a session the library refuses its attributes, with this code.
TEST_F(EndorsementKey, TemplateCannotBeReadDuringOpen) {
    constexpr uint32_t NO_SESSION = 0x7000b;
    storeTemplate(fromHex(TEMPLATE_L2 + UNIQUE_0));
    StderrText text;
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(),
                ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                            "DEBUG found non-default ECC NIST P256 EK template",
                            "WARN " + failedWith("failed to restore session attributes after reading tally counter NV "
                                                 "index public info",
                                                 NO_SESSION),
                            "ERROR " + failedWith("failed reading public info from NV-index", NO_SESSION),
                            "ERROR failed reading EK non-default template from NV-index",
                            "ERROR cannot establish a session", "DEBUG closing TPM2"));
    EXPECT_THAT(g_oFaults.calls("Esys_TRSess_SetAttributes"),
                ElementsAre("Esys_TRSess_SetAttributes none 0x80 0x80", "Esys_TRSess_SetAttributes none 0x0 0x80"));
    EXPECT_EQ(g_oFaults.made("Esys_NV_ReadPublic"), 0U);
    EXPECT_EQ(text.take(), "");
    expectNothingLeft();
}

TEST_F(EndorsementKey, TemplateIsUsedUnchanged) {
    openWithoutSlot();
    const std::string unique = "0003"
                               "aabbcc"
                               "0001"
                               "dd";
    storeTemplate(fromHex("003e" + TEMPLATE_L2.substr(4) + unique));
    clear();
    EXPECT_TRUE(attestor().createEK());
    EXPECT_THAT(lines(),
                ElementsAre("DEBUG creating ECC NIST P256 EK", "DEBUG found non-default ECC NIST P256 EK template",
                            "DEBUG saved new ECC NIST P256 EK to persistent handle", "DEBUG created ECC NIST P256 EK"));
    EXPECT_THAT(g_oFaults.calls("Esys_CreatePrimary"),
                ElementsAre(createPrimaryCall("003e" + TEMPLATE_L2.substr(4) + unique)));
    EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), keyInSlot());
    EXPECT_NE(keyInSlot(), defaultEK());
}

TEST_F(EndorsementKey, KeyInTheSlotIsComparedWithTheNonDefaultTemplate) {
    makeEK();
    open();
    Bytes wanted = fromHex(TEMPLATE_L2 + UNIQUE_0);
    wanted[8] |= 0x04;  // TPMA_OBJECT_NODA
    storeTemplate(wanted);
    clear();
    attestor().createEK();
    EXPECT_THAT(lines(), testing::Contains("DEBUG persistent EK does not match requirements, creating transient one"));
}

TEST_F(EndorsementKey, NonceFillsUniqueOfTheTemplate) {
    const std::string full = "101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f";
    const struct {
        const char* what;
        std::string nonce;
        std::string x;
    } ROWS[] = {
        {"exactly 32 bytes", full, full},
        {"fewer: the rest is zero", "aabb", "aabb" + ZEROS_32.substr(4)},
        {"longer: cut", full + "ffffffff", full},
        {"one byte longer", full + "ff", full},
        {"empty", "", ZEROS_32},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        renewTPM();
        openWithoutSlot();
        // what the template has in unique must vanish
        storeTemplate(
            fromHex("007a" + TEMPLATE_L2.substr(4) + "0020" + std::string(64, 'e') + "0020" + std::string(64, 'd')));
        storeNonce(fromHex(row.nonce));
        clear();
        EXPECT_TRUE(attestor().createEK());
        EXPECT_THAT(lines(),
                    ElementsAre("DEBUG creating ECC NIST P256 EK", "DEBUG found non-default ECC NIST P256 EK template",
                                "DEBUG found non-default ECC NIST P256 EK nonce",
                                "DEBUG saved new ECC NIST P256 EK to persistent handle",
                                "DEBUG created ECC NIST P256 EK"));
        EXPECT_THAT(g_oFaults.calls("Esys_CreatePrimary"),
                    ElementsAre(createPrimaryCall(TEMPLATE_L2 + "0020" + row.x + "0020" + ZEROS_32)));
        EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"),
                    testing::UnorderedElementsAre("Esys_TR_Close 0x1c0000c", "Esys_TR_Close 0x1c0000b"))
            << "the holders of both indices are closed";
    }
}

TEST_F(EndorsementKey, NonceSetsTheSizesOfUnique) {
    openWithoutSlot();
    storeTemplate(fromHex("003a" + TEMPLATE_L2.substr(4) + "00000000"));
    storeNonce({0x77});
    clear();
    EXPECT_TRUE(attestor().createEK());
    EXPECT_THAT(g_oFaults.calls("Esys_CreatePrimary"),
                ElementsAre(createPrimaryCall(TEMPLATE_L2 +
                                              "0020"
                                              "77" +
                                              ZEROS_32.substr(2) + "0020" + ZEROS_32)));
}

// RSA_TEMPLATE is template L-1 of the profile with a short unique field: size, type, nameAlg, attributes, policy,
// symmetric, scheme, bits, exponent, unique.
const std::string RSA_TEMPLATE = "003a"
                                 "0001"
                                 "000b"
                                 "000300b2"
                                 "0020" +
                                 POLICY +
                                 "000600800043"
                                 "0010"
                                 "0800"
                                 "00000000"
                                 "0000";

TEST_F(EndorsementKey, TemplateOfAnotherKeyTypeIsRefusedWithANonce) {
    const std::string p384 = "003a" + TEMPLATE_L2.substr(4, TEMPLATE_L2.size() - 12) +
                             "0004"
                             "0010"
                             "00000000";
    for (const std::string& other : {RSA_TEMPLATE, p384}) {
        renewTPM();
        openWithoutSlot();
        storeTemplate(fromHex(other));
        storeNonce(Bytes(32, 0x11));
        clear();
        EXPECT_FALSE(attestor().createEK());
        EXPECT_THAT(lines(),
                    ElementsAre("DEBUG creating ECC NIST P256 EK", "DEBUG found non-default ECC NIST P256 EK template",
                                "DEBUG found non-default ECC NIST P256 EK nonce",
                                "ERROR EK non-default template for ECC NIST P256 EK specifies another key "
                                "type"));
        EXPECT_EQ(g_oFaults.made("Esys_CreatePrimary"), 0U);
    }
}

TEST_F(EndorsementKey, TemplateOfAnotherKeyTypeIsUsedWithoutANonce) {
    openWithoutSlot();
    storeTemplate(fromHex(RSA_TEMPLATE));
    clear();
    EXPECT_TRUE(attestor().createEK());
    EXPECT_THAT(g_oFaults.calls("Esys_CreatePrimary"), ElementsAre(createPrimaryCall(RSA_TEMPLATE)));
    EXPECT_EQ(hex(attestor().getEndorsementKeyTPMPub()), keyInSlot());

    // such a key has no elliptic curve form
    const Lines noKey = {"ERROR conversion to ECC key DER failed: input data is not an ECC key",
                         "ERROR failed to extract endorsement key's public key"};
    clear();
    EXPECT_FALSE(attestor().getEkPubkeyOssl());
    EXPECT_EQ(lines(), noKey);
    clear();
    EXPECT_THAT(attestor().getEndorsementKeyDER(), IsEmpty());
    EXPECT_EQ(lines(), noKey);
    clear();
    EXPECT_EQ(attestor().getEndorsementKeyPEM(), "");
    EXPECT_THAT(lines(), ElementsAre(noKey[0], noKey[1],
                                     StartsWith("ERROR failed to write ECC public key to PEM memory buffer: ")));
}

TEST_F(EndorsementKey, MalformedTemplateFails) {
    const struct {
        const char* what;
        std::string content;
    } ROWS[] = {{"empty", ""}, {"one byte", "00"}, {"cut", (TEMPLATE_L2 + UNIQUE_0).substr(0, 100)}};
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        renewTPM();
        openWithoutSlot();
        storeTemplate(fromHex(row.content));
        clear();
        EXPECT_FALSE(attestor().createEK());
        EXPECT_THAT(lines(),
                    ElementsAre("DEBUG creating ECC NIST P256 EK", "DEBUG found non-default ECC NIST P256 EK template",
                                StartsWith("ERROR failed to parse EK non-default template: ")));
        EXPECT_EQ(g_oFaults.made("Esys_CreatePrimary"), 0U);
    }
}

TEST_F(EndorsementKey, FailedParsingIsReportedWithItsCode) {
    openWithoutSlot();
    storeTemplate(fromHex(TEMPLATE_L2 + UNIQUE_0));
    clear();
    g_oFaults.fail("Tss2_MU_TPM2B_PUBLIC_Unmarshal");
    EXPECT_FALSE(attestor().createEK());
    EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith("failed to parse EK non-default template")));
    EXPECT_THAT(g_oFaults.calls("Tss2_MU_TPM2B_PUBLIC_Unmarshal"), ElementsAre("Tss2_MU_TPM2B_PUBLIC_Unmarshal 0x7c"));
}

TEST_F(EndorsementKey, FailedReadingOfTemplateOrNonceFails) {
    openWithoutSlot();
    storeTemplate(fromHex(TEMPLATE_L2 + UNIQUE_0));
    storeNonce(Bytes(32, 0x11));
    const char* const what[] = {"template", "nonce"};
    for (int index = 0; index < 2; ++index) {
        g_oFaults.reset();
        g_oFaults.fail("Esys_NV_Read", INJECTED, index + 1);
        clear();
        EXPECT_FALSE(attestor().createEK());
        EXPECT_THAT(problems(),
                    ElementsAre("ERROR " + failedWith("failed reading data from NV-index"),
                                strfmt("ERROR failed reading EK non-default %s from NV-index", what[index])));
        // the holders of both indices are closed
        EXPECT_EQ(g_oFaults.made("Esys_TR_Close"), 2U);
    }
}

// --- readNVIndex

class ReadNVIndex : public EndorsementKey {
protected:
    // openIndex opens, and returns the handle of an index with this content.
    ESYS_TR openIndex(const Bytes& content) {
        makeEK();
        open();
        storeIndex("0x18c8130", content);
        ESYS_TR handle = ESYS_TR_NONE;
        EXPECT_TRUE(attestor().getTPMObject(0x18c8130, &handle));
        m_oHandle.ctx = nullptr;
        clear();
        return handle;
    }

    static Bytes pattern(size_t size) {
        Bytes result(size);
        for (size_t i = 0; i < size; ++i) {
            result[i] = static_cast<unsigned char>(i * 7 + i / 256);
        }
        return result;
    }

    static std::string readCall(const char* sizeAndOffset) {
        return std::string("Esys_NV_Read 0x18c8130 0x18c8130 0x2000000 none none ") + sizeAndOffset + " out";
    }

    const Lines AUDIT_ON_AND_OFF = {"Esys_TRSess_SetAttributes 0x2000000 0x80 0x80",
                                    "Esys_TRSess_SetAttributes 0x2000000 0x0 0x80"};
    const std::string NOT_RESTORED =
        "failed to restore session attributes after reading tally counter NV index public info";
    const std::string MALFORMED =
        "ERROR " + failedWith("failed reading data from NV-index", TSS2_ESYS_RC_MALFORMED_RESPONSE);

private:
    ESysClosable m_oHandle;
};

TEST_F(ReadNVIndex, IndexOf1300BytesIsReadInThreeChunks) {
    const Bytes content = pattern(1300);
    const ESYS_TR index = openIndex(content);
    Bytes out = {1, 2, 3};
    EXPECT_TRUE(attestor().readNVIndex(index, &out));
    EXPECT_EQ(out, content);
    EXPECT_THAT(g_oFaults.calls(),
                ElementsAre(AUDIT_ON_AND_OFF[0], "Esys_NV_ReadPublic 0x18c8130 0x2000000 none none out null",
                            AUDIT_ON_AND_OFF[1], readCall("0x200 0x0"), readCall("0x200 0x200"),
                            readCall("0x114 0x400")));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ReadNVIndex, SizesAroundAChunkAreReadWhole) {
    for (const size_t size : {1U, 511U, 512U, 513U, 1024U, 1025U}) {
        renewTPM();
        const Bytes content = pattern(size);
        const ESYS_TR index = openIndex(content);
        Bytes out;
        EXPECT_TRUE(attestor().readNVIndex(index, &out));
        EXPECT_EQ(out, content) << size;
        EXPECT_EQ(g_oFaults.made("Esys_NV_Read"), (size + 511) / 512) << size;
    }
}

TEST_F(ReadNVIndex, IndexOfSize0ReturnsAnEmptyVector) {
    const ESYS_TR index = openIndex({});
    Bytes out = {1, 2, 3};
    EXPECT_TRUE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(out, IsEmpty());
    EXPECT_EQ(g_oFaults.made("Esys_NV_Read"), 0U);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ReadNVIndex, FailedAttributeIsAnError) {
    const ESYS_TR index = openIndex({1});
    g_oFaults.fail("Esys_TRSess_SetAttributes");
    Bytes out = {1, 2, 3};
    EXPECT_FALSE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed reading public info from NV-index")));
    EXPECT_EQ(g_oFaults.calls(), AUDIT_ON_AND_OFF) << "it is taken off all the same";
}

TEST_F(ReadNVIndex, FailedPublicAreaIsAnError) {
    const ESYS_TR index = openIndex({1});
    g_oFaults.fail("Esys_NV_ReadPublic");
    Bytes out;
    EXPECT_FALSE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed reading public info from NV-index")));
    EXPECT_EQ(g_oFaults.calls("Esys_TRSess_SetAttributes"), AUDIT_ON_AND_OFF);
}

TEST_F(ReadNVIndex, FailedRestoringIsAWarningWithTheCodeOfTheStepsBefore) {
    const ESYS_TR index = openIndex({1, 2});
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 2);
    Bytes out;
    EXPECT_TRUE(attestor().readNVIndex(index, &out));
    EXPECT_EQ(out, Bytes({1, 2}));
    EXPECT_THAT(lines(), ElementsAre("WARN " + failedWith(NOT_RESTORED, 0)));

    clear();
    g_oFaults.reset();
    g_oFaults.fail("Esys_NV_ReadPublic", 0x123);
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 2);
    EXPECT_FALSE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(lines(), ElementsAre("WARN " + failedWith(NOT_RESTORED, 0x123),
                                     "ERROR " + failedWith("failed reading public info from NV-index", 0x123)));
}

TEST_F(ReadNVIndex, FailedChunkKeepsWhatWasRead) {
    const Bytes content = pattern(1300);
    const ESYS_TR index = openIndex(content);
    for (int chunk = 1; chunk <= 3; ++chunk) {
        clear();
        g_oFaults.reset();
        g_oFaults.fail("Esys_NV_Read", INJECTED, chunk);
        Bytes out = {9, 9, 9};
        EXPECT_FALSE(attestor().readNVIndex(index, &out));
        EXPECT_EQ(out, Bytes(content.begin(), content.begin() + (chunk - 1) * 512));
        EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed reading data from NV-index")));
        EXPECT_EQ(g_oFaults.made("Esys_NV_Read"), static_cast<size_t>(chunk));
    }
}

TEST_F(ReadNVIndex, ShortDataMoveTheOffset) {
    const Bytes content = pattern(600);
    const ESYS_TR index = openIndex(content);
    g_oFaults.alter<TPM2B_MAX_NV_BUFFER>(
        "Esys_NV_Read", [](TPM2B_MAX_NV_BUFFER& data) { data.size = std::min<UINT16>(data.size, 250); });
    Bytes out;
    EXPECT_TRUE(attestor().readNVIndex(index, &out));
    EXPECT_EQ(out, content);
    EXPECT_THAT(g_oFaults.calls("Esys_NV_Read"),
                ElementsAre(readCall("0x200 0x0"), readCall("0x15e 0xfa"), readCall("0x64 0x1f4")));
}

// refuseAfter ends a reading that would never end.
std::function<void()> refuseAfter(int calls) {
    return [calls]() mutable {
        if (--calls < 0) {
            throw std::runtime_error("the reading does not end");
        }
    };
}

TEST_F(ReadNVIndex, NoDataAtAllDoNotHangIt) {
    const ESYS_TR index = openIndex(pattern(600));
    g_oFaults.alter<TPM2B_MAX_NV_BUFFER>("Esys_NV_Read", [](TPM2B_MAX_NV_BUFFER& data) { data.size = 0; });
    g_oFaults.before("Esys_NV_Read", refuseAfter(100));
    Bytes out;
    EXPECT_FALSE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(lines(), ElementsAre(MALFORMED));
    EXPECT_EQ(g_oFaults.made("Esys_NV_Read"), 1U);
    EXPECT_THAT(out, IsEmpty());
}

TEST_F(ReadNVIndex, MoreDataThanRequestedAreRefused) {
    const ESYS_TR index = openIndex(pattern(600));
    g_oFaults.alter<TPM2B_MAX_NV_BUFFER>("Esys_NV_Read", [](TPM2B_MAX_NV_BUFFER& data) { data.size = 700; });
    g_oFaults.before("Esys_NV_Read", refuseAfter(100));
    Bytes out;
    EXPECT_FALSE(attestor().readNVIndex(index, &out));
    EXPECT_THAT(lines(), ElementsAre(MALFORMED));
    EXPECT_EQ(g_oFaults.made("Esys_NV_Read"), 1U);
    EXPECT_THAT(out, IsEmpty());
}

// --- createEHPolSession

TEST_F(EndorsementKey, PolicySessionBelongsToTheCaller) {
    makeEK();
    open();
    {
        const ESysTransient session = attestor().createEHPolSession();
        EXPECT_NE(session.handle, ESYS_TR_NONE);
        EXPECT_NE(session.ctx, nullptr);
        EXPECT_THAT(lines(), ElementsAre("DEBUG TPM2 salted policy session established"));
        EXPECT_THAT(g_oFaults.calls(),
                    ElementsAre("Esys_StartAuthSession 0x8101000a none none none none null 0x1 {0x10,0,0x0} 0xb &",
                                "Esys_PolicySecret endorsement 0x3000001 0x2000000 none none null null null 0x0 null "
                                "null"));
        EXPECT_THAT(loadedSessions(), HasSubstr("0x3000001"));
    }
    EXPECT_THAT(loadedSessions(), testing::Not(HasSubstr("0x3000001"))) << "the caller owns it";
}

TEST_F(EndorsementKey, FailedPolicySessionLeavesNothingInTheTPM) {
    makeEK();
    open();
    const Lines before = {loadedSessions()};
    clear();
    g_oFaults.fail("Esys_StartAuthSession");
    EXPECT_EQ(attestor().createEHPolSession().handle, ESYS_TR_NONE);
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed to create TPM2 session for endorsement hierarchy")));
    EXPECT_EQ(g_oFaults.calls().size(), 1U);

    clear();
    g_oFaults.reset();
    g_oFaults.leaveHandles();
    g_oFaults.fail("Esys_StartAuthSession", TSS2_ESYS_RC_MEMORY);
    EXPECT_EQ(attestor().createEHPolSession().handle, ESYS_TR_NONE);
    EXPECT_EQ(g_oFaults.calls().size(), 1U) << "a handle to nothing is not flushed";

    clear();
    g_oFaults.reset();
    g_oFaults.fail("Esys_PolicySecret");
    const ESysTransient session = attestor().createEHPolSession();
    EXPECT_EQ(session.handle, ESYS_TR_NONE);
    EXPECT_NE(session.ctx, nullptr);
    EXPECT_THAT(lines(), ElementsAre("DEBUG TPM2 salted policy session established",
                                     "ERROR " + failedWith("failed to set secret on policy session for endorsement "
                                                           "hierarchy")));
    EXPECT_EQ(g_oFaults.calls("Esys_FlushContext"), Lines{"Esys_FlushContext 0x3000001"});
    EXPECT_EQ(loadedSessions(), before[0]);
}

// --- the ways out

TEST_F(EndorsementKey, PublicKeyIsTheSameInAllForms) {
    makeEK();
    open();
    const Bytes marshalled = attestor().getEndorsementKeyTPMPub();
    EXPECT_EQ(marshalled.size(), 124U);
    EXPECT_EQ(hex(marshalled), keyInSlot());
    EXPECT_EQ(g_oFaults.calls(), Lines{"Tss2_MU_TPM2B_PUBLIC_Marshal 0x268"});

    tool("tpm2_readpublic -Q -c 0x8101000a -f pem -o " + path("slot.pem"));
    tool("tpm2_readpublic -Q -c 0x8101000a -f der -o " + path("slot.der"));
    EXPECT_EQ(attestor().getEndorsementKeyPEM(), asText(read("slot.pem")));
    EXPECT_EQ(attestor().getEndorsementKeyDER(), read("slot.der"));
    write("ours.der", attestor().getEndorsementKeyDER());
    EXPECT_EQ(tool("openssl pkey -pubin -inform DER -in " + path("ours.der")), attestor().getEndorsementKeyPEM());
    EXPECT_TRUE(attestor().getEkPubkeyOssl());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EndorsementKey, KnownKeyIsNotLookedForAgain) {
    makeEK();
    open();
    attestor().getEndorsementKeyTPMPub();
    attestor().getEndorsementKeyPEM();
    attestor().getEndorsementKeyDER();
    EXPECT_THAT(g_oFaults.commands(), IsEmpty());
}

TEST_F(EndorsementKey, FailedMarshallingReturnsNothing) {
    makeEK();
    open();
    g_oFaults.fail("Tss2_MU_TPM2B_PUBLIC_Marshal");
    EXPECT_THAT(attestor().getEndorsementKeyTPMPub(), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed serializing EK public area")));
}

TEST_F(EndorsementKey, FailedConversionReturnsNothing) {
    makeEK();
    open();
    g_oFaults.fail("EC_KEY_new_by_curve_name", 0, 1, 3);
    const auto noCurve = StartsWith("ERROR failed to create new ECC key by curve ID: ");
    const char* const noKey = "ERROR failed to extract endorsement key's public key";
    EXPECT_FALSE(attestor().getEkPubkeyOssl());
    EXPECT_THAT(lines(), ElementsAre(noCurve, noKey));
    clear();
    EXPECT_THAT(attestor().getEndorsementKeyDER(), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(noCurve, noKey));
    clear();
    EXPECT_EQ(attestor().getEndorsementKeyPEM(), "");
    EXPECT_THAT(lines(),
                ElementsAre(noCurve, noKey, StartsWith("ERROR failed to write ECC public key to PEM memory buffer: ")));
}

}  // namespace
