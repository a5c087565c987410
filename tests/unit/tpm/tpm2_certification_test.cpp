// tpm2_certification_test.cpp: the counter certified by the attestation key: the audit sequence, its retries, and the
// short alternative.
//
// This file replaces the sleep and the random device too: a sleep is listed and returns at once.

#include <openssl/evp.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "unit/tpm/esys_faults.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

// Sleeps is what the replaced sleep was asked, and what it is to answer.
struct Sleeps {
    struct Answer {
        int error;  // the errno value; 0 for a whole sleep
        timespec remaining;
    };

    bool replaced = false;
    std::vector<timespec> asked;
    std::deque<Answer> answers;
};

Sleeps gs_oSleeps;

// Randomness is what the replaced random device was asked, and the value that it returns.
struct Randomness {
    enum Failure { NONE, OPENING, READING };

    std::vector<std::string> tokens;
    int values = 0;
    unsigned value = 4711;
    Failure failure = NONE;

    void fail(Failure here) const {
        if (failure == here) {
            throw std::runtime_error("no random device");
        }
    }
};

Randomness gs_oRandomness;

}  // namespace

extern "C" int nanosleep(const timespec* duration, timespec* remaining) {
    if (!gs_oSleeps.replaced) {
        return realFunction<int(const timespec*, timespec*)>("nanosleep")(duration, remaining);
    }
    gs_oSleeps.asked.push_back(*duration);
    if (gs_oSleeps.answers.empty()) {
        return 0;
    }
    const Sleeps::Answer answer = gs_oSleeps.answers.front();
    gs_oSleeps.answers.pop_front();
    if (answer.error == 0) {
        return 0;
    }
    if (remaining) {
        *remaining = answer.remaining;
    }
    errno = answer.error;
    return -1;
}

void std::random_device::_M_init(const std::string& token) {
    gs_oRandomness.tokens.push_back(token);
    gs_oRandomness.fail(Randomness::OPENING);
    realFunction<void(std::random_device*, const std::string&)>(
        "_ZNSt13random_device7_M_initERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(this, token);
}

std::random_device::result_type std::random_device::_M_getval() {
    ++gs_oRandomness.values;
    gs_oRandomness.fail(Randomness::READING);
    return gs_oRandomness.value;
}

namespace {

using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::Not;
using testing::StartsWith;

using Areas = std::pair<Bytes, Bytes>;
using Certificate = std::pair<Bytes, Bytes>;

const Certificate NO_CERTIFICATE;

constexpr uint32_t EXCLUSIVE = 0x121;
constexpr uint64_t UNTOUCHED = 0x1122334455667788;

const std::string COUNTER_NAME = "000b2154e1c69f9cc07749a88f9835ad835426aedb46aa9d6c41d6764ac380734878";

const char* const DIGEST_CALL = "Esys_GetSessionAuditDigest";

const char* const CERTIFYING = "DEBUG certifying tally counter NV index with audit session";
const std::string NOT_RESTORED = "failed to restore session attributes after reading tally counter NV index";
const char* const STEP_SETUP = "setup audit session to read tally counter NV index";
const char* const STEP_READ = "read tally counter NV index in audit session";
const char* const STEP_SETUP_DIGEST = "setup audit session to certify read tally counter NV index";
const char* const STEP_DIGEST = "get audit session digest to certify read tally counter NV index";

const char* const AUDIT_RESET = "Esys_TRSess_SetAttributes 0x2000000 0x84 0x86";
const char* const AUDIT_EXCLUSIVE = "Esys_TRSess_SetAttributes 0x2000000 0x82 0x86";
const char* const AUDIT_OFF = "Esys_TRSess_SetAttributes 0x2000000 0x0 0x86";
const char* const READ = "Esys_NV_Read 0x18c811f 0x18c811f 0x2000000 none none 0x8 0x0 out";

std::string success(int attempts) {
    return strfmt("DEBUG certified tally counter NV index with audit session in %i attempt(s)", attempts);
}

std::string failedStep(const std::string& step, int tries, uint32_t code = INJECTED) {
    return "ERROR " + failedWith("failed to " + step + strfmt(" after %i tries", tries), code);
}

std::string sha256(const std::string& digits) {
    const Bytes bytes = fromHex(digits);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr);
    return hex(digest, size);
}

std::string nameOf(const Bytes& publicArea) {
    return "000b" + sha256(hex(publicArea).substr(4));
}

// Certification is opened on a TPM whose EK an earlier run made.
class Certification : public TPMTest {
protected:
    Certification() {
        gs_oSleeps = Sleeps();
        gs_oSleeps.replaced = true;
        gs_oRandomness = Randomness();
        g_fNvCertify = nullptr;
    }
    ~Certification() override {
        gs_oSleeps.replaced = false;
        g_fNvCertify = nullptr;
    }

    void SetUp() override { openOnNewTPM(); }

    void openOnNewTPM() {
        makeEK();
        open();
    }

    // prepare has counter and key ready, so that only the certification itself is seen afterwards.
    Areas prepare() {
        EXPECT_TRUE(attestor().openCounter());
        Areas areas = attestor().getAttestationKeyTPMPubPriv();
        EXPECT_TRUE(attestor().loadAttestationKey(areas.first, areas.second));
        clear();
        return areas;
    }

    Certificate certify(const Bytes& qualifyingData = {}) {
        m_nCounter = UNTOUCHED;
        return attestor().certifyCounterWithAudit(&m_nCounter, qualifyingData);
    }

    // expectVerified has OpenSSL's own tool verify a signature by the key with this public area, and checks what was
    // signed. It ends the instance, as the TPM's own tools need its room.
    void expectVerified(const Certificate& certificate, const Bytes& akPublic, const Bytes& qualifyingData) {
        const Bytes ekPublic = attestor().getEndorsementKeyTPMPub();
        write("ak.pub", akPublic);
        write("attest", certificate.first);
        write("signature", certificate.second);
        m_oTPM->endAttestor();
        tool("tpm2_loadexternal -Q -C n -u " + path("ak.pub") + " -c " + path("ak.ctx"));
        tool("tpm2_readpublic -Q -c " + path("ak.ctx") + " -f pem -o " + path("ak.pem"));
        tool("tpm2_flushcontext -t");
        EXPECT_EQ(tool("openssl dgst -sha256 -verify " + path("ak.pem") + " -signature " + path("signature") + " " +
                       path("attest")),
                  "Verified OK\n");
        expectStatement(certificate.first, ekPublic, akPublic, qualifyingData);
    }

    // expectStatement checks the TPMS_ATTEST.
    void expectStatement(const Bytes& attest, const Bytes& ekPublic, const Bytes& akPublic,
                         const Bytes& qualifyingData) const {
        TPMS_ATTEST statement{};
        size_t size = 0;
        ASSERT_EQ(Tss2_MU_TPMS_ATTEST_Unmarshal(attest.data(), attest.size(), &size, &statement), TSS2_RC_SUCCESS);
        EXPECT_EQ(size, attest.size()) << "nothing follows it";
        EXPECT_EQ(statement.magic, TPM2_GENERATED_VALUE);
        EXPECT_EQ(statement.type, TPM2_ST_ATTEST_SESSION_AUDIT);
        EXPECT_EQ(hex(statement.extraData.buffer, statement.extraData.size), hex(qualifyingData));
        const std::string ekName = "000b" + sha256("4000000b" + nameOf(ekPublic));
        EXPECT_EQ(hex(statement.qualifiedSigner.name, statement.qualifiedSigner.size),
                  "000b" + sha256(ekName + nameOf(akPublic)));

        const TPMS_SESSION_AUDIT_INFO& audit = statement.attested.sessionAudit;
        EXPECT_EQ(audit.exclusiveSession, TPM2_YES);
        const std::string command = sha256("0000014e" + COUNTER_NAME + COUNTER_NAME + "0008" + "0000");
        const std::string response =
            sha256(strfmt("000000000000014e0008%016llx", static_cast<unsigned long long>(m_nCounter)));
        EXPECT_EQ(hex(audit.sessionDigest.buffer, audit.sessionDigest.size),
                  sha256(std::string(64, '0') + command + response))
            << "the digest covers this one read of the counter";
    }

    // valueInTPM is what the TPM's own tools read.
    uint64_t valueInTPM() const {
        tool("tpm2_nvread -Q -C 0x18c811f 0x18c811f -s 8 -o " + path("value"));
        return std::stoull(hex(read("value")), nullptr, 16);
    }

    // milliseconds returns the sleeps, which must be whole milliseconds.
    static std::vector<long> milliseconds() {
        std::vector<long> result;
        for (const timespec& sleep : gs_oSleeps.asked) {
            EXPECT_EQ(sleep.tv_nsec % 1000000, 0);
            EXPECT_LT(sleep.tv_nsec, 1000000000);
            result.push_back(sleep.tv_sec * 1000 + sleep.tv_nsec / 1000000);
        }
        return result;
    }

    // delaysWith returns the nine delays when the random device returns `value`.
    std::vector<long> delaysWith(unsigned value) {
        gs_oSleeps.asked.clear();
        gs_oRandomness.value = value;
        g_oFaults.reset();
        g_oFaults.fail(DIGEST_CALL, EXCLUSIVE, 1, 10);
        EXPECT_EQ(certify(), NO_CERTIFICATE);
        return milliseconds();
    }

    uint64_t m_nCounter = UNTOUCHED;
};

// --- certifyCounterWithAudit

TEST_F(Certification, AuditTakesItsStepsInOrder) {
    prepare();
    const Certificate certificate = certify({0xab, 0xcd});
    EXPECT_FALSE(certificate.first.empty());
    EXPECT_FALSE(certificate.second.empty());
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, success(1)));
    std::string scheme(2 * sizeof(TPMU_SIG_SCHEME), '0');
    const Lines calls(g_oFaults.calls().begin(), g_oFaults.calls().begin() + 5);
    EXPECT_THAT(calls,
                ElementsAre(AUDIT_RESET, READ, AUDIT_EXCLUSIVE,
                            AllOf(StartsWith("Esys_GetSessionAuditDigest endorsement 0x8000000"),
                                  EndsWith(" 0x2000000 password 0x2000000 none [abcd] {0x10," + scheme + "} out out")),
                            AUDIT_OFF));
    EXPECT_EQ(g_oFaults.commands(), Lines({"NV_Read", "GetSessionAuditDigest"})) << "the key stays as it was loaded";
    EXPECT_EQ(m_nCounter, valueInTPM());
}

TEST_F(Certification, SignatureAndStatementVerify) {
    const Areas areas = prepare();
    const Bytes nonce = asBytes("a nonce of the caller");
    const Certificate certificate = certify(nonce);
    EXPECT_EQ(m_nCounter, 2U);
    expectVerified(certificate, areas.first, nonce);
}

TEST_F(Certification, CoversThePresentValueOfTheCounter) {
    const Areas areas = prepare();
    ASSERT_TRUE(attestor().incrementCounter());
    ASSERT_TRUE(attestor().incrementCounter());
    const Certificate certificate = certify({1});
    EXPECT_EQ(m_nCounter, 4U);
    expectVerified(certificate, areas.first, {1});
}

TEST_F(Certification, EachCertificationStartsTheDigestAfresh) {
    const Areas areas = prepare();
    certify({1});
    uint64_t value = 0;
    ASSERT_TRUE(attestor().readCounter(&value));
    const Certificate second = certify({2});
    expectVerified(second, areas.first, {2});
}

TEST_F(Certification, QualifyingDataOfAllSizesAreSigned) {
    const Areas areas = prepare();
    for (const size_t size : {0U, 1U, 32U, 63U, 64U}) {
        SCOPED_TRACE(size);
        const Bytes nonce(size, 0x3c);
        clear();
        const Certificate certificate = certify(nonce);
        ASSERT_FALSE(certificate.first.empty());
        EXPECT_THAT(g_oFaults.calls(DIGEST_CALL), Contains(HasSubstr(" [" + hex(nonce) + "] ")));
        expectStatement(certificate.first, attestor().getEndorsementKeyTPMPub(), areas.first, nonce);
    }
}

TEST_F(Certification, QualifyingDataAreLimitedTo64Bytes) {
    prepare();
    for (const size_t size : {65U, 100U, 70000U}) {
        clear();
        EXPECT_EQ(certify(Bytes(size)), NO_CERTIFICATE);
        EXPECT_THAT(lines(),
                    ElementsAre(CERTIFYING, strfmt("ERROR qualifying data exceed maximum size (%zu > 64)", size)));
        EXPECT_THAT(g_oFaults.calls(), IsEmpty()) << "the audit sequence does not begin";
        EXPECT_EQ(m_nCounter, UNTOUCHED);
    }
}

// --- preparation

TEST_F(Certification, MissingCounterAndKeyAreMade) {
    const Certificate certificate = certify({5});
    ASSERT_FALSE(certificate.first.empty());
    EXPECT_THAT(lines(),
                ElementsAre("INFO tally counter NV index does not exist, creating",
                            "DEBUG defining tally counter NV index", "DEBUG defining new temporary workaround NV index",
                            "DEBUG tally counter NV index checked OK", "DEBUG creating ECC AK",
                            "DEBUG TPM2 salted policy session established", "DEBUG created ECC AK",
                            "DEBUG TPM2 salted policy session established", CERTIFYING, success(1)));
    EXPECT_EQ(m_nCounter, 2U);

    clear();
    const Areas areas = attestor().getAttestationKeyTPMPubPriv();
    EXPECT_EQ(g_oFaults.made("Esys_Create"), 0U) << "the key that certified is the one that is returned";
    expectVerified(certificate, areas.first, {5});
}

TEST_F(Certification, KeyThatIsNotLoadedIsLoaded) {
    const Areas areas = attestor().getAttestationKeyTPMPubPriv();
    ASSERT_TRUE(attestor().openCounter());
    clear();
    const Certificate certificate = certify({6});
    EXPECT_THAT(lines(), ElementsAre("DEBUG TPM2 salted policy session established", CERTIFYING, success(1)));
    EXPECT_EQ(g_oFaults.made("Esys_Create"), 0U);
    EXPECT_EQ(g_oFaults.made("Esys_Load"), 1U);
    EXPECT_EQ(attestor().getAttestationKeyTPMPubPriv(), areas);
    expectVerified(certificate, areas.first, {6});
}

TEST_F(Certification, FailedPreparationReturnsNothing) {
    const struct {
        const char* function;
        std::string record;
    } ROWS[] = {
        {"Esys_GetCapability", "ERROR failed loading tally counter NV index with handle 0x18c811f"},
        {"Esys_Create", "ERROR " + failedWith("failed to create attestation key in endorsement hierarchy")},
        {"Esys_Load", "ERROR " + failedWith("failed to load attestation key in endorsement hierarchy")},
    };
    for (const bool audit : {true, false}) {
        for (const auto& row : ROWS) {
            SCOPED_TRACE(strfmt("%s, audit %d", row.function, audit));
            renewTPM();
            openOnNewTPM();
            g_oFaults.fail(row.function);
            EXPECT_EQ(audit ? certify() : attestor().certifyCounterWithCmd({}), NO_CERTIFICATE);
            EXPECT_EQ(lines().back(), row.record);
            EXPECT_EQ(m_nCounter, UNTOUCHED);
            EXPECT_TRUE(attestor().isOpen());
            EXPECT_EQ(g_oFaults.made(DIGEST_CALL) + g_oFaults.made("Esys_NV_Certify"), 0U);
        }
    }
}

// --- retries

TEST_F(Certification, NineRefusalsAreTriedAgain) {
    const Areas areas = prepare();
    g_oFaults.fail(DIGEST_CALL, EXCLUSIVE, 1, 9);
    const Certificate certificate = certify({7});
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, success(10)));
    EXPECT_EQ(g_oFaults.made(DIGEST_CALL), 10U);
    EXPECT_EQ(g_oFaults.calls("Esys_NV_Read"), Lines(10, READ)) << "each attempt reads again";
    EXPECT_EQ(gs_oSleeps.asked.size(), 9U);
    expectVerified(certificate, areas.first, {7});
}

TEST_F(Certification, TenRefusalsAreTheEnd) {
    prepare();
    g_oFaults.fail(DIGEST_CALL, EXCLUSIVE, 1, 99);
    EXPECT_EQ(certify(), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(STEP_DIGEST, 10, EXCLUSIVE)));
    EXPECT_EQ(g_oFaults.made(DIGEST_CALL), 10U);
    EXPECT_EQ(gs_oSleeps.asked.size(), 9U);
    EXPECT_EQ(m_nCounter, UNTOUCHED);
    Lines attempts;
    for (int i = 0; i < 10; ++i) {
        attempts.insert(attempts.end(), {AUDIT_RESET, AUDIT_EXCLUSIVE});
    }
    attempts.push_back(AUDIT_OFF);
    EXPECT_EQ(g_oFaults.calls("Esys_TRSess_SetAttributes"), attempts);
    g_oFaults.reset();
    EXPECT_NE(certify(), NO_CERTIFICATE) << "the instance is as good as before";
}

TEST_F(Certification, AnotherClientBreaksTheExclusivity) {
    const Areas areas = prepare();
    g_oFaults.before(DIGEST_CALL, [calls = 0]() mutable {
        if (++calls <= 2) {
            tool("tpm2_getrandom --hex 4");
        }
    });
    const Certificate certificate = certify({8});
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, success(3)));
    EXPECT_EQ(gs_oSleeps.asked.size(), 2U);
    expectVerified(certificate, areas.first, {8});
}

TEST_F(Certification, OtherCodesAreNotTriedAgain) {
    prepare();
    for (const uint32_t code : {INJECTED, 0x922U, 0x122U, 0x120U, 0x921U}) {
        clear();
        g_oFaults.reset();
        g_oFaults.fail(DIGEST_CALL, code);
        EXPECT_EQ(certify(), NO_CERTIFICATE);
        EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(STEP_DIGEST, 1, code)));
        EXPECT_EQ(g_oFaults.calls("Esys_TRSess_SetAttributes").back(), AUDIT_OFF);
    }
    EXPECT_THAT(gs_oSleeps.asked, IsEmpty());
}

TEST_F(Certification, OnlyTheDigestIsTriedAgain) {
    const struct {
        const char* function;
        int call;
        const char* step;
    } ROWS[] = {
        {"Esys_TRSess_SetAttributes", 1, STEP_SETUP},
        {"Esys_NV_Read", 1, STEP_READ},
        {"Esys_TRSess_SetAttributes", 2, STEP_SETUP_DIGEST},
    };
    prepare();
    for (const auto& row : ROWS) {
        for (const uint32_t code : {INJECTED, EXCLUSIVE}) {
            SCOPED_TRACE(strfmt("%s 0x%x", row.step, code));
            clear();
            g_oFaults.reset();
            g_oFaults.fail(row.function, code, row.call);
            EXPECT_EQ(certify(), NO_CERTIFICATE);
            EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(row.step, 1, code)));
            EXPECT_EQ(g_oFaults.calls("Esys_TRSess_SetAttributes").back(), AUDIT_OFF);
            EXPECT_EQ(g_oFaults.made(DIGEST_CALL), 0U);
            EXPECT_EQ(m_nCounter, UNTOUCHED);
        }
    }
    EXPECT_THAT(gs_oSleeps.asked, IsEmpty());
    g_oFaults.reset();
    EXPECT_NE(certify(), NO_CERTIFICATE);
}

TEST_F(Certification, FailureInALaterAttemptEndsTheAttempts) {
    const struct {
        const char* function;
        int call;
        const char* step;
    } ROWS[] = {
        {"Esys_TRSess_SetAttributes", 5, STEP_SETUP},
        {"Esys_NV_Read", 3, STEP_READ},
        {"Esys_TRSess_SetAttributes", 6, STEP_SETUP_DIGEST},
        {DIGEST_CALL, 3, STEP_DIGEST},
    };
    prepare();
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.step);
        clear();
        g_oFaults.reset();
        g_oFaults.fail(DIGEST_CALL, EXCLUSIVE, 1, 2);
        g_oFaults.fail(row.function, INJECTED, row.call);
        EXPECT_EQ(certify(), NO_CERTIFICATE);
        EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(row.step, 3)));
        EXPECT_EQ(g_oFaults.calls("Esys_TRSess_SetAttributes").back(), AUDIT_OFF);
    }
}

TEST_F(Certification, DelaysAreWholeMillisecondsFrom100To1000) {
    prepare();
    std::vector<long> all;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        const std::vector<long> delays = delaysWith(seed * 7919);
        ASSERT_EQ(delays.size(), 9U);
        all.insert(all.end(), delays.begin(), delays.end());
    }
    EXPECT_GE(*std::min_element(all.begin(), all.end()), 100);
    EXPECT_LE(*std::max_element(all.begin(), all.end()), 1000);
    // 180 uniform values: mean 550 with a standard error below 20
    const long mean = std::accumulate(all.begin(), all.end(), 0L) / static_cast<long>(all.size());
    EXPECT_NEAR(mean, 550, 80);
    EXPECT_LT(*std::min_element(all.begin(), all.end()), 150);
    EXPECT_GT(*std::max_element(all.begin(), all.end()), 950);
}

// seedFor finds a seed whose first delay is `delay`.
unsigned seedFor(int delay) {
    for (unsigned seed = 1; seed < 1000000; ++seed) {
        std::minstd_rand0 generator(seed);
        if (std::uniform_int_distribution<int>(100, 1000)(generator) == delay) {
            return seed;
        }
    }
    return 0;
}

TEST_F(Certification, BothEndsAreDelaysToo) {
    prepare();
    EXPECT_EQ(delaysWith(seedFor(100)).front(), 100);
    EXPECT_EQ(delaysWith(seedFor(1000)).front(), 1000);
    ASSERT_FALSE(gs_oSleeps.asked.empty());
    EXPECT_EQ(gs_oSleeps.asked.front().tv_sec, 1);
    EXPECT_EQ(gs_oSleeps.asked.front().tv_nsec, 0);
}

TEST_F(Certification, SeedIsTheDevicesValueModulo2147483647With1For0) {
    prepare();
    const std::vector<long> one = delaysWith(1);
    EXPECT_EQ(delaysWith(0), one);
    EXPECT_EQ(delaysWith(2147483647U), one);
    EXPECT_EQ(delaysWith(2147483648U), one);
    EXPECT_EQ(delaysWith(4294967294U), one);
    EXPECT_EQ(delaysWith(4711U + 2147483647U), delaysWith(4711U));
    EXPECT_NE(delaysWith(2), one);
}

TEST_F(Certification, DeviceIsAskedOnceAndOnlyOnTheFirstRetry) {
    prepare();
    certify();
    EXPECT_THAT(gs_oRandomness.tokens, IsEmpty());
    EXPECT_EQ(gs_oRandomness.values, 0);
    delaysWith(1);
    EXPECT_THAT(gs_oRandomness.tokens, ElementsAre("default"));
    EXPECT_EQ(gs_oRandomness.values, 1);
}

TEST_F(Certification, MissingRandomDeviceStopsNothing) {
    prepare();
    for (const Randomness::Failure failure : {Randomness::OPENING, Randomness::READING}) {
        gs_oRandomness.failure = failure;
        const std::vector<long> delays = delaysWith(1);
        ASSERT_EQ(delays.size(), 9U);
        EXPECT_GE(*std::min_element(delays.begin(), delays.end()), 100);
        EXPECT_LE(*std::max_element(delays.begin(), delays.end()), 1000);
        g_oFaults.reset();
        g_oFaults.fail(DIGEST_CALL, EXCLUSIVE);
        EXPECT_NE(certify(), NO_CERTIFICATE);
    }
}

TEST_F(Certification, InterruptedSleepGoesOnWithTheTimeRemaining) {
    prepare();
    gs_oSleeps.answers = {{EINTR, {0, 70000001}}, {EINTR, {0, 30000002}}, {0, {}}};
    g_oFaults.fail(DIGEST_CALL, EXCLUSIVE);
    EXPECT_NE(certify(), NO_CERTIFICATE);
    ASSERT_EQ(gs_oSleeps.asked.size(), 3U);
    EXPECT_EQ(gs_oSleeps.asked[1].tv_nsec, 70000001);
    EXPECT_EQ(gs_oSleeps.asked[2].tv_nsec, 30000002);
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, success(2)));
}

TEST_F(Certification, SleepThatFailsOtherwiseIsNotRepeated) {
    prepare();
    gs_oSleeps.answers = {{EINVAL, {5, 0}}};
    g_oFaults.fail(DIGEST_CALL, EXCLUSIVE);
    EXPECT_NE(certify(), NO_CERTIFICATE);
    EXPECT_EQ(gs_oSleeps.asked.size(), 1U);
}

// --- restoring the attributes, and what follows

TEST_F(Certification, FailedRestoringIsAWarningAndTheResultIsReturned) {
    const Areas areas = prepare();
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 3);
    const Certificate certificate = certify({9});
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, "WARN " + failedWith(NOT_RESTORED, 0), success(1)));
    EXPECT_EQ(m_nCounter, 2U);
    expectVerified(certificate, areas.first, {9});
}

TEST_F(Certification, FailedRestoringTellsTheCodeOfTheLastStep) {
    prepare();
    g_oFaults.fail("Esys_NV_Read", 0x123);
    g_oFaults.fail("Esys_TRSess_SetAttributes", INJECTED, 2);
    EXPECT_EQ(certify(), NO_CERTIFICATE);
    EXPECT_THAT(lines(),
                ElementsAre(CERTIFYING, "WARN " + failedWith(NOT_RESTORED, 0x123), failedStep(STEP_READ, 1, 0x123)));
}

TEST_F(Certification, SessionIsUsableAfterEachFailure) {
    prepare();
    for (const char* const function : {"Esys_TRSess_SetAttributes", "Esys_NV_Read", DIGEST_CALL}) {
        g_oFaults.reset();
        g_oFaults.fail(function);
        EXPECT_EQ(certify(), NO_CERTIFICATE);
        g_oFaults.reset();
        EXPECT_TRUE(attestor().incrementCounter()) << function;
        EXPECT_NE(certify(), NO_CERTIFICATE) << function;
    }
}

TEST_F(Certification, ShortDataAreReportedUnderTheNameOfTheDigest) {
    constexpr uint32_t TOO_SHORT = 0x90006;
    prepare();
    g_oFaults.alter<TPM2B_MAX_NV_BUFFER>("Esys_NV_Read", [](TPM2B_MAX_NV_BUFFER& data) { data.size = 7; });
    EXPECT_EQ(certify(), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(STEP_DIGEST, 1, TOO_SHORT)));
    EXPECT_EQ(m_nCounter, UNTOUCHED);

    clear();
    g_oFaults.fail(DIGEST_CALL, EXCLUSIVE, 1, 2);
    EXPECT_EQ(certify(), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre(CERTIFYING, failedStep(STEP_DIGEST, 3, TOO_SHORT)));
}

TEST_F(Certification, FailedSignatureConversionReturnsNothing) {
    const struct {
        const char* function;
        uint32_t code;
        const char* record;
    } ROWS[] = {
        {"ECDSA_SIG_new", 0, "ERROR failed to create new ECDS signature: "},
        {"BN_bin2bn", 0, "ERROR failed to create new ECDSA signature points: "},
        {"ECDSA_SIG_set0", 0, "ERROR failed to set the ECDSA signature points: "},
        {"i2d_ECDSA_SIG", 0, "ERROR failed to serialize ECDSA signature to DER: "},
    };
    prepare();
    for (const auto& row : ROWS) {
        clear();
        g_oFaults.reset();
        g_oFaults.fail(row.function, row.code);
        EXPECT_EQ(certify(), NO_CERTIFICATE);
        EXPECT_THAT(lines(), ElementsAre(CERTIFYING, StartsWith(row.record)));
        EXPECT_EQ(m_nCounter, 2U) << "it may have been written by then";
    }
}

TEST_F(Certification, SignatureOfAnotherSchemeIsRefused) {
    ASSERT_TRUE(attestor().openCounter());
    const std::string session = path("session");
    tool("tpm2_startauthsession -Q --policy-session -S " + session);
    tool("tpm2_policysecret -Q -S " + session + " -c e");
    tool("tpm2_create -Q -C 0x8101000a -P session:" + session + " -G rsa2048:rsassa-sha256:null -a " +
         "'fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|sign' -u " + path("rsa.pub") + " -r " +
         path("rsa.priv"));
    tool("tpm2_flushcontext " + session);
    ASSERT_TRUE(attestor().loadAttestationKey(read("rsa.pub"), read("rsa.priv")));
    clear();
    EXPECT_EQ(certify(), NO_CERTIFICATE);
    EXPECT_THAT(
        lines(),
        ElementsAre(CERTIFYING, "ERROR conversion to ECDSA signature failed: input data is not an ECDSA signature"));
}

TEST_F(Certification, NthCallFails) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
        SCOPED_TRACE(nth);
        renewTPM();
        openOnNewTPM();
        g_oFaults.failCall(nth);
        StderrText text;
        const Certificate certificate = certify({1, 2, 3});
        const std::string failed = g_oFaults.failed();
        hit = !failed.empty();
        // What cannot be taken off or released is reported, and the result is returned.
        bool warning = failed == "Esys_FlushContext";
        if (failed == "Esys_TRSess_SetAttributes") {
            const Lines calls = g_oFaults.calls("Esys_TRSess_SetAttributes");
            warning = calls.back() == AUDIT_OFF ? g_oFaults.made(DIGEST_CALL) == 1 && problems().size() == 1
                                                : g_oFaults.made("Esys_NV_ReadPublic") == 1;
            warning = warning && m_oRecords.records().size() > 1 && problems().front().starts_with("WARN ");
        }
        EXPECT_EQ(certificate != NO_CERTIFICATE, !hit || warning) << failed;
        EXPECT_EQ(certificate.first.empty(), certificate.second.empty());
        EXPECT_EQ(hasProblem(), hit && failed != "Esys_FlushContext") << failed;
        EXPECT_TRUE(attestor().isOpen());
        g_oFaults.reset();
        m_oTPM->endAttestor();
        if (failed == "Esys_FlushContext") {
            EXPECT_THAT(text.take(), HasSubstr("failed flush of resource"));
        } else {
            EXPECT_EQ(text.take(), "") << failed;
        }
        expectNothingLeft();
    }
}

// --- certifyCounterWithCmd

const char* const CMD_FAILED = "failed to certify tally counter NV index";

// The command needs two authorisations and gets one, so a strict TPM refuses it.
TEST_F(Certification, CmdIsRefusedByThisTPM) {
    prepare();
    EXPECT_EQ(attestor().certifyCounterWithCmd({0xab}), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith(CMD_FAILED, 0x125)));
    std::string scheme(2 * sizeof(TPMU_SIG_SCHEME), '0');
    EXPECT_THAT(g_oFaults.calls(), ElementsAre(AllOf(StartsWith("Esys_NV_Certify 0x8000000"),
                                                     EndsWith(" 0x18c811f 0x18c811f 0x2000000 none none [ab] {0x10," +
                                                              scheme + "} 0x8 0x0 out out"))));
    EXPECT_TRUE(attestor().isOpen());
}

TEST_F(Certification, CmdFailureIsReportedWithItsCode) {
    prepare();
    g_oFaults.fail("Esys_NV_Certify");
    EXPECT_EQ(attestor().certifyCounterWithCmd({}), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre("ERROR " + failedWith(CMD_FAILED)));
}

TEST_F(Certification, CmdLimitsQualifyingDataTo64Bytes) {
    prepare();
    EXPECT_EQ(attestor().certifyCounterWithCmd(Bytes(65)), NO_CERTIFICATE);
    EXPECT_THAT(lines(), ElementsAre("ERROR qualifying data exceed maximum size (65 > 64)"));
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
    clear();
    attestor().certifyCounterWithCmd(Bytes(64, 0x11));
    EXPECT_THAT(g_oFaults.calls("Esys_NV_Certify"), ElementsAre(HasSubstr("[" + hex(Bytes(64, 0x11)) + "]")));
}

TEST_F(Certification, CmdMakesWhatIsMissing) {
    attestor().certifyCounterWithCmd({});
    EXPECT_THAT(lines(),
                ElementsAre("INFO tally counter NV index does not exist, creating",
                            "DEBUG defining tally counter NV index", "DEBUG defining new temporary workaround NV index",
                            "DEBUG tally counter NV index checked OK", "DEBUG creating ECC AK",
                            "DEBUG TPM2 salted policy session established", "DEBUG created ECC AK",
                            "DEBUG TPM2 salted policy session established", "ERROR " + failedWith(CMD_FAILED, 0x125)));
}

// certified is a TPM that takes the command.
TSS2_RC certified(TPMI_ALG_SIG_SCHEME scheme, TPM2B_ATTEST** certifyInfo, TPMT_SIGNATURE** signature) {
    *certifyInfo = static_cast<TPM2B_ATTEST*>(calloc(1, sizeof(TPM2B_ATTEST)));
    *signature = static_cast<TPMT_SIGNATURE*>(calloc(1, sizeof(TPMT_SIGNATURE)));
    (*certifyInfo)->size = 3;
    std::memcpy((*certifyInfo)->attestationData, "abc", 3);
    (*signature)->sigAlg = scheme;
    (*signature)->signature.ecdsa.signatureR = {1, {0x81}};
    (*signature)->signature.ecdsa.signatureS = {1, {0x02}};
    return TSS2_RC_SUCCESS;
}

TEST_F(Certification, CmdCertifiesOnATPMThatTakesIt) {
    prepare();
    g_fNvCertify = [](TPM2B_ATTEST** certifyInfo, TPMT_SIGNATURE** signature) {
        return certified(TPM2_ALG_ECDSA, certifyInfo, signature);
    };
    const Certificate certificate = attestor().certifyCounterWithCmd({1});
    EXPECT_EQ(asText(certificate.first), "abc");
    EXPECT_EQ(hex(certificate.second), "300702020081020102");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Certification, CmdRefusesASignatureOfAnotherScheme) {
    prepare();
    g_fNvCertify = [](TPM2B_ATTEST** certifyInfo, TPMT_SIGNATURE** signature) {
        return certified(TPM2_ALG_RSASSA, certifyInfo, signature);
    };
    EXPECT_EQ(attestor().certifyCounterWithCmd({1}), NO_CERTIFICATE);
    EXPECT_THAT(lines(),
                ElementsAre("ERROR conversion to ECDSA signature failed: input data is not an ECDSA signature"));
}

}  // namespace
