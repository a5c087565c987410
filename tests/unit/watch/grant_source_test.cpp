// grant_source_test.cpp: a file of granted features: which signature, key, device and payload it must have, what is
// reported where one is wrong, and when the key's file makes it another one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "foundation/strfmt.h"
#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "unit/watch/device_serial.h"
#include "unit/watch/grant_signer.h"
#include "watch/feature_source.h"

namespace {

namespace fs = std::filesystem;
using namespace signer;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr size_t LIMIT = 1024 * 1024;

// SECRET is part of every content that must not reach a record.
const std::string SECRET = "SeCrEt";

// --- The tests

class GrantSourceTest : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    GrantSourceTest() : m_oSource(path(), "granted", keyPath()) {
        alarm(patience(100));
        setSerial("0000abcd");
        installKey(ES256);
    }
    ~GrantSourceTest() override { alarm(0); }

    std::string path() const { return m_oFolder / "features.jws"; }
    std::string keyPath() const { return m_oFolder / "features.pem"; }

    void installKey(const std::string& content) { m_oFolder.write("features.pem", content); }
    void installKey(const Kind& kind, int number = 0) { installKey(publicPEM(keyOf(typeOf(kind), number))); }

    Lines names() const {
        Lines result;
        for (const Feature& feature : m_oSource.features())
            result.push_back(feature.name);
        return result;
    }

    // namesOf loads a grant and returns the names of its features.
    Lines namesOf(const std::string& text) {
        m_oFolder.write("features.jws", text);
        m_oSource.load();
        return names();
    }

    // reasonOf loads the file at the path, which must count as empty with one ERROR, and returns the reason.
    std::string reasonOf() {
        RecordCollector collector;
        m_oSource.load();
        EXPECT_THAT(names(), IsEmpty());
        EXPECT_THAT(collector.lines(), SizeIs(1));
        const std::string line = collector.lines().empty() ? "" : collector.lines()[0];
        const std::string begin = "ERROR features input " + path() + " counts as empty: ";
        EXPECT_THAT(line, StartsWith(begin));
        EXPECT_THAT(line, Not(HasSubstr(SECRET)));
        return line.size() < begin.size() ? "" : line.substr(begin.size());
    }

    // reasonOf does so with a grant, after a good one.
    std::string reasonOf(const std::string& text) {
        const std::string key = TempFolder::contentOf(keyPath());
        installKey(ES256);
        EXPECT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
        installKey(key);
        m_oFolder.write("features.jws", text);
        return reasonOf();
    }

    void expectBadSignature(const std::string& text) {
        EXPECT_THAT(reasonOf(text), ContainsRegex("signature.*" + keyPath())) << text;
    }

    void expectUnusableKey() {
        m_oFolder.write("features.jws", grant(R"({"serial":"0000abcd","features":[{"name":"SeCrEt"}]})"));
        EXPECT_THAT(reasonOf(), HasSubstr("the key " + keyPath() + " can't be used: "));
    }

    TempFolder m_oFolder;
    FeatureSource m_oSource;
};

TEST_F(GrantSourceTest, GrantOfEachKindIsTaken) {
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        installKey(kind);
        RecordCollector collector;
        EXPECT_THAT(namesOf(grant(kind, PAYLOAD)), ElementsAre("a"));
        EXPECT_THAT(collector.lines(), IsEmpty());
    }
}

TEST_F(GrantSourceTest, EntriesAreThoseOfThePayloadWithTheirSource) {
    EXPECT_THAT(namesOf(grant(R"({"features":[{"name":"b","validUntil":"2027-01-01T00:00:00Z","params":{"n":4}},)"
                              R"({"name":"a"}],"serial":"0000abcd","other":[1]})")),
                ElementsAre("b", "a"));
    std::string text;
    JSON::parse(m_oSource.features()[0].text)->stringify(text, -1);
    EXPECT_EQ(text,
              R"({ "name": "b", "params": { "n": 4 }, "source": "granted", "validUntil": "2027-01-01T00:00:00Z" })");
    EXPECT_EQ(m_oSource.features()[0].validUntil, 1798761600);
}

TEST_F(GrantSourceTest, BrokenEntriesAreLeftOutWithAWarning) {
    RecordCollector collector;
    EXPECT_THAT(namesOf(grant(R"({"serial":"0000abcd","features":[{"name":"a"},{"name":5},{"name":"b"}]})")),
                ElementsAre("a", "b"));
    EXPECT_THAT(collector.lines(), ElementsAre(ContainsRegex("^WARN " + path() + ".* 1: ")));
}

// --- The header

TEST_F(GrantSourceTest, HeaderNeedNotNameTheAlgorithm) {
    RecordCollector collector;
    for (const char* header : {"{}", R"({"kid":"x"})", R"({"Alg":"none"})"})
        EXPECT_THAT(namesOf(grant(ES256, header, PAYLOAD)), ElementsAre("a")) << header;
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(GrantSourceTest, OtherHeaderMembersAreIgnored) {
    EXPECT_THAT(namesOf(grant(ES256, R"({"typ":"JWT","kid":"5","jwk":{},"alg":"ES256"})", PAYLOAD)), ElementsAre("a"));
}

TEST_F(GrantSourceTest, OtherAlgorithmInTheHeaderIsRefusedThoughTheKeySigned) {
    for (const Kind& kind : KINDS) {
        installKey(kind);
        for (const std::string name : {"none", "None", "", "HS256", "HS384", "HS512", "ES256", "ES384", "ES512",
                                       "RS256", "RS384", "RS512", "PS256", "es256", "ES256 ", "SeCrEt"})
            if (name != kind.name)
                expectBadSignature(grant(kind, headerOf(name), PAYLOAD));
        for (const char* header : {R"({"alg":null})", R"({"alg":256})", R"({"alg":["ES256"]})", R"({"alg":{}})"})
            expectBadSignature(grant(kind, header, PAYLOAD));
    }
}

TEST_F(GrantSourceTest, HeaderWithCriticalMembersIsRefusedThoughTheKeySigned) {
    for (const char* critical : {R"(["exp"])", R"(["b64"])", R"(["alg"])", "[]", "null", R"("exp")"}) {
        const std::string header = std::string(R"({"alg":"ES256","exp":1,"crit":)") + critical + "}";
        EXPECT_THAT(reasonOf(grant(ES256, header, PAYLOAD)), HasSubstr("critical")) << header;
    }
}

TEST_F(GrantSourceTest, HeaderThatIsNotAnObjectIsRefused) {
    for (const char* header : {"", "null", "[]", "5", R"("ES256")", R"({"alg":"ES256")", R"({"alg":"ES256"} x)"})
        expectBadSignature(grant(ES256, header, PAYLOAD));
}

// --- The signature

TEST_F(GrantSourceTest, KeyOfSomebodyElseIsRefused) {
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        installKey(kind, 1);
        expectBadSignature(grant(kind, PAYLOAD));
    }
}

TEST_F(GrantSourceTest, KeyOfAnotherKindIsRefused) {
    for (const Kind& installed : KINDS)
        for (const Kind& signing : KINDS)
            if (installed.name != std::string(signing.name)) {
                SCOPED_TRACE(std::string(installed.name) + " " + signing.name);
                installKey(installed);
                expectBadSignature(grant(signing, PAYLOAD));
                expectBadSignature(grant(signing, headerOf(installed.name), PAYLOAD));
                expectBadSignature(grant(signing, "{}", PAYLOAD));
            }
}

TEST_F(GrantSourceTest, PublicKeyIsNotASecretToSignWith) {
    for (const Kind& kind : KINDS) {
        installKey(kind);
        const std::string secret = publicPEM(keyOf(typeOf(kind)));
        for (const std::string& header : {headerOf("HS256"), headerOf(kind.name), std::string("{}")}) {
            const std::string text = signingInput(header, PAYLOAD);
            unsigned char mac[32];
            HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
                 reinterpret_cast<const unsigned char*>(text.data()), text.size(), mac, nullptr);
            expectBadSignature(text + "." + base64url(std::string(mac, mac + sizeof mac)));
        }
    }
}

TEST_F(GrantSourceTest, SignaturesThatAnybodyCanMakeAreRefused) {
    for (const Kind& kind : KINDS) {
        installKey(kind);
        const std::string text = signingInput(headerOf(kind.name), PAYLOAD);
        const std::string good = signatureOf(kind, keyOf(typeOf(kind)), text);
        const size_t half = good.size() / 2;
        for (const std::string& bytes :
             {std::string(), std::string(1, '\0'), std::string(good.size(), '\0'), std::string(good.size(), '\xff'),
              std::string(half - 1, '\0') + '\1' + std::string(half - 1, '\0') + '\1',
              good.substr(half) + good.substr(0, half), good.substr(1), good.substr(0, good.size() - 1), good + '\0',
              '\0' + good, good + good, signatureOf(kind, keyOf(typeOf(kind)), "x." + base64url(PAYLOAD))})
            expectBadSignature(text + "." + base64url(bytes));
        EXPECT_THAT(namesOf(text + "." + base64url(good)), ElementsAre("a"));
    }
}

TEST_F(GrantSourceTest, SignatureInDERIsRefused) {
    const std::string text = signingInput(headerOf("ES256"), PAYLOAD);
    expectBadSignature(text + "." + base64url(plainSignature(keyOf("P-256"), EVP_sha256(), text)));
}

TEST_F(GrantSourceTest, SignatureOfAnotherPayloadIsRefused) {
    const std::string mine = grant(PAYLOAD);
    const std::string other = grant(R"({"serial":"0000abcd","features":[{"name":"b"}]})");
    expectBadSignature(mine.substr(0, mine.rfind('.')) + other.substr(other.rfind('.')));
}

TEST_F(GrantSourceTest, TextsWithoutThreeSegmentsAreRefused) {
    const std::string good = grant(PAYLOAD);
    const size_t first = good.find('.');
    const size_t second = good.rfind('.');
    for (const std::string& text : {std::string(),
                                    std::string("."),
                                    std::string(".."),
                                    std::string("..."),
                                    SECRET,
                                    PAYLOAD,
                                    good.substr(0, first),
                                    good.substr(0, first + 1),
                                    good.substr(0, second),
                                    good.substr(0, second + 1),
                                    good.substr(first),
                                    good.substr(first + 1),
                                    good.substr(second),
                                    "." + good,
                                    "\n" + good,
                                    "\xEF\xBB\xBF" + good,
                                    good.substr(0, first) + "." + good.substr(first),
                                    good.substr(0, second) + "\n" + good.substr(second),
                                    good + good,
                                    std::string(2, '\0') + good})
        expectBadSignature(text);
}

TEST_F(GrantSourceTest, LineFeedAtTheEndIsNotAFault) {
    RecordCollector collector;
    for (const char* end : {"\n", "\r\n", "\n\n", " ", "=="})
        EXPECT_THAT(namesOf(grant(PAYLOAD) + end), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// placesIn returns the places of a grant at which a letter is changed: all for ES256. For the other kinds, whose keys
// take long to check, the ends of each segment and every eleventh place are enough: what is split and decoded is the
// same.
std::vector<size_t> placesIn(const Kind& kind, const std::string& grant) {
    std::vector<size_t> places;
    for (size_t at = 0; at < grant.size(); ++at) {
        const size_t begin = at < 2 ? 0 : at - 2;
        const bool nearDot = grant.substr(begin, at + 3 - begin).find('.') != std::string::npos;
        if (kind.half == 32 || at == 0 || nearDot || at + 2 >= grant.size() || at % 11 == 0)
            places.push_back(at);
    }
    return places;
}

// othersFor returns what may replace a letter: each that differs in one bit, and bytes that are not letters. With `few`
// it is one of each sort.
std::string othersFor(char letter, size_t at, bool few) {
    const size_t value = ALPHABET.find(letter);
    const std::string strange = std::string(".\n=!\xff") + '\0';
    std::string letters = "A";
    if (value != std::string::npos) {
        letters.clear();
        for (const size_t bit : {1, 2, 4, 8, 16, 32})
            letters += ALPHABET[value ^ bit];
    }
    std::string others =
        few ? std::string{letters[at % letters.size()], strange[at % strange.size()]} : letters + strange;
    std::erase(others, letter);
    return others;
}

// isSameEnd returns whether two letters at the end of a signature mean the same bytes: 64 and 256 bytes leave the
// lowest four bits of the last letter unused, 96 bytes none.
bool isSameEnd(const Kind& kind, char one, char other) {
    const size_t second = ALPHABET.find(other);
    return kind.half != 48 && second != std::string::npos && ALPHABET.find(one) >> 4 == second >> 4;
}

TEST_F(GrantSourceTest, OneOtherLetterAnywhereIsRefused) {
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        installKey(kind);
        const std::string good = grant(kind, PAYLOAD);
        RecordCollector collector;
        for (const size_t at : placesIn(kind, good)) {
            for (const char other : othersFor(good[at], at, kind.half != 32)) {
                if (at + 1 == good.size() && isSameEnd(kind, good[at], other))
                    continue;
                std::string text = good;
                text[at] = other;
                collector.clear();
                ASSERT_THAT(namesOf(text), IsEmpty()) << at << " " << text;
                ASSERT_THAT(collector.records(), SizeIs(1)) << at << " " << text;
            }
        }
        EXPECT_THAT(namesOf(good), ElementsAre("a"));
    }
}

TEST_F(GrantSourceTest, UnusedBitsOfTheLastLetterDoNotMatter) {
    std::string text = grant(PAYLOAD);
    const size_t value = ALPHABET.find(text.back());
    for (const size_t bits : {0, 1, 8, 15}) {
        text.back() = ALPHABET[(value & 48) | bits];
        EXPECT_THAT(namesOf(text), ElementsAre("a"));
    }
}

TEST_F(GrantSourceTest, OneLetterLessOrMoreIsRefused) {
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name);
        installKey(kind);
        const std::string good = grant(kind, PAYLOAD);
        const size_t signature = good.rfind('.') + 1;
        RecordCollector collector;
        size_t changes = 0;
        for (const size_t at : placesIn(kind, good)) {
            std::string text = good;
            ASSERT_THAT(namesOf(text.erase(at, 1)), IsEmpty()) << at;
            ++changes;
            if (at < signature) {
                ASSERT_THAT(namesOf(good.substr(0, at) + "A" + good.substr(at)), IsEmpty()) << at;
                ++changes;
            }
        }
        EXPECT_THAT(collector.records(), SizeIs(changes));
        EXPECT_THAT(namesOf(good), ElementsAre("a"));
    }
}

// --- The device

TEST_F(GrantSourceTest, GrantWithoutThisSerialNumberIsRefused) {
    EXPECT_THAT(reasonOf(grant(R"({"features":[{"name":"a"}]})")), HasSubstr("it names no serial number"));
    EXPECT_THAT(reasonOf(grant(R"({"Serial":"0000abcd","features":[]})")), HasSubstr("it names no serial number"));
    for (const char* member :
         {R"("serial":"SeCrEt",)", R"("serial":"",)", R"("serial":"0000ABCD",)", R"("serial":"0000abcd ",)",
          R"("serial":"0000abc",)", R"("serial":null,)", R"("serial":["0000abcd"],)", R"("serial":true,)",
          R"("serial":"0000abcd","serial":"other",)"})
        EXPECT_THAT(reasonOf(grant(std::string("{") + member + R"("features":[{"name":"a"},{"name":""}]})")),
                    HasSubstr("another device"))
            << member;
}

TEST_F(GrantSourceTest, DeviceWithoutASerialNumberTakesNoGrant) {
    for (const char* member : {R"("serial":"[not defined]",)", R"("serial":"",)", R"("serial":null,)"}) {
        setSerial("0000abcd");
        ASSERT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
        m_oFolder.write("features.jws", grant(std::string("{") + member + R"("features":[{"name":"a"}]})"));
        clearSerial();
        EXPECT_THAT(reasonOf(), HasSubstr("this device has no serial number")) << member;
    }
}

// --- The payload

TEST_F(GrantSourceTest, PayloadThatIsNotAGrantIsRefusedThoughTheKeySigned) {
    const struct {
        std::string payload;
        const char* reason;
    } rows[] = {
        {"", "not JSON"},
        {SECRET, "not JSON"},
        {PAYLOAD + "}", "not JSON"},
        {PAYLOAD.substr(0, PAYLOAD.size() - 2), "not JSON"},
        {grant(PAYLOAD), "not JSON"},
        {"{\"serial\":\"0000abcd\",\"features\":[{\"name\":\"SeCrEt\xff\"}]}", "not UTF-8"},
        {"{\"serial\":\"0000abcd\",\"features\":[{\"name\":\"SeCrEt\xc3\"}]}", "not UTF-8"},
        {"{\"serial\":\"0000abcd\",\"features\":[{\"name\":\"\xed\xa0\x80\"}]}", "not UTF-8"},
        {"null", "no JSON object"},
        {"5", "no JSON object"},
        {"[]", "no JSON object"},
        {"[" + PAYLOAD + "]", "no JSON object"},
        {R"("SeCrEt")", "no JSON object"},
        {R"({"serial":"0000abcd"})", "no list"},
        {R"({"serial":"0000abcd","features":null})", "no list"},
        {R"({"serial":"0000abcd","features":"SeCrEt"})", "no list"},
        {R"({"serial":"0000abcd","features":{"name":"SeCrEt"}})", "no list"},
        {R"({"serial":"0000abcd","Features":[]})", "no list"},
    };
    for (const auto& row : rows)
        EXPECT_THAT(reasonOf(grant(row.payload)), HasSubstr(row.reason)) << row.payload;
}

TEST_F(GrantSourceTest, EmptyListIsNotAFault) {
    RecordCollector collector;
    EXPECT_THAT(namesOf(grant(R"({"serial":"0000abcd","features":[]})")), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(GrantSourceTest, ForgedPayloadIsNotEvenParsed) {
    const std::string deep = R"({"serial":"0000abcd","features":)" + std::string(300000, '[');
    expectBadSignature(signingInput(headerOf("ES256"), deep) + ".AAAA");
    expectBadSignature(signingInput(std::string(300000, '['), PAYLOAD) + ".AAAA");
}

// --- The file

TEST_F(GrantSourceTest, OneMebibyteIsTheLimit) {
    const std::string good = grant(PAYLOAD);
    RecordCollector collector;
    EXPECT_THAT(namesOf(good + std::string(LIMIT - good.size(), '\n')), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
    m_oFolder.write("features.jws", good + std::string(LIMIT + 1 - good.size(), '\n'));
    EXPECT_THAT(reasonOf(), HasSubstr("larger than 1 MiB"));
}

TEST_F(GrantSourceTest, LargeGrantIsTaken) {
    std::string list;
    for (int i = 0; i < 10000; i++)
        list += (i ? "," : "") + strfmt(R"({"name":"feature-%d"})", i);
    EXPECT_THAT(namesOf(grant(R"({"serial":"0000abcd","features":[)" + list + "]}")), SizeIs(10000));
}

TEST_F(GrantSourceTest, MissingGrantIsSilentWhateverTheKey) {
    RecordCollector collector;
    m_oSource.load();
    installKey("no key");
    m_oSource.load();
    fs::remove(keyPath());
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(GrantSourceTest, DirectoryAndFifoInPlaceOfTheGrantCountAsEmpty) {
    fs::create_directory(path());
    EXPECT_THAT(reasonOf(), HasSubstr("regular"));
    fs::remove(path());
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_THAT(reasonOf(), HasSubstr("regular"));
}

TEST_F(GrantSourceTest, PlainListIsNotAGrantAndAGrantIsNotAPlainList) {
    expectBadSignature(PAYLOAD);
    m_oFolder.write("features.jws", grant(PAYLOAD));
    FeatureSource plain(path(), "installed");
    RecordCollector collector;
    plain.load();
    EXPECT_THAT(plain.features(), IsEmpty());
    EXPECT_THAT(collector.lines(), ElementsAre(HasSubstr("not JSON")));
}

// --- The key

TEST_F(GrantSourceTest, MissingKeyMakesTheGrantUnusable) {
    fs::remove(keyPath());
    expectUnusableKey();
    fs::create_symlink("gone", keyPath());
    expectUnusableKey();
}

TEST_F(GrantSourceTest, FileThatHoldsNoPublicKeyMakesTheGrantUnusable) {
    const std::string good = publicPEM(keyOf("P-256"));
    const std::string begin = good.substr(0, good.find('\n') + 1);
    for (const std::string& content :
         {std::string(), std::string("\n"), SECRET, std::string(100000, 'x'), std::string(1000, '\0'), begin,
          good.substr(0, good.size() / 2), good.substr(begin.size()), begin + "AAAA\n-----END PUBLIC KEY-----\n",
          begin + SECRET + "\n-----END PUBLIC KEY-----\n", privatePEM(keyOf("P-256")), privatePEM(keyOf("RSA-2048")),
          privatePEM(keyOf("P-256"), "password")}) {
        SCOPED_TRACE(content.substr(0, 200));
        installKey(content);
        expectUnusableKey();
    }
}

TEST_F(GrantSourceTest, KeysOfOtherKindsMakeTheGrantUnusable) {
    for (const char* type :
         {"RSA-1024", "RSA-3072", "P-224", "P-521", "ED25519", "secp256k1", "brainpoolP256r1", "brainpoolP384r1"}) {
        SCOPED_TRACE(type);
        installKey(publicPEM(keyOf(type)));
        expectUnusableKey();
    }
}

// forged returns a grant that needs no private key: with the public exponent 1 a signature is the padded digest itself.
std::string forged(const std::string& payload) {
    const std::string text = signingInput(headerOf("RS256"), payload);
    std::string digest(32, '\0');
    EVP_Digest(text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha256(),
               nullptr);
    const std::string info =
        std::string("\x30\x31\x30\x0d\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x05\x00\x04\x20", 19) + digest;
    const std::string padded =
        std::string("\0\1", 2) + std::string(256 - 3 - info.size(), '\xff') + std::string(1, '\0') + info;
    return text + "." + base64url(padded);
}

TEST_F(GrantSourceTest, ExponentThatLetsAnybodySignIsRefused) {
    installKey(publicPEM(publicRSA(keyOf("RSA-2048"), 1).get()));
    m_oFolder.write("features.jws", forged(PAYLOAD));
    EXPECT_THAT(reasonOf(), HasSubstr("key " + keyPath()));
}

TEST_F(GrantSourceTest, KeyThatIsNotSoundMakesTheGrantUnusable) {
    for (const unsigned exponent : {0U, 2U, 4U, 65536U}) {
        SCOPED_TRACE(exponent);
        installKey(publicPEM(publicRSA(keyOf("RSA-2048"), exponent).get()));
        expectUnusableKey();
    }
}

TEST_F(GrantSourceTest, OtherCurvesOfTheSameSizeMakeTheGrantsOfTheirKeysUnusable) {
    for (const char* curve : {"secp256k1", "brainpoolP256r1", "brainpoolP384r1"}) {
        SCOPED_TRACE(curve);
        const Kind& kind = std::string(curve).find("384") != std::string::npos ? ES384 : ES256;
        installKey(publicPEM(keyOf(curve)));
        m_oFolder.write("features.jws", grantBy(keyOf(curve), kind, headerOf(kind.name), PAYLOAD));
        EXPECT_THAT(reasonOf(), HasSubstr("the key " + keyPath() + " can't be used: "));
    }
}

TEST_F(GrantSourceTest, CurveSpeltOutByItsParametersMakesTheGrantUnusable) {
    for (const Kind& kind : {ES256, ES384}) {
        SCOPED_TRACE(kind.name);
        const Key key = explicitEC(typeOf(kind));
        installKey(publicPEM(key.get()));
        m_oFolder.write("features.jws", grantBy(key.get(), kind, headerOf(kind.name), PAYLOAD));
        EXPECT_THAT(reasonOf(), HasSubstr("the key " + keyPath() + " can't be used: "));
    }
}

TEST_F(GrantSourceTest, KeyFileMayHave64KiB) {
    const std::string pem = publicPEM(keyOf("P-256"));
    RecordCollector collector;
    installKey(pem + std::string(64 * 1024 - pem.size(), '\n'));
    EXPECT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
    installKey(pem + std::string(64 * 1024 + 1 - pem.size(), '\n'));
    EXPECT_THAT(reasonOf(), HasSubstr("key " + keyPath() + " can't be used: it is larger than 64 KiB"));
}

TEST_F(GrantSourceTest, HugeKeyFileIsRefusedAtOnce) {
    m_oFolder.write("features.jws", grant(PAYLOAD));
    fs::resize_file(keyPath(), uintmax_t{3} << 30);  // a hole takes no space
    EXPECT_THAT(reasonOf(), HasSubstr("larger than 64 KiB"));
}

TEST_F(GrantSourceTest, DirectoryAndFifoInPlaceOfTheKeyMakeTheGrantUnusable) {
    fs::remove(keyPath());
    fs::create_directory(keyPath());
    expectUnusableKey();
    fs::remove(keyPath());
    ASSERT_EQ(mkfifo(keyPath().c_str(), 0600), 0);
    expectUnusableKey();
    fs::remove(keyPath());
    fs::create_symlink("features.pem", keyPath());
    expectUnusableKey();
}

TEST_F(GrantSourceTest, KeyMayBeReachedByALinkAndSurroundedByOtherText) {
    const std::string pem = publicPEM(keyOf("P-256"));
    RecordCollector collector;
    installKey("the key of 2026\n" + pem + "end\n");
    EXPECT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    fs::remove(keyPath());
    m_oFolder.write("real.pem", pem);
    fs::create_symlink("real.pem", keyPath());
    EXPECT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(GrantSourceTest, FirstOfSeveralKeysCounts) {
    installKey(publicPEM(keyOf("P-256")) + publicPEM(keyOf("P-256", 1)));
    EXPECT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    installKey(publicPEM(keyOf("P-256", 1)) + publicPEM(keyOf("P-256")));
    m_oFolder.write("features.jws", grant(PAYLOAD));
    EXPECT_THAT(reasonOf(), HasSubstr("signature"));
}

TEST_F(GrantSourceTest, UnreadableKeyMakesTheGrantUnusable) {
    chmod(keyPath().c_str(), 0);
    chmod(m_oFolder.path().c_str(), 0755);
    m_oFolder.write("features.jws", grant(PAYLOAD));
    const bool privileged = geteuid() == 0;
    if (privileged && seteuid(65534) != 0)
        GTEST_SKIP() << "only one user exists here, and it reads every file";
    const std::string reason = reasonOf();
    if (privileged) {
        ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_THAT(reason, HasSubstr("key " + keyPath()));
}

TEST_F(GrantSourceTest, EachFaultHasItsOwnReason) {
    std::set<std::string> reasons = {reasonOf(SECRET),        reasonOf(grant(R"({"features":[]})")),
                                     reasonOf(grant(SECRET)), reasonOf(grant("\xff")),
                                     reasonOf(grant("[]")),   reasonOf(grant(R"({"serial":"0000abcd"})"))};
    for (const std::string& key : {SECRET, publicPEM(keyOf("P-521")), publicPEM(keyOf("RSA-3072"))}) {
        installKey(key);
        reasons.insert(reasonOf(grant(PAYLOAD)));
    }
    fs::remove(keyPath());
    m_oFolder.write("features.jws", grant(PAYLOAD));
    reasons.insert(reasonOf());
    fs::create_directory(keyPath());
    reasons.insert(reasonOf());
    EXPECT_THAT(reasons, SizeIs(testing::Ge(size_t{10})));
}

// --- Loading, dropping, looking for changes

TEST_F(GrantSourceTest, KeyIsReadAtEachLoad) {
    m_oFolder.write("features.jws", grant(RS256, PAYLOAD));
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    installKey(RS256);
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("a"));
    installKey(RS256, 1);
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(GrantSourceTest, OtherKeyMakesTheFileAnother) {
    ASSERT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    EXPECT_FALSE(m_oSource.fileChanged());
    m_oFolder.write("other.pem", publicPEM(keyOf("P-256")));
    fs::rename(m_oFolder / "other.pem", keyPath());
    EXPECT_TRUE(m_oSource.fileChanged()) << "replaced";
    m_oSource.load();
    EXPECT_FALSE(m_oSource.fileChanged());
    fs::remove(keyPath());
    EXPECT_TRUE(m_oSource.fileChanged()) << "gone";
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_FALSE(m_oSource.fileChanged()) << "it was looked for";
    installKey(ES256);
    EXPECT_TRUE(m_oSource.fileChanged()) << "back";
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_FALSE(m_oSource.fileChanged());
}

TEST_F(GrantSourceTest, DropForgetsTheGrant) {
    ASSERT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    m_oSource.drop();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_TRUE(m_oSource.fileChanged());
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(GrantSourceTest, RefusedGrantTakesTheOldOneAway) {
    ASSERT_THAT(namesOf(grant(PAYLOAD)), ElementsAre("a"));
    m_oFolder.write("features.jws", grant(ES384, PAYLOAD));
    reasonOf();
    EXPECT_FALSE(m_oSource.fileChanged()) << "it was read";
}

}  // namespace
