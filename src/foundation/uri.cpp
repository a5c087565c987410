// uri.cpp: the whole URI: parsing, printing, references (RFC 3986, 5.2), and what gets and sets its components.

#include "foundation/uri.h"

#include <cstring>

#include "foundation/base64.h"
#include "foundation/uri/uri_text.h"
#include "foundation/uri/uri_write.h"

namespace {

constexpr std::string_view DATA_SCHEME = "data";

constexpr UriNormalForm USER_INFO_FORM("!$&'()*+;=", ":,");
constexpr UriNormalForm QUERY_FORM("", "+;&=[]");
constexpr UriNormalForm FRAGMENT_FORM("!$&'()*+,;=:/?@", "[]");

// isRooted returns whether every path of this origin is absolute.
bool isRooted(const URI::Origin& origin) {
    return !origin.scheme.empty() && !origin.host.empty();
}

bool isEmpty(const URI::Path& path) {
    return path.segments.empty() && !path.trailingSlash;
}

// --- parsing ---------------------------------------------------------------------------------------------------------

// normalizeUserInfo brings user information into normal form. A bad escape in it is repaired and not an error.
bool normalizeUserInfo(std::string& userInfo) {
    if (userInfo.empty())
        return true;
    if (userInfo.find_first_of("[]") != userInfo.npos)
        return false;
    std::string normal;
    uriAppendNormalized(normal, userInfo, USER_INFO_FORM, false);
    userInfo = std::move(normal);
    return true;
}

// storeNormalForm checks the escapes of a component and stores its normal form.
bool storeNormalForm(std::string_view text, const UriNormalForm& form, bool skipPatterns, std::string& component) {
    if (!uriHasValidEscapes(text, skipPatterns))
        return false;
    uriAppendNormalized(component, text, form, skipPatterns);
    return true;
}

bool parseQuery(const char*& cursor, std::string& query, bool skipPatterns) {
    if (*cursor != '?')
        return true;
    const char* start = cursor + 1;
    const char* end = skipPatterns ? URI::findSkipPattern(start, '#') : std::strchr(start, '#');
    cursor = end != nullptr ? end : start + std::strlen(start);
    return storeNormalForm(std::string_view(start, cursor), QUERY_FORM, skipPatterns, query);
}

bool parseFragment(const char*& cursor, std::string& fragment, bool skipPatterns) {
    if (*cursor != '#')
        return true;
    const char* start = cursor + 1;
    cursor = start + std::strlen(start);
    return storeNormalForm(std::string_view(start, cursor), FRAGMENT_FORM, skipPatterns, fragment);
}

bool parseData(const char* text, URI& uri) {
    return uri.origin.host.empty() && uri.userInfo.empty() && uri.parseFromDataURI(text);
}

bool parse(const char* text, URI& uri, bool skipPatterns) {
    bool hasAuthority = false;
    const char* cursor = uri.origin.parseFromURI(text, &uri.userInfo, &hasAuthority);
    if (cursor == nullptr || !normalizeUserInfo(uri.userInfo))
        return false;
    if (uri.origin.scheme == DATA_SCHEME)
        return parseData(cursor, uri);
    cursor = uri.path.parseFromURI(cursor, skipPatterns);
    if (cursor == nullptr)
        return false;
    if (!parseQuery(cursor, uri.query, skipPatterns) || !parseFragment(cursor, uri.fragment, skipPatterns))
        return false;
    uri.path.removeDotSegments(!uri.origin.scheme.empty() && hasAuthority);
    return true;
}

// --- printing --------------------------------------------------------------------------------------------------------

// Printer writes one of the two texts of a URI, with these user information, query and fragment.
struct Printer {
    const URI& uri;
    std::string_view userInfo;
    std::string_view query;
    std::string_view fragment;
    const UriEscaping& escaping;
    bool skipPatterns;

    std::string text() const;

private:
    char* write(char* out) const;
    char* writeAuthority(char* out) const;
    size_t room() const;
};

std::string Printer::text() const {
    return uriWritten(room(), [this](char* out) { return write(out); });
}

// writeAuthority writes "//" and the authority. Without a host only "udp" and "rtp" have one: their port is where a
// multicast is received.
char* Printer::writeAuthority(char* out) const {
    const URI::Origin& origin = uri.origin;
    if (!origin.host.empty()) {
        out = uriWrite(out, "//");
        if (!userInfo.empty())
            out = uriWrite(uriWrite(out, userInfo), '@');
        return uriWriteHostPort(out, origin);
    }
    if (origin.scheme == "udp" || origin.scheme == "rtp")
        return uriWriteHostPort(uriWrite(out, "//@"), origin);
    return out;
}

char* writeMarked(char* out, char mark, std::string_view component) {
    return component.empty() ? out : uriWrite(uriWrite(out, mark), component);
}

char* Printer::write(char* out) const {
    out = uriWriteScheme(out, uri.origin);
    out = writeAuthority(out);
    if (!isEmpty(uri.path))
        out = uriWritePath(out, uri.path, escaping, skipPatterns);
    out = writeMarked(out, '?', query);
    return writeMarked(out, '#', fragment);
}

size_t Printer::room() const {
    return uriRoomOrigin(uri.origin) + uriRoomPath(uri.path) + userInfo.size() + query.size() + fragment.size() +
           std::strlen("//@?#");
}

// dataStart returns the text of a data URI up to its content; without data just the scheme.
std::string dataStart(const URI& uri) {
    static constexpr UriEscaping escaping(UriBytes(URI_UNRESERVED).add("!$&'()*+=;:@/[]\""));
    const std::string_view type = uri.data != nullptr ? uri.data->mimeType : std::string_view();
    return uriWritten(uriRoomOrigin(uri.origin) + uriRoomEscaped(type),
                      [&](char* out) { return uriWriteEscaped(uriWriteScheme(out, uri.origin), type, escaping); });
}

std::string printData(const URI& uri) {
    if (uri.data == nullptr)
        return dataStart(uri);
    return dataStart(uri) + ";base64," + orv::base64Encode(uri.data->bytes.data(), uri.data->bytes.size());
}

std::string printUserData(const URI& uri) {
    return uri.data == nullptr ? dataStart(uri) : dataStart(uri) + ",[...]";
}

// --- resolving -------------------------------------------------------------------------------------------------------

// isNeverReference returns whether URIs of this scheme are taken as they are, whatever the base.
bool isNeverReference(const std::string& scheme) {
    return scheme == DATA_SCHEME || scheme == "rtp" || scheme == "udp" || scheme == "uvc";
}

bool isReference(const URI& uri, const URI& base) {
    if (isNeverReference(uri.origin.scheme))
        return false;
    return uri.origin.scheme.empty() || (uri.origin.scheme == base.origin.scheme && uri.origin.host.empty());
}

// hasHierarchy returns whether URIs of this scheme have references relative to each other.
bool hasHierarchy(const std::string& scheme) {
    return !scheme.empty() && scheme != "urn" && scheme != DATA_SCHEME;
}

}  // namespace

URI::URI(Origin&& ofOrigin) : origin(std::move(ofOrigin)) {
    path.absolute = path.trailingSlash = isRooted(origin);
}

URI::URI(const Origin& ofOrigin) : URI(Origin(ofOrigin)) {}

URI::URI(Path&& ofPath) : path(std::move(ofPath)) {}

URI::URI(const Path& ofPath) : path(ofPath) {}

URI::URI(Origin ofOrigin, Path ofPath) : origin(std::move(ofOrigin)), path(std::move(ofPath)) {
    path.absolute = path.absolute || isRooted(origin);
}

URI URI::fromString(const char* text, bool skipPatterns) {
    if (text[0] == '/' && text[1] == '/')
        return fromString("file:" + std::string(text), skipPatterns);
    URI uri;
    if (!parse(text, uri, skipPatterns))
        uri = URI();
    return uri;
}

URI URI::fromString(const std::string& text, bool skipPatterns) {
    return fromString(text.c_str(), skipPatterns);
}

URI URI::fromFileName(const std::string& name) {
    if (name.starts_with("//"))
        return URI();
    return URI(Origin("file", ""), Path::fromFileName(name));
}

URI URI::commonBase(const URI& a, const URI& b) {
    URI base;
    if (a.origin.compare(b.origin) != 0 || a.userInfo != b.userInfo)
        return base;
    base.origin = a.origin;
    base.userInfo = a.userInfo;
    base.path = Path::commonBase(a.path, b.path);
    return base;
}

std::string URI::toString(bool skipPatterns) const {
    if (origin.scheme == DATA_SCHEME)
        return printData(*this);
    const UriEscaping& escaping = origin.scheme == "rtsp" ? URI_PATH_ESCAPING_PLUS : URI_PATH_ESCAPING;
    return Printer{*this, userInfo, query, fragment, escaping, skipPatterns}.text();
}

std::string URI::toUserString(bool skipPatterns) const {
    if (origin.scheme == DATA_SCHEME)
        return printUserData(*this);
    const std::string user = smartUnescapeURIComponent(userInfo, "@:/?#[]");
    const std::string userQuery = smartUnescapeURIComponent(query, "&=#", skipPatterns);
    const std::string userFragment = smartUnescapeURIComponent(fragment, "#", skipPatterns);
    return Printer{*this, user, userQuery, userFragment, URI_PATH_USER_ESCAPING, skipPatterns}.text();
}

std::string URI::getFileName() const {
    const bool isFile = origin.scheme.empty() || origin.scheme == "file";
    const bool isLocal = origin.host.empty() || origin.host == "localhost";
    return isFile && isLocal ? path.toFileName() : "";
}

std::string URI::resourceName() const {
    return path.trailingSlash ? "" : path.lastSegmentName();
}

URI URI::resourceDir() const {
    return URI(origin, path.resourceDir());
}

int URI::compare(const URI& other) const {
    if (const int order = origin.compare(other.origin); order != 0)
        return order;
    if (const int order = uriCompareText(userInfo, other.userInfo); order != 0)
        return order;
    if (const int order = path.compare(other.path); order != 0)
        return order;
    if (const int order = uriCompareText(query, other.query); order != 0)
        return order;
    return uriCompareText(fragment, other.fragment);
}

bool URI::getPathUnder(const URI& root, Path& out) const {
    Path relative = path;
    const bool isUnder =
        origin.compare(root.origin) == 0 && origin.scheme != DATA_SCHEME && relative.removeRoot(root.path);
    out = isUnder ? std::move(relative) : Path();
    return isUnder;
}

void URI::setOrigin(Origin&& value) {
    origin = std::move(value);
}

void URI::setOrigin(const Origin& value) {
    origin = value;
}

void URI::setPath(Path&& value) {
    path = std::move(value);
    path.removeDotSegments(isRooted(origin));
}

void URI::setPath(const Path& value) {
    setPath(Path(value));
}

void URI::setQuery(std::string&& value) {
    query = std::move(value);
}

void URI::setQuery(const std::string& value) {
    query = value;
}

void URI::setFragment(std::string&& value) {
    fragment = std::move(value);
}

void URI::setFragment(const std::string& value) {
    fragment = value;
}

void URI::setUserInfo(std::string&& value) {
    userInfo = std::move(value);
}

void URI::setUserInfo(const std::string& value) {
    userInfo = value;
}

URI& URI::resolve(const URI& base) {
    if (!isReference(*this, base))
        return *this;
    origin.scheme = base.origin.scheme;
    if (!origin.host.empty())
        return *this;
    origin.host = base.origin.host;
    origin.port = base.origin.port;
    userInfo = base.userInfo;
    if (isEmpty(path)) {
        path = base.path;
        if (query.empty())
            query = base.query;
        return *this;
    }
    path.resolve(base.path, isRooted(origin));
    return *this;
}

URI& URI::makeRelative(const URI& base) {
    if (!hasHierarchy(origin.scheme) || !hasHierarchy(base.origin.scheme) || origin.compare(base.origin) != 0)
        return *this;
    origin.clear();
    path.makeRelative(base.path);
    return *this;
}
