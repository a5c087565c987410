// uri_path.cpp: paths: parsing, file names, relations between paths, dot segments (RFC 3986, 5.2 and 6.2.2.3).

#include <algorithm>
#include <cstring>
#include <iterator>

#include "foundation/uri_text.h"

namespace {

constexpr const char* PATH_END = "?#";

// PathScanner cuts an escaped path into its segments, still escaped.
class PathScanner {
public:
    PathScanner(const char* text, bool skipPatterns)
        : m_pEnd(pathEnd(text)), m_strRest(skipPatterns ? std::string_view(text) : std::string_view()) {}

    // end gives the end of the path as far as known: a region in the segment found last may have moved it.
    const char* end() const { return m_pEnd; }

    // segmentEnd gives the first slash from `start` on outside regions, or the end of the path. A region that begins
    // in the path belongs to it as a whole.
    const char* segmentEnd(const char* start) {
        const char* candidate = slashOrEnd(start);
        while (const char* behind = regionEnd(start, candidate)) {
            start = behind;
            if (start > m_pEnd)
                m_pEnd = pathEnd(start);
            if (start > candidate)
                candidate = slashOrEnd(start);
        }
        return candidate;
    }

private:
    static const char* pathEnd(const char* text) { return text + std::strcspn(text, PATH_END); }

    const char* slashOrEnd(const char* start) const { return std::find(start, m_pEnd, '/'); }

    // regionEnd gives what follows the first region that begins from `start` on and before `limit`, null without one.
    const char* regionEnd(const char* start, const char* limit) {
        if (m_strRest.empty())
            return nullptr;
        const size_t opening = std::string_view(start, limit).find("[[");
        if (opening == std::string_view::npos)
            return nullptr;
        const size_t closing = m_strRest.find("]]", start + opening + 2 - m_strRest.data());
        if (closing != std::string_view::npos)
            return m_strRest.data() + closing + 2;
        m_strRest = {};
        return nullptr;
    }

    const char* m_pEnd;

    // The text with what follows the path; empty when there are no regions, or none any more.
    std::string_view m_strRest;
};

// appendDecodedSegment decodes around regions, which it copies; false at a bad escape, behind which nothing follows.
bool appendDecodedSegment(std::string& out, std::string_view text) {
    bool valid = true;
    uriForEachPiece(
        text, [&](std::string_view piece) { valid = valid && uriAppendUnescaped(out, piece); },
        [&](std::string_view region) {
            if (valid)
                out += region;
        });
    return valid;
}

void appendVerbatim(std::string& out, const std::string& segment) {
    out += segment;
}

// sharedSegments gives the number of leading segments that both have.
size_t sharedSegments(const URI::Path::Segments& a, const URI::Path::Segments& b) {
    return static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

URI::Path::Segments::iterator at(URI::Path::Segments& segments, size_t index) {
    return segments.begin() + static_cast<URI::Path::Segments::difference_type>(index);
}

// cancelsNothing tells whether a ".." behind these segments has to stay.
bool cancelsNothing(const URI::Path::Segments& segments, size_t count) {
    return count == 0 || segments[count - 1] == "..";
}

}  // namespace

// --- making ----------------------------------------------------------------------------------------------------------

URI::Path::Path(std::string&& segment, bool trailing) : trailingSlash(trailing) {
    segments.push_back(std::move(segment));
}

URI::Path::Path(const std::string& segment, bool trailing) : trailingSlash(trailing), segments{segment} {}

URI::Path::Path(const char* segment, bool trailing) : trailingSlash(trailing), segments{segment} {}

URI::Path::Path(std::initializer_list<std::string> list, bool trailing) : trailingSlash(trailing), segments(list) {}

URI::Path URI::Path::fromEscapedURIPath(const std::string& text) {
    Path path;
    if (path.parseFromURI(text.c_str()) == nullptr)
        path.clear();
    return path;
}

const char* URI::Path::parseFromURI(const char* text, bool skipPatterns) {
    PathScanner scanner(text, skipPatterns);
    if (text == scanner.end())
        return text;
    segments.reserve(static_cast<size_t>(std::count(text, scanner.end(), '/')) + 1);
    const char* at = text;
    if (*at == '/') {
        absolute = true;
        ++at;
    }
    while (at < scanner.end()) {
        const char* segmentEnd = scanner.segmentEnd(at);
        const std::string_view segment(at, segmentEnd);
        std::string& decoded = segments.emplace_back();
        decoded.reserve(segment.size());
        if (!(skipPatterns ? appendDecodedSegment(decoded, segment) : uriAppendUnescaped(decoded, segment)))
            return nullptr;
        at = segmentEnd < scanner.end() ? segmentEnd + 1 : segmentEnd;
    }
    trailingSlash = trailingSlash || at[-1] == '/';
    return at;
}

URI::Path URI::Path::fromFileName(const std::string& name) {
    Path path;
    const std::string_view text(name);
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('/', at), text.size());
        if (end > at)
            path.segments.emplace_back(text.substr(at, end - at));
        else if (path.segments.empty())
            path.absolute = true;
        at = end + 1;
    }
    path.trailingSlash = !path.segments.empty() && text.back() == '/';
    path.removeDotSegments(false);
    return path;
}

URI::Path URI::Path::fromString(const std::string& name) {
    return fromFileName(name);
}

// --- printing --------------------------------------------------------------------------------------------------------

std::string URI::Path::toString() const {
    return uriPrintPath(*this, appendVerbatim);
}

std::string URI::Path::toFileName() const {
    return toString();
}

// --- looking ---------------------------------------------------------------------------------------------------------

bool URI::Path::contains(const std::string& segment) const {
    return std::find(segments.begin(), segments.end(), segment) != segments.end();
}

bool URI::Path::beginsWith(const Path& prefix) const {
    if (absolute != prefix.absolute || prefix.segments.size() > segments.size())
        return false;
    if (prefix.segments.size() == segments.size() && prefix.trailingSlash && !trailingSlash)
        return false;
    return std::equal(prefix.segments.begin(), prefix.segments.end(), segments.begin());
}

int URI::Path::compare(const Path& other) const {
    if (absolute != other.absolute)
        return absolute ? -1 : 1;
    const size_t shared = std::min(segments.size(), other.segments.size());
    for (size_t index = 0; index < shared; ++index) {
        const int order = uriCompareText(segments[index], other.segments[index]);
        if (order != 0)
            return order;
    }
    if (segments.size() != other.segments.size())
        return segments.size() < other.segments.size() ? -1 : 1;
    return static_cast<int>(trailingSlash) - static_cast<int>(other.trailingSlash);
}

const std::string& URI::Path::lastSegmentName() const {
    static const std::string none;
    return segments.empty() ? none : segments.back();
}

URI::Path URI::Path::lastSegment() const {
    Path last;
    last.trailingSlash = trailingSlash;
    if (!segments.empty())
        last.segments.push_back(segments.back());
    return last;
}

URI::Path URI::Path::subPath(unsigned first, unsigned last) const {
    const size_t count = std::min<size_t>(last, segments.size());
    const auto end = segments.begin() + static_cast<Segments::difference_type>(count);
    Path part;
    part.absolute = first == 0 && absolute;
    part.trailingSlash = end != segments.end() || trailingSlash;
    part.segments.assign(segments.begin() + first, end);
    return part;
}

URI::Path URI::Path::resourceName() const {
    return trailingSlash ? Path() : lastSegment();
}

URI::Path URI::Path::resourceDir() const {
    if (trailingSlash || segments.empty())
        return *this;
    return subPath(0, static_cast<unsigned>(segments.size() - 1));
}

URI::Path URI::Path::topDir() const {
    if (!absolute || segments.empty() || (!trailingSlash && segments.size() == 1))
        return {};
    return subPath(0, 1);
}

URI::Path URI::Path::afterTopDir() const {
    return absolute && segments.size() >= 2 ? subPath(1, static_cast<unsigned>(-1)) : Path();
}

URI::Path URI::Path::commonBase(const Path& a, const Path& b) {
    if (a.absolute != b.absolute)
        return {};
    const size_t shared = sharedSegments(a.segments, b.segments);
    const bool sameSegments = shared == a.segments.size() && shared == b.segments.size();
    Path base = a.subPath(0, static_cast<unsigned>(shared));
    base.trailingSlash = !sameSegments || a.trailingSlash || b.trailingSlash;
    return base;
}

// --- changing --------------------------------------------------------------------------------------------------------

void URI::Path::clear() {
    absolute = false;
    trailingSlash = false;
    segments.clear();
}

URI::Path& URI::Path::append(std::string&& segment, bool trailing) {
    segments.push_back(std::move(segment));
    trailingSlash = trailing;
    return *this;
}

URI::Path& URI::Path::append(const std::string& segment, bool trailing) {
    segments.push_back(segment);
    trailingSlash = trailing;
    return *this;
}

URI::Path& URI::Path::append(const Path& tail) {
    // By index: the tail may be this path.
    const size_t count = tail.segments.size();
    for (size_t index = 0; index < count; ++index)
        segments.push_back(tail.segments[index]);
    trailingSlash = tail.trailingSlash || (count == 0 && trailingSlash);
    return *this;
}

URI::Path URI::Path::slash(std::string&& segment, bool trailing) const {
    Path result = *this;
    result.append(std::move(segment), trailing);
    return result;
}

URI::Path URI::Path::slash(const std::string& segment, bool trailing) const {
    Path result = *this;
    result.append(segment, trailing);
    return result;
}

URI::Path URI::Path::slash(const Path& tail) const {
    Path result = *this;
    result.append(tail);
    return result;
}

URI::Path& URI::Path::addSuffix(const std::string& suffix) {
    if (trailingSlash || segments.empty())
        segments.push_back(suffix);
    else
        segments.back() += suffix;
    return *this;
}

bool URI::Path::removeRoot(const Path& root) {
    const size_t count = root.segments.size();
    if (absolute != root.absolute || sharedSegments(segments, root.segments) != count)
        return false;
    segments.erase(segments.begin(), at(segments, count));
    absolute = false;
    trailingSlash = trailingSlash || segments.empty();
    return true;
}

URI::Path& URI::Path::removeDotSegments(bool rooted) {
    size_t kept = 0;
    bool removed = false;
    for (std::string& segment : segments) {
        const bool up = segment == ".." && (rooted || !cancelsNothing(segments, kept));
        removed = up || segment == ".";
        if (up && kept > 0)
            --kept;
        if (removed)
            continue;
        if (&segment != &segments[kept])
            segments[kept] = std::move(segment);
        ++kept;
    }
    segments.resize(kept);
    absolute = absolute || rooted;
    trailingSlash = trailingSlash || removed || (rooted && kept == 0);
    return *this;
}

URI::Path& URI::Path::resolve(const Path& base, bool rooted) {
    if (absolute)
        return removeDotSegments(rooted);
    absolute = base.absolute;
    if (segments.empty() && !trailingSlash) {
        segments = base.segments;
        trailingSlash = base.trailingSlash;
        return removeDotSegments(rooted);
    }
    const size_t dirCount = base.segments.size() - (base.trailingSlash || base.segments.empty() ? 0 : 1);
    // Into a list of its own: the base may be this path.
    Segments merged;
    merged.reserve(dirCount + segments.size());
    merged.assign(base.segments.begin(), base.segments.begin() + static_cast<Segments::difference_type>(dirCount));
    std::move(segments.begin(), segments.end(), std::back_inserter(merged));
    segments = std::move(merged);
    return removeDotSegments(rooted);
}

URI::Path& URI::Path::makeRelative(const Path& base) {
    if (!absolute || !base.absolute)
        return *this;
    const size_t baseCount = base.segments.size();
    const bool namesResource = !base.trailingSlash && baseCount > 0;
    const size_t dirCount = baseCount - (namesResource ? 1 : 0);
    // The base's last segment names a resource, so one that is shared stays in the result.
    const size_t shared = std::min(sharedSegments(segments, base.segments), dirCount);
    absolute = false;
    segments.erase(segments.begin(), at(segments, shared));
    segments.insert(segments.begin(), dirCount - shared, "..");
    return *this;
}
