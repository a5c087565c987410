// base64_test.cpp: both alphabets against RFC 4648, OpenSSL's encoder and a slow model, and the promised allocations.
//
// This file replaces the plain forms of operator new and operator delete of its test program, to count allocations and
// to let the n-th of them fail. Outside of an AllocationWatch they behave as usual.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/base64.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/base64_model.h"

namespace {

// What the replaced operators keep for this thread while a watch is on.
struct AllocationLog {
    static constexpr size_t MAX_SIZES = 16;

    bool on = false;
    size_t count = 0;
    size_t failAt = 0;  // the number, from 1, of the allocation that fails; 0 lets none fail
    size_t live = 0;
    std::array<size_t, MAX_SIZES> sizes{};
    std::array<void*, MAX_SIZES> blocks{};
};

thread_local AllocationLog gs_oLog;

void* allocateLogged(size_t size) noexcept {
    if (!gs_oLog.on) {
        return std::malloc(size ? size : 1);
    }
    const size_t index = gs_oLog.count++;
    if (gs_oLog.count == gs_oLog.failAt || index >= AllocationLog::MAX_SIZES) {
        return nullptr;
    }
    void* block = std::malloc(size ? size : 1);
    gs_oLog.sizes[index] = size;
    gs_oLog.blocks[index] = block;
    gs_oLog.live++;
    return block;
}

void releaseLogged(void* block) noexcept {
    if (gs_oLog.on && block) {
        for (void*& known : gs_oLog.blocks) {
            if (known == block) {
                known = nullptr;
                gs_oLog.live--;
                break;
            }
        }
    }
    std::free(block);
}

void* allocateOrThrow(size_t size) {
    void* block = allocateLogged(size);
    if (!block) {
        throw std::bad_alloc();
    }
    return block;
}

}  // namespace

void* operator new(size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](size_t size) {
    return allocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocateLogged(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocateLogged(size);
}
void operator delete(void* block) noexcept {
    releaseLogged(block);
}
void operator delete[](void* block) noexcept {
    releaseLogged(block);
}
void operator delete(void* block, size_t) noexcept {
    releaseLogged(block);
}
void operator delete[](void* block, size_t) noexcept {
    releaseLogged(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    releaseLogged(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    releaseLogged(block);
}

namespace {

constexpr std::string_view STANDARD = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view URL_SAFE = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// AllocationWatch counts this thread's allocations during its life.
class AllocationWatch {
public:
    explicit AllocationWatch(size_t failAt = 0) {
        gs_oLog = AllocationLog();
        gs_oLog.failAt = failAt;
        gs_oLog.on = true;
    }
    ~AllocationWatch() { stop(); }
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;

    // stop ends the counting, so that what the test itself allocates afterwards is not seen.
    void stop() { gs_oLog.on = false; }

    size_t count() const { return gs_oLog.count; }
    size_t live() const { return gs_oLog.live; }

    // countOf is the number of allocations of exactly `size` bytes.
    size_t countOf(size_t size) const {
        size_t found = 0;
        for (size_t i = 0; i < gs_oLog.count && i < AllocationLog::MAX_SIZES; i++) {
            found += gs_oLog.sizes[i] == size;
        }
        return found;
    }
};

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

std::string textOf(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

Bytes randomBytes(std::mt19937& random, size_t length) {
    Bytes bytes(length);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

// The functions under test on input of exactly its size.

std::string encode(const Bytes& bytes) {
    const ExactBuffer<char> buffer(textOf(bytes));
    return orv::base64Encode(reinterpret_cast<const unsigned char*>(buffer.data()), buffer.size());
}

std::string encodeURLSafe(const Bytes& bytes) {
    const ExactBuffer<char> buffer(textOf(bytes));
    return orv::base64EncodeURLSafe(reinterpret_cast<const unsigned char*>(buffer.data()), buffer.size());
}

// decode also holds the form that returns a string against the one that returns a vector.
std::string decode(std::string_view text) {
    const ExactBuffer<char> buffer(text);
    const std::string result = textOf(orv::base64Decode(buffer.data(), buffer.size()));
    EXPECT_EQ(orv::base64DecodeUTF8(buffer.data(), buffer.size()), result) << "for '" << text << "'";
    return result;
}

// decodeURLSafe does the same for the other alphabet.
std::string decodeURLSafe(std::string_view text) {
    const ExactBuffer<char> buffer(text);
    const std::string result = textOf(orv::base64DecodeURLSafe(buffer.data(), buffer.size()));
    EXPECT_EQ(orv::base64DecodeURLSafeUTF8(buffer.data(), buffer.size()), result) << "for '" << text << "'";
    return result;
}

std::string opensslEncode(const Bytes& bytes) {
    std::vector<unsigned char> out(4 * ((bytes.size() + 2) / 3) + 1);
    const int length = EVP_EncodeBlock(out.data(), bytes.data(), static_cast<int>(bytes.size()));
    return std::string(out.begin(), out.begin() + length);
}

std::string toURLSafe(std::string text) {
    for (char& letter : text) {
        letter = letter == '+' ? '-' : letter == '/' ? '_' : letter;
    }
    text.erase(text.find_last_not_of('=') + 1);
    return text;
}

struct EncodeRow {
    const char* bytes;
    const char* standard;
    const char* urlSafe;
};

// RFC 4648 section 10.
const EncodeRow RFC_4648_VECTORS[] = {
    {"", "", ""},
    {"f", "Zg==", "Zg"},
    {"fo", "Zm8=", "Zm8"},
    {"foo", "Zm9v", "Zm9v"},
    {"foob", "Zm9vYg==", "Zm9vYg"},
    {"fooba", "Zm9vYmE=", "Zm9vYmE"},
    {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
};

struct DecodeRow {
    std::string_view text;
    std::string_view bytes;
    const char* why;
};

using namespace std::string_view_literals;

// Rows that both alphabets share.
const DecodeRow FORGIVING_ROWS[] = {
    {"Zm 9v\n", "foo", "blank and line break are dropped"},
    {"\r\n\tZ\r\nm9\v\fv", "foo", "all kinds of white space are dropped"},
    {"Zg", "f", "padding is not required"},
    {"Zg=", "f", "missing padding"},
    {"Zg==", "f", "right padding"},
    {"Zg===", "f", "surplus padding"},
    {"Z=g", "f", "padding in the middle"},
    {"=Zg", "f", "padding in front"},
    {"Zm8", "fo", "padding is not required"},
    {"Zm8=", "fo", "right padding"},
    {"Zm8==", "fo", "surplus padding"},
    {"Zm9v=", "foo", "padding where none is due"},
    {"====", "", "nothing but padding"},
    {"Zg==Zg==", "f\x06\x60"sv, "padding ends nothing: the letters are ZgZg"},
    {"Zm9vZ", "foo", "a fifth letter counts for nothing"},
    {"Zm9vYmFyZ", "foobar", "a ninth letter counts for nothing"},
    {"Z", "", "a single letter counts for nothing"},
    {"!!!!", "", "no letter at all"},
    {"Z!m@9#v$", "foo", "invalid characters in the middle"},
    {"Zm\0009v"sv, "foo", "a NUL byte is an ordinary invalid byte"},
    {"\0\0Zg\0\0"sv, "f", "NUL bytes at both ends"},
    {"Zm\x80\xff"
     "9v"sv,
     "foo", "bytes above 127 are invalid"},
    {"Zm\xc3\xa4"
     "9v"sv,
     "foo", "UTF-8 sequences are invalid"},
    {"Zh", "f", "the unused low bits of a second letter are thrown away"},
    {"Zv==", "f", "all four unused bits set"},
    {"Zm9", "fo", "the unused low bits of a third letter are thrown away"},
    {"AAAA", "\0\0\0"sv, "zero bytes are bytes"},
};

}  // namespace

TEST(Base64, EmptyInputGivesEmptyResultInAllSixFunctions) {
    const ExactBuffer<char> nothing("");
    const auto* bytes = reinterpret_cast<const unsigned char*>(nothing.data());
    EXPECT_EQ(orv::base64Encode(bytes, 0), "");
    EXPECT_EQ(orv::base64EncodeURLSafe(bytes, 0), "");
    EXPECT_TRUE(orv::base64Decode(nothing.data(), 0).empty());
    EXPECT_EQ(orv::base64DecodeUTF8(nothing.data(), 0), "");
    EXPECT_TRUE(orv::base64DecodeURLSafe(nothing.data(), 0).empty());
    EXPECT_EQ(orv::base64DecodeURLSafeUTF8(nothing.data(), 0), "");
}

TEST(Base64, NullPointerWithLengthZeroIsEmptyInput) {
    EXPECT_EQ(orv::base64Encode(nullptr, 0), "");
    EXPECT_EQ(orv::base64EncodeURLSafe(nullptr, 0), "");
    EXPECT_TRUE(orv::base64Decode(nullptr, 0).empty());
    EXPECT_EQ(orv::base64DecodeUTF8(nullptr, 0), "");
    EXPECT_TRUE(orv::base64DecodeURLSafe(nullptr, 0).empty());
    EXPECT_EQ(orv::base64DecodeURLSafeUTF8(nullptr, 0), "");
}

TEST(Base64, EncodesTheVectorsOfTheRFC) {
    for (const EncodeRow& row : RFC_4648_VECTORS) {
        EXPECT_EQ(encode(bytesOf(row.bytes)), row.standard);
        EXPECT_EQ(encodeURLSafe(bytesOf(row.bytes)), row.urlSafe);
    }
}

TEST(Base64, DecodesTheVectorsOfTheRFC) {
    for (const EncodeRow& row : RFC_4648_VECTORS) {
        EXPECT_EQ(decode(row.standard), row.bytes);
        EXPECT_EQ(decode(row.urlSafe), row.bytes);
        EXPECT_EQ(decodeURLSafe(row.standard), row.bytes);
        EXPECT_EQ(decodeURLSafe(row.urlSafe), row.bytes);
    }
}

TEST(Base64, EncodesAsOpenSSLAtEveryLengthUpTo300) {
    std::mt19937 random(4648);
    for (size_t length = 0; length <= 300; length++) {
        const Bytes bytes = randomBytes(random, length);
        const std::string expected = opensslEncode(bytes);
        ASSERT_EQ(encode(bytes), expected);
        ASSERT_EQ(encodeURLSafe(bytes), toURLSafe(expected));
        ASSERT_EQ(decode(expected), textOf(bytes));
        ASSERT_EQ(decodeURLSafe(toURLSafe(expected)), textOf(bytes));
    }
}

TEST(Base64, EncodedLengthFollowsFromTheInputLength) {
    for (size_t length = 0; length <= 300; length++) {
        const size_t full = 4 * ((length + 2) / 3);
        const size_t missing = length % 3 == 1 ? 2 : length % 3 == 2 ? 1 : 0;
        EXPECT_EQ(encode(Bytes(length)).size(), full);
        EXPECT_EQ(encodeURLSafe(Bytes(length)).size(), full - missing);
    }
}

TEST(Base64, EveryByteValueSurvivesInEveryPosition) {
    for (unsigned value = 0; value < 256; value++) {
        for (size_t length = 1; length <= 4; length++) {
            const Bytes bytes(length, static_cast<unsigned char>(value));
            ASSERT_EQ(encode(bytes), opensslEncode(bytes));
            ASSERT_EQ(decode(encode(bytes)), textOf(bytes));
            ASSERT_EQ(decodeURLSafe(encodeURLSafe(bytes)), textOf(bytes));
        }
    }
}

TEST(Base64, LettersAreThoseOfTheRFCsTables) {
    for (unsigned value = 0; value < 64; value++) {
        const unsigned char first = static_cast<unsigned char>(value << 2);
        EXPECT_EQ(encode({first})[0], STANDARD[value]);
        EXPECT_EQ(encodeURLSafe({first})[0], URL_SAFE[value]);
        EXPECT_EQ(decode(std::string{STANDARD[value], 'A'}), std::string(1, static_cast<char>(first)));
        EXPECT_EQ(decodeURLSafe(std::string{URL_SAFE[value], 'A'}), std::string(1, static_cast<char>(first)));
    }
}

TEST(Base64, TwoKindsOfTailCarryTheirBitsToTheLeft) {
    EXPECT_EQ(encode({0x03}), "Aw==");
    EXPECT_EQ(encode({0xff}), "/w==");
    EXPECT_EQ(encodeURLSafe({0xff}), "_w");
    EXPECT_EQ(encode({0x00, 0x0f}), "AA8=");
    EXPECT_EQ(encode({0xff, 0xff}), "//8=");
    EXPECT_EQ(encodeURLSafe({0xff, 0xff}), "__8");
}

TEST(Base64, DecodersDropWhatIsNoLetter) {
    for (const DecodeRow& row : FORGIVING_ROWS) {
        EXPECT_EQ(decode(row.text), row.bytes) << row.why;
        EXPECT_EQ(decodeURLSafe(row.text), row.bytes) << row.why;
    }
}

TEST(Base64, EveryOtherByteIsDroppedAtEveryPosition) {
    for (int value = 0; value < 256; value++) {
        const char character = static_cast<char>(value);
        for (size_t position = 0; position <= 8; position++) {
            std::string text = "Zm9vYmFy";
            text.insert(position, 1, character);
            const bool letter = STANDARD.find(character) != std::string_view::npos;
            const bool letterURLSafe = URL_SAFE.find(character) != std::string_view::npos;
            ASSERT_EQ(decode(text), letter ? modelDecode(text, STANDARD) : "foobar") << "byte " << value;
            ASSERT_EQ(decodeURLSafe(text), letterURLSafe ? modelDecode(text, URL_SAFE) : "foobar") << "byte " << value;
        }
    }
}

TEST(Base64, ExactlySixtyFourByteValuesAreLetters) {
    int letters = 0;
    int lettersURLSafe = 0;
    for (int value = 0; value < 256; value++) {
        const std::string text(4, static_cast<char>(value));
        letters += !decode(text).empty();
        lettersURLSafe += !decodeURLSafe(text).empty();
    }
    EXPECT_EQ(letters, 64);
    EXPECT_EQ(lettersURLSafe, 64);
}

TEST(Base64, OutputSizeFollowsFromTheLettersKept) {
    for (size_t letters = 0; letters <= 64; letters++) {
        const size_t extra = letters % 4 == 2 ? 1 : letters % 4 == 3 ? 2 : 0;
        EXPECT_EQ(decode(std::string(letters, 'x')).size(), 3 * (letters / 4) + extra);
        EXPECT_EQ(decodeURLSafe(std::string(letters, 'x')).size(), 3 * (letters / 4) + extra);
    }
}

TEST(Base64, TextOfTheOtherAlphabetGivesAShorterResult) {
    EXPECT_EQ(decodeURLSafe("-_-_"), "\xFB\xFF\xBF");
    EXPECT_EQ(decode("-_-_"), "");
    EXPECT_EQ(decode("+/+/"), "\xFB\xFF\xBF");
    EXPECT_EQ(decodeURLSafe("+/+/"), "");
    EXPECT_EQ(decode("-Zm_9v"), "foo");
    EXPECT_EQ(decodeURLSafe("+Zm/9v"), "foo");
}

TEST(Base64, ReadsExactlyTheGivenLength) {
    const std::string text = "Zm9vYmFy";
    EXPECT_EQ(orv::base64DecodeUTF8(text.data(), 4), "foo");
    EXPECT_EQ(orv::base64DecodeURLSafeUTF8(text.data(), 6), "foob");
    const auto* bytes = reinterpret_cast<const unsigned char*>("foobar");
    EXPECT_EQ(orv::base64Encode(bytes, 2), "Zm8=");
    EXPECT_EQ(orv::base64EncodeURLSafe(bytes, 2), "Zm8");
}

TEST(Base64, StringFormsReturnBytesThatAreNoUTF8Unchanged) {
    EXPECT_EQ(orv::base64DecodeUTF8("/4AA", 4), std::string("\xff\x80\0", 3));
    EXPECT_EQ(orv::base64DecodeURLSafeUTF8("_4AA", 4), std::string("\xff\x80\0", 3));
}

TEST(Base64, DecodesAsTheModelOnRandomTexts) {
    std::mt19937 random(20260101);
    const std::string noise = std::string("= \r\n\t-_+/.,!\0", 13) + "\x80\xff";
    for (int round = 0; round < 100000; round++) {
        const unsigned kind = random() % 4;  // 0: any bytes, otherwise letters with more and more noise
        std::string text;
        for (size_t left = random() % 40; left > 0; left--) {
            if (kind == 0) {
                text += static_cast<char>(random());
            } else {
                text += random() % 8 < kind ? noise[random() % noise.size()] : STANDARD[random() % 62];
            }
        }
        ASSERT_EQ(decode(text), modelDecode(text, STANDARD)) << "round " << round;
        ASSERT_EQ(decodeURLSafe(text), modelDecode(text, URL_SAFE)) << "round " << round;
    }
}

TEST(Base64, EncodesAsTheModelOnRandomBytes) {
    std::mt19937 random(20260102);
    for (int round = 0; round < 20000; round++) {
        const Bytes bytes = randomBytes(random, random() % 40);
        ASSERT_EQ(encode(bytes), padded(modelEncode(bytes, STANDARD))) << "round " << round;
        ASSERT_EQ(encodeURLSafe(bytes), modelEncode(bytes, URL_SAFE)) << "round " << round;
    }
}

// Long texts are decoded in another buffer than short ones; nothing may change where the one ends.
TEST(Base64, DecodesTextsOfEveryLengthAroundPowersOfTwo) {
    std::mt19937 random(20260104);
    for (size_t power = 256; power <= 4096; power *= 2) {
        for (size_t length = power - 6; length <= power + 6; length++) {
            std::string letters(length, ' ');
            for (char& letter : letters) {
                letter = STANDARD[random() % 62];
            }
            const std::string expected = modelDecode(letters, STANDARD);
            ASSERT_EQ(decode(letters), expected) << length;
            ASSERT_EQ(decodeURLSafe(letters), expected) << length;
            ASSERT_EQ(decode(letters + std::string(length / 3, '\n')), expected) << length;
        }
    }
}

TEST(Base64, LargeInputGoesThereAndBack) {
    std::mt19937 random(20260103);
    const Bytes bytes = randomBytes(random, (1 << 20) + 1);
    EXPECT_TRUE(decode(encode(bytes)) == textOf(bytes));
    EXPECT_TRUE(decodeURLSafe(encodeURLSafe(bytes)) == textOf(bytes));
}

// The allocations. A string of more than 15 characters takes its size and one byte from the heap.

TEST(Base64, EncodersAllocateOnceAtTheFinalSize) {
    for (size_t length = 30; length < 36; length++) {
        const Bytes bytes(length, 0xA5);

        AllocationWatch standardWatch;
        const std::string standard = orv::base64Encode(bytes.data(), bytes.size());
        standardWatch.stop();
        EXPECT_EQ(standardWatch.count(), 1u);
        EXPECT_EQ(standardWatch.countOf(standard.size() + 1), 1u);

        AllocationWatch urlSafeWatch;
        const std::string urlSafe = orv::base64EncodeURLSafe(bytes.data(), bytes.size());
        urlSafeWatch.stop();
        EXPECT_EQ(urlSafeWatch.count(), 1u);
        EXPECT_EQ(urlSafeWatch.countOf(urlSafe.size() + 1), 1u);
    }
}

namespace {

// expectTwoAllocations runs `decoder` on short and long texts full of noise: one block is the result, `extra` bytes
// above its size, and the other at most is the buffer of the text's size.
template <class Decoder>
void expectTwoAllocations(Decoder decoder, size_t extra) {
    for (size_t letters : {60, 61, 62, 63, 9000, 9001, 9002, 9003}) {
        const std::string text = std::string(letters, 'x') + std::string(17, ' ');
        AllocationWatch watch;
        const auto result = decoder(text.data(), text.size());
        watch.stop();
        EXPECT_EQ(watch.countOf(result.size() + extra), 1u);
        EXPECT_LE(watch.count(), 2u);
        EXPECT_EQ(watch.countOf(text.size()), watch.count() - 1);
        EXPECT_EQ(watch.live(), 1u) << "only the result is left";
    }
}

// expectCleanFailure lets the first, the second, ... allocation fail until `call` needs no more of them. Each failure
// must come out as std::bad_alloc and leave no block behind.
template <class Call>
void expectCleanFailure(Call call) {
    size_t failures = 0;
    for (size_t failAt = 1; failAt < AllocationLog::MAX_SIZES; failAt++) {
        bool failed = false;
        AllocationWatch watch(failAt);
        try {
            call();
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        watch.stop();
        EXPECT_EQ(watch.live(), 0u) << "after failure of allocation " << failAt;
        EXPECT_EQ(failed, watch.count() >= failAt) << "a failed allocation is told";
        if (!failed) {
            break;
        }
        failures++;
    }
    EXPECT_GE(failures, 1u);
}

}  // namespace

TEST(Base64, DecodersAllocateTheResultAndOneBuffer) {
    expectTwoAllocations(orv::base64Decode, 0);
    expectTwoAllocations(orv::base64DecodeURLSafe, 0);
    expectTwoAllocations(orv::base64DecodeUTF8, 1);
    expectTwoAllocations(orv::base64DecodeURLSafeUTF8, 1);
}

TEST(Base64, ResultsAreNotLargerThanTheyNeedToBe) {
    for (size_t letters : {63, 9003}) {
        const std::string text(letters, 'x');
        const size_t bytes = letters * 3 / 4;
        EXPECT_EQ(orv::base64Decode(text.data(), text.size()).capacity(), bytes);
        EXPECT_EQ(orv::base64DecodeURLSafe(text.data(), text.size()).capacity(), bytes);
    }
}

TEST(Base64, ExhaustedMemoryThrowsAndLeavesNothingBehind) {
    const Bytes bytes(100, 0xA5);
    expectCleanFailure([&] { orv::base64Encode(bytes.data(), bytes.size()); });
    expectCleanFailure([&] { orv::base64EncodeURLSafe(bytes.data(), bytes.size()); });
    for (size_t letters : {100, 9000}) {
        const std::string text(letters, 'x');
        expectCleanFailure([&] { orv::base64Decode(text.data(), text.size()); });
        expectCleanFailure([&] { orv::base64DecodeUTF8(text.data(), text.size()); });
        expectCleanFailure([&] { orv::base64DecodeURLSafe(text.data(), text.size()); });
        expectCleanFailure([&] { orv::base64DecodeURLSafeUTF8(text.data(), text.size()); });
    }
}
