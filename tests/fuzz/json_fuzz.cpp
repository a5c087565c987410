// What parses is printed, and what was printed parses to the same, in both layouts.
#include <string>

#include "foundation/json.h"
#include "fuzz.h"

namespace {

std::string print(const JSON& value, int indent) {
    std::string text;
    value.stringify(text, indent);
    return text;
}

void checkLayout(const JSON& value, int indent) {
    const std::string text = print(value, indent);
    const JSON::root again = JSON::parse(text);
    if (again == nullptr)
        require(text.find("inf") != std::string::npos);  // the one thing printed that has no JSON form
    else
        require(print(*again, indent) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const JSON::root value = JSON::parse(std::string(reinterpret_cast<const char*>(data), size));
    if (value != nullptr) {
        checkLayout(*value, -1);
        checkLayout(*value, 0);
        require(print(*value->dup(), -1) == print(*value, -1));
    }
    return 0;
}
