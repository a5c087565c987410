// uri_path.cpp: paths: parsing, file names, relations between paths, dot segments (RFC 3986, 5.2 and 6.2.2.3).

#include <algorithm>
#include <iterator>

#include "foundation/uri/uri_region.h"
#include "foundation/uri/uri_text.h"
#include "foundation/uri/uri_write.h"

namespace {

constexpr UriBytes ALL_BYTES = UriBytes().addRange(0, 255);
constexpr UriEscaping NO_ESCAPING(ALL_BYTES);

// SEGMENT_ENDS are the bytes at which a segment ends; at all of them but the slash the path ends too. PLAIN_BYTES need
// no second look.
constexpr UriBytes SEGMENT_ENDS = UriBytes(std::string_view("/?#\0", 4));
constexpr UriBytes SEGMENT_BYTES = UriBytes(ALL_BYTES).remove(std::string_view("/?#\0", 4));
constexpr UriBytes PLAIN_BYTES = UriBytes(SEGMENT_BYTES).remove("%[");

// USUAL_SEGMENTS is a number that the segments of most paths do not exceed.
constexpr size_t USUAL_SEGMENTS = 4;

constexpr std::string_view CURRENT = ".";
constexpr std::string_view PARENT = "..";

// SegmentScanner finds where segments end, still escaped.
class SegmentScanner {
public:
    SegmentScanner(const char* text, bool skipPatterns)
        : m_strText(skipPatterns ? text : ""), m_bMayHaveRegions(skipPatterns) {}

    // segmentEnd returns the end of the segment at `start`. A region that begins in a segment belongs to it as a whole.
    const char* segmentEnd(const char* start) {
        const char* end = uriSkip(start, SEGMENT_BYTES);
        while (const char* after = regionEnd(start, end)) {
            start = after;
            if (start > end)
                end = uriSkip(start, SEGMENT_BYTES);
        }
        return end;
    }

private:
    // regionEnd returns what follows the first region that begins from `start` on and before `limit`, null without one.
    const char* regionEnd(const char* start, const char* limit) {
        if (!m_bMayHaveRegions)
            return nullptr;
        const size_t opening = std::string_view(start, limit).find("[[");
        if (opening == std::string_view::npos)
            return nullptr;
        const size_t closing = m_strText.find("]]", start + opening + 2 - m_strText.data());
        m_bMayHaveRegions = closing != std::string_view::npos;
        return m_bMayHaveRegions ? m_strText.data() + closing + 2 : nullptr;
    }

    // The path with all that follows it, as a region may reach beyond; empty without regions.
    const std::string_view m_strText;

    // False as well after an opening without a closing: no later one has a closing either.
    bool m_bMayHaveRegions;
};

// appendDecodedSegment decodes around regions, which it copies; false at a bad escape; the pieces after that one are
// not written.
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

bool isPathEnd(char c) {
    return SEGMENT_ENDS.has(c) && c != '/';
}

// storeDecoded decodes a segment and stores it. Returns false on a bad escape; the segment is stored even then.
bool storeDecoded(URI::Path::Segments& segments, std::string_view escaped, bool skipPatterns) {
    std::string& segment = segments.emplace_back();
    segment.reserve(escaped.size());
    return skipPatterns ? appendDecodedSegment(segment, escaped) : uriAppendUnescaped(segment, escaped);
}

std::string pathText(const URI::Path& path, const UriEscaping& escaping, bool skipPatterns) {
    return uriWritten(uriRoomPath(path), [&](char* out) { return uriWritePath(out, path, escaping, skipPatterns); });
}

// sharedSegments returns the number of leading segments that both have.
size_t sharedSegments(const URI::Path::Segments& a, const URI::Path::Segments& b) {
    return static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

URI::Path::Segments::iterator segmentAt(URI::Path::Segments& segments, size_t index) {
    return segments.begin() + static_cast<URI::Path::Segments::difference_type>(index);
}

// cancelsNothing returns whether a ".." after these segments has to stay.
bool cancelsNothing(const URI::Path::Segments& segments, size_t count) {
    return count == 0 || segments[count - 1] == PARENT;
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
    const char* at = text;
    if (*at == '/') {
        absolute = true;
        ++at;
    }
    SegmentScanner scanner(text, skipPatterns);
    segments.reserve(isPathEnd(*at) ? 0 : USUAL_SEGMENTS);
    while (!isPathEnd(*at)) {
        const char* end = uriSkip(at, PLAIN_BYTES);
        if (SEGMENT_ENDS.has(*end)) {
            segments.emplace_back(at, end);
        } else {
            end = scanner.segmentEnd(at);
            if (!storeDecoded(segments, std::string_view(at, end), skipPatterns))
                return nullptr;
        }
        at = *end == '/' ? end + 1 : end;
    }
    trailingSlash = trailingSlash || (at > text && at[-1] == '/');
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
    return pathText(*this, NO_ESCAPING, false);
}

std::string URI::Path::toFileName() const {
    return toString();
}

std::string URI::Path::toEscapedURIPath(bool skipPatterns, bool keepPlus) const {
    return pathText(*this, keepPlus ? URI_PATH_ESCAPING_PLUS : URI_PATH_ESCAPING, skipPatterns);
}

std::string URI::Path::toCanonicalURIPath() const {
    return pathText(*this, URI_STRICT_ESCAPING, false);
}

std::string URI::Path::toUserURIPath(bool skipPatterns) const {
    return pathText(*this, URI_PATH_USER_ESCAPING, skipPatterns);
}

char* uriWritePath(char* out, const URI::Path& path, const UriEscaping& escaping, bool skipPatterns) {
    if (path.segments.empty())
        return uriWrite(out, path.absolute ? "/" : path.trailingSlash ? "./" : "");
    bool separate = path.absolute;
    for (const std::string& segment : path.segments) {
        if (separate)
            out = uriWrite(out, '/');
        separate = true;
        out = uriWriteEscaped(out, segment, escaping, skipPatterns);
    }
    return path.trailingSlash ? uriWrite(out, '/') : out;
}

size_t uriRoomPath(const URI::Path& path) {
    size_t room = 2;  // "./", or the slashes at both ends
    for (const std::string& segment : path.segments)
        room += uriRoomEscaped(segment) + 1;
    return room;
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
    segments.erase(segments.begin(), segmentAt(segments, count));
    absolute = false;
    trailingSlash = trailingSlash || segments.empty();
    return true;
}

URI::Path& URI::Path::removeDotSegments(bool rooted) {
    size_t kept = 0;
    bool removed = false;
    for (std::string& segment : segments) {
        const bool up = segment == PARENT && (rooted || !cancelsNothing(segments, kept));
        removed = up || segment == CURRENT;
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
    segments.erase(segments.begin(), segmentAt(segments, shared));
    segments.insert(segments.begin(), dirCount - shared, std::string(PARENT));
    return *this;
}
