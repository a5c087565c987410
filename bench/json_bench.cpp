// The JSON model against peer libraries: parsing (building and destroying the tree) and printing on one line, on
// generated documents; and our own times over document sizes, which must grow in proportion.
//
// Each benchmark is named operation/document/library. The documents are the same in every run.
//
// With --documents=FOLDER only the .json files of that folder count: each library takes its turn in each round, and the
// ratios are printed beside each other, with the heap that a tree takes at the peak of reading it.
//
// With --growth the feed of 1, 10 and 100 MB is read and printed by us and by nlohmann-json, in turns.

#include <benchmark/benchmark.h>
#include <jansson.h>
#include <json/json.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/json.h"
#include "heap_peak.h"
#include "rounds.h"

namespace {

constexpr std::size_t MEGABYTE = 1000 * 1000;

std::mt19937_64 newRandom() {
    return std::mt19937_64{20260101};
}

std::string number(const char* format, double value) {
    char buffer[64];
    const int length = std::snprintf(buffer, sizeof buffer, format, value);
    return {buffer, static_cast<std::size_t>(length)};
}

// Items of `make` in brackets until the document has `size` bytes.
std::string listOf(std::size_t size, const std::function<std::string(std::size_t)>& make) {
    std::string text = "[";
    for (std::size_t i = 0; text.size() < size; ++i)
        text += (i == 0 ? "" : ",") + make(i);
    return text + "]";
}

// Many small objects of texts, numbers and truth values.
std::string feed(std::size_t size) {
    auto random = newRandom();
    return listOf(size, [&](std::size_t i) {
        const std::string id = std::to_string(random() % 1000000000);
        return "{\"author\":{\"id\":" + id + ",\"name\":\"user " + id +
               "\",\"verified\":" + (i % 3 ? "false" : "true") + "},\"created_at\":\"2026-03-" +
               std::to_string(10 + i % 20) + "T12:00:00Z\",\"id\":" + std::to_string(i) +
               ",\"lang\":\"de\",\"likes\":" + std::to_string(random() % 5000) +
               ",\"reply_to\":null,\"score\":" + number("%.3f", static_cast<double>(random() % 100000) / 1000) +
               ",\"tags\":[\"news\",\"video\",\"tag" + std::to_string(i % 97) +
               "\"],\"text\":\"A short line of text, number " + std::to_string(i) + ".\"}";
    });
}

// Long texts, a part of them not ASCII, with an escape now and then.
std::string strings(std::size_t size) {
    auto random = newRandom();
    const std::vector<std::string> words{"media", "Gerät",     "überall",    "日本語", "feature",  "\\n",   "señal",
                                         "the",   "Привет",    "and",        "watch",  "😀",        "naïve", "of",
                                         "a",     "appliance", "\\\"so\\\"", "list",   "document", "zone"};
    return listOf(size, [&](std::size_t) {
        std::string text = "\"";
        for (std::size_t i = 200 + random() % 200; i > 0; --i)
            text += words[random() % words.size()] + " ";
        return text + "\"";
    });
}

// Rings of longitude and latitude, each number in `format`.
std::string coordinates(std::size_t size, const char* format) {
    auto random = newRandom();
    std::uniform_real_distribution<double> longitude(-180, 180);
    std::uniform_real_distribution<double> latitude(-90, 90);
    return listOf(size, [&](std::size_t) {
        return listOf(4000, [&](std::size_t) {
            return "[" + number(format, longitude(random)) + "," + number(format, latitude(random)) + "]";
        });
    });
}

// The features document with 40 entries.
std::string features() {
    std::string text = "{\"features\":[";
    for (int i = 0; i < 40; ++i) {
        const std::string n = std::to_string(i);
        text += (i == 0 ? "" : ",") + ("{\"name\":\"feature-number-" + n) + "\",\"source\":\"" +
                (i % 2 ? "granted" : "installed") + "\",\"params\":{\"outputs\":" + n +
                ",\"mode\":\"extended\",\"limit\":0." + n +
                "},\"validFrom\":\"2026-01-01T00:00:00Z\",\"validUntil\":\"2027-01-01T00:00:00Z\"}";
    }
    return text + "]}";
}

struct Document {
    const char* name;
    std::string text;
};

const std::vector<Document>& documents() {
    static const std::vector<Document> DOCUMENTS{
        {"feed", feed(2 * MEGABYTE)},
        {"strings", strings(2 * MEGABYTE)},
        {"coordinates", coordinates(2 * MEGABYTE, "%.6f")},
        {"doubles", coordinates(2 * MEGABYTE, "%.17g")},
        {"features", features()},
    };
    return DOCUMENTS;
}

// One library: its tree, and how it reads and writes it.

struct Ours {
    static constexpr const char* NAME = "featurewatch";
    using Tree = JSON::root;
    static Tree parse(const std::string& text) { return JSON::parse(text); }
    static bool good(const Tree& tree) { return tree != nullptr; }
    static std::size_t print(const Tree& tree) {
        std::string out;
        tree->stringify(out, -1);
        benchmark::DoNotOptimize(out.data());
        return out.size();
    }
};

struct Nlohmann {
    static constexpr const char* NAME = "nlohmann";
    using Tree = nlohmann::json;
    static Tree parse(const std::string& text) { return Tree::parse(text, nullptr, false); }
    static bool good(const Tree& tree) { return !tree.is_discarded(); }
    static std::size_t print(const Tree& tree) {
        const std::string out = tree.dump();
        benchmark::DoNotOptimize(out.data());
        return out.size();
    }
};

struct JsonCpp {
    static constexpr const char* NAME = "jsoncpp";
    using Tree = Json::Value;
    static Tree parse(const std::string& text) {
        static const std::unique_ptr<Json::CharReader> READER(Json::CharReaderBuilder().newCharReader());
        Tree tree;
        READER->parse(text.data(), text.data() + text.size(), &tree, nullptr);
        return tree;
    }
    static bool good(const Tree& tree) { return !tree.isNull(); }
    static std::size_t print(const Tree& tree) {
        static const Json::StreamWriterBuilder BUILDER = [] {
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";
            builder["emitUTF8"] = true;
            return builder;
        }();
        const std::string out = Json::writeString(BUILDER, tree);
        benchmark::DoNotOptimize(out.data());
        return out.size();
    }
};

struct JanssonRelease {
    void operator()(json_t* tree) const { json_decref(tree); }
};

struct Jansson {
    static constexpr const char* NAME = "jansson";
    using Tree = std::unique_ptr<json_t, JanssonRelease>;
    static Tree parse(const std::string& text) { return Tree(json_loadb(text.data(), text.size(), 0, nullptr)); }
    static bool good(const Tree& tree) { return tree != nullptr; }
    static std::size_t print(const Tree& tree) {
        const std::unique_ptr<char, decltype(&std::free)> out(json_dumps(tree.get(), 0), std::free);
        benchmark::DoNotOptimize(out.get());
        return std::char_traits<char>::length(out.get());
    }
};

struct RapidJson {
    static constexpr const char* NAME = "rapidjson";
    using Tree = rapidjson::Document;
    static Tree parse(const std::string& text) {
        Tree tree;
        tree.Parse(text.data(), text.size());
        return tree;
    }
    static bool good(const Tree& tree) { return !tree.HasParseError(); }
    static std::size_t print(const Tree& tree) {
        rapidjson::StringBuffer out;
        rapidjson::Writer<rapidjson::StringBuffer> writer(out);
        tree.Accept(writer);
        benchmark::DoNotOptimize(out.GetString());
        return out.GetSize();
    }
};

template <class Library>
void parseDocument(benchmark::State& state, const std::string& text) {
    for (auto _ : state)
        if (!Library::good(Library::parse(text)))
            state.SkipWithError("refused");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

template <class Library>
void printDocument(benchmark::State& state, const std::string& text) {
    const auto tree = Library::parse(text);
    if (!Library::good(tree))
        state.SkipWithError("refused");
    for (auto _ : state)
        if (Library::print(tree) < text.size() / 2)
            state.SkipWithError("cut");
    // Measured by the text read, so that a library's choice of blanks and digits counts for nothing.
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

template <class Library>
void addLibrary(const Document& document) {
    const std::string name = std::string(document.name) + "/" + Library::NAME;
    benchmark::RegisterBenchmark(("parse/" + name).c_str(), parseDocument<Library>, document.text);
    benchmark::RegisterBenchmark(("print/" + name).c_str(), printDocument<Library>, document.text);
}

void addSize(std::size_t megabytes) {
    const std::string name = "feed_" + std::to_string(megabytes) + "MB";
    const auto parse = [megabytes](benchmark::State& state) { parseDocument<Ours>(state, feed(megabytes * MEGABYTE)); };
    const auto print = [megabytes](benchmark::State& state) { printDocument<Ours>(state, feed(megabytes * MEGABYTE)); };
    benchmark::RegisterBenchmark(("parse/" + name).c_str(), parse)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("print/" + name).c_str(), print)->Unit(benchmark::kMillisecond);
}

// --- documents from outside, in rounds ---

template <class Library>
rounds::Contestant parser(const std::string& text) {
    return {Library::NAME, [&text] { benchmark::DoNotOptimize(Library::good(Library::parse(text))); }};
}

template <class Library>
rounds::Contestant printer(const std::string& text) {
    const auto tree = std::make_shared<typename Library::Tree>(Library::parse(text));
    return {Library::NAME, [tree] { benchmark::DoNotOptimize(Library::print(*tree)); }};
}

// heapPerByte returns how many bytes of the heap reading holds at its peak for each byte of text.
template <class Library>
double heapPerByte(const std::string& text) {
    const HeapPeak peak;
    benchmark::DoNotOptimize(Library::good(Library::parse(text)));
    return static_cast<double>(peak.bytes()) / static_cast<double>(text.size());
}

void compareOn(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    if (!Ours::good(Ours::parse(text))) {
        std::printf("%s is refused\n", file.filename().c_str());
        return;
    }
    const std::string name = file.stem();
    rounds::printRow("parse " + name, {parser<Ours>(text), parser<Nlohmann>(text), parser<RapidJson>(text)}, 1);
    rounds::printRow("print " + name, {printer<Ours>(text), printer<Nlohmann>(text), printer<RapidJson>(text)}, 1);
    std::printf("%-32s %s %10.2f      %s %.2f\n", ("bytes per byte " + name).c_str(), Ours::NAME,
                heapPerByte<Ours>(text), Nlohmann::NAME, heapPerByte<Nlohmann>(text));
}

void compareOnFolder(const std::string& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".json")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files)
        compareOn(file);
}

// compareGrowth shows how the time per megabyte grows with the document, ours beside nlohmann's.
void compareGrowth() {
    for (const std::size_t megabytes : {1, 10, 100}) {
        const std::string text = feed(megabytes * MEGABYTE);
        const std::string name = std::to_string(megabytes) + " MB, per MB";
        const auto pieces = static_cast<double>(megabytes);
        rounds::printRow("parse " + name, {parser<Ours>(text), parser<Nlohmann>(text)}, pieces);
        rounds::printRow("print " + name, {printer<Ours>(text), printer<Nlohmann>(text)}, pieces);
    }
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::string_view DOCUMENTS = "--documents=";
    if (argc == 2 && std::string_view(argv[1]).starts_with(DOCUMENTS)) {
        compareOnFolder(argv[1] + DOCUMENTS.size());
        return 0;
    }
    if (argc == 2 && std::string_view(argv[1]) == "--growth") {
        compareGrowth();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    for (const Document& document : documents()) {
        addLibrary<Ours>(document);
        addLibrary<Nlohmann>(document);
        addLibrary<JsonCpp>(document);
        addLibrary<Jansson>(document);
        addLibrary<RapidJson>(document);
    }
    for (const std::size_t megabytes : {1, 10, 100})
        addSize(megabytes);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
