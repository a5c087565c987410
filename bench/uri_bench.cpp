// URIs beside uriparser and GLib's GUri, in one run: 10,000 URLs made like those of web and media servers (45 bytes on
// average) and three of 8 KB; `per_url` is the time for one.
//
// The three don't do the same job. Ours checks the host, decodes the path, removes dot segments and brings query and
// fragment into normal form, all in parsing. GUri decodes, too. uriparser only finds where the components begin and end
// in the caller's text; `UriparserNormal` adds its normalisation and the copies that this takes. The short URLs are
// plain: they have few escapes, no name for IDNA and no dot segments, so that little of all this is to be done.
//
// `Resolve` makes an absolute URI of the text of a reference and a parsed base.
//
// With --urls=FILE only the lines of that file count that all three take: each library takes its turn in each round,
// and the ratios are printed beside each other.
//
// The last ones show that no text is expensive: 8, 80 and 800 KB of "[[", of "%" and of mixtures. The time for one byte
// (`per_byte`) may grow only by what the caches make of it, and not with the length.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <uriparser/Uri.h>

#include <deque>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/uri.h"
#include "least_time.h"
#include "rounds.h"

namespace {

constexpr size_t URL_COUNT = 10000;
constexpr size_t LONG_SIZE = 8192;
constexpr const char* BASE_TEXT = "https://media.example.com/library/shows/season-2/index.html?page=1";

using Texts = std::vector<std::string>;

// --- texts -----------------------------------------------------------------------------------------------------------

class TextMaker {
public:
    std::string url() {
        std::string text = pick({"http://", "https://", "https://", "https://", "rtsp://"});
        text += host();
        if (oneIn(12))
            text += ":" + std::to_string(1024 + m_oRandom() % 60000);
        return text + "/" + path(m_oRandom() % 4) + tail();
    }

    std::string reference() {
        std::string text = pick({"", "", "", "/", "../", "../../", "./"});
        return text + path(1 + m_oRandom() % 3) + tail();
    }

private:
    // The engine alone, not the library's distributions: the same texts with every library.
    bool oneIn(unsigned count) { return m_oRandom() % count == 0; }

    const char* pick(std::initializer_list<const char*> choice) {
        return *std::next(choice.begin(), static_cast<std::ptrdiff_t>(m_oRandom() % choice.size()));
    }

    std::string word() {
        std::string text(3 + m_oRandom() % 6, 'a');
        for (char& letter : text)
            letter = static_cast<char>('a' + m_oRandom() % 26);
        return text;
    }

    std::string host() {
        if (oneIn(15))
            return "192.168." + std::to_string(m_oRandom() % 256) + "." + std::to_string(m_oRandom() % 256);
        return pick({"www.", "", "", "cdn.", "api."}) + word() + pick({".com", ".org", ".example", ".co.uk", ".net"});
    }

    std::string path(size_t count) {
        std::string text;
        for (; count > 0; --count)
            text += word() + (oneIn(10) ? "%20" + word() : "") + "/";
        return text + (oneIn(4) ? "" : word() + pick({".html", ".mp4", "", "", ".json"}));
    }

    std::string tail() {
        std::string text;
        if (oneIn(3))
            text += "?" + word() + "=" + std::to_string(m_oRandom() % 10000);
        if (oneIn(8))
            text += text.empty() ? "?" + word() : "&" + word() + "=" + word();
        return text + (oneIn(20) ? "#" + word() : "");
    }

    std::mt19937 m_oRandom{1};
};

Texts urls() {
    TextMaker maker;
    Texts texts;
    while (texts.size() < URL_COUNT)
        texts.push_back(maker.url());
    return texts;
}

Texts references() {
    TextMaker maker;
    Texts texts;
    while (texts.size() < URL_COUNT)
        texts.push_back(maker.reference());
    return texts;
}

std::string filled(std::string text, const std::string& piece, size_t size) {
    while (text.size() + piece.size() <= size)
        text += piece;
    return text;
}

// Many segments, one segment full of escapes, one query.
Texts longURLs() {
    return {filled("http://example.com/", "segment/", LONG_SIZE), filled("http://example.com/", "caf%C3%A9", LONG_SIZE),
            filled("http://example.com/?a=1", "&key=value%20", LONG_SIZE)};
}

Texts longReferences() {
    return {filled("", "segment/", LONG_SIZE), filled("../", "caf%C3%A9", LONG_SIZE),
            filled("?a=1", "&key=value%20", LONG_SIZE)};
}

// --- the three libraries ---------------------------------------------------------------------------------------------

// Each library is a value made from a text, or from the text of a reference and a base; `valid` tells whether it took
// the text, `print` gives the text back.
struct Ours {
    URI uri;
    explicit Ours(const std::string& text) : uri(URI::fromString(text)) {}
    Ours(const std::string& reference, const Ours& base) : uri(URI::fromString(reference)) { uri.resolve(base.uri); }
    bool valid() const { return !uri.path.segments.empty() || uri.path.trailingSlash || !uri.query.empty(); }
    std::string print() const { return uri.toString(); }
};

struct Uriparser {
    UriUriA uri = {};
    int status;
    explicit Uriparser(const std::string& text)
        : status(uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), nullptr)) {}
    Uriparser(const std::string& reference, const Uriparser& base) {
        const Uriparser relative(reference);
        status = relative.valid() ? uriAddBaseUriA(&uri, &relative.uri, &base.uri) : relative.status;
    }
    Uriparser(const Uriparser&) = delete;
    Uriparser& operator=(const Uriparser&) = delete;
    ~Uriparser() { uriFreeUriMembersA(&uri); }
    bool valid() const { return status == URI_SUCCESS; }
    std::string print() const {
        int size = 0;
        uriToStringCharsRequiredA(&uri, &size);
        std::string text(static_cast<size_t>(size) + 1, '\0');
        uriToStringA(text.data(), &uri, size + 1, nullptr);
        text.pop_back();
        return text;
    }
};

struct UriparserNormal : Uriparser {
    explicit UriparserNormal(const std::string& text) : Uriparser(text) {
        status = valid() ? uriNormalizeSyntaxA(&uri) : status;
    }
};

struct GLib {
    GUri* uri;
    explicit GLib(const std::string& text) : uri(g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr)) {}
    GLib(const std::string& reference, const GLib& base)
        : uri(g_uri_parse_relative(base.uri, reference.c_str(), G_URI_FLAGS_NONE, nullptr)) {}
    GLib(const GLib&) = delete;
    GLib& operator=(const GLib&) = delete;
    ~GLib() { g_clear_pointer(&uri, g_uri_unref); }
    bool valid() const { return uri != nullptr; }
    std::unique_ptr<char, decltype(&g_free)> print() const { return {g_uri_to_string(uri), g_free}; }
};

// --- the jobs --------------------------------------------------------------------------------------------------------

void count(benchmark::State& state, const Texts& texts) {
    size_t bytes = 0;
    for (const std::string& text : texts)
        bytes += text.size();
    using benchmark::Counter;
    state.counters["per_url"] =
        Counter(static_cast<double>(texts.size()), Counter::kIsIterationInvariantRate | Counter::kInvert);
    state.counters["bytes_per_url"] = static_cast<double>(bytes) / static_cast<double>(texts.size());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

void refuse(benchmark::State& state, const std::string& text) {
    state.SkipWithError(("refused: " + text.substr(0, 100)).c_str());
}

// timeEach times `job`, which tells whether the library took the text.
template <typename Job>
void timeEach(benchmark::State& state, const Texts& texts, Job job) {
    for (auto _ : state) {
        for (const std::string& text : texts) {
            if (!job(text))
                return refuse(state, text);
        }
    }
    count(state, texts);
}

template <class Library>
void parse(benchmark::State& state, const Texts& texts) {
    timeEach(state, texts, [](const std::string& text) {
        const Library value(text);
        benchmark::DoNotOptimize(value);
        return value.valid();
    });
}

template <class Library>
void parseAndPrint(benchmark::State& state, const Texts& texts) {
    timeEach(state, texts, [](const std::string& text) {
        const Library value(text);
        benchmark::DoNotOptimize(value.print());
        return value.valid();
    });
}

template <class Library>
void resolve(benchmark::State& state, const Texts& texts) {
    const std::string baseText = BASE_TEXT;  // uriparser's values point into the text
    const Library base(baseText);
    timeEach(state, texts, [&base](const std::string& text) {
        const Library value(text, base);
        benchmark::DoNotOptimize(value);
        return value.valid();
    });
}

template <class Library>
void print(benchmark::State& state, const Texts& texts) {
    std::deque<Library> values;
    for (const std::string& text : texts) {
        if (!values.emplace_back(text).valid())
            return refuse(state, text);
    }
    for (auto _ : state) {
        for (const Library& value : values)
            benchmark::DoNotOptimize(value.print());
    }
    count(state, texts);
}

// --- texts made to be expensive --------------------------------------------------------------------------------------

// readAndPrint reads the text as path, query and fragment, whether it is a URI or not, and prints what it got.
size_t readAndPrint(const std::string& text) {
    size_t size = 0;
    for (const char* start : {"http://name/", "?", "#", "http://", "http://[", "http://a:", "data:,", "data:text/a;b="})
        size += URI::fromString(start + text, true).toString(true).size();
    return size;
}

size_t escapeAndUnescape(const std::string& text) {
    bool valid = false;
    return URI::escapeURIComponent(text, "", true).size() + URI::unescapeURI(text, &valid, true).size() +
           URI::smartEscapeURIComponent(text, "/?#", true).size() +
           URI::smartUnescapeURIComponent(text, "&=#", true).size() +
           URI::normalizeURIComponent(text, "", "+;&=[]", true).size() +
           static_cast<size_t>(URI::validateEscaping(text, true)) + URI::findSkipPattern(text, '#');
}

size_t splitAndMakeQuery(const std::string& text) {
    URI::Query items;
    URI::splitQueryString(text, items, true);
    return URI::makeQueryString(items, true).size();
}

// walkAndRelate works on the path of the text without patterns, in which brackets are ordinary.
size_t walkAndRelate(const std::string& text) {
    URI::Path path = URI::Path::fromFileName("/" + text);
    URI::Path other = path.slash("x").slash(path).removeDotSegments(true);
    const size_t size = other.toEscapedURIPath(true).size();
    other.makeRelative(path);
    return size + other.resolve(path, true).toUserURIPath(true).size();
}

void expensive(benchmark::State& state, const std::string& piece, size_t (*job)(const std::string&)) {
    const std::string text = filled("", piece, static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(job(text));
    using benchmark::Counter;
    state.counters["per_byte"] =
        Counter(static_cast<double>(text.size()), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

const struct {
    const char* name;
    size_t (*job)(const std::string&);
} JOBS[] = {
    {"ReadAndPrint ", readAndPrint},
    {"EscapeAndUnescape ", escapeAndUnescape},
    {"SplitAndMakeQuery ", splitAndMakeQuery},
    {"WalkAndRelate ", walkAndRelate},
};

const char* const PIECES[] = {"[[",      "]]",    "[",   "%",   "%4",  "[[%",    "%[[",    "[[]]", "[[%]]%",
                              "[[a]]/b", "]][[#", "a&=", "&[[", "../", "[[&]]=", "/[[?/]", "@:",   "::"};

using Job = void (*)(benchmark::State&, const Texts&);

void add(const std::string& name, Job job, const Texts& texts) {
    benchmark::RegisterBenchmark(name.c_str(), [job, texts](benchmark::State& state) { job(state, texts); })
        ->Unit(benchmark::kMicrosecond)
        ->Apply(tellLeastTime);
}

void addBesidePeers(const std::string& suffix, const Texts& whole, const Texts& relative) {
    add("Parse" + suffix + "Ours", parse<Ours>, whole);
    add("Parse" + suffix + "Uriparser", parse<Uriparser>, whole);
    add("Parse" + suffix + "UriparserNormal", parse<UriparserNormal>, whole);
    add("Parse" + suffix + "GLib", parse<GLib>, whole);
    add("Print" + suffix + "Ours", print<Ours>, whole);
    add("Print" + suffix + "Uriparser", print<Uriparser>, whole);
    add("Print" + suffix + "GLib", print<GLib>, whole);
    add("ParseAndPrint" + suffix + "Ours", parseAndPrint<Ours>, whole);
    add("ParseAndPrint" + suffix + "Uriparser", parseAndPrint<Uriparser>, whole);
    add("ParseAndPrint" + suffix + "GLib", parseAndPrint<GLib>, whole);
    add("Resolve" + suffix + "Ours", resolve<Ours>, relative);
    add("Resolve" + suffix + "Uriparser", resolve<Uriparser>, relative);
    add("Resolve" + suffix + "GLib", resolve<GLib>, relative);
}

void addExpensive() {
    for (const auto& [name, job] : JOBS) {
        for (const char* piece : PIECES) {
            benchmark::RegisterBenchmark((name + std::string(piece)).c_str(), expensive, std::string(piece), job)
                ->Arg(8000)
                ->Arg(80000)
                ->Arg(800000);
        }
    }
}

// --- addresses from outside, in rounds -------------------------------------------------------------------------------

Texts urlsOf(const std::string& file) {
    std::ifstream in(file);
    Texts texts;
    for (std::string line; std::getline(in, line);)
        if (Ours(line).valid() && Uriparser(line).valid() && GLib(line).valid())
            texts.push_back(line);
    return texts;
}

template <class Library>
rounds::Contestant parser(const std::string& name, const Texts& texts) {
    return {name, [&texts] {
                for (const std::string& text : texts)
                    benchmark::DoNotOptimize(Library(text).valid());
            }};
}

template <class Library>
rounds::Contestant printer(const std::string& name, const Texts& texts) {
    const auto values = std::make_shared<std::deque<Library>>();
    for (const std::string& text : texts)
        values->emplace_back(text);
    return {name, [values] {
                for (const Library& value : *values)
                    benchmark::DoNotOptimize(value.print());
            }};
}

template <class Library>
rounds::Contestant parserAndPrinter(const std::string& name, const Texts& texts) {
    return {name, [&texts] {
                for (const std::string& text : texts)
                    benchmark::DoNotOptimize(Library(text).print());
            }};
}

void compareOn(const std::string& suffix, const Texts& texts) {
    const auto count = static_cast<double>(texts.size());
    rounds::printRow("parse" + suffix,
                     {parser<Ours>("ours", texts), parser<Uriparser>("uriparser", texts), parser<GLib>("GLib", texts)},
                     count);
    rounds::printRow(
        "print" + suffix,
        {printer<Ours>("ours", texts), printer<Uriparser>("uriparser", texts), printer<GLib>("GLib", texts)}, count);
    rounds::printRow("parse and print" + suffix,
                     {parserAndPrinter<Ours>("ours", texts), parserAndPrinter<Uriparser>("uriparser", texts),
                      parserAndPrinter<GLib>("GLib", texts)},
                     count);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::string_view URLS = "--urls=";
    if (argc == 2 && std::string_view(argv[1]).starts_with(URLS)) {
        const Texts texts = urlsOf(argv[1] + URLS.size());
        std::printf("%zu addresses that all take\n", texts.size());
        compareOn("", texts);
        compareOn(", 8 KB each", longURLs());
        return 0;
    }
    addBesidePeers("", urls(), references());
    addBesidePeers("Long", longURLs(), longReferences());
    addExpensive();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
