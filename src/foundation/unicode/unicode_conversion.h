// unicode_conversion.h: what all conversions of unicode.h share, for its sources only.
//
// A conversion is a class with the types `Unit` (input) and `OutUnit`, and two static templates over the kind of input:
//   size_t room(Input in)                          Output units that are enough for all of `in`.
//   void run(Input& in, Output<OutUnit>& out)      Converts until the input is used up or a character does not fit.
// The forms of the public functions (to a buffer, to a string, to a new buffer, bounded) are written here once, around
// any conversion.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace unicode {

// toInt returns a size as the int that callers take, the largest int if it is beyond.
inline int toInt(size_t size) {
    return size < INT_MAX ? static_cast<int>(size) : INT_MAX;
}

// CountedInput reads a number of units.
template <class Unit>
class CountedInput {
public:
    CountedInput(const Unit* at, int count) : m_pAt(at), m_nLeft(std::max(count, 0)) {}

    // more returns whether a unit is left; at points to it.
    bool more() const { return m_nLeft > 0; }
    const Unit* at() const { return m_pAt; }

    // known is the number of units from at() on that may be read at once.
    ptrdiff_t known() const { return m_nLeft; }

    // ahead returns the unit `n` after at(), 0 after the end. For n > 0 the ones between must not be zero.
    Unit ahead(ptrdiff_t n) const { return n < m_nLeft ? m_pAt[n] : Unit(0); }

    void skip(ptrdiff_t n) {
        m_pAt += n;
        m_nLeft -= n;
    }

private:
    const Unit* m_pAt;
    ptrdiff_t m_nLeft;
};

// TerminatedInput reads up to a zero unit, and never beyond. It looks for the zero a stretch at a time, so that a
// bounded conversion of a long text stays cheap.
template <class Unit>
class TerminatedInput {
public:
    explicit TerminatedInput(const Unit* at) : m_pAt(at) {}

    bool more() {
        if (m_nKnown == 0)
            look();
        return m_nKnown > 0;
    }
    const Unit* at() const { return m_pAt; }
    ptrdiff_t known() const { return m_nKnown; }
    Unit ahead(ptrdiff_t n) const { return m_pAt[n]; }

    void skip(ptrdiff_t n) {
        m_pAt += n;
        m_nKnown = std::max<ptrdiff_t>(m_nKnown - n, 0);
    }

private:
    static constexpr ptrdiff_t STRETCH = 256;

    void look() {
        if constexpr (sizeof(Unit) == 1) {
            m_nKnown = static_cast<ptrdiff_t>(strnlen(reinterpret_cast<const char*>(m_pAt), STRETCH));
        } else {
            while (m_nKnown < STRETCH && m_pAt[m_nKnown] != 0)
                ++m_nKnown;
        }
    }

    const Unit* m_pAt;
    ptrdiff_t m_nKnown = 0;
};

// Output writes to a buffer of the caller. Without a limit the caller vouches for the room.
template <class Unit>
class Output {
public:
    static constexpr ptrdiff_t NO_LIMIT = PTRDIFF_MAX;

    Output(Unit* begin, ptrdiff_t limit) : m_pBegin(begin), m_pAt(begin), m_nLimit(std::max<ptrdiff_t>(limit, 0)) {}

    Unit* at() const { return m_pAt; }
    ptrdiff_t written() const { return m_pAt - m_pBegin; }
    ptrdiff_t left() const { return m_nLimit - written(); }
    bool fits(ptrdiff_t n) const { return n <= left(); }
    void put(char32_t unit) { *m_pAt++ = static_cast<Unit>(unit); }

    // wroteTo takes over what was written in bulk, up to `end`.
    void wroteTo(Unit* end) { m_pAt = end; }

private:
    Unit* m_pBegin;
    Unit* m_pAt;
    ptrdiff_t m_nLimit;
};

template <class Conversion, class Input>
int toBuffer(Input in, typename Conversion::OutUnit* buffer, bool terminate) {
    Output<typename Conversion::OutUnit> out(buffer, Output<typename Conversion::OutUnit>::NO_LIMIT);
    Conversion::run(in, out);
    if (terminate)
        *out.at() = 0;
    return toInt(static_cast<size_t>(out.written()));
}

template <class Conversion, class Input, class String>
void toString(Input in, String& text) {
    using Unit = typename Conversion::OutUnit;
    using Letter = typename String::value_type;
    Unit buffer[1024 / sizeof(Unit)];
    auto fillBuffer = [&] {
        Output<Unit> out(buffer, std::size(buffer));
        Conversion::run(in, out);
        return static_cast<size_t>(out.written());
    };
    const size_t room = Conversion::room(in);
    if (room <= std::size(buffer)) {
        const size_t length = fillBuffer();
        text.assign(reinterpret_cast<const Letter*>(buffer), length);
        return;
    }
    text.clear();
    text.reserve(room + 1);
    while (in.more()) {
        const size_t length = fillBuffer();
        text.append(reinterpret_cast<const Letter*>(buffer), length);
    }
}

template <class Conversion, class Input>
typename Conversion::OutUnit* toNewBuffer(Input in, bool terminate, int* length) {
    using Unit = typename Conversion::OutUnit;
    constexpr size_t limit = std::min<size_t>(INT_MAX, SIZE_MAX / sizeof(Unit) - 1);
    const size_t room = Conversion::room(in);
    Unit* buffer = room <= limit ? static_cast<Unit*>(std::malloc((room + 1) * sizeof(Unit))) : nullptr;
    const int written = buffer ? toBuffer<Conversion>(in, buffer, terminate) : 0;
    if (length)
        *length = written;
    return buffer;
}

template <class Conversion, class Input>
int toBounded(Input& in, typename Conversion::OutUnit* buffer, int max) {
    Output<typename Conversion::OutUnit> out(buffer, max);
    Conversion::run(in, out);
    return static_cast<int>(out.written());
}

template <class Conversion>
int toBoundedZ(const typename Conversion::Unit*& in, typename Conversion::OutUnit* buffer, int max) {
    TerminatedInput<typename Conversion::Unit> input(in);
    const int written = toBounded<Conversion>(input, buffer, max);
    in = input.at();
    return written;
}

template <class Conversion>
int toBoundedN(const typename Conversion::Unit*& in, int& count, typename Conversion::OutUnit* buffer, int max) {
    CountedInput<typename Conversion::Unit> input(in, count);
    const int written = toBounded<Conversion>(input, buffer, max);
    in = input.at();
    count = static_cast<int>(input.known());
    return written;
}

}  // namespace unicode
