#include "watch/feature_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <utility>

#include "foundation/clock_value.h"
#include "foundation/unicode.h"
#include "identity/orv_serial.h"
#include "watch/app_logger.h"
#include "watch/grant.h"
#include "watch/record_text.h"

namespace {

constexpr SizeLimit INPUT_LIMIT = {1024 * 1024, "1 MiB"};
constexpr int MAXIMUM_DEPTH = 100;
constexpr size_t MAXIMUM_WARNINGS = 20;  // of one reading: a file of nothing but faults must not flood the log
constexpr int DOCUMENT_INDENT = 2;       // of an entry in the features document

// isUTF8 is stricter than the validator, which accepts stray continuation bytes that readers of the document would
// reject.
bool isUTF8(const std::string& text) {
    return isStrictUTF8N(reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
}

// whyNotThisDevice compares the serial number that a document may carry, and a grant must, with the device's own, and
// returns why the document isn't for this device.
std::optional<Refusal> whyNotThisDevice(const JSON& document, bool mustNameIt) {
    const JSON* member = document.get("serial");
    if (member == nullptr)
        return mustNameIt ? std::optional(Refusal::unfit("it names no serial number")) : std::nullopt;
    if (!ORVSerial::ms_bHasSerialNumber)
        ORVSerial::load();  // what can't be read counts as no serial number, and is read again at the next look
    if (!ORVSerial::ms_bHasSerialNumber)
        return Refusal{Refusal::Kind::MayPass, "this device has no serial number"};
    const std::string* serial = jsonText(member);
    if (serial == nullptr || *serial != ORVSerial::ms_strSerialNumber)
        return Refusal::unfit("it is for another device");
    return std::nullopt;
}

// readInstant reads an optional member of a feature, and returns false if it is not an instant.
bool readInstant(const JSON* member, int64_t& instant) {
    if (member == nullptr)
        return true;
    const std::string* text = jsonText(member);
    const std::optional<int64_t> parsed = text != nullptr ? svg::parseInstant(*text) : std::nullopt;
    if (parsed)
        instant = *parsed;
    return parsed.has_value();
}

// whyUnprintable returns why `params` can't be passed on, or nothing. The parser takes numbers that have no JSON form,
// and any depth, while readers of the document have limits of their own and its indentation grows with the depth.
std::optional<std::string> whyUnprintable(const JSON& params) {
    std::vector<std::pair<const JSON*, int>> pending{{&params, 1}};
    while (!pending.empty()) {
        const auto [value, depth] = pending.back();
        pending.pop_back();
        if (value->type == JSON::NumberType && !std::isfinite(double(*value)))
            return "params has a number that is not finite";
        if (depth > MAXIMUM_DEPTH && !value->empty())
            return "params nests too deep";
        for (const auto& [key, member] : value->each())
            pending.emplace_back(member.get(), depth + 1);
        for (const JSON::root& element : value->values())
            pending.emplace_back(element.get(), depth + 1);
    }
    return std::nullopt;
}

// whyUnfit returns why the optional parameters of a feature are unfit, or nothing.
std::optional<std::string> whyUnfit(const JSON* params) {
    if (params == nullptr)
        return std::nullopt;
    return isObject(params) ? whyUnprintable(*params) : "params is no object";
}

// isMember returns whether `key` is a member of a feature; others are ignored.
bool isMember(const std::string& key) {
    return key == "name" || key == "params" || key == "validFrom" || key == "validUntil";
}

// printEntry appends the entry as the features document shows it. It changes the entry itself, because building a
// second object took a tenth of a reading's time.
void printEntry(JSON& entry, const std::string& label, std::string& text) {
    std::erase_if(entry.each(), [](const auto& member) { return !isMember(member.first); });
    entry.set("source", JSON::String(label));
    entry.stringify(text, DOCUMENT_INDENT);
}

// takeFeature makes a feature of one entry of the list, or returns why the entry is unfit. The entry is used up.
std::optional<std::string> takeFeature(JSON& entry, const std::string& label, Feature& feature) {
    if (!isObject(&entry))
        return "it is no object";
    const std::string* name = jsonText(entry.get("name"));
    if (name == nullptr || name->empty())
        return "name is no text or empty";
    feature.name = *name;
    if (!readInstant(entry.get("validFrom"), feature.validFrom))
        return "validFrom is no UTC instant";
    if (!readInstant(entry.get("validUntil"), feature.validUntil))
        return "validUntil is no UTC instant";
    std::optional<std::string> reason = whyUnfit(entry.get("params"));
    if (!reason)
        printEntry(entry, label, feature.text);
    return reason;
}

}  // namespace

FeatureSource::FeatureSource(const std::string& path, const std::string& label) : m_strPath(path), m_strLabel(label) {}

FeatureSource::FeatureSource(const std::string& path, const std::string& label, const std::string& keyPath)
    : m_strPath(path), m_strLabel(label), m_strKeyPath(keyPath) {}

void FeatureSource::reset() {
    forget();
    m_oReported = Report();
}

void FeatureSource::drop() {
    forget();
    m_bDropped = true;
}

// forget takes back what was read, but not what was reported.
void FeatureSource::forget() {
    m_aFeatures.clear();
    m_oLoadedState = FileState();
    m_oLoadedKeyState = FileState();
    m_bDropped = false;
    m_bTryAgain = false;
}

void FeatureSource::load() {
    forget();
    if (m_strPath.empty())
        return;
    m_oLoadedState = stateOf(m_strPath);  // taken first, so that a change during the reading is found later
    m_oLoadedKeyState = stateOf(m_strKeyPath);
    const std::optional<Refusal> refusal = readDocument();
    m_bTryAgain = refusal && refusal->kind == Refusal::Kind::MayPass;
    report(refusal);
}

// report logs why the file counts as empty. A fault that may pass is logged once for each state of the files; an unfit
// file at each reading.
void FeatureSource::report(const std::optional<Refusal>& refusal) {
    if (!refusal || refusal->kind == Refusal::Kind::Absent) {
        m_oReported = Report();
        return;
    }
    const Report report{refusal->reason, m_oLoadedState, m_oLoadedKeyState};
    if (refusal->kind == Refusal::Kind::MayPass && report == m_oReported)
        return;
    ORVLOG_ERROR(gs_pAppLogger, "features input %s counts as empty: %s", recordText(m_strPath).c_str(),
                 refusal->reason.c_str());
    m_oReported = report;
}

bool FeatureSource::fileExists() const {
    if (m_strPath.empty())
        return false;
    struct stat status {};
    return stat(m_strPath.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool FeatureSource::fileChanged() const {
    return m_bTryAgain || (m_bDropped && fileExists()) || stateOf(m_strPath) != m_oLoadedState ||
           stateOf(m_strKeyPath) != m_oLoadedKeyState;
}

FeatureSource::FileState FeatureSource::stateOf(const std::string& path) {
    struct stat status {};
    if (path.empty() || stat(path.c_str(), &status) != 0)
        return FileState();
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// readDocument reads the file and takes its features, or returns why it counts as empty.
std::optional<Refusal> FeatureSource::readDocument() {
    std::string content;
    std::optional<Refusal> refusal = readWholeFile(m_strPath, INPUT_LIMIT, content);
    if (!refusal && isGrant())
        refusal = openGrant(content, m_strKeyPath);
    if (refusal)
        return refusal;
    if (!isUTF8(content))
        return Refusal::unfit("it is not UTF-8");
    const JSON::root document = JSON::parse(content);
    if (document == nullptr)
        return Refusal::unfit("it is not JSON");
    return takeDocument(*document);
}

// takeDocument takes the features of a parsed file, or returns why it counts as empty.
std::optional<Refusal> FeatureSource::takeDocument(JSON& document) {
    if (!isObject(&document))
        return Refusal::unfit("it is no JSON object");
    if (const std::optional<Refusal> refusal = whyNotThisDevice(document, isGrant()))
        return refusal;
    JSON* list = document.get("features");
    if (list == nullptr || list->type != JSON::ArrayType)
        return Refusal::unfit("it has no list of features");
    takeFeatures(*list);
    return std::nullopt;
}

// takeFeatures takes each entry that has the form of a feature and reports the others.
void FeatureSource::takeFeatures(JSON& list) {
    size_t leftOut = 0;
    for (size_t index = 0; index < list.size(); ++index) {
        const JSON::root entry = list.move(index);  // so that its memory is free for the next one
        Feature feature;
        const std::optional<std::string> reason = takeFeature(*entry, m_strLabel, feature);
        if (!reason)
            m_aFeatures.push_back(std::move(feature));
        else if (++leftOut <= MAXIMUM_WARNINGS)
            ORVLOG_WARN(gs_pAppLogger, "%s: left out feature %zu: %s", recordText(m_strPath).c_str(), index,
                        reason->c_str());
    }
    if (leftOut > MAXIMUM_WARNINGS)
        ORVLOG_WARN(gs_pAppLogger, "%s: left out %zu more", recordText(m_strPath).c_str(), leftOut - MAXIMUM_WARNINGS);
}
