#include <idn-free.h>
#include <idna.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "foundation/ascii.h"
#include "foundation/uri.h"
#include "foundation/uri/uri_text.h"
#include "foundation/uri/uri_write.h"

namespace {

constexpr uint32_t MAX_PORT = 65535;
constexpr size_t PORT_ROOM = 10;  // digits of any uint32_t: one that was set by hand is not checked
constexpr size_t MAX_GROUP_DIGITS = 4;
constexpr unsigned IPV6_GROUPS = 8;
constexpr unsigned QUAD_DOTS = 3;
constexpr unsigned MAX_QUAD_VALUE = 255;

// MAX_NAME_LENGTH limits names that pass through libidn, whose time grows with the square of the length. No name in use
// comes near it.
constexpr size_t MAX_NAME_LENGTH = 16384;

constexpr size_t MAX_LABEL_LENGTH = 63;

// AUTHORITY_BYTES are the bytes of an authority, which ends at one of the others or the terminator.
constexpr UriBytes AUTHORITY_BYTES = UriBytes().addRange(1, 255).remove("/?#");

constexpr UriBytes SCHEME_BYTES = UriBytes(URI_ALNUM).add("+-.");

struct DefaultPort {
    std::string_view scheme;
    uint32_t port;
};

// DEFAULT_PORTS needs no row for schemes without a port ("file", "orv", "project"). "ftpes" uses the control port of
// "ftp".
constexpr DefaultPort DEFAULT_PORTS[] = {
    {"http", 80},    {"https", 443},      {"ws", 80},     {"wss", 443},    {"rtsp", 554},  {"rtmp", 1935},
    {"rtmps", 443},  {"ftp", 21},         {"ftpes", 21},  {"ftps", 990},   {"coap", 5683}, {"coap+tcp", 5683},
    {"coaps", 5684}, {"coaps+tcp", 5684}, {"mqtt", 1883}, {"mqtts", 8883},
};

void lowerCase(std::string& text) {
    std::transform(text.begin(), text.end(), text.begin(), ascii::toLower);
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ';
}

bool isZoneCharacter(char c) {
    return URI_ALNUM.has(c) || c == '-';
}

bool isHostCharacter(char c) {
    return URI_ALNUM.has(c) || c == '-' || c == '.' || static_cast<unsigned char>(c) >= 0x80;
}

bool isOpaqueHostScheme(std::string_view scheme) {
    return scheme == "orv" || scheme == "project";
}

bool mayHavePortWithoutHost(std::string_view scheme) {
    return scheme == "file" || scheme == "udp" || scheme == "rtp";
}

bool isOpaqueHost(const std::string& host) {
    return std::none_of(host.begin(), host.end(), isControl);
}

bool isHostName(const std::string& host, bool allowTrailingDash) {
    if (host.starts_with('-') || (host.ends_with('-') && !allowTrailingDash))
        return false;
    return std::all_of(host.begin(), host.end(), isHostCharacter);
}

bool isZone(std::string_view zone) {
    return std::all_of(zone.begin(), zone.end(), isZoneCharacter);
}

bool isLabelLength(size_t length) {
    return length > 0 && length <= MAX_LABEL_LENGTH;
}

bool isDashInLabel(std::string_view name, size_t at) {
    return name[at] == '-' && at > 0 && name[at - 1] != '.' && at + 1 < name.size() && name[at + 1] != '.';
}

// isPlainName returns whether a name is of the usual kind, in which no step would change anything but capitals, so that
// it need not pass through libidn.
bool isPlainName(std::string_view name) {
    size_t label = 0;
    for (size_t at = 0; at < name.size(); ++at) {
        if (URI_ALNUM.has(name[at]))
            continue;
        if (name[at] == '.' && isLabelLength(at - label))
            label = at + 1;
        else if (!isDashInLabel(name, at))
            return false;
    }
    const bool endsInDot = label > 0 && label == name.size();
    return endsInDot || isLabelLength(name.size() - label);
}

// --- addresses -------------------------------------------------------------------------------------------------------

bool isDottedQuad(std::string_view text) {
    unsigned dots = 0;
    unsigned value = 0;
    bool hasDigit = false;
    for (const char c : text) {
        if (c == '.') {
            if (!hasDigit || ++dots > QUAD_DOTS)
                return false;
            value = 0;
            hasDigit = false;
        } else {
            if (!ascii::isDigit(c))
                return false;
            value = value * 10 + static_cast<unsigned>(c - '0');
            if (value > MAX_QUAD_VALUE)
                return false;
            hasDigit = true;
        }
    }
    return dots == QUAD_DOTS && hasDigit;
}

size_t countHexDigits(std::string_view text) {
    const auto end = std::find_if(text.begin(), text.end(), [](char c) { return ascii::hexValue(c) < 0; });
    return static_cast<size_t>(end - text.begin());
}

// takeCompression takes a "::" off the front of the text; false if there is none or there was one before.
bool takeCompression(std::string_view& text, bool& compressed) {
    if (compressed || !text.starts_with("::"))
        return false;
    compressed = true;
    text.remove_prefix(2);
    return true;
}

// takeGroupEnd takes what may follow a group, a separator or the end of the text, off the front of the text.
bool takeGroupEnd(std::string_view& text, bool& compressed) {
    if (text.empty() || takeCompression(text, compressed))
        return true;
    if (!text.starts_with(':'))
        return false;
    text.remove_prefix(1);
    return true;
}

bool isGroupCount(unsigned groups, bool compressed) {
    return compressed ? groups >= 1 && groups < IPV6_GROUPS : groups == IPV6_GROUPS;
}

// isIPv6Address is not a full test of RFC 4291. Kept: "::" alone is not an address, a group before a zone is not
// counted, and a single ":" may be at the end.
bool isIPv6Address(std::string_view text) {
    const std::string_view firstGroup = text.substr(0, MAX_GROUP_DIGITS + 1);
    if (std::find(firstGroup.begin(), firstGroup.end(), ':') == firstGroup.end())
        return false;
    bool compressed = false;
    if (takeCompression(text, compressed) && text.empty())
        return false;
    unsigned groups = 0;
    while (!text.empty()) {
        const size_t digits = countHexDigits(text);
        if (digits == 0 || digits > MAX_GROUP_DIGITS)
            return false;
        const std::string_view rest = text.substr(digits);
        if (rest.starts_with('.'))
            return isDottedQuad(text.substr(0, text.find('%'))) && isGroupCount(groups + 2, compressed);
        if (rest.starts_with('%'))
            break;
        ++groups;
        text = rest;
        if (!takeGroupEnd(text, compressed))
            return false;
    }
    return isGroupCount(groups, compressed);
}

// --- parsing ---------------------------------------------------------------------------------------------------------

// parseScheme reads a scheme and returns what follows its colon; null if the text does not begin with one.
const char* parseScheme(const char* text, std::string& scheme) {
    if (!ascii::isLetter(*text))
        return nullptr;
    const char* end = uriSkip(text, SCHEME_BYTES);
    if (*end != ':')
        return nullptr;
    for (; text != end; ++text)
        scheme += ascii::toLower(*text);
    return end + 1;
}

// takeUserInfo takes the user information and its "@" off the front of the text.
void takeUserInfo(std::string_view& text, std::string* userInfo) {
    const size_t at = text.find('@');
    if (at == text.npos)
        return;
    if (userInfo != nullptr)
        *userInfo = text.substr(0, at);
    text.remove_prefix(at + 1);
}

bool parseOpaqueHost(std::string_view text, std::string& host) {
    return uriAppendUnescaped(host, text) && !host.empty() && isOpaqueHost(host);
}

// decodeZone replaces an escaped zone after "%25" (RFC 6874) by "%" and the zone.
bool decodeZone(std::string& host) {
    constexpr std::string_view mark = "%25";
    const size_t percent = host.find('%');
    if (percent == host.npos)
        return true;
    if (host.compare(percent, mark.size(), mark) != 0 || percent + mark.size() == host.size())
        return false;
    const std::string_view escaped = std::string_view(host).substr(percent + mark.size());
    if (escaped.find_first_of("[]@") != escaped.npos)
        return false;
    std::string zone;
    if (!uriAppendUnescaped(zone, escaped) || !isZone(zone))
        return false;
    host.replace(percent + 1, host.npos, zone);
    return true;
}

// parseIPv6Literal reads an address in brackets and takes it off the front of the text.
bool parseIPv6Literal(std::string_view& text, std::string& host) {
    const size_t close = text.find(']', 1);
    if (close == text.npos)
        return false;
    host = text.substr(1, close - 1);
    text.remove_prefix(close + 1);
    return (text.empty() || text.starts_with(':')) && isIPv6Address(host) && decodeZone(host);
}

// parseHostName reads a name up to a colon and takes it off the front of the text.
bool parseHostName(std::string_view& text, URI::Origin& origin) {
    const std::string_view name = text.substr(0, text.find(':'));
    text.remove_prefix(name.size());
    if (isPlainName(name)) {
        origin.host = name;
        lowerCase(origin.host);
        return true;
    }
    if (name.find_first_of("[]@") != name.npos || !uriAppendUnescaped(origin.host, name))
        return false;
    if (origin.host.empty())
        return mayHavePortWithoutHost(origin.scheme);
    return isHostName(origin.host, false) && URI::canonicalizeHostName(origin.host, false);
}

// parsePort reads what follows the host: nothing, or a colon and digits.
bool parsePort(std::string_view text, uint32_t& port) {
    if (text.empty())
        return true;
    text.remove_prefix(1);
    for (const char c : text) {
        if (!ascii::isDigit(c))
            return false;
        port = port * 10 + static_cast<uint32_t>(c - '0');
        if (port > MAX_PORT)
            return false;
    }
    return !text.empty();
}

bool parseHostAndPort(std::string_view text, URI::Origin& origin) {
    if (text.empty())
        return true;
    if (isOpaqueHostScheme(origin.scheme))
        return parseOpaqueHost(text, origin.host);
    const bool hostRead = text.starts_with('[') ? parseIPv6Literal(text, origin.host) : parseHostName(text, origin);
    return hostRead && parsePort(text, origin.port);
}

void applyDefaultPort(URI::Origin& origin) {
    if (origin.port == 0)
        origin.port = URI::defaultPort(origin.scheme);
}

// toASCII replaces the name by its ASCII form in lower case; false if it has none. libidn would take a NUL for the end
// of the name.
bool toASCII(std::string& name) {
    if (isPlainName(name)) {
        lowerCase(name);
        return true;
    }
    if (name.size() > MAX_NAME_LENGTH || name.find('\0') != name.npos)
        return false;
    char* result = nullptr;
    const int status = idna_to_ascii_8z(name.c_str(), &result, IDNA_ALLOW_UNASSIGNED | IDNA_USE_STD3_ASCII_RULES);
    const std::unique_ptr<char, decltype(&idn_free)> holder(result, idn_free);
    if (status != IDNA_SUCCESS || result == nullptr)
        return false;
    name = result;
    lowerCase(name);
    return true;
}

// --- printing --------------------------------------------------------------------------------------------------------

char* writeHost(char* out, const URI::Origin& origin) {
    const std::string_view host = origin.host;
    if (isOpaqueHostScheme(origin.scheme))
        return uriWriteEscaped(out, host, URI_STRICT_ESCAPING);
    if (!isIPv6Address(host))
        return uriWrite(out, host);
    const size_t zone = std::min(host.find('%'), host.size());
    out = uriWrite(out, '[');
    out = uriWrite(out, host.substr(0, zone));
    out = uriWriteEscaped(out, host.substr(zone), URI_STRICT_ESCAPING);
    return uriWrite(out, ']');
}

}  // namespace

URI::Origin::Origin(const std::string& text) {
    if (parseFromURI(text.c_str(), nullptr, nullptr) == nullptr)
        clear();
}

URI::Origin::Origin(const std::string& ofScheme, const std::string& ofHost, uint32_t ofPort)
    : scheme(ofScheme), host(ofHost), port(ofPort) {
    applyDefaultPort(*this);
}

const char* URI::Origin::parseFromURI(const char* text, std::string* rawUserInfo, bool* hasAuthority) {
    clear();
    const char* cursor = parseScheme(text, scheme);
    if (cursor == nullptr)
        return text;
    const bool authority = cursor[0] == '/' && cursor[1] == '/';
    if (hasAuthority != nullptr)
        *hasAuthority = authority;
    if (!authority)
        return cursor;

    cursor += 2;
    const char* end = uriSkip(cursor, AUTHORITY_BYTES);
    std::string_view hostAndPort(cursor, end);
    takeUserInfo(hostAndPort, rawUserInfo);
    if (!parseHostAndPort(hostAndPort, *this))
        return nullptr;
    if (!host.empty())
        applyDefaultPort(*this);
    return end;
}

void URI::Origin::clear() {
    scheme.clear();
    host.clear();
    port = 0;
}

void URI::Origin::setScheme(std::string&& value) {
    scheme = std::move(value);
}

void URI::Origin::setScheme(const std::string& value) {
    scheme = value;
}

void URI::Origin::setHostName(std::string&& value) {
    host = std::move(value);
}

void URI::Origin::setHostName(const std::string& value) {
    host = value;
}

void URI::Origin::setPort(uint32_t value) {
    port = value;
}

bool URI::Origin::normalizeHostName(bool allowTrailingDash) {
    if (host.empty())
        return true;
    if (isOpaqueHostScheme(scheme))
        return isOpaqueHost(host);
    if (!host.starts_with('['))
        return isHostName(host, allowTrailingDash) && canonicalizeHostName(host, allowTrailingDash);
    if (host.size() < 2)
        return false;
    host = host.substr(1, host.size() - 2);
    return isIPv6() && normalizeIPv6();
}

bool URI::Origin::normalizeIPv6() {
    const size_t percent = host.find('%');
    return percent == host.npos || isZone(std::string_view(host).substr(percent + 1));
}

bool URI::Origin::isIPv4() const {
    return isDottedQuad(host);
}

bool URI::Origin::isIPv6() const {
    return isIPv6Address(host);
}

int URI::Origin::compare(const Origin& other) const {
    if (const int order = uriCompareText(scheme, other.scheme); order != 0)
        return order;
    if (const int order = uriCompareText(host, other.host); order != 0)
        return order;
    return port < other.port ? -1 : port > other.port ? 1 : 0;
}

std::string URI::Origin::escapedHost() const {
    return uriWritten(uriRoomOrigin(*this), [this](char* out) { return writeHost(out, *this); });
}

std::string URI::Origin::escapedHostPort() const {
    return uriWritten(uriRoomOrigin(*this), [this](char* out) { return uriWriteHostPort(out, *this); });
}

std::string URI::Origin::toString() const {
    return uriWritten(uriRoomOrigin(*this) + std::strlen("///"), [this](char* out) {
        out = uriWriteScheme(out, *this);
        if (host.empty())
            return out;
        out = uriWrite(out, "//");
        out = uriWriteHostPort(out, *this);
        return uriWrite(out, '/');
    });
}

char* uriWriteHostPort(char* out, const URI::Origin& origin) {
    out = writeHost(out, origin);
    if (origin.port == URI::defaultPort(origin.scheme) || isOpaqueHostScheme(origin.scheme))
        return out;
    return std::to_chars(uriWrite(out, ':'), out + 1 + PORT_ROOM, origin.port).ptr;
}

size_t uriRoomOrigin(const URI::Origin& origin) {
    return origin.scheme.size() + uriRoomEscaped(origin.host) + PORT_ROOM + std::strlen(":[]:");
}

uint32_t URI::defaultPort(const std::string& scheme) {
    const auto* row = std::find_if(std::begin(DEFAULT_PORTS), std::end(DEFAULT_PORTS),
                                   [&scheme](const DefaultPort& known) { return known.scheme == scheme; });
    return row == std::end(DEFAULT_PORTS) ? 0 : row->port;
}

bool URI::canonicalizeHostName(std::string& host, bool allowTrailingDash) {
    const bool setDashAside = allowTrailingDash && host.size() >= 2 && host.ends_with('-');
    std::string name = host.substr(0, host.size() - (setDashAside ? 1 : 0));
    if (!toASCII(name))
        return false;
    if (setDashAside)
        name += '-';
    host = std::move(name);
    return true;
}
