// json_path.cpp: JSON paths: getting, moving out and setting the value at a path.

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "foundation/ascii.h"
#include "foundation/json.h"

namespace {

// Segments returns the segments of a path one by one, from left to right.
class Segments {
public:
    explicit Segments(const std::string& path) : m_strPath(path) {}

    bool isLast() const { return m_nEnd == std::string::npos; }

    // next returns the next segment. Call it only while the latest was not the last.
    std::string next() {
        const size_t start = m_nStart;
        m_nEnd = m_strPath.find('.', start);
        m_nStart = m_nEnd + 1;
        return m_strPath.substr(start, m_nEnd - start);  // npos reaches the path's end
    }

private:
    const std::string& m_strPath;
    size_t m_nStart = 0;
    size_t m_nEnd = 0;
};

// isIndex returns whether a segment has digits only, the empty one included.
bool isIndex(const std::string& segment) {
    return std::all_of(segment.begin(), segment.end(), ascii::isDigit);
}

// toIndex returns the number of an index segment, the largest long if it does not fit into one.
size_t toIndex(const std::string& segment) {
    return static_cast<size_t>(strtol(segment.c_str(), nullptr, 10));
}

bool isArray(const JSON* value) {
    return value != nullptr && value->type == JSON::ArrayType;
}

// step returns the value that a segment leads to, or null. It goes by `type`, as all path operations do.
const JSON* step(const JSON& value, const std::string& segment) {
    if (!isIndex(segment))
        return isObject(&value) ? value.get(segment) : nullptr;
    const size_t index = toIndex(segment);
    return isArray(&value) && index < value.size() ? value.at(index) : nullptr;
}

// findSlot is `step` for the slot instead of the value.
JSON::root* findSlot(JSON& value, const std::string& segment) {
    if (isIndex(segment)) {
        const size_t index = toIndex(segment);
        return isArray(&value) && index < value.size() ? &value.rootOf(index) : nullptr;
    }
    if (!isObject(&value))
        return nullptr;
    const auto member = value.each().find(segment);
    return member == value.each().end() ? nullptr : &member->second;
}

JSON& makeArray(JSON::root& slot) {
    if (!isArray(slot.get()))
        slot = JSON::Array();
    return *slot;
}

JSON& makeObject(JSON::root& slot) {
    if (!isObject(slot.get()))
        slot = JSON::Object();
    return *slot;
}

// growTo returns the slot at `index`, a new and empty one if that is beyond the array's end.
JSON::root* growTo(JSON::Vector& elements, size_t index) {
    if (index >= elements.max_size())
        throw std::bad_alloc();
    if (index >= elements.size()) {
        if (index >= elements.capacity())
            elements.reserve(std::max(index + 1, 2 * elements.size()));  // doubling keeps a rising index linear
        while (elements.size() < index)
            elements.push_back(JSON::Null());
        elements.emplace_back();
    }
    return &elements[index];
}

}  // namespace

const JSON* JSON::getPath(const std::string& path) const {
    const JSON* value = this;
    Segments segments(path);
    do
        value = step(*value, segments.next());
    while (value != nullptr && !segments.isLast());
    return value;
}

JSON* JSON::getPath(const std::string& path) {
    return const_cast<JSON*>(std::as_const(*this).getPath(path));
}

JSON::root JSON::movePath(const std::string& path) {
    Segments segments(path);
    root* slot = findSlot(*this, segments.next());
    while (slot != nullptr && !segments.isLast())
        slot = *slot == nullptr ? nullptr : findSlot(**slot, segments.next());
    return slot == nullptr ? nullptr : std::move(*slot);
}

JSON::root* JSON::getPathPtr(root* slot, const std::string& path) {
    Segments segments(path);
    do {
        const std::string segment = segments.next();
        if (!isIndex(segment))
            slot = &makeObject(*slot).each()[segment];
        else if (segments.isLast())
            slot = makeArray(*slot).values().data() + toIndex(segment);
        else
            slot = growTo(makeArray(*slot).values(), toIndex(segment));
    } while (!segments.isLast());
    return slot;
}

void JSON::setPath(root* slot, const std::string& path, root&& value) {
    *getPathPtr(slot, path) = std::move(value);
}
