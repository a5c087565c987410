// vector_blocks.cpp: does one thing that the foundation does in blocks, for tests/arm64/count_instructions.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "foundation/json.h"
#include "foundation/unicode.h"

namespace {

constexpr size_t SIZE = 8192;

std::string asciiText() {
    std::string text;
    while (text.size() < SIZE)
        text += "The quick brown fox jumps over the lazy dog. ";
    text.resize(SIZE);
    return text;
}

// once does the task NAME on `utf8` and returns whether there is such a task.
bool once(const char* name, const std::string& utf8) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.c_str());
    const auto is = [name](const char* other) { return std::strcmp(name, other) == 0; };
    std::u16string utf16;
    std::u32string ucs4;
    std::string json;
    if (is("utf8-to-utf16"))
        utf8To16Z(bytes, utf16);
    else if (is("utf8-to-ucs4"))
        utf8ToUCS4Z(bytes, ucs4);
    else if (is("json-parse-string"))
        return JSON::parse('"' + utf8 + '"') != nullptr;
    else if (is("json-print-string"))
        JSON::String(utf8)->stringify(json, 0);
    else
        return false;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: vector_blocks TASK TIMES\n";
        return 2;
    }
    const std::string text = asciiText();
    bool done = true;
    for (int times = std::atoi(argv[2]); times > 0 && done; --times)
        done = once(argv[1], text);
    return done ? 0 : 1;
}
