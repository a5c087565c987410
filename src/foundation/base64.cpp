#include "foundation/base64.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace orv {

namespace {

// NO_LETTER is what the decode tables hold for a byte that is not a letter. It is the bit above the 24 that a group of
// four letters stands for, so that it shows in the union of a group's entries.
constexpr uint32_t NO_LETTER = 1U << 24;

// Alphabet is one of the two alphabets, as tables that are made at compile time. They are larger than letters and
// values alone would need: fewer look-ups and shifts make both directions fast.
struct Alphabet {
    // pairs holds two letters for each twelve bits.
    std::array<std::array<char, 2>, 4096> pairs{};

    // shifted holds the value of each byte, moved to where the first, second, third or fourth letter of a group has its
    // bits, or NO_LETTER.
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

// putPair writes the two letters that the lowest twelve bits of `bits` stand for.
void putPair(const Alphabet& alphabet, uint64_t bits, char* out) {
    std::memcpy(out, alphabet.pairs[bits & 0xfff].data(), 2);
}

// encodeGroup turns three bytes into four letters.
void encodeGroup(const Alphabet& alphabet, const unsigned char* data, char* out) {
    const uint32_t bits = uint32_t{data[0]} << 16 | uint32_t{data[1]} << 8 | data[2];
    putPair(alphabet, bits >> 12, out);
    putPair(alphabet, bits, out + 2);
}

// bigEndian64 returns eight bytes as a number, the first one highest; compilers make one load of it.
uint64_t bigEndian64(const unsigned char* data) {
    return uint64_t{data[0]} << 56 | uint64_t{data[1]} << 48 | uint64_t{data[2]} << 40 | uint64_t{data[3]} << 32 |
           uint64_t{data[4]} << 24 | uint64_t{data[5]} << 16 | uint64_t{data[6]} << 8 | uint64_t{data[7]};
}

// encodeTwoGroups turns six bytes into eight letters. It reads eight bytes.
void encodeTwoGroups(const Alphabet& alphabet, const unsigned char* data, char* out) {
    const uint64_t bits = bigEndian64(data);
    putPair(alphabet, bits >> 52, out);
    putPair(alphabet, bits >> 40, out + 2);
    putPair(alphabet, bits >> 28, out + 4);
    putPair(alphabet, bits >> 16, out + 6);
}

// encodeTail turns the one or two bytes after the last full group into two or three letters.
void encodeTail(const Alphabet& alphabet, const unsigned char* data, size_t length, char* out) {
    unsigned char group[3] = {};
    char letters[4];
    std::memcpy(group, data, length);
    encodeGroup(alphabet, group, letters);
    std::memcpy(out, letters, length + 1);
}

// encode writes the letters over `text`, which has the size of the result and is filled with the padding.
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

// Group is the next letters of a text, up to four, and the bits that they stand for.
struct Group {
    uint32_t bits = 0;
    size_t letters = 0;
};

uint32_t shiftedValue(const Alphabet& alphabet, size_t place, char letter) {
    return alphabet.shifted[place][static_cast<unsigned char>(letter)];
}

// joinFour returns the bits of the four characters at `text`, with the bit NO_LETTER if one of them is not a letter.
uint32_t joinFour(const Alphabet& alphabet, const char* text) {
    return shiftedValue(alphabet, 0, text[0]) | shiftedValue(alphabet, 1, text[1]) |
           shiftedValue(alphabet, 2, text[2]) | shiftedValue(alphabet, 3, text[3]);
}

// nextGroup takes the next four letters off `text`, with all other bytes between them, or as many letters as are left.
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

// putBytes writes the first `count` of the three bytes of a group and returns the place after them.
unsigned char* putBytes(unsigned char* out, uint32_t bits, size_t count) {
    for (size_t i = 0; i < count; ++i)
        out[i] = static_cast<unsigned char>(bits >> (16 - 8 * i));
    return out + count;
}

// decodeCleanGroups decodes up to the first group that does not consist of letters, and moves `text` there.
unsigned char* decodeCleanGroups(const Alphabet& alphabet, const char*& text, const char* end, unsigned char* out) {
    for (; end - text >= 4; text += 4) {
        const uint32_t bits = joinFour(alphabet, text);
        if ((bits & NO_LETTER) != 0)
            break;
        out = putBytes(out, bits, 3);
    }
    return out;
}

// decodeTo decodes the text to `out` and returns the number of bytes. Letters are taken four by four, whatever is
// between them. After the last full group two letters stand for one byte, three for two, and a single one for nothing.
size_t decodeTo(const Alphabet& alphabet, const char* text, size_t length, unsigned char* const out) {
    const char* const end = text + length;
    unsigned char* place = out;
    Group group;
    do {
        place = decodeCleanGroups(alphabet, text, end, place);
        group = nextGroup(alphabet, text, end);
        place = putBytes(place, group.bits, group.letters * 3 / 4);
    } while (group.letters == 4);
    return static_cast<size_t>(place - out);
}

// DecodeBuffer is room for the bytes of a text of `length` characters. Short texts, which most are, need no memory from
// the heap.
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

// decode decodes to a buffer that is large enough for any text of this length, as only reading tells how many letters a
// text has, and then makes the result in its final size.
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
