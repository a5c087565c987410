#include "foundation/base64.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace orv {

namespace {

// What the decode tables hold for a byte that is no letter: the bit above the 24 that a group of four letters stands
// for, so that it shows in the union of a group's entries.
constexpr uint32_t NO_LETTER = 1U << 24;

// One of the two alphabets, as tables that are made at compile time. They are larger than letters and values alone
// would need, because fewer look-ups and shifts are what makes both directions fast.
struct Alphabet {
    // Twelve bits to two letters.
    std::array<std::array<char, 2>, 4096> pairs{};

    // Any byte to its value, shifted to where the first, second, third or fourth letter of a group has its bits, or
    // NO_LETTER.
    std::array<std::array<uint32_t, 256>, 4> shifted{};

    constexpr explicit Alphabet(std::string_view letters) {
        for (size_t bits = 0; bits < pairs.size(); ++bits)
            pairs[bits] = {letters[bits >> 6], letters[bits & 63]};

        for (size_t place = 0; place < shifted.size(); ++place) {
            shifted[place].fill(NO_LETTER);
            for (uint32_t value = 0; value < letters.size(); ++value)
                shifted[place][static_cast<unsigned char>(letters[value])] = value << (18 - 6 * place);
        }
    }
};

constexpr Alphabet STANDARD("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
constexpr Alphabet URL_SAFE("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_");

size_t paddedSize(size_t length) {
    return 4 * ((length + 2) / 3);
}

size_t unpaddedSize(size_t length) {
    const size_t tail = length % 3;
    return paddedSize(length) - (tail == 0 ? 0 : 3 - tail);
}

// Writes the two letters that the lowest twelve bits of `bits` stand for.
void putPair(const Alphabet& alphabet, uint64_t bits, char* out) {
    std::memcpy(out, alphabet.pairs[bits & 0xfff].data(), 2);
}

// Three bytes become four letters.
void encodeGroup(const Alphabet& alphabet, const unsigned char* data, char* out) {
    const uint32_t bits = uint32_t{data[0]} << 16 | uint32_t{data[1]} << 8 | data[2];
    putPair(alphabet, bits >> 12, out);
    putPair(alphabet, bits, out + 2);
}

// The number that eight bytes are, the first one highest; compilers make one load of it.
uint64_t bigEndian64(const unsigned char* data) {
    return uint64_t{data[0]} << 56 | uint64_t{data[1]} << 48 | uint64_t{data[2]} << 40 | uint64_t{data[3]} << 32 |
           uint64_t{data[4]} << 24 | uint64_t{data[5]} << 16 | uint64_t{data[6]} << 8 | uint64_t{data[7]};
}

// Six bytes become eight letters. Reads eight bytes.
void encodeTwoGroups(const Alphabet& alphabet, const unsigned char* data, char* out) {
    const uint64_t bits = bigEndian64(data);
    putPair(alphabet, bits >> 52, out);
    putPair(alphabet, bits >> 40, out + 2);
    putPair(alphabet, bits >> 28, out + 4);
    putPair(alphabet, bits >> 16, out + 6);
}

// The one or two bytes behind the last full group become two or three letters.
void encodeTail(const Alphabet& alphabet, const unsigned char* data, size_t length, char* out) {
    unsigned char group[3] = {};
    char letters[4];
    std::memcpy(group, data, length);
    encodeGroup(alphabet, group, letters);
    std::memcpy(out, letters, length + 1);
}

// Puts the letters over `text`, which has the size of the result and is filled with the padding.
std::string encode(const Alphabet& alphabet, const unsigned char* data, size_t length, std::string text) {
    const size_t tail = length % 3;
    const unsigned char* const end = data + (length - tail);
    char* out = text.data();
    for (; end - data >= 8; data += 6, out += 8)
        encodeTwoGroups(alphabet, data, out);
    for (; data != end; data += 3, out += 4)
        encodeGroup(alphabet, data, out);
    if (tail != 0)
        encodeTail(alphabet, data, tail, out);
    return text;
}

// The next letters of a text, up to four, and the bits that they stand for.
struct Group {
    uint32_t bits = 0;
    size_t letters = 0;
};

uint32_t shiftedValue(const Alphabet& alphabet, size_t place, char letter) {
    return alphabet.shifted[place][static_cast<unsigned char>(letter)];
}

// Joins the four characters at `text`; the result has the bit NO_LETTER if one of them is no letter.
uint32_t joinFour(const Alphabet& alphabet, const char* text) {
    return shiftedValue(alphabet, 0, text[0]) | shiftedValue(alphabet, 1, text[1]) |
           shiftedValue(alphabet, 2, text[2]) | shiftedValue(alphabet, 3, text[3]);
}

// Takes the next four letters from `text`, with all that stands between them, or as many as are left.
Group nextGroup(const Alphabet& alphabet, const char*& text, const char* end) {
    Group group;
    while (group.letters < 4 && text != end) {
        const uint32_t value = shiftedValue(alphabet, group.letters, *text++);
        if (value != NO_LETTER) {
            group.bits |= value;
            ++group.letters;
        }
    }
    return group;
}

// Writes the first `count` of the three bytes of a group and returns the place behind them.
unsigned char* putBytes(unsigned char* out, uint32_t bits, size_t count) {
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<unsigned char>(bits >> (16 - 8 * i));
    return out + count;
}

// Decodes up to the first group with something else than letters in it, and moves `text` there.
unsigned char* decodeCleanGroups(const Alphabet& alphabet, const char*& text, const char* end, unsigned char* out) {
    for (; end - text >= 4; text += 4) {
        const uint32_t bits = joinFour(alphabet, text);
        if ((bits & NO_LETTER) != 0)
            break;
        out = putBytes(out, bits, 3);
    }
    return out;
}

// Decodes the text to `out` and returns how many bytes that gave. Letters are taken four by four wherever they stand.
// Behind the last full group two letters give one byte, three give two, and a single one gives nothing.
size_t decodeTo(const Alphabet& alphabet, const char* text, size_t length, unsigned char* const out) {
    const char* const end = text + length;
    unsigned char* behind = out;
    Group group;
    do {
        behind = decodeCleanGroups(alphabet, text, end, behind);
        group = nextGroup(alphabet, text, end);
        behind = putBytes(behind, group.bits, group.letters * 3 / 4);
    } while (group.letters == 4);
    return static_cast<size_t>(behind - out);
}

// Room for the bytes of a text of `length` characters. Short texts, which most are, need no memory from the heap.
class DecodeBuffer {
public:
    explicit DecodeBuffer(size_t length) {
        if (length > m_short.size())
            m_long = std::make_unique_for_overwrite<unsigned char[]>(length);
    }

    unsigned char* data() { return m_long ? m_long.get() : m_short.data(); }

private:
    std::array<unsigned char, 1024> m_short;
    std::unique_ptr<unsigned char[]> m_long;
};

// How many letters a text has shows only when it has been read, so it is decoded to a buffer that is large enough for
// any text of this length, and the result is then made in its final size.
template <class Bytes>
Bytes decode(const Alphabet& alphabet, const char* text, size_t length) {
    using Byte = typename Bytes::value_type;
    DecodeBuffer buffer(length);
    const size_t size = decodeTo(alphabet, text, length, buffer.data());
    const Byte* const bytes = reinterpret_cast<const Byte*>(buffer.data());
    return Bytes(bytes, bytes + size);
}

}  // namespace

std::string base64Encode(const unsigned char* data, size_t length) {
    return encode(STANDARD, data, length, std::string(paddedSize(length), '='));
}

std::string base64EncodeURLSafe(const unsigned char* data, size_t length) {
    return encode(URL_SAFE, data, length, std::string(unpaddedSize(length), '='));
}

std::vector<unsigned char> base64Decode(const char* text, size_t length) {
    return decode<std::vector<unsigned char>>(STANDARD, text, length);
}

std::string base64DecodeUTF8(const char* text, size_t length) {
    return decode<std::string>(STANDARD, text, length);
}

std::vector<unsigned char> base64DecodeURLSafe(const char* text, size_t length) {
    return decode<std::vector<unsigned char>>(URL_SAFE, text, length);
}

std::string base64DecodeURLSafeUTF8(const char* text, size_t length) {
    return decode<std::string>(URL_SAFE, text, length);
}

}  // namespace orv
