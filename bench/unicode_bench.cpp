// Conversions between UTF-8, UTF-16 and UCS-4 beside ICU and iconv, over scripts and sizes.
//
// All three write to buffers made before the clock starts, and none of them counts its output first. Each row converts
// the same texts; bytes per second are those of its UTF-8 form. ICU has no call between UTF-8 and UCS-4: its row there
// is the loop over its U8_NEXT and U8_APPEND macros. The iconv descriptors are opened outside the clock.
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/unicode.h"

namespace {

// Script is a stock of words, and what stands between two of them.
struct Script {
    const char* name;
    const char* between;
    std::vector<std::string> words;
};

const Script kScripts[] = {
    {"ascii", " ", {"The", "quick",  "brown", "fox", "jumps", "over", "the",       "lazy",   "dog,",        "and",
                    "42",  "others", "watch", "it",  "from",  "a",    "distance;", "nobody", "understands", "why."}},
    {"latin", " ", {"Le", "cœur",      "déçu", "mais",    "l'âme", "plutôt", "naïve,", "il",    "rêva",
                    "de", "crapaüter", "en",   "canoë",   "au",    "delà",   "des",    "îles,", "près",
                    "du", "volcan",    "où",   "brûlent", "les",   "novæ.",  "Füße",   "über",  "Öl."}},
    {"cyrillic", " ", {"Съешь", "же",      "ещё", "этих", "мягких",    "французских", "булок,",
                       "да",    "выпей",   "чаю", "в",    "чащах",     "юга",         "жил",
                       "бы",    "цитрус?", "да,", "но",   "фальшивый", "экземпляр!"}},
    {"cjk",
     "",
     {"天地玄黄", "宇宙洪荒", "日月盈昃，", "辰宿列张。", "寒来暑往", "秋收冬藏", "闰余成岁，", "律吕调阳",
      "云腾致雨。", "露结为霜", "2024年", "金生丽水"}},
    {"emoji", "", {"😀😁", "😂", "🤣😃😄", "😅😆😉", "😊", "😋😎😍😘", "🥰😗", "🚀🌍", "🎉", "🧠💡"}},
};

constexpr int kSizes[] = {64, 4096, 1 << 20};

// Sample is one text in the three forms.
struct Sample {
    std::string utf8;
    std::u16string utf16;
    std::u32string ucs4;
};

const unsigned char* bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

constexpr size_t kBytesPerRow = 1 << 20;

// makeText strings words of a script together in random order, up to the last whole character within `size` bytes.
std::string makeText(const Script& script, size_t size, std::minstd_rand& random) {
    std::string text;
    while (text.size() <= size)
        text += script.words[random() % script.words.size()] + script.between;
    while ((text[size] & 0xC0) == 0x80)
        --size;
    text.resize(size);
    return text;
}

// makeSamples gives different texts of one size, which a row converts in turn: a text that comes again and again is one
// whose every branch the processor knows beforehand, which no real text is. They are the same in every run.
std::vector<Sample> makeSamples(const Script& script, size_t size) {
    std::minstd_rand random(1);
    std::vector<Sample> samples(kBytesPerRow / size);
    for (Sample& sample : samples) {
        sample.utf8 = makeText(script, size, random);
        utf8To16N(bytes(sample.utf8), static_cast<int>(sample.utf8.size()), sample.utf16);
        utf8ToUCS4Z(bytes(sample.utf8), sample.ucs4);
    }
    return samples;
}

// A conversion reads the sample's input and writes to the output; it returns the bytes written.
using Conversion = size_t (*)(const Sample& sample, unsigned char* out, size_t size);

UChar* icuUnits(unsigned char* out) {
    return reinterpret_cast<UChar*>(out);
}

size_t ours8To16(const Sample& sample, unsigned char* out, size_t) {
    auto* units = reinterpret_cast<char16_t*>(out);
    return sizeof *units * utf8To16N(bytes(sample.utf8), static_cast<int>(sample.utf8.size()), units, false);
}

size_t icu8To16(const Sample& sample, unsigned char* out, size_t size) {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(icuUnits(out), static_cast<int32_t>(size / sizeof(UChar)), &length, sample.utf8.data(),
                  static_cast<int32_t>(sample.utf8.size()), &error);
    return U_SUCCESS(error) ? sizeof(UChar) * static_cast<size_t>(length) : 0;
}

size_t ours16To8(const Sample& sample, unsigned char* out, size_t) {
    return utf16To8N(sample.utf16.data(), static_cast<int>(sample.utf16.size()), out, false);
}

size_t icu16To8(const Sample& sample, unsigned char* out, size_t size) {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(reinterpret_cast<char*>(out), static_cast<int32_t>(size), &length, sample.utf16.data(),
                static_cast<int32_t>(sample.utf16.size()), &error);
    return U_SUCCESS(error) ? static_cast<size_t>(length) : 0;
}

size_t ours8ToUCS4(const Sample& sample, unsigned char* out, size_t) {
    auto* units = reinterpret_cast<char32_t*>(out);
    return sizeof *units * utf8ToUCS4N(bytes(sample.utf8), static_cast<int>(sample.utf8.size()), units, false);
}

size_t icu8ToUCS4(const Sample& sample, unsigned char* out, size_t) {
    auto* units = reinterpret_cast<UChar32*>(out);
    const unsigned char* in = bytes(sample.utf8);
    const auto length = static_cast<int32_t>(sample.utf8.size());
    for (int32_t i = 0; i < length; ++units)
        U8_NEXT_OR_FFFD(in, i, length, *units);
    return static_cast<size_t>(reinterpret_cast<unsigned char*>(units) - out);
}

size_t oursUCS4To8(const Sample& sample, unsigned char* out, size_t) {
    return ucs4ToUTF8N(sample.ucs4.data(), static_cast<int>(sample.ucs4.size()), out, false);
}

size_t icuUCS4To8(const Sample& sample, unsigned char* out, size_t size) {
    size_t written = 0;
    for (char32_t value : sample.ucs4) {
        UBool failed = false;
        U8_APPEND(out, written, size, static_cast<UChar32>(value), failed);
        if (failed)
            return 0;
    }
    return written;
}

constexpr bool kLittle = std::endian::native == std::endian::little;
constexpr const char* kUTF16Name = kLittle ? "UTF-16LE" : "UTF-16BE";
constexpr const char* kUCS4Name = kLittle ? "UTF-32LE" : "UTF-32BE";

iconv_t openIconv(const char* to, const char* from) {
    const iconv_t descriptor = iconv_open(to, from);
    if (descriptor == reinterpret_cast<iconv_t>(-1)) {
        std::perror("iconv_open");
        std::exit(1);
    }
    return descriptor;
}

template <class Text>
size_t runIconv(iconv_t descriptor, const Text& text, unsigned char* out, size_t size) {
    char* in = const_cast<char*>(reinterpret_cast<const char*>(text.data()));
    size_t inLeft = text.size() * sizeof(typename Text::value_type);
    char* to = reinterpret_cast<char*>(out);
    size_t outLeft = size;
    iconv(descriptor, &in, &inLeft, &to, &outLeft);
    return inLeft == 0 ? size - outLeft : 0;
}

size_t iconv8To16(const Sample& sample, unsigned char* out, size_t size) {
    static const iconv_t descriptor = openIconv(kUTF16Name, "UTF-8");
    return runIconv(descriptor, sample.utf8, out, size);
}

size_t iconv16To8(const Sample& sample, unsigned char* out, size_t size) {
    static const iconv_t descriptor = openIconv("UTF-8", kUTF16Name);
    return runIconv(descriptor, sample.utf16, out, size);
}

size_t iconv8ToUCS4(const Sample& sample, unsigned char* out, size_t size) {
    static const iconv_t descriptor = openIconv(kUCS4Name, "UTF-8");
    return runIconv(descriptor, sample.utf8, out, size);
}

size_t iconvUCS4To8(const Sample& sample, unsigned char* out, size_t size) {
    static const iconv_t descriptor = openIconv("UTF-8", kUCS4Name);
    return runIconv(descriptor, sample.ucs4, out, size);
}

// asBytes is the content of a text of any form, which a conversion has to give.
template <class Text>
std::string asBytes(const Text& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(typename Text::value_type)};
}

struct Direction {
    const char* name;
    Conversion ours;
    Conversion icu;
    Conversion iconv;
    std::string (*expected)(const Sample& sample);
};

const Direction kDirections[] = {
    {"utf8_to_utf16", ours8To16, icu8To16, iconv8To16, [](const Sample& s) { return asBytes(s.utf16); }},
    {"utf16_to_utf8", ours16To8, icu16To8, iconv16To8, [](const Sample& s) { return s.utf8; }},
    {"utf8_to_ucs4", ours8ToUCS4, icu8ToUCS4, iconv8ToUCS4, [](const Sample& s) { return asBytes(s.ucs4); }},
    {"ucs4_to_utf8", oursUCS4To8, icuUCS4To8, iconvUCS4To8, [](const Sample& s) { return s.utf8; }},
};

bool isRight(Conversion convert, const Sample& sample, const std::string& expected, std::vector<unsigned char>& out) {
    const size_t written = convert(sample, out.data(), out.size());
    return written == expected.size() && std::memcmp(out.data(), expected.data(), written) == 0;
}

void run(benchmark::State& state, const Direction& direction, Conversion convert, const std::vector<Sample>& samples) {
    std::vector<unsigned char> out(4 * samples[0].utf8.size() + 16);
    for (const Sample& sample : samples) {
        if (!isRight(convert, sample, direction.expected(sample), out)) {
            state.SkipWithError("the output is wrong");
            return;
        }
    }
    size_t next = 0;
    size_t converted = 0;
    for (auto _ : state) {
        const Sample& sample = samples[next];
        benchmark::DoNotOptimize(convert(sample, out.data(), out.size()));
        benchmark::ClobberMemory();
        converted += sample.utf8.size();
        next = next + 1 < samples.size() ? next + 1 : 0;
    }
    state.SetBytesProcessed(static_cast<int64_t>(converted));
}

void registerRow(const Direction& direction, const Script& script, int size) {
    const std::string row = std::string(direction.name) + "/" + script.name + "/" + std::to_string(size) + "/";
    const std::pair<const char*, Conversion> rivals[] = {
        {"ours", direction.ours}, {"icu", direction.icu}, {"iconv", direction.iconv}};
    for (const auto& [name, convert] : rivals) {
        benchmark::RegisterBenchmark((row + name).c_str(),
                                     [&direction, &script, size, convert = convert](benchmark::State& state) {
                                         run(state, direction, convert, makeSamples(script, static_cast<size_t>(size)));
                                     });
    }
}

}  // namespace

int main(int argc, char** argv) {
    for (const Direction& direction : kDirections)
        for (const Script& script : kScripts)
            for (int size : kSizes)
                registerRow(direction, script, size);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
