// json.h: the system's JSON document model: values, parser and serialiser (RFC 8259, with the tolerances described
// below).
//
// A document is a tree of heap values. Each value has exactly one owner: the slot of its parent container or the
// caller's owning pointer, `JSON::root`. Destroying a value destroys its whole subtree. A slot may be empty: after
// `movePath`, after `move` on an array, or when the caller stored a null pointer. `dup` leaves such holes out;
// `stringify` and `join` must not meet one.
//
// Text is bytes: nothing here checks UTF-8. Only `\u` escapes are turned into UTF-8. Object members are kept, walked
// and written in bytewise key order, never in insertion order; a key is unique within its object.
//
// Nesting is bounded by memory alone: parsing, printing, copying and destroying a document of any depth use a fixed
// amount of stack. Numbers are read and written the same way in every locale.
//
// Nothing here logs. The parser reports every failure by a null result; exhausted memory throws `std::bad_alloc` after
// partly built values are released.
//
// Threads: a document belongs to one thread at a time. The shared empty containers are only read.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// JSON is the abstract value. Its operations beyond conversion, printing and copying belong to containers; on a value
// that has no use for one, the operation returns an empty result and changes nothing.
//
// No class but the six below may derive from it: printing, copying and destroying go by `type`. Calls from value to
// value would nest as deep as the document does.
class JSON {
public:
    // JSON::root is the owning pointer to a value. An operation that takes a `JSON::root&&` moves from it only when it
    // keeps the value; otherwise the value stays with the caller.
    using root = std::unique_ptr<JSON>;

    // JSON::Map is the payload of an object: keys compared as bytes, the shorter first where one begins the other.
    using Map = std::map<std::string, root>;

    // JSON::Vector is the payload of an array.
    using Vector = std::vector<root>;

    // JSON::Type lists the values of `type`.
    enum Type : std::int32_t {
        NullType = 0,
        BooleanType = 1,
        NumberType = 2,
        StringType = 3,
        ObjectType = 4,
        ArrayType = 5,
    };

    // NaN is the quiet NaN that means "not a number" here (bit pattern 0x7FF8000000000000).
    static constexpr double NaN = std::bit_cast<double>(std::uint64_t{0x7FF8000000000000});

    // type is the class of the value, one of `Type`.
    const std::int32_t type;

    JSON(const JSON&) = delete;
    JSON& operator=(const JSON&) = delete;

    // ~JSON destroys the value and everything below it, however deep.
    virtual ~JSON() = default;

    // operator new and operator delete take the memory of values from where many small ones cost least. A value may be
    // destroyed on any thread.
    static void* operator new(std::size_t size);
    static void operator delete(void* value, std::size_t size);

    // operator bool returns the truth value: false for null, false, zero, NaN and the empty string; true for every
    // container, even an empty one.
    virtual explicit operator bool() const = 0;

    // operator double returns the number that the value stands for, or `NaN` if it does not stand for one (containers,
    // texts that are not numbers).
    virtual explicit operator double() const;

    // toString returns the value as plain text: "null", "true", "false", a number as "%.16g", a string's own bytes,
    // "[object Array]", "[object Object]".
    virtual std::string toString() const = 0;

    // stringify appends the value as JSON text to `out`, without a final line break. With `indent` zero or more a
    // container is written on several lines, its members indented by `indent` + 1 tabs and its closing bracket by
    // `indent`; with a negative `indent` everything is on one line. An empty container is "[ ]" or "{ }" in both. NaN
    // and infinities are written as "nan" and "inf", with "-" in front if negative, which is not JSON; a string ends at
    // its first NUL byte. Neither the value nor a container below it may hold an empty slot.
    virtual void stringify(std::string& out, int indent) const = 0;

    // dup returns a deep copy. Empty slots are left out: elements of an array move up, members of an object vanish.
    virtual root dup() const = 0;

    // get returns the value of the member `key`, owned by the object; null if there is none.
    virtual JSON* get(const std::string& key);
    virtual const JSON* get(const std::string& key) const;

    // set stores `value` under `key`, destroying what was there, and returns the stored value, owned by the object. On
    // a value that is not an object: null, and `value` stays with the caller.
    virtual JSON* set(const std::string& key, root&& value);

    // unset removes the member `key` and destroys its value; an absent key is not an error.
    virtual void unset(const std::string& key);

    // size returns the number of elements or members; 0 for every other value, strings included.
    virtual std::size_t size() const;

    // at returns the element at `index`, owned by the array (null for an empty slot). `index` must be below `size`: it
    // is not checked. Null on a value that is not an array.
    virtual JSON* at(std::size_t index);
    virtual const JSON* at(std::size_t index) const;

    // move by index takes the element out of the array and leaves an empty slot; the size stays. `index` must be below
    // `size`. Null on a value that is not an array.
    virtual root move(std::size_t index);

    // move by key takes the value out of the object and removes the member; null if there is none.
    virtual root move(const std::string& key);

    // rootOf by index returns the slot at `index`, which must be below `size`. On a value that is not an array: the
    // shared null slot, which must stay null.
    virtual root& rootOf(std::size_t index);

    // rootOf by key returns the shared null slot on every value, objects included (kept: no value exposes its member
    // slots this way; `each` does).
    virtual root& rootOf(const std::string& key);

    // push appends `value` to the array and returns it, owned by the array. On a value that is not an array: null, and
    // `value` stays with the caller.
    virtual JSON* push(root&& value);

    // push_all appends the elements of `value` in order if it is an array, and then destroys the emptied array; any
    // other `value` becomes one element. `value` must not be null. On a value that is not an array nothing happens and
    // `value` stays with the caller.
    virtual void push_all(root&& value);

    // empty returns whether there are no elements or members; true for every value that is not a container, also for a
    // string that holds text (kept: only containers count).
    virtual bool empty() const;

    // reverse reverses the order of an array's elements.
    virtual void reverse();

    // keys returns the members of an object, keys and values together, in key order; on any other value the shared
    // empty map.
    virtual const Map& keys() const;

    // each returns the members of an object in key order; on any other value the shared empty map, which must stay
    // empty.
    virtual Map& each();
    virtual const Map& each() const;

    // values returns the elements of an array; on any other value the shared empty vector, which must stay empty.
    virtual Vector& values();
    virtual const Vector& values() const;

    // join returns `toString` of each element of an array with `separator` between them; the empty string for an empty
    // array and for a value that is not an array. Containers among the elements are not entered. No slot may be empty.
    virtual std::string join(const std::string& separator) const;

    // A path, in the four operations below, is a text split at every dot. A segment of digits only, the empty one
    // included, is an index into an array (the empty one is 0), any other a key of an object; so keys that hold a dot
    // or only digits can't be addressed.

    // getPath returns the value at `path` below this one; null if the path leads nowhere.
    JSON* getPath(const std::string& path);
    const JSON* getPath(const std::string& path) const;

    // movePath takes the value at `path` out; null, and no change, if the path leads nowhere. The slot is left empty,
    // in objects too: it must be filled or removed before the document is printed.
    root movePath(const std::string& path);

    // getPathPtr returns the slot at `path` below the slot `slot`, and makes what is missing: values of another type in
    // its way are replaced, arrays grow to the index and hold JSON nulls in between. Kept: an index at the path's end
    // must be below the array's size, because nothing grows there.
    static root* getPathPtr(root* slot, const std::string& path);

    // setPath stores `value` in that slot.
    static void setPath(root* slot, const std::string& path, root&& value);

    // Null returns a new null value.
    static root Null();

    // Boolean returns a new boolean.
    static root Boolean(bool value);

    // Number returns a new number.
    static root Number(double value);

    // String returns a new string, a copy of `text`, which may hold any byte. Kept: a moved text is copied as well.
    static root String(const std::string& text);
    static root String(std::string&& text);

    // Array returns a new empty array.
    static root Array();

    // Object returns a new empty object.
    static root Object();

    // parse reads the whole of `text` as one value with whitespace around it (tab, line feed, carriage return, blank);
    // null on any failure. A NUL byte after the value ends the text, and what follows is ignored. A NUL byte where text
    // may be cut off closes the container there, and reading goes on after it. Beyond JSON it takes every number that
    // sscanf's "%lg" takes and that begins with "-" or a digit, and text that was cut off after an opening bracket or a
    // comma (see `json_parse`). An empty key, `\u0000` (except directly after an escaped high surrogate, where it
    // becomes a NUL byte) and an unescaped byte below 32 in a string are failures. Of equal keys the last wins.
    static root parse(const std::string& text);

    // json_parse reads one value, with whitespace before it, from the NUL-terminated text at `cursor`, and moves
    // `cursor` past it; what follows is not looked at. Null on failure, with `cursor` somewhere between its old place
    // and the fault.
    //
    // Text cut off in its outermost container, at the right place, is still that container (kept: readers of truncated
    // files depend on it): an opening bracket followed by nothing but whitespace is the empty container, a comma
    // directly before the terminator ends a container with what was read so far. Text cut off in an inner container is
    // a failure. `cursor` is then one past the terminator. What follows the terminator is never read and counts as a
    // further NUL.
    static root json_parse(const char*& cursor);

    // escapeString appends the NUL-terminated `text` to `out` as a JSON string, quotes included. Only the quote, the
    // backslash and bytes below 32 are escaped.
    static void escapeString(std::string& out, const char* text);

    // indent appends `count` tabs to `out`. A negative `count` throws std::length_error.
    static void indent(std::string& out, int count);

protected:
    explicit JSON(Type valueType) : type(valueType) {}

private:
    static Map ms_oEmptyMap;
    static Vector ms_oEmptyVector;
    static root ms_pNullSlot;
};

// JSONNull is the value null.
class JSONNull final : public JSON {
public:
    JSONNull() : JSON(NullType) {}

    explicit operator bool() const override;
    explicit operator double() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
};

// JSONBoolean is true or false; as a number 1 or 0.
class JSONBoolean final : public JSON {
public:
    // value is the truth value.
    bool value;

    explicit JSONBoolean(bool truth) : JSON(BooleanType), value(truth) {}

    explicit operator bool() const override;
    explicit operator double() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
};

// JSONNumber is a 64-bit floating point number, NaN and infinities included. It is written with sixteen significant
// digits: whole numbers up to sixteen digits come out plain, and not every number survives being written and read.
class JSONNumber final : public JSON {
public:
    // value is the number.
    double value;

    explicit JSONNumber(double number) : JSON(NumberType), value(number) {}

    explicit operator bool() const override;
    explicit operator double() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
};

// JSONString is a byte string and a `std::string`. `size`, `empty` and `at` are those of `JSON`, so `size` is 0 and
// `empty` is true whatever it holds; the text's own are reached through its `std::string` base.
//
// As a number: 0 for the empty string; else what sscanf's "%lg" reads, with nothing but whitespace after it up to the
// first NUL; else `JSON::NaN`.
class JSONString final : public JSON, public std::string {
public:
    explicit JSONString(std::string text) : JSON(StringType), std::string(std::move(text)) {}

    using JSON::at;
    using JSON::empty;
    using JSON::size;

    explicit operator bool() const override;
    explicit operator double() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
};

// JSONArray is a sequence of values and a `std::vector` of their slots. `at` is that of `JSON`: unchecked, and it
// returns the value; the slots are reached by `operator[]` and `rootOf`.
class JSONArray final : public JSON, public JSON::Vector {
public:
    JSONArray() : JSON(ArrayType) {}
    ~JSONArray() override;

    using JSON::move;
    using JSON::rootOf;
    using JSON::operator double;

    explicit operator bool() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
    std::size_t size() const override;
    JSON* at(std::size_t index) override;
    const JSON* at(std::size_t index) const override;
    root move(std::size_t index) override;
    root& rootOf(std::size_t index) override;
    JSON* push(root&& value) override;
    void push_all(root&& value) override;
    bool empty() const override;
    void reverse() override;
    Vector& values() override;
    const Vector& values() const override;
    std::string join(const std::string& separator) const override;
};

// JSONObject is a set of members and a `std::map` from key to slot. `at` is that of `JSON`, which an object does not
// support; `get` looks a member up.
class JSONObject final : public JSON, public JSON::Map {
public:
    JSONObject() : JSON(ObjectType) {}
    ~JSONObject() override;

    using JSON::at;
    using JSON::move;
    using JSON::operator double;

    explicit operator bool() const override;
    std::string toString() const override;
    void stringify(std::string& out, int indent) const override;
    root dup() const override;
    JSON* get(const std::string& key) override;
    const JSON* get(const std::string& key) const override;
    JSON* set(const std::string& key, root&& value) override;
    void unset(const std::string& key) override;
    std::size_t size() const override;
    root move(const std::string& key) override;
    bool empty() const override;
    const Map& keys() const override;
    Map& each() override;
    const Map& each() const override;
};

// isObject returns whether `value` is an object; false for null.
inline bool isObject(const JSON* value) {
    return value != nullptr && value->type == JSON::ObjectType;
}

// jsonText returns the text of a string, owned by `value`; null if `value` is null or anything but a string.
inline const std::string* jsonText(const JSON* value) {
    return dynamic_cast<const JSONString*>(value);
}
