// random_text.h: texts drawn at random.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <string_view>

inline std::string randomFrom(std::mt19937& random, std::string_view alphabet, size_t length) {
    std::string text;
    while (length-- > 0)
        text += alphabet[random() % alphabet.size()];
    return text;
}

inline std::string randomBytes(std::mt19937& random, size_t length) {
    std::string text;
    while (length-- > 0)
        text += static_cast<char>(random());
    return text;
}
