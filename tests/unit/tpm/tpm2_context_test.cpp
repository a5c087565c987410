// tpm2_context_test.cpp: the holders of TPM resources, opening and closing, the guard of a closed instance, and the
// look for objects.

#include <tss2/tss2_esys.h>

#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

using testing::MatchesRegex;
using testing::Not;
using testing::UnorderedElementsAre;

const Lines OPENED_ON_NEW_TPM = {"DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                 "DEBUG saved new ECC NIST P256 EK to persistent handle",
                                 "DEBUG created ECC NIST P256 EK", "DEBUG TPM2 salted session established"};

const Lines OPENED_AGAIN = {"DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                            "DEBUG found valid persistent ECC NIST P256 EK", "DEBUG TPM2 salted session established"};

// --- holders

static_assert(ESysResource::NO_HANDLE == ESYS_TR_NONE);
static_assert(!std::is_copy_constructible_v<ESysTransient> && !std::is_copy_assignable_v<ESysTransient>);
static_assert(!std::is_copy_constructible_v<ESysClosable> && !std::is_copy_assignable_v<ESysClosable>);
static_assert(std::is_nothrow_move_constructible_v<ESysTransient> && std::is_nothrow_move_assignable_v<ESysTransient>);
static_assert(std::is_nothrow_move_constructible_v<ESysClosable> && std::is_nothrow_move_assignable_v<ESysClosable>);
static_assert(std::is_nothrow_destructible_v<ESysTransient> && std::is_nothrow_destructible_v<ESysClosable>);
static_assert(!std::is_copy_constructible_v<ESysOutUPtr<TPM2B_NAME>>);

// Holders uses a context of its own, on a TPM with two NV indices.
class Holders : public TPMTest {
protected:
    Holders() {
        for (const char* const index : {"0x18c8130", "0x18c8131"}) {
            tool(strfmt("tpm2_nvdefine -Q -C o %s -s 8 -a 'authread|authwrite'", index));
        }
        clear();
    }

    ESYS_CONTEXT* context() { return m_oClient.context; }

    // newSession returns a session in the TPM.
    ESYS_TR newSession() {
        const Unseen unseen;
        const TPMT_SYM_DEF none = {TPM2_ALG_NULL, {}, {}};
        ESYS_TR session = ESYS_TR_NONE;
        EXPECT_EQ(Esys_StartAuthSession(context(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                        nullptr, TPM2_SE_HMAC, &none, TPM2_ALG_SHA256, &session),
                  TSS2_RC_SUCCESS);
        return session;
    }

    // newIndex returns the stack's record of an NV index.
    ESYS_TR newIndex(TPM2_HANDLE handle = 0x18c8130) {
        const Unseen unseen;
        ESYS_TR index = ESYS_TR_NONE;
        EXPECT_EQ(Esys_TR_FromTPMPublic(context(), handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &index),
                  TSS2_RC_SUCCESS);
        return index;
    }

    template <class Holder>
    Holder holding(ESYS_TR handle) {
        Holder result(context());
        result.handle = handle;
        return result;
    }

    std::string failureLine(const char* what, ESYS_TR handle) {
        return strfmt("TPM2 ctx %p failed %s of resource 0x%x: 0x%x\n", static_cast<void*>(context()), what, handle,
                      INJECTED);
    }

private:
    SecondClient m_oClient;
};

TEST_F(Holders, AreEmptyByDefault) {
    const ESysTransient transient;
    const ESysClosable closable;
    EXPECT_EQ(transient.ctx, nullptr);
    EXPECT_EQ(transient.handle, ESYS_TR_NONE);
    EXPECT_EQ(closable.ctx, nullptr);
    EXPECT_EQ(closable.handle, ESYS_TR_NONE);
    EXPECT_EQ(ESysTransient(context()).ctx, context());
    EXPECT_EQ(ESysClosable(context()).handle, ESYS_TR_NONE);
}

TEST_F(Holders, FlushOfNothingSucceedsWithoutCall) {
    EXPECT_TRUE(ESysTransient().flush());
    EXPECT_TRUE(ESysTransient(context()).flush());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Holders, FlushRemovesTheResource) {
    ESysTransient holder = holding<ESysTransient>(newSession());
    EXPECT_NE(loadedSessions(), "");
    EXPECT_TRUE(holder.flush());
    EXPECT_EQ(holder.handle, ESYS_TR_NONE);
    EXPECT_EQ(holder.ctx, context());
    EXPECT_EQ(loadedSessions(), "");
}

TEST_F(Holders, CloseKeepsTheObjectInTheTPM) {
    ESysClosable holder = holding<ESysClosable>(newIndex());
    EXPECT_TRUE(holder.close());
    EXPECT_EQ(holder.handle, ESYS_TR_NONE);
    EXPECT_THAT(g_oFaults.calls(), ElementsAre("Esys_TR_Close 0x18c8130"));
    EXPECT_THAT(nvIndices(), HasSubstr("0x18C8130"));
}

TEST_F(Holders, FailedFlushIsReportedOnStandardErrorAndEmptiesTheHolder) {
    const ESYS_TR session = newSession();
    ESysTransient holder = holding<ESysTransient>(session);
    g_oFaults.fail("Esys_FlushContext");
    StderrText text;
    EXPECT_FALSE(holder.flush());
    EXPECT_EQ(text.take(), failureLine("flush", session));
    EXPECT_EQ(holder.handle, ESYS_TR_NONE);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Holders, FailedCloseIsReportedOnStandardErrorAndEmptiesTheHolder) {
    const ESYS_TR index = newIndex();
    ESysClosable holder = holding<ESysClosable>(index);
    g_oFaults.fail("Esys_TR_Close");
    StderrText text;
    EXPECT_FALSE(holder.close());
    EXPECT_EQ(text.take(), failureLine("close", index));
    EXPECT_EQ(holder.handle, ESYS_TR_NONE);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Holders, RefusalOfTheLibraryIsReportedWithItsCode) {
    ESysClosable holder = holding<ESysClosable>(0x40ffffff);
    StderrText text;
    EXPECT_FALSE(holder.close());
    EXPECT_THAT(text.take(), MatchesRegex("TPM2 ctx 0x[0-9a-f]+ failed close of resource 0x40ffffff: 0x70018\n"));
    EXPECT_EQ(holder.handle, ESYS_TR_NONE);
}

TEST_F(Holders, DestructorsRelease) {
    { const ESysTransient holder = holding<ESysTransient>(newSession()); }
    { const ESysClosable holder = holding<ESysClosable>(newIndex()); }
    EXPECT_THAT(g_oFaults.calls(), ElementsAre("Esys_FlushContext 0x2000000", "Esys_TR_Close 0x18c8130"));
    EXPECT_EQ(loadedSessions(), "");
}

TEST_F(Holders, AssignedToItselfKeepsWhatItHolds) {
    const ESYS_TR session = newSession();
    const ESYS_TR index = newIndex();
    ESysTransient transient = holding<ESysTransient>(session);
    ESysClosable closable = holding<ESysClosable>(index);
    ESysTransient& sameTransient = transient;
    ESysClosable& sameClosable = closable;
    transient = std::move(sameTransient);
    closable = std::move(sameClosable);
    EXPECT_EQ(transient.handle, session);
    EXPECT_EQ(closable.handle, index);
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Holders, FailureInADestructorIsPrintedAndSwallowed) {
    const ESYS_TR session = newSession();
    const ESYS_TR index = newIndex();
    g_oFaults.fail("Esys_FlushContext");
    g_oFaults.fail("Esys_TR_Close");
    StderrText text;
    { const ESysTransient holder = holding<ESysTransient>(session); }
    { const ESysClosable holder = holding<ESysClosable>(index); }
    EXPECT_EQ(text.take(), failureLine("flush", session) + failureLine("close", index));
}

TEST_F(Holders, MovedFromHolderIsEmpty) {
    const ESYS_TR session = newSession();
    ESysTransient first = holding<ESysTransient>(session);
    ESysTransient second(std::move(first));
    EXPECT_EQ(first.handle, ESYS_TR_NONE);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(second.handle, session);
    EXPECT_EQ(second.ctx, context());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Holders, AssignmentReleasesWhatWasHeld) {
    ESysTransient session = holding<ESysTransient>(newSession());
    const ESYS_TR newer = newSession();
    session = holding<ESysTransient>(newer);
    EXPECT_EQ(session.handle, newer);
    EXPECT_THAT(g_oFaults.calls(), ElementsAre("Esys_FlushContext 0x2000000"));

    ESysClosable index = holding<ESysClosable>(newIndex());
    const ESYS_TR other = newIndex(0x18c8131);
    index = holding<ESysClosable>(other);
    EXPECT_EQ(index.handle, other);
    EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), ElementsAre("Esys_TR_Close 0x18c8130"));
}

TEST_F(Holders, AssignmentBringsTheContextAlong) {
    ESysTransient empty;
    empty = holding<ESysTransient>(newSession());
    EXPECT_EQ(empty.ctx, context());
    EXPECT_TRUE(empty.flush());
    EXPECT_EQ(loadedSessions(), "");
}

// --- open

TEST(TPM2AttestorWithoutTPM, IsEnabledInEveryBuild) {
    EXPECT_TRUE(TPM2Attestor::isEnabled());
}

TEST(TPM2AttestorWithoutTPM, ConstructorAndDestructorMakeNoCall) {
    const FaultsOff faults;
    const RecordCollector records("orv.tally");
    {
        const TPM2Attestor attestor;
        EXPECT_FALSE(attestor.isOpen());
    }
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
    EXPECT_THAT(records.lines(), IsEmpty());
}

using Open = TPMTest;

TEST_F(Open, RecordsOnNewTPM) {
    EXPECT_TRUE(attestor().open());
    EXPECT_EQ(lines(), OPENED_ON_NEW_TPM);
    EXPECT_TRUE(attestor().isOpen());
}

TEST_F(Open, RecordsOnLaterRuns) {
    makeEK();
    EXPECT_TRUE(attestor().open());
    EXPECT_EQ(lines(), OPENED_AGAIN);
}

TEST_F(Open, RecordsNameTheirOrigin) {
    EXPECT_TRUE(attestor().open());
    for (const Record& record : m_oRecords.records()) {
        EXPECT_THAT(record.file, HasSubstr("tpm2_attestor")) << record.text;
        EXPECT_GT(record.line, 0) << record.text;
    }
}

TEST_F(Open, LibraryChoosesTheConnection) {
    EXPECT_TRUE(attestor().open());
    EXPECT_THAT(g_oFaults.calls("Esys_Initialize"), ElementsAre("Esys_Initialize null 1.2.1.108"));
}

TEST_F(Open, SessionIsSaltedByTheEKAndBoundToNothing) {
    EXPECT_TRUE(attestor().open());
    EXPECT_THAT(g_oFaults.calls("Esys_StartAuthSession"),
                ElementsAre("Esys_StartAuthSession 0x8101000a none none none none null 0x0 {0x10,0,0x0} 0xb &"));
}

TEST_F(Open, ChangesNoSessionAttribute) {
    EXPECT_TRUE(attestor().open());
    EXPECT_EQ(g_oFaults.made("Esys_TRSess_SetAttributes"), 0U);
}

TEST_F(Open, OpensNeitherCounterNorKey) {
    makeEK();
    EXPECT_TRUE(attestor().open());
    EXPECT_THAT(g_oFaults.commands(), UnorderedElementsAre("GetCapability", "GetCapability", "GetCapability",
                                                           "TR_FromTPMPublic", "ReadPublic", "StartAuthSession"));
    EXPECT_EQ(nvIndices(), "");
}

TEST_F(Open, SecondOpenOnAnOpenInstanceLeavesItWorking) {
    open();
    const Bytes key = attestor().getEndorsementKeyTPMPub();
    const auto ak = attestor().getAttestationKeyTPMPubPriv();
    clear();
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("ERROR the TPM2 is already open"));
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());

    EXPECT_TRUE(attestor().isOpen());
    EXPECT_EQ(attestor().getEndorsementKeyTPMPub(), key);
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), ak);
    uint64_t value = 0;
    EXPECT_TRUE(attestor().readCounter(&value));
    EXPECT_TRUE(attestor().loadAttestationKey(ak.first, ak.second));
}

TEST_F(Open, FailsWhenNoTPMIsReachable) {
    m_oTPM->stop();
    clear();
    ESYS_CONTEXT* context = nullptr;
    TSS2_RC code = TSS2_RC_SUCCESS;
    {
        const Unseen unseen;
        code = Esys_Initialize(&context, nullptr, nullptr);
    }
    ASSERT_NE(code, TSS2_RC_SUCCESS);

    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed to open TPM2", code)));
    EXPECT_FALSE(attestor().isOpen());
    clear();
    attestor().close();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Open, FailedInitialisationLeavesItClosed) {
    g_oFaults.fail("Esys_Initialize");
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed to open TPM2")));
    EXPECT_FALSE(attestor().isOpen());
    m_oTPM->endAttestor();
    EXPECT_EQ(g_oFaults.calls().size(), 1U);
    EXPECT_EQ(lines().size(), 1U);
}

TEST_F(Open, FailedEKReleasesEverything) {
    g_oFaults.fail("Esys_CreatePrimary");
    StderrText text;
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                     "ERROR " + failedWith("failed to create endorsement key"),
                                     "ERROR cannot establish a session", "DEBUG closing TPM2"));
    EXPECT_FALSE(attestor().isOpen());
    expectNothingLeft();
    clear();
    m_oTPM->endAttestor();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
    EXPECT_EQ(text.take(), "");
}

TEST_F(Open, FailedSessionReleasesThePersistentEK) {
    makeEK();
    g_oFaults.fail("Esys_StartAuthSession");
    StderrText text;
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(lines(), ElementsAre("DEBUG opened TPM2", "DEBUG creating ECC NIST P256 EK",
                                     "DEBUG found valid persistent ECC NIST P256 EK",
                                     "ERROR " + failedWith("failed to create TPM2 session"), "DEBUG closing TPM2"));
    EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), ElementsAre("Esys_TR_Close 0x8101000a"));
    EXPECT_EQ(g_oFaults.calls().back(), "Esys_Finalize");
    EXPECT_FALSE(attestor().isOpen());
    expectNothingLeft();
    EXPECT_THAT(persistentObjects(), HasSubstr("0x8101000A"));
    clear();
    m_oTPM->endAttestor();
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
    EXPECT_EQ(text.take(), "");
}

TEST_F(Open, FailedSessionFlushesTheTransientEK) {
    g_oFaults.fail("Esys_EvictControl");
    g_oFaults.fail("Esys_StartAuthSession");
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(g_oFaults.calls("Esys_FlushContext"), ElementsAre("Esys_FlushContext 0x80000000"));
    EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), IsEmpty());
    expectNothingLeft();
}

// Out of memory the library fails and yet leaves a handle, to nothing. It must not be flushed: when the holder of the
// session ends, the context is gone.
TEST_F(Open, HandleOfAFailedSessionIsDropped) {
    makeEK();
    g_oFaults.leaveHandles();
    g_oFaults.fail("Esys_StartAuthSession", TSS2_ESYS_RC_MEMORY);
    StderrText text;
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(problems(), ElementsAre("ERROR " + failedWith("failed to create TPM2 session", TSS2_ESYS_RC_MEMORY)));
    EXPECT_EQ(g_oFaults.made("Esys_FlushContext"), 0U);
    EXPECT_THAT(g_oFaults.calls("Esys_TR_Close"), ElementsAre("Esys_TR_Close 0x8101000a"));
    EXPECT_EQ(g_oFaults.calls().back(), "Esys_Finalize");
    EXPECT_FALSE(attestor().isOpen());
    expectNothingLeft();
    EXPECT_TRUE(attestor().open()) << "the next time there is memory";
    m_oTPM->endAttestor();
    EXPECT_EQ(text.take(), "");
    expectNothingLeft();
}

TEST_F(Open, WorksAfterEachFailure) {
    StderrText text;
    for (const char* const function : {"Esys_Initialize", "Esys_StartAuthSession"}) {
        g_oFaults.fail(function);
        EXPECT_FALSE(attestor().open()) << function;
        EXPECT_TRUE(attestor().open()) << function;
        attestor().close();
    }
    EXPECT_EQ(text.take(), "");
}

TEST_F(Open, NthCallFails) {
    for (const bool later : {false, true}) {
        bool hit = true;
        for (int nth = 1; hit; ++nth) {
            SCOPED_TRACE(strfmt("%s run, call %d", later ? "later" : "first", nth));
            renewTPM();
            if (later) {
                makeEK();
            }
            g_oFaults.failCall(nth);
            const bool opened = attestor().open();
            const std::string failed = g_oFaults.failed();
            hit = !failed.empty();
            // only what has to do with the slot of the EK may fail without harm
            const bool warning = failed == "Esys_EvictControl" || failed == "Esys_TR_FromTPMPublic" ||
                                 failed == "Esys_ReadPublic" || failed == "Tss2_MU_TPM2B_PUBLIC_Marshal" ||
                                 (failed == "Esys_GetCapability" && nth == 4);
            EXPECT_EQ(opened, !hit || warning) << failed;
            EXPECT_EQ(attestor().isOpen(), opened) << failed;
            EXPECT_EQ(hasProblem(), hit && failed != "Tss2_MU_TPM2B_PUBLIC_Marshal") << failed;
            g_oFaults.reset();
            StderrText text;
            m_oTPM->endAttestor();
            EXPECT_EQ(text.take(), "") << failed;
            EXPECT_EQ(loadedSessions(), "") << failed;
            // the run that saved the EK leaves its transient copy, on purpose
            const bool saved = !later && persistentObjects() != "";
            EXPECT_EQ(transientObjects(), saved ? "- 0x80000000\n" : "") << failed;
        }
    }
}

// --- close

using Close = TPMTest;

TEST_F(Close, OnAClosedInstanceDoesNothing) {
    attestor().close();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
    open();
    attestor().close();
    clear();
    attestor().close();
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Close, ReleasesAllInItsOrder) {
    makeEK();
    open();
    uint64_t value = 0;
    ASSERT_FALSE(attestor().certifyCounterWithAudit(&value, {}).first.empty());
    clear();
    StderrText text;
    attestor().close();
    EXPECT_THAT(lines(), ElementsAre("DEBUG closing TPM2"));
    EXPECT_THAT(g_oFaults.calls(),
                ElementsAre("Esys_TR_Close 0x18c811f", "Esys_TR_Close 0x8101000a", "Esys_FlushContext 0x80000001",
                            "Esys_FlushContext 0x2000000", "Esys_Finalize"));
    EXPECT_EQ(text.take(), "");
    EXPECT_FALSE(attestor().isOpen());
    expectNothingLeft();
}

TEST_F(Close, DestructorCloses) {
    makeEK();
    open();
    m_oTPM->endAttestor();
    EXPECT_THAT(lines(), ElementsAre("DEBUG closing TPM2"));
    EXPECT_THAT(g_oFaults.calls(),
                UnorderedElementsAre("Esys_TR_Close 0x8101000a", "Esys_FlushContext 0x2000000", "Esys_Finalize"));
    expectNothingLeft();
}

TEST_F(Close, FailedReleaseOfThePersistentEKIsReported) {
    open();
    g_oFaults.fail("Esys_TR_Close");
    StderrText text;
    attestor().close();
    EXPECT_THAT(text.take(), MatchesRegex("TPM2 ctx 0x[0-9a-f]+ failed close of resource 0x[0-9a-f]+: 0x902\n"));
    EXPECT_THAT(lines(), ElementsAre("DEBUG closing TPM2"));
    EXPECT_FALSE(attestor().isOpen());
}

TEST_F(Close, FailedReleaseOfTheTransientEKIsReported) {
    g_oFaults.fail("Esys_EvictControl");
    open();
    g_oFaults.fail("Esys_FlushContext");
    StderrText text;
    attestor().close();
    EXPECT_THAT(text.take(), MatchesRegex("TPM2 ctx 0x[0-9a-f]+ failed flush of resource 0x[0-9a-f]+: 0x902\n"));
    EXPECT_FALSE(attestor().isOpen());
    EXPECT_EQ(loadedSessions(), "");
}

TEST_F(Close, EachFailedReleaseIsReportedAndTheOthersGoOn) {
    open();
    uint64_t value = 0;
    ASSERT_FALSE(attestor().certifyCounterWithAudit(&value, {}).first.empty());
    clear();
    g_oFaults.fail("Esys_TR_Close", INJECTED, 1, 9);
    g_oFaults.fail("Esys_FlushContext", INJECTED, 1, 9);
    StderrText text;
    attestor().close();
    const std::string line = "TPM2 ctx 0x[0-9a-f]+ failed (close|flush) of resource 0x[0-9a-f]+: 0x902\n";
    EXPECT_THAT(text.take(), MatchesRegex(line + line + line + line));
    EXPECT_EQ(g_oFaults.calls().back(), "Esys_Finalize");
    EXPECT_FALSE(attestor().isOpen());
}

TEST_F(Close, InstanceMayBeOpenedAgain) {
    open();
    const auto first = attestor().getAttestationKeyTPMPubPriv();
    uint64_t value = 0;
    uint64_t again = 0;
    ASSERT_TRUE(attestor().readCounter(&value));
    attestor().close();
    clear();

    StderrText text;
    EXPECT_TRUE(attestor().open());
    EXPECT_EQ(lines(), OPENED_AGAIN);
    // neither the AK nor the counter's handle came along
    EXPECT_NE(attestor().getAttestationKeyTPMPubPriv(), first);
    clear();
    EXPECT_TRUE(attestor().readCounter(&again));
    EXPECT_EQ(again, value);
    EXPECT_EQ(g_oFaults.calls("Esys_GetCapability").size(), 1U);
    EXPECT_EQ(text.take(), "");
}

TEST_F(Close, FieldsOfTheEKKeepTheirValues) {
    // So an `open` that fails before it has a new EK tries to release the old one's handle, which is reported.
    makeEK();
    open();
    attestor().close();
    g_oFaults.fail("Esys_GetCapability");
    StderrText text;
    EXPECT_FALSE(attestor().open());
    EXPECT_THAT(text.take(), MatchesRegex("TPM2 ctx 0x[0-9a-f]+ failed close of resource 0x[0-9a-f]+: 0x70018\n"));
    EXPECT_TRUE(attestor().open());
}

// --- the guard of a closed instance

struct Guarded {
    const char* name;
    std::function<void(TPM2Attestor&)> expectEmpty;
};

const Guarded GUARDED[] = {
    {"getEndorsementKeyPEM", [](TPM2Attestor& attestor) { EXPECT_EQ(attestor.getEndorsementKeyPEM(), ""); }},
    {"getEndorsementKeyTPMPub",
     [](TPM2Attestor& attestor) { EXPECT_THAT(attestor.getEndorsementKeyTPMPub(), IsEmpty()); }},
    {"getEndorsementKeyDER", [](TPM2Attestor& attestor) { EXPECT_THAT(attestor.getEndorsementKeyDER(), IsEmpty()); }},
    {"loadAttestationKey", [](TPM2Attestor& attestor) { EXPECT_FALSE(attestor.loadAttestationKey({1}, {2})); }},
    {"activateAttestationKey",
     [](TPM2Attestor& attestor) { EXPECT_THAT(attestor.activateAttestationKey({1}), IsEmpty()); }},
    {"incrementCounter", [](TPM2Attestor& attestor) { EXPECT_FALSE(attestor.incrementCounter()); }},
    {"readCounter",
     [](TPM2Attestor& attestor) {
         uint64_t value = 7;
         EXPECT_FALSE(attestor.readCounter(&value));
         EXPECT_EQ(value, 7U);
     }},
    {"certifyCounterWithCmd",
     [](TPM2Attestor& attestor) { EXPECT_EQ(attestor.certifyCounterWithCmd({1}), std::make_pair(Bytes(), Bytes())); }},
    {"certifyCounterWithAudit",
     [](TPM2Attestor& attestor) {
         uint64_t value = 7;
         EXPECT_EQ(attestor.certifyCounterWithAudit(&value, {1}), std::make_pair(Bytes(), Bytes()));
         EXPECT_EQ(value, 7U);
     }},
    {"getAttestationKeyTPMPubPriv",
     [](TPM2Attestor& attestor) {
         EXPECT_EQ(attestor.getAttestationKeyTPMPubPriv(), std::make_pair(Bytes(), Bytes()));
     }},
};

void expectGuarded(TPM2Attestor& attestor, RecordCollector& records) {
    for (const Guarded& row : GUARDED) {
        records.clear();
        g_oFaults.clearCalls();
        row.expectEmpty(attestor);
        EXPECT_THAT(records.lines(), ElementsAre("ERROR TPM2 not open")) << row.name;
        EXPECT_THAT(g_oFaults.calls(), IsEmpty()) << row.name;
    }
}

using Guard = TPMTest;

TEST_F(Guard, EveryOperationFailsBeforeOpen) {
    expectGuarded(attestor(), m_oRecords);
}

TEST_F(Guard, EveryOperationFailsAfterClose) {
    open();
    attestor().close();
    expectGuarded(attestor(), m_oRecords);
}

TEST_F(Guard, EveryOperationFailsAfterAFailedOpen) {
    g_oFaults.fail("Esys_StartAuthSession");
    EXPECT_FALSE(attestor().open());
    expectGuarded(attestor(), m_oRecords);
}

TEST_F(Guard, ComesBeforeAnyOtherCheck) {
    uint64_t value = 0;
    attestor().certifyCounterWithAudit(&value, Bytes(65));
    attestor().certifyCounterWithCmd(Bytes(65));
    attestor().activateAttestationKey({});
    attestor().loadAttestationKey({}, {});
    EXPECT_EQ(lines(), Lines(4, "ERROR TPM2 not open"));
}

// --- getTPMObject

class GetTPMObject : public TPMTest {
protected:
    GetTPMObject() { tool("tpm2_nvdefine -Q -C o 0x18c8130 -s 8 -a 'authread|authwrite'"); }
};

TEST_F(GetTPMObject, FindsAnIndexThatExists) {
    open();
    ESYS_TR handle = ESYS_TR_NONE;
    EXPECT_TRUE(attestor().getTPMObject(0x18c8130, &handle));
    EXPECT_NE(handle, ESYS_TR_NONE);
    EXPECT_THAT(g_oFaults.calls(), ElementsAre("Esys_GetCapability none none none 0x1 0x18c8130 0x1 null out",
                                               "Esys_TR_FromTPMPublic 0x18c8130 none none none &"));
    EXPECT_THAT(lines(), IsEmpty());
    Bytes content;
    EXPECT_FALSE(attestor().readNVIndex(handle, &content)) << "the handle is good, but nothing was written yet";
    EXPECT_THAT(lines(), ElementsAre(HasSubstr("failed reading data from NV-index: ")));
}

TEST_F(GetTPMObject, FindsAPersistentObject) {
    open();
    ESYS_TR handle = ESYS_TR_NONE;
    EXPECT_TRUE(attestor().getTPMObject(0x8101000a, &handle));
    EXPECT_NE(handle, ESYS_TR_NONE);
}

TEST_F(GetTPMObject, BelowAnotherObjectIsAbsent) {
    open();
    ESYS_TR handle = 1;
    EXPECT_TRUE(attestor().getTPMObject(0x18c812f, &handle));
    EXPECT_EQ(handle, ESYS_TR_NONE);
    EXPECT_EQ(g_oFaults.made("Esys_TR_FromTPMPublic"), 0U);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(GetTPMObject, AboveAllOthersIsAbsent) {
    open();
    for (const TPM2_HANDLE absent : {0x18c8131U, 0x8101000bU}) {
        ESYS_TR handle = 1;
        EXPECT_TRUE(attestor().getTPMObject(absent, &handle));
        EXPECT_EQ(handle, ESYS_TR_NONE);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(GetTPMObject, FailedQuestionIsAnError) {
    open();
    g_oFaults.fail("Esys_GetCapability");
    ESYS_TR handle = ESYS_TR_NONE;
    EXPECT_FALSE(attestor().getTPMObject(0x18c8130, &handle));
    EXPECT_EQ(handle, ESYS_TR_NONE);
    EXPECT_THAT(lines(),
                ElementsAre("ERROR " + failedWith("failed to check existence of TPM object with handle 0x18c8130")));
}

TEST_F(GetTPMObject, FailedLoadingIsAnError) {
    open();
    g_oFaults.fail("Esys_TR_FromTPMPublic");
    ESYS_TR handle = ESYS_TR_NONE;
    EXPECT_FALSE(attestor().getTPMObject(0x18c8130, &handle));
    EXPECT_EQ(handle, ESYS_TR_NONE);
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith("failed loading TPM object with handle 0x18c8130x")));
}

// --- faults of another kind

using Misfortune = TPMTest;

TEST_F(Misfortune, EveryOperationFailsOnceTheTPMIsGone) {
    open();
    uint64_t value = 7;
    ASSERT_TRUE(attestor().readCounter(&value));
    m_oTPM->stop();
    clear();
    StderrText text;
    EXPECT_FALSE(attestor().readCounter(&value));
    EXPECT_FALSE(attestor().incrementCounter());
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), std::make_pair(Bytes(), Bytes()));
    EXPECT_EQ(attestor().certifyCounterWithAudit(&value, {}), std::make_pair(Bytes(), Bytes()));
    EXPECT_GE(problems().size(), 4U);
    // what needs no TPM still works
    EXPECT_FALSE(attestor().getEndorsementKeyPEM().empty());
    attestor().close();
    EXPECT_FALSE(attestor().isOpen());
    EXPECT_THAT(text.take(), HasSubstr("failed flush of resource"));
}

TEST_F(Misfortune, ExhaustedMemoryReleasesTheSession) {
    makeEK();
    open();
    g_oFaults.before("Esys_Create", [] { throw std::bad_alloc(); });
    EXPECT_THROW(attestor().createAK(), std::bad_alloc);
    EXPECT_EQ(g_oFaults.calls("Esys_FlushContext"), Lines{"Esys_FlushContext 0x3000001"});
    EXPECT_TRUE(attestor().isOpen());
    m_oTPM->endAttestor();
    expectNothingLeft();
}

TEST_F(Misfortune, ExhaustedMemoryInOpenReleasesTheKey) {
    g_oFaults.before("Esys_EvictControl", [] { throw std::bad_alloc(); });
    EXPECT_THROW(attestor().open(), std::bad_alloc);
    g_oFaults.reset();
    m_oTPM->endAttestor();
    expectNothingLeft();
}

}  // namespace
