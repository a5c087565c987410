// attestation_context_test.cpp: the context file's shape, member by member, and the records of its failures.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/attestation_context.h"
#include "unit/record_collector.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

using Bytes = std::vector<unsigned char>;

Bytes bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

// parsed parses `text`, which must be JSON, into `context`.
bool parsed(const std::string& text, AttestationContext& context) {
    const JSON::root root = JSON::parse(text);
    EXPECT_NE(root, nullptr) << text;
    return root && context.parse(root);
}

// --- The structure

TEST(AttestationContext, HasFiveEmptyFieldsInThisOrder) {
    AttestationContext context;
    auto& [cbData, nonce, akPub, akPriv, akActChall] = context;
    EXPECT_EQ(&cbData, &context.cbData);
    EXPECT_EQ(&nonce, &context.nonce);
    EXPECT_EQ(&akPub, &context.akPub);
    EXPECT_EQ(&akPriv, &context.akPriv);
    EXPECT_EQ(&akActChall, &context.akActChall);
    EXPECT_EQ(context.cbData, "");
    EXPECT_THAT(context.nonce, IsEmpty());
    EXPECT_THAT(context.akPub, IsEmpty());
    EXPECT_THAT(context.akPriv, IsEmpty());
    EXPECT_THAT(context.akActChall, IsEmpty());
}

// --- parse

// GoodRow is an accepted document and the fields it gives, as text.
struct GoodRow {
    const char* text;
    const char* cbData;
    const char* nonce;
    const char* akPub;
    const char* akPriv;
    const char* akActChall;
};

const GoodRow GOOD[] = {
    {"{}", "", "", "", "", ""},
    {R"({"tpm2":{}})", "", "", "", "", ""},
    {R"({"tpm2":{"ak":{}}})", "", "", "", "", ""},
    {R"({"cbData":""})", "", "", "", "", ""},
    {R"({"cbData":"text, kept \"as\" it is: QQ=="})", "text, kept \"as\" it is: QQ==", "", "", "", ""},
    {R"({"cbData":"\u00fc"})", "\xC3\xBC", "", "", "", ""},
    {R"({"nonce":"QQ=="})", "", "A", "", "", ""},
    {R"({"nonce":"QUJD"})", "", "ABC", "", "", ""},
    {R"({"other":1})", "", "", "", "", ""},
    {R"({"tpm2":{"other":1,"ak":{"other":null}},"cbdata":5,"Nonce":null})", "", "", "", "", ""},
    {R"({"ak":{"pubTpm2B":"QQ=="},"actChall":5,"pubTpm2B":"QQ=="})", "", "", "", "", ""},
    {R"({"tpm2":{"ak":{"actChall":"Qw=="}}})", "", "", "", "", "C"},
    {R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":"Qg=="}}})", "", "", "A", "B", ""},
    {R"({"tpm2":{"ak":{"actChall":"Qw==","privTpm2B":"Qg==","pubTpm2B":"QQ=="}},"nonce":"Tg==","cbData":"x"})", "x",
     "N", "A", "B", "C"},
    // the decoder skips what is not base64
    {R"({"nonce":" Q\nQ = = !"})", "", "A", "", "", ""},
};

TEST(AttestationContext, TakesGoodDocuments) {
    for (const GoodRow& row : GOOD) {
        SCOPED_TRACE(row.text);
        RecordCollector collector;
        AttestationContext context;
        EXPECT_TRUE(parsed(row.text, context));
        EXPECT_EQ(context.cbData, row.cbData);
        EXPECT_EQ(context.nonce, bytes(row.nonce));
        EXPECT_EQ(context.akPub, bytes(row.akPub));
        EXPECT_EQ(context.akPriv, bytes(row.akPriv));
        EXPECT_EQ(context.akActChall, bytes(row.akActChall));
        EXPECT_THAT(collector.lines(), IsEmpty());
    }
}

const char* const BAD[] = {
    "[]",
    R"("text")",
    "5",
    "null",
    "true",
    R"([{"cbData":"x"}])",
    R"({"cbData":5})",
    R"({"cbData":null})",
    R"({"cbData":{}})",
    R"({"cbData":["x"]})",
    R"({"nonce":""})",
    R"({"nonce":"!"})",
    R"({"nonce":"=="})",
    R"({"nonce":5})",
    R"({"nonce":null})",
    R"({"nonce":["QQ=="]})",
    R"({"tpm2":1})",
    R"({"tpm2":null})",
    R"({"tpm2":[]})",
    R"({"tpm2":"x"})",
    R"({"tpm2":{"ak":1}})",
    R"({"tpm2":{"ak":null}})",
    R"({"tpm2":{"ak":[]}})",
    R"({"tpm2":{"ak":"x"}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ=="}}})",
    R"({"tpm2":{"ak":{"privTpm2B":"QQ=="}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","actChall":"QQ=="}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":null}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":5,"privTpm2B":"QQ=="}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":{}}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"","privTpm2B":"QQ=="}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":""}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":"."}}})",
    R"({"tpm2":{"ak":{"actChall":""}}})",
    R"({"tpm2":{"ak":{"actChall":"%%"}}})",
    R"({"tpm2":{"ak":{"actChall":5}}})",
    R"({"tpm2":{"ak":{"actChall":null}}})",
    R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":"QQ==","actChall":""}}})",
};

TEST(AttestationContext, RefusesBadDocumentsWithoutARecord) {
    for (const char* text : BAD) {
        SCOPED_TRACE(text);
        RecordCollector collector;
        AttestationContext context;
        EXPECT_FALSE(parsed(text, context));
        EXPECT_THAT(collector.lines(), IsEmpty());
    }
}

TEST(AttestationContext, AbsentMembersClearTheirFields) {
    AttestationContext context{"old", bytes("o"), bytes("o"), bytes("o"), bytes("o")};
    EXPECT_TRUE(parsed(R"({"tpm2":{"ak":{}}})", context));
    EXPECT_EQ(context.cbData, "");
    EXPECT_THAT(context.nonce, IsEmpty());
    EXPECT_THAT(context.akPub, IsEmpty());
    EXPECT_THAT(context.akPriv, IsEmpty());
    EXPECT_THAT(context.akActChall, IsEmpty());
}

TEST(AttestationContext, ChecksInOrderAndKeepsTheFieldsSetBeforeAFault) {
    AttestationContext context;
    EXPECT_FALSE(parsed(R"({"nonce":"Tg==","cbData":5})", context));
    EXPECT_THAT(context.nonce, IsEmpty()) << "cbData comes first";
    EXPECT_FALSE(parsed(R"({"tpm2":5,"nonce":5,"cbData":"kept"})", context));
    EXPECT_EQ(context.cbData, "kept");
    EXPECT_FALSE(parsed(R"({"tpm2":5,"nonce":"Tg=="})", context));
    EXPECT_EQ(context.nonce, bytes("N"));
    EXPECT_FALSE(parsed(R"({"tpm2":{"ak":{"actChall":"Qw==","pubTpm2B":"QQ=="}}})", context));
    EXPECT_THAT(context.akPub, IsEmpty());
    EXPECT_THAT(context.akActChall, IsEmpty()) << "the key comes before the challenge";
    EXPECT_FALSE(parsed(R"({"tpm2":{"ak":{"privTpm2B":"Qg==","pubTpm2B":5}}})", context));
    EXPECT_THAT(context.akPriv, IsEmpty()) << "both types come before the areas' bytes";
    EXPECT_FALSE(parsed(R"({"tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":5}}})", context));
    EXPECT_THAT(context.akPub, IsEmpty()) << "both types come before the areas' bytes";
    EXPECT_FALSE(parsed(R"({"tpm2":{"ak":{"pubTpm2B":"","privTpm2B":"Qg=="}}})", context));
    EXPECT_THAT(context.akPub, IsEmpty());
    EXPECT_EQ(context.akPriv, bytes("B")) << "both areas are decoded before their lengths count";
    EXPECT_FALSE(parsed(R"({"tpm2":{"ak":{"privTpm2B":"Qg==","pubTpm2B":"QQ==","actChall":5}}})", context));
    EXPECT_EQ(context.akPub, bytes("A"));
    EXPECT_EQ(context.akPriv, bytes("B"));
}

// Each row spoils one member of a document that set all fields before.
const char* const WRONG_TYPES[] = {
    R"({"cbData":5})",
    R"({"cbData":"x","nonce":5})",
    R"({"cbData":"x","nonce":"Tg==","tpm2":{"ak":{"pubTpm2B":5,"privTpm2B":"WA=="}}})",
    R"({"cbData":"x","nonce":"Tg==","tpm2":{"ak":{"pubTpm2B":"WA==","privTpm2B":5}}})",
    R"({"cbData":"x","nonce":"Tg==","tpm2":{"ak":{"pubTpm2B":"QQ==","privTpm2B":"Qg==","actChall":5}}})",
};

TEST(AttestationContext, MemberOfAWrongTypeKeepsItsField) {
    for (const char* text : WRONG_TYPES) {
        SCOPED_TRACE(text);
        AttestationContext context{"x", bytes("N"), bytes("A"), bytes("B"), bytes("C")};
        EXPECT_FALSE(parsed(text, context));
        EXPECT_EQ(context.cbData, "x");
        EXPECT_EQ(context.nonce, bytes("N"));
        EXPECT_EQ(context.akPub, bytes("A"));
        EXPECT_EQ(context.akPriv, bytes("B"));
        EXPECT_EQ(context.akActChall, bytes("C"));
    }
}

// --- Files

class AttestationFileTest : public testing::Test {
protected:
    std::string write(const std::string& content) const { return m_oFolder.write("context.json", content); }

    // expectOnly looks for exactly this record.
    void expectOnly(const std::string& record) const { EXPECT_EQ(m_oCollector.lines(), Lines{record}); }

    TempFolder m_oFolder;
    RecordCollector m_oCollector;
};

TEST_F(AttestationFileTest, GoodFileIsTaken) {
    AttestationContext context;
    EXPECT_TRUE(context.parseFile(write(R"( {"cbData":"x","tpm2":{"ak":{"actChall":"Qw=="}}} )"
                                        "\n")));
    EXPECT_EQ(context.cbData, "x");
    EXPECT_EQ(context.akActChall, bytes("C"));
    EXPECT_THAT(m_oCollector.lines(), IsEmpty());
}

TEST_F(AttestationFileTest, FileThatCannotBeOpenedIsLogged) {
    const std::string path = m_oFolder / "missing %s.json";
    const std::string record = "ERROR failed to open " + path;
    AttestationContext context;
    EXPECT_FALSE(context.parseFile(path));
    expectOnly(record);
    m_oCollector.clear();
    EXPECT_EQ(parseJSONFile(path), nullptr);
    expectOnly(record);
    m_oCollector.clear();
    EXPECT_EQ(readFile(path), "");
    expectOnly(record);
}

TEST_F(AttestationFileTest, EmptyFileFailsWithoutARecord) {
    const std::string path = write("");
    AttestationContext context;
    EXPECT_FALSE(context.parseFile(path));
    EXPECT_EQ(parseJSONFile(path), nullptr);
    EXPECT_EQ(readFile(path), "");
    EXPECT_THAT(m_oCollector.lines(), IsEmpty());
}

TEST_F(AttestationFileTest, ReadFaultIsLogged) {
    // a folder opens and can't be read; a process's memory can't be read at its beginning
    for (const std::string& path : {m_oFolder.path(), std::string("/proc/self/mem")}) {
        SCOPED_TRACE(path);
        AttestationContext context;
        EXPECT_FALSE(context.parseFile(path));
        expectOnly("ERROR failed reading from " + path);
        m_oCollector.clear();
        EXPECT_EQ(readFile(path), "");
        expectOnly("ERROR failed reading from " + path);
        m_oCollector.clear();
    }
}

TEST_F(AttestationFileTest, TextThatIsNotJsonIsLogged) {
    for (const std::string content : {"x", " ", "\n", R"({"cbData":"x"}})", R"({"cbData")", "\xEF\xBB\xBF{}"}) {
        SCOPED_TRACE(content);
        const std::string path = write(content);
        AttestationContext context;
        EXPECT_FALSE(context.parseFile(path));
        expectOnly("ERROR failed parsing " + path + " as JSON");
        m_oCollector.clear();
    }
}

TEST_F(AttestationFileTest, WrongShapeIsLoggedInTheseWords) {
    for (const char* text : BAD) {
        SCOPED_TRACE(text);
        const std::string path = write(text);
        AttestationContext context;
        EXPECT_FALSE(context.parseFile(path));
        expectOnly("ERROR incomplete or invalida data in " + path);
        m_oCollector.clear();
    }
}

TEST_F(AttestationFileTest, ReadFileReturnsAllBytes) {
    std::string content(3'000'000, 'x');
    for (size_t i = 0; i < content.size(); i++) {
        content[i] = static_cast<char>(i * 7);
    }
    EXPECT_EQ(readFile(write(content)), content);
    EXPECT_THAT(m_oCollector.lines(), IsEmpty());
}

TEST_F(AttestationFileTest, ParseJsonFileReturnsTheDocument) {
    const JSON::root root = parseJSONFile(write("[1,2]"));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->size(), 2U);
}

TEST_F(AttestationFileTest, SizeHasNoLimit) {
    AttestationContext context;
    EXPECT_TRUE(context.parseFile(write(R"({"cbData":")" + std::string(5'000'000, 'a') + "\"}")));
    EXPECT_EQ(context.cbData.size(), 5'000'000U);
}

}  // namespace
