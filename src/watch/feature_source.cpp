#include "watch/feature_source.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "foundation/unicode.h"
#include "identity/orv_serial.h"
#include "jose/jws.h"
#include "runtime/orv_error.h"
#include "watch/app_logger.h"

namespace {

constexpr off_t MAXIMUM_SIZE = 1024 * 1024;
constexpr int MAXIMUM_DEPTH = 100;

using FileHolder = std::unique_ptr<FILE, int (*)(FILE*)>;

// openForReading never blocks, whatever stands at the path.
FileHolder openForReading(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    FILE* file = fd == -1 ? nullptr : fdopen(fd, "rb");
    if (file == nullptr && fd != -1)
        close(fd);
    return FileHolder(file, fclose);
}

// readContent reads the whole file and returns the reason if it can't.
std::string readContent(FILE* file, std::string& content) {
    struct stat status {};
    if (fstat(fileno(file), &status) != 0)
        return g_strerror(errno);
    if (!S_ISREG(status.st_mode))
        return "it is not a regular file";
    if (status.st_size > MAXIMUM_SIZE)
        return "it is larger than 1 MiB";
    content.resize(static_cast<size_t>(status.st_size));
    content.resize(fread(content.data(), 1, content.size(), file));
    return ferror(file) ? g_strerror(errno) : "";
}

// isUTF8 is strict, while the validator lets stray continuation bytes pass: readers of the document would fail on them.
bool isUTF8(const std::string& text) {
    std::u16string units;
    utf8To16N(reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()), units);
    std::string back;
    utf16To8N(units.data(), static_cast<int>(units.size()), back);
    return back == text;
}

// loadKey loads the key that grants are signed with into `key`, as keys must not be moved. Its kind alone decides on
// the algorithm: the loader refuses the others.
void loadKey(const std::string& path, jwa::Key& key) {
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256}) {
        try {
            key.loadPublicKey(algo, path);
            return;
        } catch (const ORVError&) {
            if (key.pkey() == nullptr)
                throw;  // no key at all; else it is of another kind, and the next may fit
        }
    }
    throw ORVError(ORVError::StringNotValid, "it is of no kind that grants are signed with");
}

// verifyGrant replaces `content`, a signed document, with its payload and returns the reason if it can't be trusted.
// The key's folder is the administrator's; the look at the file's kind is against mistakes there.
std::string verifyGrant(std::string& content, const std::string& keyPath) {
    std::error_code ignored;
    const std::filesystem::file_status file = std::filesystem::status(keyPath, ignored);
    if (std::filesystem::exists(file) && !std::filesystem::is_regular_file(file))
        return "the key " + keyPath + " is no regular file";
    try {
        jwa::Key key;
        loadKey(keyPath, key);
        JSON::root header;
        std::string payload;
        if (!jws::verify(content, header, payload, key))
            return "its signature is not good under the key " + keyPath;
        content = std::move(payload);
        return "";
    } catch (const ORVError& error) {
        return "the key " + keyPath + " can't be used: " + error.what();
    }
}

// findOtherDevice compares the serial number that a document may carry, and a grant must, with the device's own, and
// returns the reason if the document isn't for this device.
std::string findOtherDevice(const JSON& document, bool mustNameIt) {
    const JSON* member = document.get("serial");
    if (member == nullptr)
        return mustNameIt ? "it names no serial number" : "";
    if (!ORVSerial::ms_bLoaded)
        ORVSerial::load();  // what can't be read counts as no serial number
    if (!ORVSerial::ms_bHasSerialNumber)
        return "this device has no serial number";
    const std::string* serial = jsonText(member);
    return serial != nullptr && *serial == ORVSerial::ms_strSerialNumber ? "" : "it is for another device";
}

bool hasForm(const std::string& text, const std::string& form) {
    const auto fits = [](char c, char sign) { return sign == 'd' ? c >= '0' && c <= '9' : c == sign; };
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), fits);
}

// parseInstant reads a UTC instant like 2026-01-31T23:59:59Z into seconds since the Unix epoch.
std::optional<int64_t> parseInstant(const std::string& text) {
    if (!hasForm(text, "dddd-dd-ddTdd:dd:ddZ"))
        return std::nullopt;
    const auto number = [&text](size_t position, size_t count) { return std::stoi(text.substr(position, count)); };
    const auto date =
        std::chrono::year(number(0, 4)) / std::chrono::month(number(5, 2)) / std::chrono::day(number(8, 2));
    const std::chrono::hours hours(number(11, 2));
    const std::chrono::minutes minutes(number(14, 2));
    const std::chrono::seconds seconds(number(17, 2));
    if (!date.ok() || hours.count() > 23 || minutes.count() > 59 || seconds.count() > 59)
        return std::nullopt;
    return (std::chrono::sys_days(date).time_since_epoch() + hours + minutes + seconds).count();
}

// takeInstant moves the optional member `key` of a feature into `entry` and its instant into `instant`.
bool takeInstant(JSON& value, const char* key, JSON& entry, int64_t& instant) {
    const JSON* member = value.get(key);
    if (member == nullptr)
        return true;
    const std::string* text = jsonText(member);
    const std::optional<int64_t> parsed = text != nullptr ? parseInstant(*text) : std::nullopt;
    if (!parsed)
        return false;
    instant = *parsed;
    entry.set(key, value.move(key));
    return true;
}

// findUnprintable returns why `params` can't be handed on, if so. The parser takes numbers that have no JSON form, and
// any depth, while readers of the document have limits of their own and its indentation grows with the depth.
std::string findUnprintable(const JSON& params) {
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
    return "";
}

// takeParams moves the optional parameters of a feature into `entry` and returns the reason if they are unfit.
std::string takeParams(JSON& value, JSON& entry) {
    const JSON* params = value.get("params");
    if (params == nullptr)
        return "";
    if (params->type != JSON::ObjectType)
        return "params is no object";
    const std::string reason = findUnprintable(*params);
    if (reason.empty())
        entry.set("params", value.move("params"));
    return reason;
}

// takeFeature makes a feature of one entry of the list and returns the reason if the entry is unfit.
std::string takeFeature(JSON& value, const std::string& label, Feature& feature) {
    if (value.type != JSON::ObjectType)
        return "it is no object";
    const std::string* name = jsonText(value.get("name"));
    if (name == nullptr || name->empty())
        return "name is no text or empty";
    feature.name = *name;
    feature.entry = JSON::Object();
    feature.entry->set("name", value.move("name"));
    feature.entry->set("source", JSON::String(label));
    if (!takeInstant(value, "validFrom", *feature.entry, feature.validFrom))
        return "validFrom is no UTC instant";
    if (!takeInstant(value, "validUntil", *feature.entry, feature.validUntil))
        return "validUntil is no UTC instant";
    return takeParams(value, *feature.entry);
}

}  // namespace

FeatureSource::FeatureSource(const std::string& path, const std::string& label) : m_strPath(path), m_strLabel(label) {}

FeatureSource::FeatureSource(const std::string& path, const std::string& label, const std::string& keyPath)
    : m_strPath(path), m_strLabel(label), m_strKeyPath(keyPath) {}

void FeatureSource::drop() {
    m_aFeatures.clear();
    m_oLoadedState = FileState();
    m_oLoadedKeyState = FileState();
}

void FeatureSource::load() {
    drop();
    if (m_strPath.empty())
        return;
    m_oLoadedState = stateOf(m_strPath);  // taken first, so that a change during the reading is found later
    m_oLoadedKeyState = stateOf(m_strKeyPath);
    const FileHolder file = openForReading(m_strPath);
    if (file == nullptr && errno == ENOENT)
        return;
    const std::string reason = file != nullptr ? readDocument(file.get()) : g_strerror(errno);
    if (!reason.empty())
        ORVLOG_ERROR(gs_pAppLogger, "features input %s counts as empty: %s", m_strPath.c_str(), reason.c_str());
}

bool FeatureSource::fileExists() const {
    return stateOf(m_strPath) != FileState();
}

bool FeatureSource::fileChanged() const {
    return stateOf(m_strPath) != m_oLoadedState || stateOf(m_strKeyPath) != m_oLoadedKeyState;
}

FeatureSource::FileState FeatureSource::stateOf(const std::string& path) {
    struct stat status {};
    if (path.empty() || stat(path.c_str(), &status) != 0)
        return FileState();
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// readDocument reads the open file and returns the reason if it counts as empty.
std::string FeatureSource::readDocument(FILE* file) {
    std::string content;
    std::string reason = readContent(file, content);
    if (reason.empty() && isGrant())
        reason = verifyGrant(content, m_strKeyPath);
    if (!reason.empty())
        return reason;
    if (!isUTF8(content))
        return "it is not UTF-8";
    const JSON::root document = JSON::parse(content);
    if (document == nullptr)
        return "it is not JSON";
    return takeDocument(*document);
}

std::string FeatureSource::takeDocument(JSON& document) {
    if (document.type != JSON::ObjectType)
        return "it is no JSON object";
    const std::string reason = findOtherDevice(document, isGrant());
    if (!reason.empty())
        return reason;
    JSON* list = document.get("features");
    if (list == nullptr || list->type != JSON::ArrayType)
        return "it has no list of features";
    takeFeatures(*list);
    return "";
}

void FeatureSource::takeFeatures(JSON& list) {
    m_aFeatures.reserve(list.size());
    for (size_t index = 0; index < list.size(); ++index) {
        Feature feature;
        const std::string reason = takeFeature(*list.at(index), m_strLabel, feature);
        if (reason.empty())
            m_aFeatures.push_back(std::move(feature));
        else
            ORVLOG_WARN(gs_pAppLogger, "%s: left out feature %zu: %s", m_strPath.c_str(), index, reason.c_str());
    }
}
