// jws_test.cpp: tokens in compact form: making, verifying, looking into them, and what is not one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>
#include <utility>
#include <vector>

#include "foundation/base64.h"
#include "foundation/json.h"
#include "jose/jws.h"
#include "unit/jose/jose_fixture.h"

namespace {

using testing::StartsWith;

std::string encoded(const std::string& bytes) {
    return orv::base64EncodeURLSafe(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string decoded(const std::string& text) {
    return orv::base64DecodeURLSafeUTF8(text.data(), text.size());
}

std::string oneLine(const JSON& value) {
    std::string text;
    value.stringify(text, -1);
    return text;
}

JSON::root parsed(const std::string& text) {
    JSON::root value = JSON::parse(text);
    EXPECT_NE(value, nullptr) << text;
    return value;
}

// textOf returns the one-line text of a value, for comparing, or "null pointer".
std::string textOf(const JSON::root& value) {
    return value ? oneLine(*value) : "null pointer";
}

std::vector<std::string> segments(const std::string& token) {
    const size_t first = token.find('.');
    const size_t second = token.find('.', first + 1);
    return {token.substr(0, first), token.substr(first + 1, second - first - 1), token.substr(second + 1)};
}

const std::string HEADER = R"({"alg":"ES256"})";
const std::string MISMATCH = "49 String not valid : alg name in JOSE header does not match key algorithm";

class Jws : public Jose {
protected:
    void SetUp() override {
        Jose::SetUp();
        if (!IsSkipped())
            m_oKey.loadPrivateKey(jwa::ES256, privatePEM("P-256"));
    }

    const jwa::Key& key() const { return m_oKey; }

    // token signs a payload under a header's text, as our own code does.
    std::string token(const std::string& payload, const std::string& header = HEADER) const {
        return jws::sign(parsed(header).get(), payload, m_oKey);
    }

    // handMade puts a token together from texts that need not be what our code writes, rightly signed.
    std::string handMade(const std::string& headerSegment, const std::string& payloadSegment) const {
        const std::string input = headerSegment + "." + payloadSegment;
        return input + "." + encoded(asText(jwa::sign(input.data(), input.size(), m_oKey)));
    }

    bool verifies(const std::string& text) const { return verifies(text, m_oKey); }

    // verifies calls all three overloads, which must agree; for the JSON one that needs a payload that is an object. On
    // false no payload may have changed.
    static bool verifies(const std::string& text, const jwa::Key& key) {
        JSON::root headers[3];
        std::string string = "untouched";
        Bytes bytes = asBytes("untouched");
        JSON::root value = JSON::String("untouched");
        const bool result = jws::verify(text, headers[0], string, key);
        EXPECT_EQ(jws::verify(text, headers[1], bytes, key), result);
        EXPECT_EQ(asText(bytes), string);
        const bool jsonResult = jws::verify(text, headers[2], value, key);
        if (!result) {
            EXPECT_FALSE(jsonResult);
            EXPECT_EQ(string, "untouched");
            EXPECT_EQ(value->toString(), "untouched");
        } else {
            EXPECT_EQ(jsonResult, value && value->type == JSON::ObjectType);
        }
        EXPECT_EQ(textOf(headers[1]), textOf(headers[0]));
        EXPECT_EQ(textOf(headers[2]), textOf(headers[0]));
        return result;
    }

    // headerLeft returns what `verify` leaves in a header slot that held something before.
    std::string headerLeft(const std::string& text) const {
        JSON::root header = JSON::String("before");
        std::string payload;
        jws::verify(text, header, payload, m_oKey);
        return textOf(header);
    }

private:
    jwa::Key m_oKey;
};

}  // namespace

// --- sign ---

TEST_F(Jws, SignJoinsHeaderPayloadAndSignature) {
    const JSON::root header = parsed(R"({"zip":[1,{"a":null}],"alg":"ES256","kid":"\u00e4"})");
    const std::string text = jws::sign(header.get(), std::string("payload"), key());
    const std::vector<std::string> parts = segments(text);
    EXPECT_EQ(parts[0], encoded(oneLine(*header)));
    EXPECT_EQ(parts[1], encoded("payload"));
    EXPECT_EQ(decoded(parts[2]).size(), 64u);
    EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_."),
              std::string::npos)
        << "no padding, no line breaks";
    const std::string input = parts[0] + "." + parts[1];
    EXPECT_TRUE(jwa::verify(input.data(), input.size(), key(), asBytes(decoded(parts[2]))));
}

TEST_F(Jws, HeaderGoesOutOnOneLine) {
    const std::string header = decoded(segments(token("x", "{\n\t\"b\": 1,\n\t\"alg\": \"ES256\"\n}"))[0]);
    EXPECT_EQ(header.find_first_of("\n\t"), std::string::npos);
    EXPECT_EQ(textOf(parsed(header)), textOf(parsed(R"({"alg":"ES256","b":1})")));
}

TEST_F(Jws, SignLeavesTheHeaderAlone) {
    const JSON::root header = parsed(R"({"b":1})");
    jws::sign(header.get(), std::string("x"), key());
    EXPECT_EQ(textOf(header), textOf(parsed(R"({"b":1})")));
}

TEST_F(Jws, PayloadFormsSignTheSameBytes) {
    const std::string payload("a\0b\x80\xff\r\n\xc3\xa4", 9);
    const JSON::root header = parsed(R"({"alg":"HS256"})");
    const jwa::Key hmac = hmacKey(jwa::HS256, "secret");
    const std::string expected = jws::sign(header.get(), payload, hmac);
    const Bytes bytes = asBytes(payload);
    EXPECT_EQ(jws::sign(header.get(), bytes, hmac), expected);
    EXPECT_EQ(jws::sign(header.get(), bytes.data(), bytes.size(), hmac), expected);
    EXPECT_EQ(segments(expected)[1], encoded(payload));
}

TEST_F(Jws, JSONPayloadIsSignedAsItsTextOnOneLine) {
    const JSON::root header = parsed(R"({"alg":"HS256"})");
    const jwa::Key hmac = hmacKey(jwa::HS256, "secret");
    for (const char* text : {"{\"a\":[1,2,{}],\"b\":\"x\"}", "[1]", "5", "\"s\"", "null", "true", "{}"}) {
        const JSON::root payload = parsed(text);
        EXPECT_EQ(jws::sign(header.get(), payload.get(), hmac), jws::sign(header.get(), oneLine(*payload), hmac));
    }
}

TEST_F(Jws, EmptyPayloadIsAnEmptySegment) {
    const std::string text = token("");
    EXPECT_EQ(segments(text)[1], "");
    EXPECT_TRUE(verifies(text));
    const JSON::root header = parsed(HEADER);
    EXPECT_EQ(segments(jws::sign(header.get(), nullptr, 0, key()))[1], "");
    EXPECT_EQ(segments(jws::sign(header.get(), Bytes(), key()))[1], "");
}

TEST_F(Jws, HeaderWithAnotherAlgThrows) {
    for (const char* header : {R"({"alg":"ES384"})", R"({"alg":"none"})", R"({"alg":""})", R"({"alg":"es256"})",
                               R"({"alg":" ES256"})", R"({"alg":"ES256 "})"}) {
        EXPECT_EQ(failureOf([&] { token("x", header); }), MISMATCH) << header;
    }
}

TEST_F(Jws, AlgThatIsNotAStringIsComparedByItsText) {
    for (const char* header :
         {R"({"alg":5})", R"({"alg":null})", R"({"alg":true})", R"({"alg":["ES256"]})", R"({"alg":{"ES256":1}})"}) {
        EXPECT_EQ(failureOf([&] { token("x", header); }), MISMATCH) << header;
    }
    // the text of the number 5 is "5", which is not an algorithm's name; that of null isn't "none" either
    jwa::Key none;
    EXPECT_EQ(failureOf([&] { jws::sign(parsed(R"({"alg":null})").get(), std::string("x"), none); }), MISMATCH);
}

TEST_F(Jws, MismatchIsReportedByEveryForm) {
    const JSON::root header = parsed(R"({"alg":"RS256"})");
    const Bytes bytes = {1};
    EXPECT_EQ(failureOf([&] { jws::sign(header.get(), bytes.data(), 1, key()); }), MISMATCH);
    EXPECT_EQ(failureOf([&] { jws::sign(header.get(), bytes, key()); }), MISMATCH);
    EXPECT_EQ(failureOf([&] { jws::sign(header.get(), header.get(), key()); }), MISMATCH);
}

TEST_F(Jws, HeaderWithoutAlgIsSignedAsItIs) {
    const std::string text = token("x", R"({"kid":"1"})");
    EXPECT_EQ(decoded(segments(text)[0]), oneLine(*parsed(R"({"kid":"1"})"))) << "nothing is added";
    EXPECT_TRUE(verifies(text));
}

// A value that has no members has no `alg`.
TEST_F(Jws, HeaderThatIsNotAnObjectIsSignedButNeverVerifies) {
    for (const char* header : {"[1]", "5", "\"ES256\"", "null"}) {
        const std::string text = token("x", header);
        EXPECT_EQ(decoded(segments(text)[0]), oneLine(*parsed(header)));
        EXPECT_FALSE(verifies(text));
    }
}

TEST_F(Jws, ErrorsOfSigningPassThrough) {
    const JSON::root none = parsed(R"({"alg":"none"})");
    EXPECT_EQ(failureOf([&] { jws::sign(none.get(), std::string("x"), jwa::Key()); }),
              "49 String not valid : Unsupported algorithm for signing");
    const JSON::root header = parsed(HEADER);
    EXPECT_THAT(failureOf([&] { jws::sign(header.get(), std::string("x"), publicKey(jwa::ES256, "P-256")); }),
                StartsWith("17 Unknown System Error : EVP_DigestSignFinal: error:"));
}

// --- verify ---

TEST_F(Jws, PayloadComesBackInEachForm) {
    const std::string payload = "{\"a\":\"\xc3\xa4\",\"b\":[1,2]}";
    const std::string text = token(payload);
    const jwa::Key check = publicKey(jwa::ES256, "P-256");
    JSON::root header;
    std::string string;
    Bytes bytes;
    JSON::root value;
    EXPECT_TRUE(jws::verify(text, header, string, check));
    EXPECT_EQ(string, payload);
    EXPECT_EQ(textOf(header), textOf(parsed(HEADER)));
    EXPECT_TRUE(jws::verify(text, header, bytes, check));
    EXPECT_EQ(asText(bytes), payload);
    EXPECT_TRUE(jws::verify(text, header, value, check));
    EXPECT_EQ(textOf(value), textOf(parsed(payload)));
}

TEST_F(Jws, PayloadMayHoldNulAndHighBytes) {
    std::string payload;
    for (int byte = 0; byte < 256; byte++)
        payload += static_cast<char>(byte);
    for (size_t size : {256, 255, 254, 1}) {
        const std::string part = payload.substr(0, size);
        const std::string text = token(part);
        JSON::root header;
        std::string string;
        Bytes bytes;
        EXPECT_TRUE(jws::verify(text, header, string, key()));
        EXPECT_TRUE(string == part);
        EXPECT_TRUE(jws::verify(text, header, bytes, key()));
        EXPECT_TRUE(bytes == asBytes(part));
    }
}

TEST_F(Jws, PayloadReplacesWhatTheCallerHeld) {
    const std::string text = token(R"({"a":1})");
    JSON::root header = parsed("[1]");
    JSON::root value = parsed(R"({"old":[1,2,3]})");
    std::string string = "a longer text than the payload is";
    Bytes bytes(100, 1);
    EXPECT_TRUE(jws::verify(text, header, value, key()));
    EXPECT_EQ(textOf(value), textOf(parsed(R"({"a":1})")));
    EXPECT_EQ(textOf(header), textOf(parsed(HEADER)));
    EXPECT_TRUE(jws::verify(text, header, string, key()));
    EXPECT_EQ(string, R"({"a":1})");
    EXPECT_TRUE(jws::verify(text, header, bytes, key()));
    EXPECT_EQ(asText(bytes), R"({"a":1})");
}

TEST_F(Jws, TextWithoutDotsOrWithOneFails) {
    const std::vector<std::string> parts = segments(token("{}"));
    for (const std::string& text :
         {std::string(), std::string("."), std::string("a"), std::string("a."), std::string("a.b"), parts[0],
          parts[0] + ".", parts[0] + "." + parts[1], "." + parts[1]}) {
        EXPECT_FALSE(verifies(text)) << text;
        EXPECT_EQ(headerLeft(text), "\"before\"") << "no header was read from " << text;
    }
}

TEST_F(Jws, DotAtTheVeryEndFails) {
    const std::vector<std::string> parts = segments(token("{}"));
    for (const std::string& text : {std::string("a.b."), std::string(".."), std::string("a.."),
                                    parts[0] + "." + parts[1] + ".", parts[0] + ".."}) {
        EXPECT_FALSE(verifies(text)) << text;
        EXPECT_EQ(headerLeft(text), "\"before\"") << "no header was read from " << text;
    }
}

TEST_F(Jws, EmptyPartsFail) {
    const std::vector<std::string> parts = segments(token("{}"));
    EXPECT_FALSE(verifies("a..c"));
    EXPECT_EQ(headerLeft("a..c"), "null pointer") << "by its header";
    EXPECT_FALSE(verifies("..c"));
    EXPECT_FALSE(verifies("." + parts[1] + "." + parts[2]));
    EXPECT_FALSE(verifies(parts[0] + ".." + parts[2]));
    EXPECT_FALSE(verifies("..."));
}

TEST_F(Jws, FurtherDotsBelongToTheSignatureSegment) {
    const std::string text = token("{}");
    EXPECT_TRUE(verifies(text + "."));
    EXPECT_TRUE(verifies(text + "..."));
    EXPECT_FALSE(verifies(text + "." + segments(text)[2]));
    const size_t dot = text.rfind('.');
    EXPECT_TRUE(verifies(text.substr(0, dot + 5) + "." + text.substr(dot + 5)));
    EXPECT_TRUE(verifies(text.substr(0, dot + 1) + "." + text.substr(dot + 1)));
}

TEST_F(Jws, HeaderWithAlgNoneFails) {
    EXPECT_FALSE(verifies(handMade(encoded(R"({"alg":"none"})"), encoded("{}"))));
    EXPECT_FALSE(verifies(encoded(R"({"alg":"none"})") + "." + encoded("{}") + ".A"));
    EXPECT_FALSE(verifies(encoded(R"({"alg":"none"})") + "." + encoded("{}") + ".A", jwa::Key()));
    EXPECT_FALSE(verifies(encoded(R"({"alg":"none"})") + "." + encoded("{}") + ".!", jwa::Key()));
}

TEST_F(Jws, HeaderWithoutAlgPasses) {
    EXPECT_TRUE(verifies(handMade(encoded("{}"), encoded("{}"))));
    EXPECT_TRUE(verifies(handMade(encoded(R"({"ALG":"none","kid":1})"), encoded("{}"))));
}

TEST_F(Jws, AlgMustBeTheKeysOwnWhateverTheSignature) {
    const struct {
        const char* header;
        bool passes;
    } rows[] = {
        {R"({"alg":"ES256"})", true},
        {R"( { "alg" : "ES256" , "x" : [ ] } )", true},
        {R"({"alg":"\u0045S256"})", true},
        {R"({"alg":"none","alg":"ES256"})", true},  // the last of equal keys counts
        {R"({"alg":"ES256","alg":"none"})", false},
        {R"({"alg":"ES384"})", false},
        {R"({"alg":"HS256"})", false},
        {R"({"alg":"es256"})", false},
        {R"({"alg":"ES256 "})", false},
        {R"({"alg":""})", false},
        {R"({"alg":5})", false},
        {R"({"alg":4})", false},
        {R"({"alg":null})", false},
        {R"({"alg":true})", false},
        {R"({"alg":["ES256"]})", false},
        {R"({"alg":{"ES256":"ES256"}})", false},
    };
    for (const auto& row : rows) {
        const std::string text = handMade(encoded(row.header), encoded("{}"));
        EXPECT_EQ(verifies(text), row.passes) << row.header;
        EXPECT_EQ(headerLeft(text), textOf(parsed(row.header)));
    }
}

// The classic confusion: a public key's text taken as the secret of an HMAC.
TEST_F(Jws, AlgorithmIsNeverTakenFromTheText) {
    const std::string publicText = TempFolder::contentOf(publicPEM("P-256"));
    const JSON::root header = parsed(R"({"alg":"HS256"})");
    const std::string text = jws::sign(header.get(), std::string("{}"), hmacKey(jwa::HS256, publicText));
    EXPECT_FALSE(verifies(text, publicKey(jwa::ES256, "P-256")));
}

TEST_F(Jws, HeaderThatIsNotAnObjectFails) {
    for (const char* header : {"[1]", "5", "\"ES256\"", "null", "[{\"alg\":\"ES256\"}]"}) {
        const std::string text = handMade(encoded(header), encoded("{}"));
        EXPECT_FALSE(verifies(text)) << header;
        EXPECT_EQ(headerLeft(text), textOf(parsed(header))) << "the caller keeps it";
    }
    for (const char* header : {"", "{\"alg\":\"ES256\"", "ES256", "{} {}", "\xff"}) {
        const std::string text = handMade(encoded(header), encoded("{}"));
        EXPECT_FALSE(verifies(text)) << header;
        EXPECT_EQ(headerLeft(text), "null pointer") << "what the slot held is gone";
    }
}

TEST_F(Jws, ChangedPayloadFailsAndTheHeaderSlotHoldsTheHeader) {
    const std::string text = token("{\"a\":1}");
    const size_t begin = text.find('.') + 1;
    const size_t end = text.rfind('.');
    for (size_t i = begin; i < end; i++) {
        std::string changed = text;
        changed[i] = changed[i] == 'A' ? 'B' : 'A';
        EXPECT_FALSE(verifies(changed)) << "letter " << i;
        EXPECT_EQ(headerLeft(changed), textOf(parsed(HEADER)));
    }
}

TEST_F(Jws, ChangedHeaderFails) {
    const std::string text = token("{}", R"({"alg":"ES256","kid":"a"})");
    EXPECT_FALSE(verifies(encoded(R"({"alg":"ES256","kid":"b"})") + text.substr(text.find('.'))));
    EXPECT_FALSE(verifies(encoded(R"( {"alg":"ES256","kid":"a"})") + text.substr(text.find('.'))));
}

TEST_F(Jws, ChangedSignatureFails) {
    const std::string text = token("{}");
    const size_t begin = text.rfind('.') + 1;
    for (size_t i = begin; i + 1 < text.size(); i++) {
        std::string changed = text;
        changed[i] = changed[i] == 'A' ? 'B' : 'A';
        EXPECT_FALSE(verifies(changed)) << "letter " << i - begin;
    }
    EXPECT_FALSE(verifies(text.substr(0, text.size() - 1)));
    EXPECT_FALSE(verifies(text.substr(0, begin + 1)));
    EXPECT_FALSE(verifies(text + "AAAA"));
}

TEST_F(Jws, SignatureOfAnotherTokenFails) {
    const std::string text = token("{\"a\":1}");
    EXPECT_FALSE(verifies(text.substr(0, text.rfind('.')) + token("{}").substr(token("{}").rfind('.'))));
    jwa::Key other;
    other.loadPrivateKey(jwa::ES256, privatePEM("secp256k1"));
    EXPECT_FALSE(verifies(text, other));
}

TEST_F(Jws, TokenCutOffAnywhereFails) {
    const std::string text = token("{\"a\":1}");
    for (size_t size = 0; size < text.size(); size++)
        EXPECT_FALSE(verifies(text.substr(0, size))) << size;
    EXPECT_TRUE(verifies(text));
}

TEST_F(Jws, LineFeedsInTheSignatureSegmentAreDropped) {
    const std::string text = token("{}");
    const size_t dot = text.rfind('.');
    for (const std::string& filler : {std::string("\n"), std::string("\r\n"), std::string(" "), std::string("="),
                                      std::string("+/"), std::string(1, '\0')}) {
        EXPECT_TRUE(verifies(text + filler));
        EXPECT_TRUE(verifies(text.substr(0, dot + 1) + filler + text.substr(dot + 1)));
        EXPECT_TRUE(verifies(text.substr(0, dot + 40) + filler + text.substr(dot + 40)));
    }
}

TEST_F(Jws, LineFeedsInHeaderOrPayloadChangeTheSigningInput) {
    const std::string text = token("{}");
    const size_t first = text.find('.');
    const size_t second = text.rfind('.');
    for (const size_t at : {size_t{0}, size_t{3}, first, first + 1, second}) {
        std::string changed = text;
        changed.insert(at, "\n");
        EXPECT_FALSE(verifies(changed)) << at;
        EXPECT_EQ(headerLeft(changed), textOf(parsed(HEADER))) << "the decoder drops it";
    }
}

TEST_F(Jws, LineFeedsThatWereSignedVerify) {
    EXPECT_TRUE(verifies(handMade(encoded(HEADER) + "\n", "\n" + encoded("{}") + "==")));
}

TEST_F(Jws, JSONPayloadThatIsNotAnObjectIsStoredButFalse) {
    for (const char* payload : {"[1]", "5", "\"s\"", "null", "true"}) {
        JSON::root header;
        JSON::root value = JSON::String("before");
        EXPECT_FALSE(jws::verify(token(payload), header, value, key())) << payload;
        EXPECT_EQ(textOf(value), textOf(parsed(payload)));
    }
    JSON::root header;
    JSON::root value;
    EXPECT_FALSE(jws::verify(token("[1]"), header, value, key()));
    ASSERT_NE(dynamic_cast<JSONArray*>(value.get()), nullptr);
}

TEST_F(Jws, PayloadThatIsNotJSONEmptiesTheSlot) {
    for (const char* payload : {"", "no JSON", "{\"a\":1", "\xff"}) {
        JSON::root header;
        JSON::root value = JSON::String("before");
        EXPECT_FALSE(jws::verify(token(payload), header, value, key())) << payload;
        EXPECT_EQ(value, nullptr) << payload;
        std::string string;
        EXPECT_TRUE(jws::verify(token(payload), header, string, key())) << "the signature is good";
        EXPECT_EQ(string, payload);
    }
}

TEST_F(Jws, ErrorsOfVerifyingAreFalse) {
    const std::string text = token("{}");
    const std::vector<std::string> parts = segments(text);
    // HMAC keys are refused for verifying
    const jwa::Key hmac = hmacKey(jwa::HS256, "secret");
    const std::string hmacToken = jws::sign(parsed(R"({"alg":"HS256"})").get(), std::string("{}"), hmac);
    EXPECT_FALSE(verifies(hmacToken, hmac));
    // keys that are none
    for (int algo = 0; algo <= 10; algo++) {
        jwa::Key null;
        null.set(static_cast<jwa::Algo>(algo), nullptr);
        const std::string header = std::string(R"({"alg":")") + jwa::name(null.algo()) + "\"}";
        const std::string signature(jwa::signatureSize(null.algo()), 'x');
        EXPECT_FALSE(verifies(encoded(header) + ".e30." + encoded(signature) + "=", null)) << algo;
        EXPECT_FALSE(verifies("e30.e30." + encoded(signature) + "=", null)) << algo;
    }
    // a key of another type
    EXPECT_FALSE(verifies(text, withAlgo(jwa::ES256, privateKey(jwa::None, "RSA-2048"))));
    EXPECT_FALSE(verifies(text, withAlgo(jwa::ES256, hmac)));
}

TEST_F(Jws, VerifyingWorksAfterFailures) {
    const std::string text = token("{}");
    const jwa::Key hmac = hmacKey(jwa::HS256, "secret");
    for (int i = 0; i < 3; i++) {
        polluteErrorQueue();
        EXPECT_FALSE(verifies("a.b.c"));
        EXPECT_FALSE(verifies(jws::sign(parsed(R"({"alg":"HS256"})").get(), std::string("{}"), hmac), hmac));
        EXPECT_TRUE(verifies(text));
    }
    ERR_clear_error();
}

TEST_F(Jws, LongAndDeepTokensVerify) {
    EXPECT_TRUE(verifies(token(std::string(1000000, 'x'))));
    const std::string deep = std::string(20000, '[') + std::string(20000, ']');
    EXPECT_TRUE(verifies(token("{\"a\":" + deep + "}")));
    EXPECT_TRUE(verifies(handMade(encoded("{\"alg\":\"ES256\",\"a\":" + deep + "}"), encoded("{}"))));
    EXPECT_FALSE(verifies(std::string(1000000, '.')));
    EXPECT_FALSE(verifies(handMade(encoded(deep), encoded("{}"))));
}

TEST_F(Jws, TextWithNulBytesOrHighBytesDoesNoHarm) {
    const std::string text = token("{}");
    EXPECT_FALSE(verifies(std::string(1, '\0') + text));
    EXPECT_FALSE(verifies(std::string("\0.\0.\0", 5)));
    EXPECT_FALSE(verifies("\xff.\xff.\xff"));
    // a NUL byte ends a JSON text
    EXPECT_TRUE(verifies(handMade(encoded(HEADER + std::string("\0none", 5)), encoded("{}"))));
}

// --- Looking into tokens ---

TEST_F(Jws, GetJOSEHeaderTakesAnObjectBeforeTheFirstDot) {
    const std::string header = encoded(R"({"alg":"none","kid":"1"})");
    for (const std::string& rest : {std::string(".a"), std::string(".a."), std::string(".a.b"), std::string("..")}) {
        EXPECT_EQ(textOf(jws::getJOSEHeader(header + rest)), textOf(parsed(R"({"alg":"none","kid":"1"})"))) << rest;
    }
    EXPECT_EQ(textOf(jws::getJOSEHeader(encoded("{}") + ".a")), textOf(parsed("{}")));
    EXPECT_EQ(textOf(jws::getJOSEHeader(token("x"))), textOf(parsed(HEADER)));
}

TEST_F(Jws, GetJOSEHeaderIsNullOtherwise) {
    for (const std::string& text :
         {std::string(), std::string("."), std::string("a"), std::string(".a.b"), std::string("a.b.c"), encoded("{}"),
          encoded("{}") + ".", encoded("[1]") + ".a.b", encoded("5") + ".a.b", encoded("\"s\"") + ".a.b",
          encoded("null") + ".a.b", encoded("{\"a\"") + ".a.b"}) {
        EXPECT_EQ(jws::getJOSEHeader(text), nullptr) << text;
    }
}

TEST_F(Jws, GetPayloadOf5IsANumber) {
    const JSON::root payload = jws::getPayload(token("5"));
    ASSERT_NE(dynamic_cast<JSONNumber*>(payload.get()), nullptr);
    EXPECT_EQ(static_cast<double>(*payload), 5.0);
}

TEST_F(Jws, GetPayloadHasAnyType) {
    for (const char* payload : {"{\"a\":1}", "[1]", "5", "\"s\"", "null", "true"}) {
        const std::string expected = textOf(parsed(payload));
        EXPECT_EQ(textOf(jws::getPayload(token(payload))), expected);
        EXPECT_EQ(textOf(jws::getPayload("." + encoded(payload) + ".x")), expected) << "the header does not matter";
        EXPECT_EQ(textOf(jws::getPayload("a." + encoded(payload) + ".x.y.")), expected);
    }
}

TEST_F(Jws, GetPayloadIsNullOtherwise) {
    const std::string header = encoded(HEADER);
    for (const std::string& text :
         {std::string(), std::string("."), std::string(".."), header, header + ".", header + "." + encoded("5"),
          header + "." + encoded("5") + ".", header + "..x", header + "." + encoded("no JSON") + ".x",
          header + "." + encoded("{\"a\":1") + ".x"}) {
        EXPECT_EQ(jws::getPayload(text), nullptr) << text;
    }
}

TEST_F(Jws, InspectionVerifiesNothing) {
    const std::string text = encoded(R"({"alg":"none"})") + "." + encoded("{\"a\":1}") + ".x";
    EXPECT_FALSE(verifies(text));
    EXPECT_EQ(textOf(jws::getJOSEHeader(text)), textOf(parsed(R"({"alg":"none"})")));
    EXPECT_EQ(textOf(jws::getPayload(text)), textOf(parsed("{\"a\":1}")));
}
