#include "foundation/json.h"

#include <algorithm>
#include <iterator>

#include "foundation/json/json_number.h"
#include "foundation/json/json_pool.h"
#include "foundation/json/json_text.h"

JSON::Map JSON::ms_oEmptyMap;
JSON::Vector JSON::ms_oEmptyVector;
JSON::root JSON::ms_pNullSlot;

namespace {

// DoomedContainers are the containers still to be destroyed when a subtree is too deep for nested destructors. They are
// linked through their own first slots, so that destroying needs neither stack nor memory.
class DoomedContainers {
public:
    void add(JSON::root&& value);
    void destroy();

private:
    JSON::root m_pHead;
};

// firstSlot returns the first slot of a container, or null for an empty container or any other value.
JSON::root* firstSlot(const JSON::root& value) {
    if (!value || value->empty())
        return nullptr;
    return value->type == JSON::ArrayType ? &value->values().front() : &value->each().begin()->second;
}

JSON::root& slotOf(JSON::root& element) {
    return element;
}

JSON::root& slotOf(JSON::Map::value_type& member) {
    return member.second;
}

// addContainersOf hands the containers among the items over to `doomed`.
template <class Container>
void addContainersOf(Container& container, DoomedContainers& doomed) {
    for (auto& item : container)
        if (firstSlot(slotOf(item)))
            doomed.add(std::move(slotOf(item)));
}

// The link takes the place of the container's first value, which is added in turn.
void DoomedContainers::add(JSON::root&& value) {
    JSON::root current = std::move(value);
    while (JSON::root* const slot = firstSlot(current)) {
        JSON::root next = std::exchange(*slot, std::move(m_pHead));
        m_pHead = std::move(current);
        current = std::move(next);
    }
}

void DoomedContainers::destroy() {
    while (m_pHead) {
        const JSON::root container = std::move(m_pHead);
        m_pHead = std::move(*firstSlot(container));
        if (container->type == JSON::ArrayType)
            addContainersOf(container->values(), *this);
        else
            addContainersOf(container->each(), *this);
    }
}

// MAX_NESTED_DESTRUCTORS is the depth to which destructors call each other.
constexpr int MAX_NESTED_DESTRUCTORS = 64;
constinit thread_local int gs_nNestedDestructors = 0;

// destroyContents empties a container by plain destructors down to that depth, and without nested calls below.
template <class Container>
void destroyContents(Container& container) {
    if (gs_nNestedDestructors < MAX_NESTED_DESTRUCTORS) {
        ++gs_nNestedDestructors;
        container.clear();
        --gs_nNestedDestructors;
        return;
    }
    DoomedContainers doomed;
    addContainersOf(container, doomed);
    doomed.destroy();
}

// OpenCopy is a container and its copy, which still lacks the contents.
struct OpenCopy {
    const JSON* source;
    JSON* copy;
};

// copyOne returns the copy of `value`; a container with contents is copied empty and noted in `open`.
JSON::root copyOne(const JSON& value, std::vector<OpenCopy>& open) {
    if (value.empty())
        return value.dup();
    JSON::root copy = value.type == JSON::ArrayType ? JSON::Array() : JSON::Object();
    open.push_back({&value, copy.get()});
    return copy;
}

void copyElements(const JSON::Vector& source, JSON::Vector& copy, std::vector<OpenCopy>& open) {
    copy.reserve(source.size());
    for (const JSON::root& element : source)
        if (element)
            copy.push_back(copyOne(*element, open));
}

void copyMembers(const JSON::Map& source, JSON::Map& copy, std::vector<OpenCopy>& open) {
    for (const auto& [key, value] : source)
        if (value)
            copy.emplace_hint(copy.end(), key, copyOne(*value, open));
}

// copyTree copies a container with all below it. Each copy is put into its place before its contents are copied, so
// that everything has an owner when memory runs out.
template <class Container>
JSON::root copyTree(const Container& top) {
    auto result = std::make_unique<Container>();
    if (top.empty())
        return result;
    std::vector<OpenCopy> open{{&top, result.get()}};
    while (!open.empty()) {
        const OpenCopy job = open.back();
        open.pop_back();
        if (job.source->type == JSON::ArrayType)
            copyElements(job.source->values(), job.copy->values(), open);
        else
            copyMembers(job.source->each(), job.copy->each(), open);
    }
    return result;
}

}  // namespace

// Under a sanitizer each value has a heap block of its own, so that the sanitizer sees its bounds and its life.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define JSON_VALUES_UNPOOLED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define JSON_VALUES_UNPOOLED
#endif
#endif

#ifdef JSON_VALUES_UNPOOLED

// If g++ inlined only one of the two, it would warn of a mismatch.
[[gnu::noinline]] void* JSON::operator new(std::size_t size) {
    return ::operator new(size);
}

[[gnu::noinline]] void JSON::operator delete(void* value, std::size_t) {
    ::operator delete(value);
}

#else

void* JSON::operator new(std::size_t size) {
    return jsonPoolAllocate(size);
}

void JSON::operator delete(void* value, std::size_t) {
    jsonPoolRelease(value);
}

#endif

JSON::operator double() const {
    return NaN;
}

JSON* JSON::get(const std::string&) {
    return nullptr;
}

const JSON* JSON::get(const std::string&) const {
    return nullptr;
}

JSON* JSON::set(const std::string&, root&&) {
    return nullptr;
}

void JSON::unset(const std::string&) {}

std::size_t JSON::size() const {
    return 0;
}

JSON* JSON::at(std::size_t) {
    return nullptr;
}

const JSON* JSON::at(std::size_t) const {
    return nullptr;
}

JSON::root JSON::move(std::size_t) {
    return nullptr;
}

JSON::root JSON::move(const std::string&) {
    return nullptr;
}

JSON::root& JSON::rootOf(std::size_t) {
    return ms_pNullSlot;
}

JSON::root& JSON::rootOf(const std::string&) {
    return ms_pNullSlot;
}

JSON* JSON::push(root&&) {
    return nullptr;
}

void JSON::push_all(root&&) {}

bool JSON::empty() const {
    return true;
}

void JSON::reverse() {}

const JSON::Map& JSON::keys() const {
    return ms_oEmptyMap;
}

JSON::Map& JSON::each() {
    return ms_oEmptyMap;
}

const JSON::Map& JSON::each() const {
    return ms_oEmptyMap;
}

JSON::Vector& JSON::values() {
    return ms_oEmptyVector;
}

const JSON::Vector& JSON::values() const {
    return ms_oEmptyVector;
}

std::string JSON::join(const std::string&) const {
    return {};
}

JSON::root JSON::Null() {
    return std::make_unique<JSONNull>();
}

JSON::root JSON::Boolean(bool value) {
    return std::make_unique<JSONBoolean>(value);
}

JSON::root JSON::Number(double value) {
    return std::make_unique<JSONNumber>(value);
}

JSON::root JSON::String(const std::string& text) {
    return std::make_unique<JSONString>(text);
}

// Kept: it copies and leaves `text` as it was, because callers go on using a text that they passed on.
JSON::root JSON::String(std::string&& text) {
    return String(static_cast<const std::string&>(text));
}

JSON::root JSON::Array() {
    return std::make_unique<JSONArray>();
}

JSON::root JSON::Object() {
    return std::make_unique<JSONObject>();
}

JSONNull::operator bool() const {
    return false;
}

JSONNull::operator double() const {
    return 0.0;
}

std::string JSONNull::toString() const {
    return "null";
}

JSON::root JSONNull::dup() const {
    return Null();
}

JSONBoolean::operator bool() const {
    return value;
}

JSONBoolean::operator double() const {
    return value ? 1.0 : 0.0;
}

std::string JSONBoolean::toString() const {
    return value ? "true" : "false";
}

JSON::root JSONBoolean::dup() const {
    return Boolean(value);
}

JSONNumber::operator bool() const {
    return value < 0.0 || value > 0.0;
}

JSONNumber::operator double() const {
    return value;
}

std::string JSONNumber::toString() const {
    char text[JSON_NUMBER_LENGTH];
    return {text, jsonFormatNumber(text, value)};
}

JSON::root JSONNumber::dup() const {
    return Number(value);
}

JSONString::operator bool() const {
    return !std::string::empty();
}

JSONString::operator double() const {
    if (std::string::empty())
        return 0.0;
    double number = NaN;
    const char* rest = jsonScanNumber(c_str(), number);
    if (!rest)
        return NaN;
    while (jsonIsWhitespace(*rest))
        ++rest;
    return *rest == '\0' ? number : NaN;
}

std::string JSONString::toString() const {
    return *this;
}

JSON::root JSONString::dup() const {
    return String(*this);
}

JSONArray::~JSONArray() {
    destroyContents(*this);
}

JSONArray::operator bool() const {
    return true;
}

std::string JSONArray::toString() const {
    return "[object Array]";
}

JSON::root JSONArray::dup() const {
    return copyTree(*this);
}

std::size_t JSONArray::size() const {
    return Vector::size();
}

JSON* JSONArray::at(std::size_t index) {
    return (*this)[index].get();
}

const JSON* JSONArray::at(std::size_t index) const {
    return (*this)[index].get();
}

JSON::root JSONArray::move(std::size_t index) {
    return std::move((*this)[index]);
}

JSON::root& JSONArray::rootOf(std::size_t index) {
    return (*this)[index];
}

JSON* JSONArray::push(root&& value) {
    JSON* const stored = value.get();
    push_back(std::move(value));
    return stored;
}

void JSONArray::push_all(root&& value) {
    if (value->type != ArrayType) {
        push_back(std::move(value));
        return;
    }
    const root taken = std::move(value);
    Vector& elements = taken->values();
    insert(end(), std::make_move_iterator(elements.begin()), std::make_move_iterator(elements.end()));
}

bool JSONArray::empty() const {
    return Vector::empty();
}

void JSONArray::reverse() {
    std::reverse(begin(), end());
}

JSON::Vector& JSONArray::values() {
    return *this;
}

const JSON::Vector& JSONArray::values() const {
    return *this;
}

std::string JSONArray::join(const std::string& separator) const {
    std::string text;
    for (auto element = begin(); element != end(); ++element) {
        if (element != begin())
            text += separator;
        text += (*element)->toString();
    }
    return text;
}

JSONObject::~JSONObject() {
    destroyContents(*this);
}

JSONObject::operator bool() const {
    return true;
}

std::string JSONObject::toString() const {
    return "[object Object]";
}

JSON::root JSONObject::dup() const {
    return copyTree(*this);
}

JSON* JSONObject::get(const std::string& key) {
    const auto member = find(key);
    return member == end() ? nullptr : member->second.get();
}

const JSON* JSONObject::get(const std::string& key) const {
    const auto member = find(key);
    return member == end() ? nullptr : member->second.get();
}

JSON* JSONObject::set(const std::string& key, root&& value) {
    root& slot = (*this)[key];
    slot = std::move(value);
    return slot.get();
}

void JSONObject::unset(const std::string& key) {
    erase(key);
}

std::size_t JSONObject::size() const {
    return Map::size();
}

JSON::root JSONObject::move(const std::string& key) {
    const auto member = find(key);
    if (member == end())
        return nullptr;
    root value = std::move(member->second);
    erase(member);
    return value;
}

bool JSONObject::empty() const {
    return Map::empty();
}

const JSON::Map& JSONObject::keys() const {
    return *this;
}

JSON::Map& JSONObject::each() {
    return *this;
}

const JSON::Map& JSONObject::each() const {
    return *this;
}
