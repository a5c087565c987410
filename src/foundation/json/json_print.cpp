// The serialiser: JSON::stringify of all classes and what it is made of.

#include <cstring>
#include <string_view>

#include "foundation/json.h"
#include "foundation/json/json_number.h"
#include "foundation/json/json_text.h"

namespace {

// shortEscape returns the letter after the backslash for the bytes that have one, NUL for the others.
char shortEscape(char c) {
    switch (c) {
    case '"':
    case '\\':
        return c;
    case '\b':
        return 'b';
    case '\f':
        return 'f';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    default:
        return '\0';
    }
}

// Output is text on its way to a string. It gathers in a block, so that a small piece costs little more than its bytes;
// `flush` hands the rest over.
class Output {
public:
    explicit Output(std::string& out) : m_out(out) {}

    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void add(char c) {
        *room(1) = c;
        ++m_pNext;
    }

    void add(std::string_view text) { add(text.data(), text.data() + text.size()); }

    void add(const char* first, const char* last) {
        const auto count = static_cast<std::size_t>(last - first);
        if (count > BLOCK) {
            flush();
            m_out.append(first, last);
            return;
        }
        std::memcpy(room(count), first, count);
        m_pNext += count;
    }

    // addQuotedIfPlain adds a short text in quotes and returns true if none of its bytes needs an escape.
    bool addQuotedIfPlain(const char* first, const char* last) {
        const auto count = static_cast<std::size_t>(last - first);
        if (count > MAX_SHORT)
            return false;
        char* const text = room(count + 2);
        text[0] = '"';
        if (!jsonCopyPlain(text + 1, first, count))
            return false;
        text[1 + count] = '"';
        m_pNext = text + count + 2;
        return true;
    }

    void addNumber(double value) { m_pNext = jsonFormatNumber(room(JSON_NUMBER_LENGTH), value); }

    void addTabs(int count) {
        for (; count > 0; --count)
            add('\t');
    }

    // flush lets the string grow fourfold up to 1 MB: each growth is memory that the kernel has to hand out anew.
    void flush() {
        const auto count = static_cast<std::size_t>(m_pNext - m_aBlock);
        if (m_out.capacity() - m_out.size() < count && m_out.size() >= BLOCK && m_out.size() < MAX_QUICK_GROWTH)
            m_out.reserve(4 * m_out.capacity());
        m_out.append(m_aBlock, count);
        m_pNext = m_aBlock;
    }

private:
    static constexpr std::size_t BLOCK = 4096;
    static constexpr std::size_t MAX_SHORT = 256;
    static constexpr std::size_t MAX_QUICK_GROWTH = 1 << 20;

    // room returns a place for `count` bytes, at most BLOCK.
    char* room(std::size_t count) {
        if (static_cast<std::size_t>(m_aBlock + BLOCK - m_pNext) < count)
            flush();
        return m_pNext;
    }

    std::string& m_out;
    char m_aBlock[BLOCK];
    char* m_pNext = m_aBlock;
};

void addEscape(Output& out, char c) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    out.add('\\');
    if (const char letter = shortEscape(c)) {
        out.add(letter);
        return;
    }
    out.add("u00");
    out.add(HEX[static_cast<unsigned char>(c) >> 4]);
    out.add(HEX[static_cast<unsigned char>(c) & 15]);
}

// addQuoted writes the bytes from `text` to its first NUL, the one at `end` at the latest, as a JSON string.
void addQuoted(Output& out, const char* text, const char* end) {
    if (out.addQuotedIfPlain(text, end))
        return;
    out.add('"');
    for (;;) {
        const char* const run = text;
        text = jsonPlainRunEnd(text, end);
        out.add(run, text);
        if (*text == '\0')
            break;
        addEscape(out, *text++);
    }
    out.add('"');
}

void addQuoted(Output& out, const std::string& text) {
    addQuoted(out, text.data(), text.data() + text.size());
}

// addScalar writes a value that is not a container.
void addScalar(Output& out, const JSON& value) {
    switch (value.type) {
    case JSON::BooleanType:
        out.add(static_cast<const JSONBoolean&>(value).value ? "true" : "false");
        break;
    case JSON::NumberType:
        out.addNumber(static_cast<const JSONNumber&>(value).value);
        break;
    case JSON::StringType:
        addQuoted(out, static_cast<const JSONString&>(value));
        break;
    default:
        out.add("null");
    }
}

const JSON::Vector& elementsOf(const JSON& array) {
    return static_cast<const JSONArray&>(array);
}

const JSON::Map& membersOf(const JSON& object) {
    return static_cast<const JSONObject&>(object);
}

// Printer writes a tree of containers without nested calls: a container waits in a list while one inside it is written.
class Printer {
public:
    Printer(std::string& out, int indent) : m_out(out), m_bMultiLine(indent >= 0), m_nIndent(indent) {}

    void print(const JSON& container);

private:
    // Open is a container that is being written, and its next child.
    struct Open {
        const JSON* container;
        std::size_t element;
        JSON::Map::const_iterator member;
    };

    bool writeValue(const JSON& value);
    bool open(const Open& container, bool empty, std::string_view brackets);
    void writeElements();
    void writeMembers();
    void beginItem(bool first);
    void close(char bracket);

    Output m_out;
    const bool m_bMultiLine;
    int m_nIndent;  // several lines: the tabs before an item of the innermost open container
    std::vector<Open> m_vOpen;
};

void Printer::print(const JSON& container) {
    writeValue(container);
    while (!m_vOpen.empty()) {
        if (m_vOpen.back().container->type == JSON::ArrayType)
            writeElements();
        else
            writeMembers();
    }
    m_out.flush();
}

// writeValue writes a whole value; of a container with contents only the opening, and then it returns true.
bool Printer::writeValue(const JSON& value) {
    switch (value.type) {
    case JSON::ArrayType:
        return open({&value, 0, {}}, elementsOf(value).empty(), "[ ]");
    case JSON::ObjectType:
        return open({&value, 0, membersOf(value).begin()}, membersOf(value).empty(), "{ }");
    default:
        addScalar(m_out, value);
        return false;
    }
}

// open does so for a container, which is written as its two brackets if it is empty.
bool Printer::open(const Open& container, bool empty, std::string_view brackets) {
    if (empty) {
        m_out.add(brackets);
        return false;
    }
    m_vOpen.push_back(container);
    m_out.add(brackets.front());
    m_out.add(m_bMultiLine ? '\n' : ' ');
    if (m_bMultiLine)
        ++m_nIndent;
    return true;
}

// writeElements continues the innermost container, an array, up to its end or its next container.
void Printer::writeElements() {
    Open& here = m_vOpen.back();
    const JSON::Vector& elements = elementsOf(*here.container);
    while (here.element < elements.size()) {
        beginItem(here.element == 0);
        if (writeValue(*elements[here.element++]))
            return;
    }
    close(']');
}

// writeMembers continues the innermost container, an object, up to its end or its next container.
void Printer::writeMembers() {
    Open& here = m_vOpen.back();
    const JSON::Map& members = membersOf(*here.container);
    while (here.member != members.end()) {
        beginItem(here.member == members.begin());
        const auto& [key, value] = *here.member++;
        addQuoted(m_out, key);
        m_out.add(": ");
        if (writeValue(*value))
            return;
    }
    close('}');
}

void Printer::beginItem(bool first) {
    if (!first)
        m_out.add(m_bMultiLine ? ",\n" : ", ");
    if (m_bMultiLine)
        m_out.addTabs(m_nIndent);
}

void Printer::close(char bracket) {
    m_vOpen.pop_back();
    m_out.add(m_bMultiLine ? '\n' : ' ');
    if (m_bMultiLine)
        m_out.addTabs(--m_nIndent);
    m_out.add(bracket);
}

}  // namespace

void JSON::escapeString(std::string& out, const char* text) {
    Output output(out);
    addQuoted(output, text, text + std::strlen(text));
    output.flush();
}

void JSON::indent(std::string& out, int count) {
    out.append(static_cast<std::size_t>(count), '\t');
}

void JSONNull::stringify(std::string& out, int) const {
    out += "null";
}

void JSONBoolean::stringify(std::string& out, int) const {
    out += toString();
}

void JSONNumber::stringify(std::string& out, int) const {
    out += toString();
}

void JSONString::stringify(std::string& out, int) const {
    Output output(out);
    addQuoted(output, *this);
    output.flush();
}

void JSONArray::stringify(std::string& out, int indent) const {
    Printer(out, indent).print(*this);
}

void JSONObject::stringify(std::string& out, int indent) const {
    Printer(out, indent).print(*this);
}
