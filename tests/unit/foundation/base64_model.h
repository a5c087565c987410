// base64_model.h: base64 of any alphabet by way of the bits as a text of "0" and "1", which is all that it knows.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline std::string bitsOf(unsigned value, int width) {
    std::string bits;
    for (int shift = width - 1; shift >= 0; shift--) {
        bits += (value >> shift & 1) ? '1' : '0';
    }
    return bits;
}

inline unsigned valueOf(std::string_view bits) {
    unsigned value = 0;
    for (const char bit : bits) {
        value = value * 2 + (bit == '1' ? 1 : 0);
    }
    return value;
}

// modelDecode keeps the letters of `alphabet`, strings their bits together and cuts whole bytes off the front.
inline std::string modelDecode(std::string_view text, std::string_view alphabet) {
    std::string bits;
    for (const char character : text) {
        const size_t value = alphabet.find(character);
        if (value != std::string_view::npos) {
            bits += bitsOf(static_cast<unsigned>(value), 6);
        }
    }
    std::string result;
    for (size_t at = 0; at + 8 <= bits.size(); at += 8) {
        result += static_cast<char>(valueOf(std::string_view(bits).substr(at, 8)));
    }
    return result;
}

// modelEncode fills the last letter with zero bits and never pads.
inline std::string modelEncode(const Bytes& bytes, std::string_view alphabet) {
    std::string bits;
    for (const unsigned char byte : bytes) {
        bits += bitsOf(byte, 8);
    }
    bits.resize((bits.size() + 5) / 6 * 6, '0');
    std::string result;
    for (size_t at = 0; at < bits.size(); at += 6) {
        result += alphabet[valueOf(std::string_view(bits).substr(at, 6))];
    }
    return result;
}

inline std::string padded(std::string text) {
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}
