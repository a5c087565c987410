// whitespace_model.h: the trims of whitespace, which take one byte after the other away.
#pragma once

#include <cstddef>
#include <string>

inline bool blank(char byte) {
    return static_cast<unsigned char>(byte) <= 32;
}

inline std::string modelTrimEnd(std::string text) {
    while (!text.empty() && blank(text.back()))
        text.pop_back();
    return text;
}

inline std::string modelTrim(std::string text) {
    while (!text.empty() && blank(text.front()))
        text.erase(0, 1);
    return modelTrimEnd(text);
}

inline std::string modelTrimNL(const std::string& text) {
    size_t start = 0;
    for (size_t i = 0; i < text.size() && blank(text[i]); ++i) {
        if (text[i] == '\r' || text[i] == '\n')
            start = i + 1;
    }
    return modelTrim(text).empty() ? "" : modelTrimEnd(text.substr(start));
}

inline std::string modelTrimAndStrip(const std::string& text) {
    std::string result;
    for (char byte : modelTrim(text)) {
        if (!blank(byte))
            result += byte;
        else if (result.back() != ' ')
            result += ' ';
    }
    return result;
}
