// The parser: JSON::parse and JSON::json_parse.

#include <iterator>

#include "foundation/ascii.h"
#include "foundation/json.h"
#include "foundation/json/json_number.h"
#include "foundation/json/json_text.h"
#include "foundation/unicode.h"

namespace {

// Step is what became of the value that was expected.
enum class Step {
    Failed,    // the text is not a value
    Complete,  // it is in its place
    Wanted,    // it is an open container, whose next value is expected
};

// Parser reads one value. Containers within containers are kept in a list instead of nested calls. A container is put
// into its place as soon as it is opened, so that everything has an owner when the text proves bad. The elements of
// open arrays wait in one common list and move into the array, at its right size, when it is closed.
class Parser {
public:
    // `blockEnd` is the text's terminator, or `text` itself where its place is not known; see jsonPlainRunEnd.
    Parser(const char* text, const char* blockEnd) : m_pText(text), m_pBlockEnd(blockEnd) {}

    JSON::root parse();

    // position returns the place after the value, or that of the fault.
    const char* position() const { return m_pText; }

private:
    struct Open {
        JSON* container;
        JSON::root* member;  // where the next value of an object goes; null for an array
        std::size_t first;   // the array's first waiting element
    };

    Step value();
    Step literal(const char* word, JSON::root (*make)());
    Step number();
    Step string();
    Step openArray();
    Step openObject();
    Step memberKey();
    Step afterValue();
    Step afterElement();
    Step afterMember();
    Step cutOff();
    Step close();

    bool json_parse_string(std::string& out);
    bool escape(std::string& out);
    bool unicodeEscape(std::string& out);

    void skipWhitespace();
    void store(JSON::root&& value);
    void open(JSON::root&& container);

    const char* m_pText;
    const char* const m_pBlockEnd;
    JSON::root m_pResult;
    JSON::Vector m_vElements;
    std::vector<Open> m_vOpen;
};

JSON::root Parser::parse() {
    Step step = value();
    while (step != Step::Failed) {
        if (step == Step::Complete && m_vOpen.empty())
            return std::move(m_pResult);
        step = step == Step::Wanted ? value() : afterValue();
    }
    return nullptr;
}

Step Parser::value() {
    skipWhitespace();
    switch (*m_pText) {
    case 'n':
        return literal("null", JSON::Null);
    case 't':
        return literal("true", [] { return JSON::Boolean(true); });
    case 'f':
        return literal("false", [] { return JSON::Boolean(false); });
    case '"':
        return string();
    case '[':
        return openArray();
    case '{':
        return openObject();
    default:
        return number();
    }
}

Step Parser::literal(const char* word, JSON::root (*make)()) {
    const char* p = m_pText;
    for (; *word; ++word, ++p)
        if (*p != *word)
            return Step::Failed;
    store(make());
    m_pText = p;
    return Step::Complete;
}

Step Parser::number() {
    if (*m_pText != '-' && !ascii::isDigit(*m_pText))
        return Step::Failed;
    double number = 0;
    const char* const end = jsonScanNumber(m_pText, number);
    if (!end)
        return Step::Failed;
    store(std::make_unique<JSONNumber>(number));
    m_pText = end;
    return Step::Complete;
}

Step Parser::string() {
    std::string text;
    if (!json_parse_string(text))
        return Step::Failed;
    store(std::make_unique<JSONString>(std::move(text)));
    return Step::Complete;
}

Step Parser::openArray() {
    ++m_pText;
    open(std::make_unique<JSONArray>());
    skipWhitespace();
    if (*m_pText == ']')
        return close();
    return *m_pText == '\0' ? cutOff() : Step::Wanted;
}

Step Parser::openObject() {
    ++m_pText;
    open(std::make_unique<JSONObject>());
    skipWhitespace();
    if (*m_pText == '}')
        return close();
    return *m_pText == '\0' ? cutOff() : memberKey();
}

// memberKey reads a key with its colon. Its member is made at once; the value of an equal key stays there until the new
// one comes.
Step Parser::memberKey() {
    skipWhitespace();
    std::string key;
    if (!json_parse_string(key) || key.empty())
        return Step::Failed;
    skipWhitespace();
    if (*m_pText != ':')
        return Step::Failed;
    ++m_pText;
    JSON::Map& members = m_vOpen.back().container->each();
    m_vOpen.back().member = &members.try_emplace(members.end(), std::move(key))->second;
    return Step::Wanted;
}

Step Parser::afterValue() {
    skipWhitespace();
    return m_vOpen.back().member ? afterMember() : afterElement();
}

Step Parser::afterElement() {
    if (*m_pText == ']')
        return close();
    if (*m_pText != ',')
        return Step::Failed;
    ++m_pText;
    return *m_pText == '\0' ? cutOff() : Step::Wanted;
}

Step Parser::afterMember() {
    if (*m_pText == '}')
        return close();
    if (*m_pText != ',')
        return Step::Failed;
    ++m_pText;
    return *m_pText == '\0' ? cutOff() : memberKey();
}

// cutOff ends a container at a NUL. After a NUL within the text reading goes on; after its terminator there are only
// further NULs, which no container around this one accepts.
Step Parser::cutOff() {
    const bool isNested = m_vOpen.size() > 1;
    return m_pText >= m_pBlockEnd && isNested ? Step::Failed : close();
}

// close moves past the bracket, or past the NUL in its place, and completes the innermost container.
Step Parser::close() {
    ++m_pText;
    const Open closed = m_vOpen.back();
    if (closed.container->type == JSON::ArrayType) {
        const auto first = m_vElements.begin() + static_cast<std::ptrdiff_t>(closed.first);
        closed.container->values().assign(std::make_move_iterator(first), std::make_move_iterator(m_vElements.end()));
        m_vElements.erase(first, m_vElements.end());
    }
    m_vOpen.pop_back();
    return Step::Complete;
}

// json_parse_string reads a quoted string; most have no escape, so the first run is taken whole.
bool Parser::json_parse_string(std::string& out) {
    if (*m_pText != '"')
        return false;
    const char* run = ++m_pText;
    m_pText = jsonPlainRunEnd(run, m_pBlockEnd);
    out = std::string(run, m_pText);
    while (*m_pText != '"') {
        if (*m_pText != '\\' || !escape(out))
            return false;
        run = m_pText;
        m_pText = jsonPlainRunEnd(run, m_pBlockEnd);
        out.append(run, m_pText);
    }
    ++m_pText;
    return true;
}

bool Parser::escape(std::string& out) {
    switch (m_pText[1]) {
    case '"':
    case '/':
    case '\\':
        out += m_pText[1];
        break;
    case 'b':
        out += '\b';
        break;
    case 'f':
        out += '\f';
        break;
    case 'n':
        out += '\n';
        break;
    case 'r':
        out += '\r';
        break;
    case 't':
        out += '\t';
        break;
    case 'u':
        return unicodeEscape(out);
    default:
        return false;
    }
    m_pText += 2;
    return true;
}

// UNIT_LENGTH is the length of an escape with backslash, "u" and four digits.
constexpr int UNIT_LENGTH = 6;

// readUnit reads such an escape at `text` into `unit` and returns whether there is one.
bool readUnit(const char* text, char16_t& unit) {
    if (text[0] != '\\' || text[1] != 'u')
        return false;
    int value = 0;
    for (int i = 2; i < UNIT_LENGTH; ++i) {
        const int digit = ascii::hexValue(text[i]);
        if (digit < 0)
            return false;
        value = value * 16 + digit;
    }
    unit = static_cast<char16_t>(value);
    return true;
}

// unicodeEscape reads a "\u" escape, and after a high surrogate the next one as well. A surrogate that is not part of a
// pair vanishes. Only a high one without a "\u" escape directly after it leaves a mark (kept: documents were written
// so).
bool Parser::unicodeEscape(std::string& out) {
    char16_t units[2];
    if (!readUnit(m_pText, units[0]) || units[0] == 0)
        return false;
    m_pText += UNIT_LENGTH;
    if (!isHighSurrogate(units[0])) {
        utf8Append(out, units[0]);
    } else if (!readUnit(m_pText, units[1])) {
        out += '?';
    } else {
        m_pText += UNIT_LENGTH;
        std::string pair;
        utf16To8N(units, 2, pair);
        out += pair;
    }
    return true;
}

void Parser::skipWhitespace() {
    m_pText = jsonWhitespaceEnd(m_pText, m_pBlockEnd);
}

void Parser::store(JSON::root&& value) {
    if (m_vOpen.empty())
        m_pResult = std::move(value);
    else if (m_vOpen.back().member)
        *m_vOpen.back().member = std::move(value);
    else
        m_vElements.push_back(std::move(value));
}

void Parser::open(JSON::root&& container) {
    JSON* const opened = container.get();
    store(std::move(container));
    m_vOpen.push_back({opened, nullptr, m_vElements.size()});
}

}  // namespace

JSON::root JSON::json_parse(const char*& cursor) {
    Parser parser(cursor, cursor);
    root value = parser.parse();
    cursor = parser.position();
    return value;
}

JSON::root JSON::parse(const std::string& text) {
    const char* const end = text.c_str() + text.size();
    Parser parser(text.c_str(), end);
    root value = parser.parse();
    const char* rest = parser.position();
    while (rest <= end && jsonIsWhitespace(*rest))
        ++rest;
    return rest > end || *rest == '\0' ? std::move(value) : nullptr;
}
