// json_parse_model.h: a second reader of JSON: plain recursion over single bytes, and sscanf for the numbers.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <string_view>

// A document has one canonical text, exact to the last bit and byte, so that documents compare as texts.

inline std::string canonicalNumber(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "d%016llx", static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(number)));
    return text;
}

inline std::string canonicalString(const std::string& bytes) {
    return "s" + std::to_string(bytes.size()) + ":" + bytes;
}

// Outcome is what one call of json_parse gave: the canonical text, if any, and how far the cursor moved.
struct Outcome {
    std::optional<std::string> document;
    std::ptrdiff_t moved = 0;
};

// scanned returns what sscanf makes of `text`, as an outcome.
inline Outcome scanned(const std::string& text) {
    double number = 0;
    int length = 0;
    Outcome outcome;
    if (std::sscanf(text.c_str(), "%lg%n", &number, &length) == 1) {
        outcome.document = canonicalNumber(number);
        outcome.moved = length;
    }
    return outcome;
}

// NaiveReader reads one value and returns its canonical text. Whatever lies after the text is NUL to it.
class NaiveReader {
public:
    explicit NaiveReader(std::string_view text) : m_oText(text) {}

    std::optional<std::string> value() {
        skipWhite();
        switch (byte()) {
        case 'n':
            return word("null", "n");
        case 't':
            return word("true", "b1");
        case 'f':
            return word("false", "b0");
        case '"': {
            const std::optional<std::string> text = string();
            return text ? std::optional(canonicalString(*text)) : std::nullopt;
        }
        case '[':
            return array();
        case '{':
            return object();
        default:
            return byte() == '-' || (byte() >= '0' && byte() <= '9') ? number() : std::nullopt;
        }
    }

    std::optional<std::string> whole() {
        const std::optional<std::string> read = value();
        skipWhite();
        return byte() == 0 ? read : std::nullopt;
    }

    std::size_t position() const { return m_nPosition; }

private:
    char byte(std::size_t ahead = 0) const {
        return m_nPosition + ahead < m_oText.size() ? m_oText[m_nPosition + ahead] : '\0';
    }

    void skipWhite() {
        while (byte() == ' ' || byte() == '\t' || byte() == '\r' || byte() == '\n')
            ++m_nPosition;
    }

    std::optional<std::string> word(std::string_view letters, const char* result) {
        for (std::size_t index = 0; index < letters.size(); ++index)
            if (byte(index) != letters[index])
                return std::nullopt;
        m_nPosition += letters.size();
        return result;
    }

    std::optional<std::string> number() {
        const Outcome outcome = scanned(std::string(m_oText.substr(m_nPosition)));
        m_nPosition += static_cast<std::size_t>(outcome.moved);
        return outcome.document;
    }

    // unit reads backslash, u and four digits `ahead` bytes from here; -1 if they are not there.
    int unit(std::size_t ahead) const {
        if (byte(ahead) != '\\' || byte(ahead + 1) != 'u')
            return -1;
        int result = 0;
        for (std::size_t index = 2; index < 6; ++index) {
            const std::size_t digit = std::string_view("0123456789abcdefABCDEF").find(byte(ahead + index));
            if (digit == std::string::npos)
                return -1;
            result = result * 16 + static_cast<int>(digit < 16 ? digit : digit - 6);
        }
        return result;
    }

    static std::string utf8(int point) {
        const auto tail = [point](int shift) { return static_cast<char>(0x80 | ((point >> shift) & 0x3F)); };
        if (point < 0x80)
            return {static_cast<char>(point)};
        if (point < 0x800)
            return {static_cast<char>(0xC0 | (point >> 6)), tail(0)};
        if (point >= 0xD800 && point < 0xE000)
            return {};
        if (point < 0x10000)
            return {static_cast<char>(0xE0 | (point >> 12)), tail(6), tail(0)};
        return {static_cast<char>(0xF0 | (point >> 18)), tail(12), tail(6), tail(0)};
    }

    std::optional<std::string> unicode() {
        const int first = unit(0);
        if (first <= 0)
            return std::nullopt;
        const int second = unit(6);
        m_nPosition += 6;
        if (first < 0xD800 || first > 0xDBFF)
            return utf8(first);
        if (second < 0)
            return "?";
        m_nPosition += 6;
        if (second >= 0xDC00 && second <= 0xDFFF)
            return utf8(0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00));
        return utf8(second);
    }

    std::optional<std::string> escape() {
        if (byte(1) == 'u')
            return unicode();
        const std::size_t index = std::string_view("\"/\\bfnrt").find(byte(1));
        if (index == std::string::npos)
            return std::nullopt;
        m_nPosition += 2;
        return std::string(1, "\"/\\\b\f\n\r\t"[index]);
    }

    std::optional<std::string> string() {
        if (byte() != '"')
            return std::nullopt;
        ++m_nPosition;
        std::string out;
        while (byte() != '"') {
            if (static_cast<unsigned char>(byte()) < 32)
                return std::nullopt;
            if (byte() != '\\') {
                out += byte();
                ++m_nPosition;
                continue;
            }
            const std::optional<std::string> bytes = escape();
            if (!bytes)
                return std::nullopt;
            out += *bytes;
        }
        ++m_nPosition;
        return out;
    }

    // ends moves past `bracket`, or past a NUL.
    bool ends(char bracket) {
        if (byte() != bracket && byte() != 0)
            return false;
        ++m_nPosition;
        return true;
    }

    std::optional<std::string> array() {
        ++m_nPosition;
        skipWhite();
        std::string out = "[";
        if (ends(']'))
            return out + "]";
        for (;;) {
            const std::optional<std::string> element = value();
            if (!element)
                return std::nullopt;
            out += *element;
            skipWhite();
            const char separator = byte();
            ++m_nPosition;
            if (separator == ']')
                return out + "]";
            if (separator != ',')
                return std::nullopt;
            if (byte() == 0) {
                ++m_nPosition;
                return out + "]";
            }
        }
    }

    static std::string closed(const std::map<std::string, std::string>& members) {
        std::string out = "{";
        for (const auto& [key, member] : members)
            out += canonicalString(key) + member;
        return out + "}";
    }

    std::optional<std::string> object() {
        ++m_nPosition;
        skipWhite();
        std::map<std::string, std::string> members;
        if (ends('}'))
            return closed(members);
        for (;;) {
            skipWhite();
            const std::optional<std::string> key = string();
            if (!key || key->empty())
                return std::nullopt;
            skipWhite();
            if (byte() != ':')
                return std::nullopt;
            ++m_nPosition;
            const std::optional<std::string> member = value();
            if (!member)
                return std::nullopt;
            members[*key] = *member;
            skipWhite();
            const char separator = byte();
            ++m_nPosition;
            if (separator == '}')
                return closed(members);
            if (separator != ',')
                return std::nullopt;
            if (byte() == 0) {
                ++m_nPosition;
                return closed(members);
            }
        }
    }

    std::string_view m_oText;
    std::size_t m_nPosition = 0;
};
