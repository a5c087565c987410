// dot_segments_model.h: how RFC 3986, 5.2.4, removes dot segments: its steps, on text that needs no escaping.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

inline std::string removeDotsModel(std::string input) {
    std::string output;
    while (!input.empty()) {
        if (input.starts_with("/./") || input == "/.") {
            input = "/" + input.substr(std::min<size_t>(3, input.size()));
        } else if (input.starts_with("/../") || input == "/..") {
            input = "/" + input.substr(std::min<size_t>(4, input.size()));
            output.erase(output.rfind('/') == std::string::npos ? 0 : output.rfind('/'));
        } else {
            const size_t end = input.find('/', 1);
            output += input.substr(0, end);
            input.erase(0, end == std::string::npos ? input.size() : end);
        }
    }
    return output;
}
