// version_string.h: dotted version numbers, and collections that hold one version per major number.
//
// The major number of a version is its first component. A version without components has none, and orders below every
// version that has one. Nothing here logs or throws on its own. An object belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

class VersionStringCollection;

// VersionString is a version as the numbers between its dots. Versions order lexicographically, so 1.2 is below 1.2.0.
class VersionString {
public:
    // components are the numbers in order.
    std::vector<uint32_t> components;

    // VersionString of numbers copies them.
    explicit VersionString(const std::vector<uint32_t>& numbers);

    // VersionString of a text takes each run of decimal digits as a component and any other text as a separator. Text
    // that begins with a non-digit has a first component of 0: "v2.0-rc1" gives 0, 2, 0, 1. Numbers wrap at 32 bits.
    // The empty text has no components.
    explicit VersionString(const std::string& text);

    // operator< compares component by component; if one version runs out, the shorter one is the lesser.
    bool operator<(const VersionString& other) const;

    // operator< with a collection compares with the first member of this version's major number or, if there is none,
    // with the last member, the highest. False for an empty collection. Meant for versions with a component.
    bool operator<(const VersionStringCollection& others) const;

    // toString returns the components in decimal, joined by "."; empty for no components.
    std::string toString() const;
};

// VersionStringCollection is a list of versions that is sorted when made. It is meant to hold at most one version per
// major number; the constructors do not see to that, and `takeMaxOf` keeps it so.
class VersionStringCollection : public std::list<VersionString> {
public:
    // VersionStringCollection without arguments is empty.
    VersionStringCollection() = default;

    // VersionStringCollection of a list copies and sorts it.
    explicit VersionStringCollection(const std::list<VersionString>& versions);

    // VersionStringCollection of a text reads the versions between its commas and sorts them. An empty piece is a
    // version without components; the empty text has no versions.
    explicit VersionStringCollection(const std::string& text);

    // toString returns the members' texts joined by ",".
    std::string toString() const;

    // toString with a version returns the text of the first member of its major number or, if there is none, of the
    // last member; empty for an empty collection. Meant for versions with a component.
    std::string toString(const VersionString& version) const;

    // takeMaxOf merges `other` into this collection: afterwards it holds, for each major number in either, the higher
    // version. Both must be sorted and hold one version per major number.
    void takeMaxOf(const VersionStringCollection& other);
};
