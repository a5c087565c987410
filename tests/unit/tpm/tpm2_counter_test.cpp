// tpm2_counter_test.cpp: the tally counter: made, checked, read and incremented, and the cycle on the temporary index
// before each increment.

#include <openssl/evp.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>

#include <cstdint>
#include <string>

#include "foundation/strfmt.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

using testing::Contains;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr uint64_t UNTOUCHED = 0x1122334455667788;

const char* const COUNTER = "0x18c811f";
const char* const TEMPORARY = "0x18c8120";
const char* const OWN_ATTRIBUTES = "authwrite|authread|no_da|nt=counter";

// What the public areas of the two indices are on the wire: size, index, nameAlg, attributes, policy, dataSize.
const std::string COUNTER_AREA = "000e"
                                 "018c811f"
                                 "000b"
                                 "02040014"
                                 "0000"
                                 "0008";
const std::string TEMPORARY_AREA = "000e"
                                   "018c8120"
                                   "000b"
                                   "02040014"
                                   "0000"
                                   "0008";

const char* const INCREMENT_COUNTER = "Esys_NV_Increment 0x18c811f 0x18c811f 0x2000000 none none";
const char* const INCREMENT_TEMPORARY = "Esys_NV_Increment 0x18c8120 0x18c8120 0x2000000 none none";
const char* const UNDEFINE_TEMPORARY = "Esys_NV_UndefineSpace owner 0x18c8120 0x2000000 none none";
const std::string DEFINE_TEMPORARY = "Esys_NV_DefineSpace owner 0x2000000 none none null " + TEMPORARY_AREA + " &";
const std::string DEFINE_COUNTER = "Esys_NV_DefineSpace owner 0x2000000 none none null " + COUNTER_AREA + " &";
const char* const LOOK_FOR_TEMPORARY = "Esys_GetCapability none none none 0x1 0x18c8120 0x1 null out";
const char* const LOOK_FOR_COUNTER = "Esys_GetCapability none none none 0x1 0x18c811f 0x1 null out";
const char* const READ_COUNTER_AREA = "Esys_NV_ReadPublic 0x18c811f 0x2000000 none none out null";
const char* const AUDIT_ON = "Esys_TRSess_SetAttributes 0x2000000 0x80 0x80";
const char* const AUDIT_OFF = "Esys_TRSess_SetAttributes 0x2000000 0x0 0x80";
const char* const CLOSE_COUNTER = "Esys_TR_Close 0x18c811f";
const char* const NAME_OF_COUNTER = "Esys_TR_GetName 0x18c811f out";

const char* const DEFINING_TEMPORARY = "DEBUG defining new temporary workaround NV index";
const char* const CHECKED = "DEBUG tally counter NV index checked OK";
const char* const ATTRIBUTE_MISMATCH =
    "ERROR the tally counter NV index exists but is of the wrong type, attribute mismatch";
const char* const NAME_MISMATCH = "ERROR the tally counter NV index exists but is of the wrong type, name mismatch";
const char* const NOT_RESTORED =
    "failed to restore session attributes after reading tally counter NV index public info";

// Counter is opened on a TPM whose EK an earlier run made; there is no counter yet.
class Counter : public TPMTest {
protected:
    void SetUp() override { openOnNewTPM(); }

    void openOnNewTPM() {
        makeEK();
        open();
    }

    // define makes an index with the TPM's own tools.
    static void define(const char* index, const std::string& attributes, const std::string& more = "-s 8") {
        tool(strfmt("tpm2_nvdefine -Q -C o %s -a '%s' %s", index, attributes.c_str(), more.c_str()));
    }

    static void increment(const char* index) { tool(strfmt("tpm2_nvincrement -Q -C %s %s", index, index)); }
    static void remove(const char* index) { tool(strfmt("tpm2_nvundefine -Q -C o %s", index)); }

    // valueInTPM is what the TPM's own tools read.
    uint64_t valueInTPM() const {
        tool(strfmt("tpm2_nvread -Q -C %s %s -s 8 -o %s", COUNTER, COUNTER, path("value").c_str()));
        const std::string digits = hex(read("value"));
        return digits.size() == 16 ? std::stoull(digits, nullptr, 16) : 0;
    }

    // holdCounter makes the counter, so that the instance holds its handle.
    void holdCounter() {
        ASSERT_TRUE(attestor().openCounter());
        clear();
    }

    static bool exists(const std::string& index) {
        return nvIndices().find("0x" + std::string(index == COUNTER ? "18C811F" : "18C8120")) != std::string::npos;
    }

    // expectNotHeld: the next operation opens the counter again.
    void expectNotHeld() {
        g_oFaults.reset();
        uint64_t value = 0;
        attestor().readCounter(&value);
        EXPECT_THAT(g_oFaults.calls(), Contains(LOOK_FOR_COUNTER));
    }
};

// --- constants

TEST_F(Counter, TemplateIsExactByteByByte) {
    const TPM2B_NV_PUBLIC& publicArea = TPM2Attestor::ms_sCounterPublicTemplate;
    unsigned char buffer[sizeof(TPM2B_NV_PUBLIC)];
    size_t size = 0;
    ASSERT_EQ(Tss2_MU_TPM2B_NV_PUBLIC_Marshal(&publicArea, buffer, sizeof(buffer), &size), TSS2_RC_SUCCESS);
    EXPECT_EQ(hex(buffer, size), COUNTER_AREA);
    EXPECT_EQ(publicArea.size, 0);
}

TEST_F(Counter, NameIsThatOfTheWrittenIndex) {
    const Bytes written = fromHex("018c811f"
                                  "000b"
                                  "22040014"
                                  "0000"
                                  "0008");
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(written.data(), written.size(), digest, &size, EVP_sha256(), nullptr);
    EXPECT_EQ(hex(digest, size), "2154e1c69f9cc07749a88f9835ad835426aedb46aa9d6c41d6764ac380734878");
    const TPM2B_NAME& name = TPM2Attestor::ms_sCounterName;
    EXPECT_EQ(name.size, 34);
    EXPECT_EQ(hex(name.name, name.size), "000b" + hex(digest, size));
}

// --- incrementCounter and readCounter as a whole

TEST_F(Counter, FirstIncrementMakesTheCounterAndIncrementsTwice) {
    StderrText text;
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_THAT(lines(),
                ElementsAre("INFO tally counter NV index does not exist, creating",
                            "DEBUG defining tally counter NV index", DEFINING_TEMPORARY, CHECKED, DEFINING_TEMPORARY));
    EXPECT_EQ(g_oFaults.calls("Esys_NV_Increment"),
              Lines({INCREMENT_TEMPORARY, INCREMENT_COUNTER, INCREMENT_TEMPORARY, INCREMENT_COUNTER}));
    EXPECT_EQ(valueInTPM(), 3U);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, FirstReadingMakesTheCounterAndIncrementsOnce) {
    uint64_t value = UNTOUCHED;
    StderrText text;
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_THAT(lines(), ElementsAre("INFO tally counter NV index does not exist, creating",
                                     "DEBUG defining tally counter NV index", DEFINING_TEMPORARY, CHECKED));
    EXPECT_EQ(g_oFaults.calls("Esys_NV_Increment"), Lines({INCREMENT_TEMPORARY, INCREMENT_COUNTER}));
    EXPECT_THAT(g_oFaults.calls("Esys_NV_Read"),
                ElementsAre("Esys_NV_Read 0x18c811f 0x18c811f 0x2000000 none none 0x8 0x0 out"));
    EXPECT_EQ(value, 2U);
    EXPECT_EQ(value, valueInTPM());
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, IndexInTheTPMHasNameTypeAndSizeOfTheTemplate) {
    holdCounter();
    const std::string area = tool(strfmt("tpm2_nvreadpublic %s", COUNTER));
    EXPECT_THAT(area, HasSubstr("name: 000b2154e1c69f9cc07749a88f9835ad835426aedb46aa9d6c41d6764ac380734878"));
    EXPECT_THAT(area, HasSubstr("value: 0x22040014"));
    EXPECT_THAT(area, HasSubstr("size: 8"));
}

TEST_F(Counter, HeldCounterIsIncrementedByOneWithACycle) {
    holdCounter();
    StderrText text;
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_THAT(lines(), ElementsAre(DEFINING_TEMPORARY));
    EXPECT_THAT(g_oFaults.calls(), ElementsAre(LOOK_FOR_TEMPORARY, DEFINE_TEMPORARY, INCREMENT_TEMPORARY,
                                               UNDEFINE_TEMPORARY, INCREMENT_COUNTER));
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(valueInTPM(), 3U);
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_EQ(valueInTPM(), 4U);
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, HeldCounterIsReadWithoutAnyCheck) {
    holdCounter();
    uint64_t value = 0;
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_EQ(value, 2U);
    EXPECT_EQ(g_oFaults.commands(), Lines{"NV_Read"});
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Counter, WrittenCounterIsCheckedOnly) {
    holdCounter();
    openAgain();
    uint64_t value = 0;
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_EQ(value, 2U);
    EXPECT_THAT(lines(), ElementsAre(CHECKED));
    EXPECT_THAT(g_oFaults.commands(),
                UnorderedElementsAre("GetCapability", "TR_FromTPMPublic", "NV_ReadPublic", "NV_Read"));
}

TEST_F(Counter, CounterThatWasNeverWrittenGetsItsValue) {
    define(COUNTER, OWN_ATTRIBUTES);
    EXPECT_TRUE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre(DEFINING_TEMPORARY, CHECKED));
    EXPECT_EQ(g_oFaults.calls("Esys_NV_Increment"), Lines({INCREMENT_TEMPORARY, INCREMENT_COUNTER}));
    EXPECT_EQ(valueInTPM(), 2U);
}

TEST_F(Counter, ReadingTakesAllEightBytes) {
    holdCounter();
    g_oFaults.alter<TPM2B_MAX_NV_BUFFER>("Esys_NV_Read", [](TPM2B_MAX_NV_BUFFER& data) {
        for (BYTE i = 0; i < 8; ++i) {
            data.buffer[i] = static_cast<BYTE>(0xf1 + i);
        }
    });
    uint64_t value = 0;
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_EQ(value, 0xf1f2f3f4f5f6f7f8U);
}

TEST_F(Counter, FailedReadingKeepsTheHandle) {
    holdCounter();
    g_oFaults.fail("Esys_NV_Read");
    uint64_t value = UNTOUCHED;
    EXPECT_FALSE(attestor().readCounter(&value));
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed to read tally counter NV index")));
    EXPECT_EQ(value, UNTOUCHED);
    EXPECT_EQ(g_oFaults.made("Tss2_MU_UINT64_Unmarshal"), 0U);
    clear();
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_EQ(g_oFaults.commands(), Lines{"NV_Read"});
}

TEST_F(Counter, ShortDataAreAFailure) {
    constexpr uint32_t TOO_SHORT = 0x90006;
    holdCounter();
    for (const UINT16 size : {UINT16{7}, UINT16{1}, UINT16{0}}) {
        clear();
        g_oFaults.alter<TPM2B_MAX_NV_BUFFER>("Esys_NV_Read", [size](TPM2B_MAX_NV_BUFFER& data) { data.size = size; });
        uint64_t value = UNTOUCHED;
        EXPECT_FALSE(attestor().readCounter(&value));
        EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed to read tally counter NV index", TOO_SHORT)));
        EXPECT_EQ(value, UNTOUCHED);
        EXPECT_THAT(g_oFaults.calls("Tss2_MU_UINT64_Unmarshal"),
                    ElementsAre(strfmt("Tss2_MU_UINT64_Unmarshal 0x%x", size)));
    }
}

TEST_F(Counter, FailedIncrementKeepsTheHandle) {
    holdCounter();
    g_oFaults.fail("Esys_NV_Increment", INJECTED, 2);
    EXPECT_FALSE(attestor().incrementCounter());
    EXPECT_THAT(lines(),
                ElementsAre(DEFINING_TEMPORARY, "ERROR " + failedWith("failed to increment tally counter NV index")));
    EXPECT_EQ(valueInTPM(), 2U);
    clear();
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_THAT(g_oFaults.calls(), Not(Contains(LOOK_FOR_COUNTER)));
    EXPECT_EQ(valueInTPM(), 3U);
}

TEST_F(Counter, NoPathToTheCounterMeansNoValue) {
    g_oFaults.fail("Esys_GetCapability", INJECTED, 1, 2);
    uint64_t value = UNTOUCHED;
    EXPECT_FALSE(attestor().readCounter(&value));
    EXPECT_FALSE(attestor().incrementCounter());
    EXPECT_EQ(value, UNTOUCHED);
    EXPECT_EQ(g_oFaults.commands(), Lines(2, "GetCapability"));
}

// --- openCounter, defineCounter

TEST_F(Counter, OpeningAgainClosesTheHandle) {
    holdCounter();
    StderrText text;
    EXPECT_TRUE(attestor().openCounter());
    EXPECT_EQ(g_oFaults.calls("Esys_TR_Close"), Lines{CLOSE_COUNTER});
    EXPECT_THAT(lines(), ElementsAre(CHECKED));
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, FailedLookForTheCounterIsAnError) {
    const std::string failed = "ERROR failed loading tally counter NV index with handle 0x18c811f";
    g_oFaults.fail("Esys_GetCapability");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(
        lines(),
        ElementsAre("ERROR " + failedWith("failed to check existence of TPM object with handle 0x18c811f"), failed));
    g_oFaults.reset();
    holdCounter();
    g_oFaults.fail("Esys_TR_FromTPMPublic");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(),
                ElementsAre("ERROR " + failedWith("failed loading TPM object with handle 0x18c811fx"), failed));
    expectNotHeld();
}

TEST_F(Counter, FailedDefinitionLeavesNoHandle) {
    g_oFaults.fail("Esys_NV_DefineSpace");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre("INFO tally counter NV index does not exist, creating",
                                     "DEBUG defining tally counter NV index",
                                     "ERROR " + failedWith("failed defining tally counter NV index")));
    EXPECT_EQ(nvIndices(), "");
    expectNotHeld();
}

TEST_F(Counter, OwnerPasswordRefusesTheDefinition) {
    tool("tpm2_changeauth -c o secret");
    EXPECT_FALSE(attestor().incrementCounter());
    EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith("failed defining tally counter NV index", 0x9a2)));
}

TEST_F(Counter, DefiningClosesTheHandleThatIsHeld) {
    holdCounter();
    EXPECT_FALSE(attestor().defineCounter());
    EXPECT_THAT(lines(), ElementsAre("DEBUG defining tally counter NV index",
                                     "ERROR " + failedWith("failed defining tally counter NV index", 0x14c)));
    EXPECT_THAT(g_oFaults.calls(), UnorderedElementsAre(CLOSE_COUNTER, DEFINE_COUNTER));
    EXPECT_EQ(valueInTPM(), 2U);
}

// --- checkCounter

TEST_F(Counter, AttributesMustBeExact) {
    const struct {
        const char* what;
        const char* attributes;
        const char* more;
    } ROWS[] = {
        {"one more", "authwrite|authread|no_da|nt=counter|ownerread", "-s 8"},
        {"another one more", "authwrite|authread|no_da|nt=counter|ownerwrite", "-s 8"},
        {"one that a start of the TPM clears", "authwrite|authread|no_da|nt=counter|read_stclear", "-s 8"},
        {"one less", "authwrite|authread|nt=counter", "-s 8"},
        {"no counter", "authwrite|authread|no_da", "-s 8"},
        {"no counter, and another size", "authwrite|authread|no_da", "-s 32"},
        {"bits", "authwrite|authread|no_da|nt=bits", "-s 8"},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        renewTPM();
        openOnNewTPM();
        define(COUNTER, row.attributes, row.more);
        clear();
        StderrText text;
        EXPECT_FALSE(attestor().openCounter());
        EXPECT_THAT(lines(), ElementsAre(ATTRIBUTE_MISMATCH));
        EXPECT_THAT(g_oFaults.calls("Esys_NV_Increment"), IsEmpty());
        EXPECT_EQ(g_oFaults.calls("Esys_TR_Close"), Lines{CLOSE_COUNTER});
        EXPECT_FALSE(attestor().incrementCounter());
        EXPECT_EQ(lines(), Lines(2, ATTRIBUTE_MISMATCH)) << "it is looked for and refused again";
        EXPECT_TRUE(exists(COUNTER)) << "it stays";
        EXPECT_EQ(text.take(), "");
    }
}

TEST_F(Counter, WrittenIndexOfTheWrongKindIsRefused) {
    const std::string wrong = std::string(OWN_ATTRIBUTES) + "|ownerread";
    define(COUNTER, wrong);
    increment(COUNTER);
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre(ATTRIBUTE_MISMATCH));
}

TEST_F(Counter, NameMustBeExact) {
    const struct {
        const char* what;
        std::string more;
    } ROWS[] = {
        {"a policy", "-s 8 -L " + path("policy")},
        {"another name algorithm, of another size", "-s 8 -g sha384"},
        {"a shorter name", "-s 8 -g sha1"},
    };
    for (const auto& row : ROWS) {
        for (const bool written : {false, true}) {
            SCOPED_TRACE(std::string(row.what) + (written ? ", written" : ", never written"));
            renewTPM();
            openOnNewTPM();
            write("policy", Bytes(32, 0x77));
            define(COUNTER, OWN_ATTRIBUTES, row.more);
            if (written) {
                increment(COUNTER);
            }
            clear();
            StderrText text;
            EXPECT_FALSE(attestor().openCounter());
            EXPECT_EQ(lines(), written ? Lines({NAME_MISMATCH}) : Lines({DEFINING_TEMPORARY, NAME_MISMATCH}));
            EXPECT_EQ(g_oFaults.made("Esys_NV_Increment"), written ? 0U : 2U);
            EXPECT_EQ(g_oFaults.calls("Esys_TR_Close"), Lines{CLOSE_COUNTER});
            EXPECT_TRUE(exists(COUNTER));
            expectNotHeld();
            EXPECT_EQ(text.take(), "");
        }
    }
}

TEST_F(Counter, NameWithOneWrongByteIsRefused) {
    holdCounter();
    for (const int position : {0, 1, 2, 33}) {
        clear();
        g_oFaults.alter<TPM2B_NAME>("Esys_TR_GetName", [position](TPM2B_NAME& name) { name.name[position] ^= 1; });
        EXPECT_FALSE(attestor().openCounter());
        EXPECT_THAT(lines(), ElementsAre(NAME_MISMATCH)) << position;
    }
    for (const UINT16 size : {UINT16{0}, UINT16{33}, UINT16{35}}) {
        clear();
        g_oFaults.alter<TPM2B_NAME>("Esys_TR_GetName", [size](TPM2B_NAME& name) { name.size = size; });
        EXPECT_FALSE(attestor().openCounter());
        EXPECT_THAT(lines(), ElementsAre(NAME_MISMATCH)) << size;
    }
}

TEST_F(Counter, CheckTakesTheAuditAttributeOffAgain) {
    holdCounter();
    EXPECT_TRUE(attestor().checkCounter());
    EXPECT_THAT(g_oFaults.calls(), ElementsAre(AUDIT_ON, READ_COUNTER_AREA, AUDIT_OFF, NAME_OF_COUNTER));
}

TEST_F(Counter, FailedAttributeFailsTheCheck) {
    holdCounter();
    g_oFaults.fail("Esys_TRSess_SetAttributes");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed loading tally counter NV index public info")));
    EXPECT_THAT(g_oFaults.calls("Esys_TRSess_SetAttributes"), ElementsAre(AUDIT_ON, AUDIT_OFF));
    EXPECT_EQ(g_oFaults.made("Esys_NV_ReadPublic"), 0U);
    expectNotHeld();
}

TEST_F(Counter, FailedPublicAreaFailsTheCheck) {
    holdCounter();
    g_oFaults.fail("Esys_NV_ReadPublic");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed loading tally counter NV index public info")));
    EXPECT_THAT(g_oFaults.calls("Esys_TRSess_SetAttributes"), ElementsAre(AUDIT_ON, AUDIT_OFF));
    expectNotHeld();
}

TEST_F(Counter, FailedRestoringIsAWarningWithTheCodeOfTheStepsBefore) {
    holdCounter();
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 2);
    EXPECT_TRUE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre("WARN " + failedWith(NOT_RESTORED, 0), CHECKED));

    clear();
    g_oFaults.reset();
    g_oFaults.fail("Esys_NV_ReadPublic", 0x123);
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 2);
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(),
                ElementsAre("WARN " + failedWith(NOT_RESTORED, 0x123),
                            "ERROR " + failedWith("failed loading tally counter NV index public info", 0x123)));
}

TEST_F(Counter, FailedNameFailsTheCheck) {
    holdCounter();
    g_oFaults.fail("Esys_TR_GetName");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed loading tally counter NV index name")));
    expectNotHeld();
}

TEST_F(Counter, FailedInitialValueFailsTheCheck) {
    const char* const initial = "ERROR failed setting an initial value for tally counter NV index";
    define(COUNTER, OWN_ATTRIBUTES);
    clear();
    g_oFaults.fail("Esys_NV_Increment", INJECTED, 2);
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(), ElementsAre(DEFINING_TEMPORARY,
                                     "ERROR " + failedWith("failed to increment tally counter NV index"), initial));
    EXPECT_EQ(g_oFaults.made("Esys_TR_GetName"), 0U);

    clear();
    g_oFaults.reset();
    g_oFaults.fail("Esys_NV_Increment");
    EXPECT_FALSE(attestor().openCounter());
    EXPECT_THAT(lines(),
                ElementsAre(DEFINING_TEMPORARY,
                            "ERROR " + failedWith("failed to increment temporary workaround NV index"), initial));
    expectNotHeld();
    EXPECT_EQ(valueInTPM(), 3U) << "the next run gave it its value";
}

// --- the cycle on the temporary index

TEST_F(Counter, UnwrittenLeftOverIsUsed) {
    holdCounter();
    define(TEMPORARY, OWN_ATTRIBUTES);
    clear();
    StderrText text;
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_THAT(lines(), ElementsAre("DEBUG found left-over temporary workaround NV index"));
    EXPECT_THAT(g_oFaults.calls(), ElementsAre(LOOK_FOR_TEMPORARY, "Esys_TR_FromTPMPublic 0x18c8120 none none none &",
                                               "Esys_NV_ReadPublic 0x18c8120 none none none out null",
                                               INCREMENT_TEMPORARY, UNDEFINE_TEMPORARY, INCREMENT_COUNTER));
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(valueInTPM(), 3U);
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, WrittenLeftOverIsDeletedFirst) {
    holdCounter();
    define(TEMPORARY, OWN_ATTRIBUTES);
    increment(TEMPORARY);
    clear();
    StderrText text;
    EXPECT_TRUE(attestor().incrementCounter());
    EXPECT_THAT(lines(),
                ElementsAre("DEBUG found left-over temporary workaround NV index",
                            "DEBUG deleting written left-over temporary workaround NV index", DEFINING_TEMPORARY));
    EXPECT_THAT(g_oFaults.calls(),
                ElementsAre(LOOK_FOR_TEMPORARY, "Esys_TR_FromTPMPublic 0x18c8120 none none none &",
                            "Esys_NV_ReadPublic 0x18c8120 none none none out null", UNDEFINE_TEMPORARY,
                            DEFINE_TEMPORARY, INCREMENT_TEMPORARY, UNDEFINE_TEMPORARY, INCREMENT_COUNTER));
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(text.take(), "");
}

TEST_F(Counter, LeftOverOfAnotherKindStopsEveryIncrement) {
    const struct {
        const char* what;
        const char* attributes;
        const char* more;
    } ROWS[] = {
        {"one attribute more", "authwrite|authread|no_da|nt=counter|ownerread", "-s 8"},
        {"one attribute less", "authwrite|authread|nt=counter", "-s 8"},
        {"no counter", "authwrite|authread|no_da", "-s 8"},
        {"no counter, and another size", "authwrite|authread|no_da", "-s 16"},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.what);
        renewTPM();
        openOnNewTPM();
        holdCounter();
        define(TEMPORARY, row.attributes, row.more);
        StderrText text;
        for (int i = 0; i < 2; ++i) {
            clear();
            EXPECT_FALSE(attestor().incrementCounter());
            EXPECT_THAT(lines(), ElementsAre("DEBUG found left-over temporary workaround NV index",
                                             "ERROR found different NV index at location of temporary workaround NV "
                                             "index, aborting"));
            EXPECT_THAT(g_oFaults.calls("Esys_NV_Increment"), IsEmpty());
            EXPECT_EQ(g_oFaults.calls("Esys_TR_Close"), Lines{"Esys_TR_Close 0x18c8120"});
        }
        EXPECT_TRUE(exists(TEMPORARY)) << "it is left alone";
        EXPECT_EQ(valueInTPM(), 2U);
        remove(TEMPORARY);
        EXPECT_TRUE(attestor().incrementCounter());
        EXPECT_EQ(text.take(), "");
    }
}

// No TPM makes a counter of another size, so the size is changed on its way.
TEST_F(Counter, LeftOverOfAnotherSizeStopsTheIncrement) {
    holdCounter();
    define(TEMPORARY, OWN_ATTRIBUTES);
    clear();
    for (const UINT16 size : {UINT16{0}, UINT16{7}, UINT16{9}}) {
        clear();
        g_oFaults.alter<TPM2B_NV_PUBLIC>("Esys_NV_ReadPublic",
                                         [size](TPM2B_NV_PUBLIC& area) { area.nvPublic.dataSize = size; });
        EXPECT_FALSE(attestor().incrementCounter());
        EXPECT_THAT(problems(), ElementsAre("ERROR found different NV index at location of temporary workaround NV "
                                            "index, aborting"));
    }
    EXPECT_EQ(valueInTPM(), 2U);
}

TEST_F(Counter, LeftOverWithAPasswordStopsTheIncrement) {
    holdCounter();
    define(TEMPORARY, OWN_ATTRIBUTES, "-s 8 -p secret");
    clear();
    EXPECT_FALSE(attestor().incrementCounter());
    EXPECT_THAT(problems(),
                ElementsAre("ERROR " + failedWith("failed to increment temporary workaround NV index", 0x9a2)));
    EXPECT_EQ(valueInTPM(), 2U);
}

// Each step that fails stops the increment; the next run mends what it left.
TEST_F(Counter, EachFailedStepOfTheCycleStopsTheIncrement) {
    enum LeftOver { NONE, UNWRITTEN, WRITTEN };
    const char* const found = "DEBUG found left-over temporary workaround NV index";
    const char* const deleting = "DEBUG deleting written left-over temporary workaround NV index";
    const struct {
        LeftOver leftOver;
        const char* function;
        int call;
        Lines records;
    } ROWS[] = {
        {NONE,
         "Esys_GetCapability",
         1,
         {"ERROR " + failedWith("failed to check existence of TPM object with handle 0x18c8120"),
          "ERROR failed to check existence of temporary NV index for workaround"}},
        {UNWRITTEN,
         "Esys_TR_FromTPMPublic",
         1,
         {"ERROR " + failedWith("failed loading TPM object with handle 0x18c8120x"),
          "ERROR failed to check existence of temporary NV index for workaround"}},
        {UNWRITTEN,
         "Esys_NV_ReadPublic",
         1,
         {found, "ERROR " + failedWith("failed to read left-over temporary workaround NV index info")}},
        {WRITTEN,
         "Esys_NV_UndefineSpace",
         1,
         {found, deleting, "ERROR " + failedWith("failed to delete left-over temporary workaround NV index")}},
        {WRITTEN,
         "Esys_NV_DefineSpace",
         1,
         {found, deleting, DEFINING_TEMPORARY,
          "ERROR " + failedWith("failed to define temporary workaround NV index")}},
        {NONE,
         "Esys_NV_DefineSpace",
         1,
         {DEFINING_TEMPORARY, "ERROR " + failedWith("failed to define temporary workaround NV index")}},
        {NONE,
         "Esys_NV_Increment",
         1,
         {DEFINING_TEMPORARY, "ERROR " + failedWith("failed to increment temporary workaround NV index")}},
        {UNWRITTEN,
         "Esys_NV_Increment",
         1,
         {found, "ERROR " + failedWith("failed to increment temporary workaround NV index")}},
        {NONE,
         "Esys_NV_UndefineSpace",
         1,
         {DEFINING_TEMPORARY, "ERROR " + failedWith("failed to delete temporary workaround NV index")}},
        {WRITTEN,
         "Esys_NV_UndefineSpace",
         2,
         {found, deleting, DEFINING_TEMPORARY,
          "ERROR " + failedWith("failed to delete temporary workaround NV index")}},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(strfmt("%s %d with left-over %d", row.function, row.call, row.leftOver));
        renewTPM();
        openOnNewTPM();
        holdCounter();
        if (row.leftOver != NONE) {
            define(TEMPORARY, OWN_ATTRIBUTES);
        }
        if (row.leftOver == WRITTEN) {
            increment(TEMPORARY);
        }
        clear();
        g_oFaults.fail(row.function, INJECTED, row.call);
        StderrText text;
        EXPECT_FALSE(attestor().incrementCounter());
        EXPECT_EQ(lines(), row.records);
        EXPECT_THAT(g_oFaults.calls(), Not(Contains(INCREMENT_COUNTER)));
        EXPECT_EQ(valueInTPM(), 2U);
        EXPECT_TRUE(attestor().incrementCounter());
        EXPECT_FALSE(exists(TEMPORARY));
        EXPECT_EQ(text.take(), "") << "every handle is closed once, and none twice";
    }
}

TEST_F(Counter, NthCallFails) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
        SCOPED_TRACE(nth);
        renewTPM();
        openOnNewTPM();
        g_oFaults.failCall(nth);
        StderrText text;
        const bool done = attestor().incrementCounter();
        const std::string failed = g_oFaults.failed();
        hit = !failed.empty();
        // the attribute that cannot be taken off again is a warning
        const bool warning = failed == "Esys_TRSess_SetAttributes" && g_oFaults.made("Esys_NV_ReadPublic") == 1;
        EXPECT_EQ(done, !hit || warning) << failed;
        EXPECT_EQ(hasProblem(), hit) << failed;
        g_oFaults.reset();
        m_oTPM->endAttestor();
        expectNothingLeft();

        // the next run mends what this one left
        m_oTPM->renewAttestor();
        open();
        EXPECT_TRUE(attestor().incrementCounter()) << failed;
        EXPECT_FALSE(exists(TEMPORARY)) << failed;
        m_oTPM->endAttestor();
        EXPECT_EQ(text.take(), "") << failed;
    }
}

}  // namespace
