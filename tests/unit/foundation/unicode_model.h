// unicode_model.h: the converters of Unicode, one step per character in the order of the tables they follow.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Text is a text of these units. UTF-8 is written as std::string in the tables.
template <class Unit>
struct TextOf {
    using type = std::basic_string<Unit>;
};
template <>
struct TextOf<unsigned char> {
    using type = std::string;
};
template <class Unit>
using Text = typename TextOf<Unit>::type;

// Step is what becomes of one character.
template <class Out>
struct Step {
    size_t nConsumed = 0;
    Text<Out> out = {};
    bool bCutOff = false;  // a sequence that only the end of the input made incomplete
};

inline std::string encodeUTF8(char32_t cp) {
    auto byte = [](char32_t value) { return static_cast<char>(value); };
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp >= 0x110000)
        return "";
    if (cp < 0x80)
        return {byte(cp)};
    if (cp < 0x800)
        return {byte(0xC0 + cp / 64), byte(0x80 + cp % 64)};
    if (cp < 0x10000)
        return {byte(0xE0 + cp / 4096), byte(0x80 + cp / 64 % 64), byte(0x80 + cp % 64)};
    return {byte(0xF0 + cp / 262144), byte(0x80 + cp / 4096 % 64), byte(0x80 + cp / 64 % 64), byte(0x80 + cp % 64)};
}

inline std::u16string encodeUTF16(char32_t cp) {
    if (cp < 0x10000)
        return {static_cast<char16_t>(cp)};
    return {static_cast<char16_t>(0xD800 + (cp - 0x10000) / 1024),
            static_cast<char16_t>(0xDC00 + (cp - 0x10000) % 1024)};
}

inline std::vector<Step<unsigned char>> modelUcs4ToUtf8(const std::u32string& text) {
    std::vector<Step<unsigned char>> steps;
    for (char32_t cp : text)
        steps.push_back({1, encodeUTF8(cp)});
    return steps;
}

inline std::vector<Step<unsigned char>> modelUtf16To8(const std::u16string& text) {
    auto isHigh = [](char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; };
    auto isLow = [](char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; };
    std::vector<Step<unsigned char>> steps;
    for (size_t at = 0; at < text.size(); at += steps.back().nConsumed) {
        if (isHigh(text[at]) && at + 1 < text.size() && isLow(text[at + 1]))
            steps.push_back({2, encodeUTF8(0x10000 + (text[at] - 0xD800u) * 1024 + (text[at + 1] - 0xDC00u))});
        else
            steps.push_back({1, encodeUTF8(text[at])});
    }
    return steps;
}

// decodeAt reads the character at `at`; `emit` turns a good value into units, `wide` is what replaces a lead byte from
// 0xF0 up.
template <class Out>
Step<Out> decodeAt(const std::string& text, size_t at, Text<Out> (*emit)(char32_t), const Text<Out>& wide) {
    const Text<Out> narrow(1, Out('?'));
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80)
        return {1, Text<Out>(1, Out(lead))};
    if (lead < 0xC0)
        return {1, {}};
    if (lead >= 0xF8)
        return {1, wide};
    const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    const char32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    char32_t value = lead & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
    for (size_t i = 1; i < length; ++i) {
        if (at + i == text.size())
            return {1, length == 4 ? wide : narrow, true};
        const auto byte = static_cast<unsigned char>(text[at + i]);
        if (byte < 0x80 || byte > 0xBF)
            return {1, length == 4 ? wide : narrow};
        value = value * 64 + (byte - 0x80u);
    }
    if (value < smallest || value > 0x10FFFF)
        return {length, length == 4 ? wide : narrow};
    return {length, emit(value)};
}

inline std::vector<Step<char16_t>> modelUtf8To16(const std::string& text) {
    std::vector<Step<char16_t>> steps;
    for (size_t at = 0; at < text.size(); at += steps.back().nConsumed)
        steps.push_back(decodeAt<char16_t>(text, at, encodeUTF16, u"??"));
    return steps;
}

inline std::vector<Step<char32_t>> modelUtf8ToUcs4(const std::string& text) {
    std::vector<Step<char32_t>> steps;
    for (size_t at = 0; at < text.size(); at += steps.back().nConsumed)
        steps.push_back(decodeAt<char32_t>(
            text, at, [](char32_t value) { return std::u32string(1, value); }, U"?"));
    return steps;
}

template <class Out>
Text<Out> joined(const std::vector<Step<Out>>& steps) {
    Text<Out> all;
    for (const Step<Out>& step : steps)
        all += step.out;
    return all;
}
