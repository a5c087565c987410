#include "foundation/version_string.h"

#include <optional>

#include "foundation/ascii.h"
#include "foundation/string_utils.h"

namespace {

using ascii::isDigit;

// majorOf returns the major number. A version without components has none, which orders below every number.
std::optional<uint32_t> majorOf(const VersionString& version) {
    return version.components.empty() ? std::nullopt : std::optional(version.components.front());
}

// memberFor returns the member of `versions`, which is not empty, for the major number of `version`, or else the last.
const VersionString& memberFor(const VersionStringCollection& versions, const VersionString& version) {
    for (const VersionString& member : versions)
        if (majorOf(member) == majorOf(version))
            return member;
    return versions.back();
}

}  // namespace

VersionString::VersionString(const std::vector<uint32_t>& numbers) : components(numbers) {}

VersionString::VersionString(const std::string& text) {
    for (size_t position = 0; position < text.size();) {
        uint32_t number = 0;
        for (; position < text.size() && isDigit(text[position]); ++position)
            number = number * 10 + static_cast<uint32_t>(text[position] - '0');
        while (position < text.size() && !isDigit(text[position]))
            ++position;
        components.push_back(number);
    }
}

bool VersionString::operator<(const VersionString& other) const {
    return components < other.components;
}

bool VersionString::operator<(const VersionStringCollection& others) const {
    return !others.empty() && *this < memberFor(others, *this);
}

std::string VersionString::toString() const {
    std::vector<std::string> numbers;
    for (const uint32_t component : components)
        numbers.push_back(std::to_string(component));
    return join(numbers, ".");
}

VersionStringCollection::VersionStringCollection(const std::list<VersionString>& versions)
    : std::list<VersionString>(versions) {
    sort();
}

VersionStringCollection::VersionStringCollection(const std::string& text) {
    std::list<std::string> pieces;
    split(text, pieces, ',');
    for (const std::string& piece : pieces)
        emplace_back(piece);
    sort();
}

std::string VersionStringCollection::toString() const {
    std::vector<std::string> texts;
    for (const VersionString& version : *this)
        texts.push_back(version.toString());
    return join(texts, ",");
}

std::string VersionStringCollection::toString(const VersionString& version) const {
    return empty() ? std::string() : memberFor(*this, version).toString();
}

void VersionStringCollection::takeMaxOf(const VersionStringCollection& other) {
    auto mine = begin();
    auto theirs = other.begin();
    while (mine != end() && theirs != other.end()) {
        if (majorOf(*mine) < majorOf(*theirs)) {
            ++mine;
        } else if (majorOf(*mine) == majorOf(*theirs)) {
            if (*mine < *theirs)
                *mine = *theirs;
            ++mine;
            ++theirs;
        } else {
            mine = insert(mine, *theirs++);
        }
    }
    insert(end(), theirs, other.end());
}
