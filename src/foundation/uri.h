// uri.h: URIs as values: parsed into decoded parts, printed for machines and for people, resolved and related.
//
// RFC 3986 is the ground; where this system differs, it does so on purpose (docs/uris.md). Text is bytes: a UTF-8
// character is a run of bytes, and only host names are looked at as more than that. A component of a URI has one of
// three forms: raw (decoded bytes, as in `URI::Path`), escaped (as in `query`), and the form for people to read, in
// which only what would change the URI's structure stays escaped.
//
// With `skipPatterns` a region from "[[" through the next "]]", a placeholder of a template text, is passed over and
// copied unchanged (but see `findSkipPattern`); an opening without a closing is not a region.
//
// Nothing here throws or logs; failure is an empty value, false or null. Values without locks: copies may be used from
// different threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// URI is one URI. A URI that couldn't be parsed is empty, as is the parse of the empty text.
//
// Invariant of the parsers, the constructors and `setPath`: with a scheme and a host the path is absolute.
class URI {
public:
    // Path is the path of a URI, decoded, as segments and two flags. It also carries file names, which convert without
    // any escaping. As text:
    //
    //     absolute  trailingSlash  segments  text
    //     no        no             none      (empty)
    //     no        yes            none      ./
    //     yes       either         none      /
    //     no        no             a, b      a/b
    //     yes       no             a, b      /a/b
    //     no        yes            a, b      a/b/
    //     yes       yes            a, b      /a/b/
    class Path {
    public:
        using Segments = std::vector<std::string>;

        // absolute is true if the text begins with "/", trailingSlash if a "/" follows the last segment. An absolute
        // path without segments may have either.
        bool absolute = false;
        bool trailingSlash = false;

        // segments are the decoded segments. One may be empty, or hold a slash or NUL that came from an escape.
        Segments segments;

        // Path makes the empty path.
        Path() = default;

        // Path makes a relative path of exactly one segment, neither split nor decoded.
        explicit Path(std::string&& segment, bool trailingSlash = false);
        explicit Path(const std::string& segment, bool trailingSlash = false);
        explicit Path(const char* segment, bool trailingSlash = false);

        // Path makes a relative path of these segments.
        Path(std::initializer_list<std::string> segments, bool trailingSlash = false);

        // fromEscapedURIPath parses escaped text up to a "?" or "#", as `parseFromURI` does; the empty path if that has
        // a bad escape.
        static Path fromEscapedURIPath(const std::string& text);

        // fromFileName splits a file name at slashes, which collapse, and removes dot segments. Nothing is decoded.
        static Path fromFileName(const std::string& name);

        // fromString is fromFileName.
        static Path fromString(const std::string& name);

        // parseFromURI parses the escaped path at `text`, which ends at "?", "#" or the terminator, into this path,
        // which must be empty. It returns where the path ends, or null at a bad escape; then the path holds what was
        // read so far.
        const char* parseFromURI(const char* text, bool skipPatterns = false);

        // toString and toFileName return the text with the segments as they are.
        std::string toString() const;
        std::string toFileName() const;

        // toEscapedURIPath returns the escaped text. `keepPlus` leaves "+" as it is.
        std::string toEscapedURIPath(bool skipPatterns = false, bool keepPlus = false) const;

        // toCanonicalURIPath returns the text with all but unreserved characters escaped.
        std::string toCanonicalURIPath() const;

        // toUserURIPath returns the text for people.
        std::string toUserURIPath(bool skipPatterns = false) const;

        // contains returns whether a segment equals `segment`.
        bool contains(const std::string& segment) const;

        // beginsWith returns whether this path is `prefix` or lies below it; segments count as a whole.
        bool beginsWith(const Path& prefix) const;

        // compare orders paths: absolute ones first, then by segments, then those without trailing slash first. The
        // result is negative, zero or positive.
        int compare(const Path& other) const;

        // lastSegmentName returns the last segment, or an empty string that lives forever.
        const std::string& lastSegmentName() const;

        // lastSegment returns the last segment as a relative path with this path's trailing slash.
        Path lastSegment() const;

        // subPath returns the segments from `first` up to and without `last`, which is clamped to their number (so -1
        // is the end). `first` must not be greater than the clamped `last`. The result is absolute only with a `first`
        // of 0, and has a trailing slash if segments follow it or this path has one.
        Path subPath(unsigned first, unsigned last) const;

        // resourceName returns what the path names: its last segment, or the empty path if it has a trailing slash.
        Path resourceName() const;

        // resourceDir returns where that lies: this path itself if it has a trailing slash, else this path without its
        // last segment.
        Path resourceDir() const;

        // topDir returns the first segment of an absolute path as a directory, afterTopDir what follows it as a
        // relative path; empty if there is none.
        Path topDir() const;
        Path afterTopDir() const;

        // commonBase returns the directory that both paths share, or the path itself if they are equal and without
        // trailing slash; the empty path if only one is absolute.
        static Path commonBase(const Path& a, const Path& b);

        // clear makes this the empty path.
        void clear();

        // append adds one segment as it is, or the segments of `tail`, and takes the trailing slash over. A tail
        // without segments doesn't take a trailing slash away.
        Path& append(std::string&& segment, bool trailingSlash = false);
        Path& append(const std::string& segment, bool trailingSlash = false);
        Path& append(const Path& tail);

        // slash returns a copy with `append` applied.
        Path slash(std::string&& segment, bool trailingSlash = false) const;
        Path slash(const std::string& segment, bool trailingSlash = false) const;
        Path slash(const Path& tail) const;

        // addSuffix appends to the last segment's text; after a trailing slash, or without segments, it adds a segment.
        // A trailing slash stays.
        Path& addSuffix(const std::string& suffix);

        // removeRoot makes this path relative to `root`, which must be equal to it or above it; false and no change if
        // it is neither. A path that equals its root becomes "./".
        bool removeRoot(const Path& root);

        // removeDotSegments removes "." and cancels ".." (RFC 3986, 5.2.4). With `rooted` a ".." at the front goes too,
        // the path becomes absolute, and it has a trailing slash if no segment is left. Otherwise a ".." at the front
        // stays. A segment removed at the end leaves a trailing slash.
        Path& removeDotSegments(bool rooted);

        // resolve resolves this path against `base` (RFC 3986, 5.2.3) and removes dot segments.
        Path& resolve(const Path& base, bool rooted);

        // makeRelative turns an absolute path into one that `resolve` with the absolute `base` turns back, unless it
        // names the base's directory, or one above it, without a trailing slash.
        Path& makeRelative(const Path& base);
    };

    // Origin is scheme, host and port. Two schemes, "orv" and "project", have opaque hosts: names of the application's
    // own, without port, unchecked as host names and printed escaped.
    class Origin {
    public:
        // scheme is lower case when parsed; empty for a relative reference.
        std::string scheme;

        // host is decoded: a name in canonical form, an IPv6 address without brackets (a zone after "%"), or opaque.
        std::string host;

        // port is 0 for none.
        uint32_t port = 0;

        // Origin makes an empty one.
        Origin() = default;

        // Origin parses URI text, of which only the origin counts; empty if that fails.
        explicit Origin(const std::string& text);

        // Origin stores scheme and host as they are; a port of 0 becomes the scheme's default.
        Origin(const std::string& scheme, const std::string& host, uint32_t port = 0);

        // parseFromURI parses the origin at `text`. It returns where the origin ends, `text` itself without a scheme.
        // On failure it returns null, and the fields hold what was read so far. Without an "@", `userInfo` stays as it
        // was, else it gets the text before it, unchanged. Without a scheme, `hasAuthority` stays as it was, else it
        // gets whether "//" follows. Either may be null.
        const char* parseFromURI(const char* text, std::string* userInfo, bool* hasAuthority);

        // clear empties all.
        void clear();

        // The setters store as given.
        void setScheme(std::string&& value);
        void setScheme(const std::string& value);
        void setHostName(std::string&& value);
        void setHostName(const std::string& value);
        void setPort(uint32_t value);

        // normalizeHostName checks a host that was set by hand and brings it into canonical form; false if it is not
        // valid. A host that begins with "[" loses its first and last byte even then, unless it is "[" alone or opaque.
        bool normalizeHostName(bool allowTrailingDash);

        // normalizeIPv6 checks the zone of `host`. An empty zone after a final "%" passes.
        bool normalizeIPv6();

        // isIPv4 and isIPv6 test the form of `host`, by this system's own rules.
        bool isIPv4() const;
        bool isIPv6() const;

        // compare orders by scheme, host and port.
        int compare(const Origin& other) const;

        // escapedHost returns the host as it is written in a URI, escapedHostPort with its port unless that is the
        // default.
        std::string escapedHost() const;
        std::string escapedHostPort() const;

        // toString returns the origin as a URI, without user information.
        std::string toString() const;
    };

    // Data is the content of a data URI (RFC 2397). It doesn't change once made.
    class Data {
    public:
        // mimeType is the media type with its parameters, decoded.
        std::string mimeType;

        // bytes are the content.
        std::vector<unsigned char> bytes;

        // Data takes both; an empty media type means "text/plain;charset=US-ASCII".
        Data(std::vector<unsigned char>&& bytes, std::string&& mimeType);
    };

    // Query is a query string taken apart, decoded.
    using Query = std::map<std::string, std::string>;

    Origin origin;
    Path path;

    // userInfo, query and fragment are escaped text, in normal form when parsed, without the "@", "?" or "#" that marks
    // them off.
    std::string userInfo;
    std::string query;
    std::string fragment;

    // data is null but for data URIs. Copies share it.
    std::shared_ptr<const Data> data;

    // URI makes an empty one.
    URI() = default;

    // URI of an origin has the path "/" if there are scheme and host.
    explicit URI(Origin&& origin);
    explicit URI(const Origin& origin);

    // URI of a path has no origin.
    explicit URI(Path&& path);
    explicit URI(const Path& path);

    // URI of both makes the path absolute if there are scheme and host. Dot segments stay.
    URI(Origin origin, Path path);

    // fromString parses a URI or a relative reference; empty on any failure. A NUL ends the text. Text that begins with
    // "//" counts as a file URI.
    static URI fromString(const char* text, bool skipPatterns = false);
    static URI fromString(const std::string& text, bool skipPatterns = false);

    // fromFileName returns the file URI of a file name; empty for one that begins with "//". A relative name stays so.
    static URI fromFileName(const std::string& name);

    // fromData returns a data URI.
    static URI fromData(const std::shared_ptr<const Data>& data);
    static URI fromData(std::vector<unsigned char>&& bytes, std::string&& mimeType);
    static URI fromData(const std::string& bytes, const std::string& mimeType);

    // parseFromDataURI parses what follows "data:" into `data`, which stays as it was on failure.
    bool parseFromDataURI(const char* text);

    // commonBase returns the URI of the directory that both share; empty if they have different origins or user
    // information.
    static URI commonBase(const URI& a, const URI& b);

    // toString returns the escaped text. A data URI is always printed in base64.
    std::string toString(bool skipPatterns = false) const;

    // toUserString returns the text for people. A data URI's content is left out.
    std::string toUserString(bool skipPatterns = false) const;

    // getFileName returns the file name of a local file (no scheme or "file", no host or "localhost"), else nothing.
    std::string getFileName() const;

    // resourceName returns the last segment of the path; nothing after a trailing slash.
    std::string resourceName() const;

    // resourceDir returns this origin with the path's `resourceDir`, and nothing else of this URI.
    URI resourceDir() const;

    // compare orders by origin, user information, path, query and fragment. Kept: `data` doesn't count.
    int compare(const URI& other) const;

    // getPathUnder writes this URI's path relative to `root` to `out`; false and an empty path if it is neither equal
    // nor below, or if the origins differ. User information isn't compared.
    bool getPathUnder(const URI& root, Path& out) const;

    // setOrigin replaces the origin, setPath the path, of which it removes dot segments.
    void setOrigin(Origin&& value);
    void setOrigin(const Origin& value);
    void setPath(Path&& value);
    void setPath(const Path& value);

    // setQuery, setFragment and setUserInfo store escaped text as given.
    void setQuery(std::string&& value);
    void setQuery(const std::string& value);
    void setFragment(std::string&& value);
    void setFragment(const std::string& value);
    void setUserInfo(std::string&& value);
    void setUserInfo(const std::string& value);

    // setQuery stores `makeQueryString` of the items.
    void setQuery(const Query& items, bool skipPatterns = false);

    // resolve makes a reference absolute against `base` (RFC 3986, 5.2). "data", "rtp", "udp" and "uvc" stay as they
    // are; kept: a URI with the base's scheme and no host counts as a reference.
    URI& resolve(const URI& base);

    // makeRelative turns this URI into a reference to the base's origin, with the path made relative by
    // `Path::makeRelative`. Nothing happens if the origins differ, without a scheme, or for "urn" and "data". User
    // information is neither compared nor removed.
    URI& makeRelative(const URI& base);

    // queryString and queryStringCanonical take the query apart: items without a key are skipped, of two with one key
    // the first counts. queryString decodes, queryStringCanonical brings the escapes into normal form.
    Query queryString() const;
    Query queryStringCanonical() const;

    // defaultPort returns the port of a scheme in lower case, 0 if it has none or isn't known.
    static uint32_t defaultPort(const std::string& scheme);

    // canonicalizeHostName replaces a host name by its ASCII form in lower case (IDNA, RFC 3490); on false it stays.
    // With `allowTrailingDash` one dash at its end is accepted. A name with a NUL is refused, and one of more than
    // 16384 bytes that isn't plain ASCII, as the conversion's time grows with the square of the length.
    static bool canonicalizeHostName(std::string& host, bool allowTrailingDash);

    // --- escaping ----------------------------------------------------------------------------------------------------

    // escapeURIComponent escapes all but unreserved characters (RFC 3986, 2.3) and those in `keepSet`.
    static std::string escapeURIComponent(const std::string& text, const std::string& keepSet,
                                          bool skipPatterns = false);

    // unescapeURI decodes all escapes. `valid` becomes whether every "%" began one; a bad one is copied. "+" stays "+".
    static std::string unescapeURI(const std::string& text, bool* valid = nullptr, bool skipPatterns = false);

    // smartEscapeURIComponent brings raw text into the form for people: bytes below the blank and "%" are escaped, and
    // of the delimiters #&/:=?@[] those in `escapeSet`.
    static std::string smartEscapeURIComponent(const std::string& text, const std::string& escapeSet,
                                               bool skipPatterns = false);

    // smartUnescapeURIComponent brings escaped text into the form for people: decoded, but for bytes up to the blank,
    // "%" and what is in `keepEscapedSet`.
    static std::string smartUnescapeURIComponent(const std::string& text, const std::string& keepEscapedSet,
                                                 bool skipPatterns = false);

    // normalizeURIComponent brings escaped text into its one normal form. `decodeSet` names what needs no escaping,
    // `preserveSet` what keeps the form that it had. Bad escapes are repaired.
    static std::string normalizeURIComponent(const std::string& text, const std::string& decodeSet,
                                             const std::string& preserveSet, bool skipPatterns = false);

    // validateEscaping returns whether every "%" begins an escape.
    static bool validateEscaping(const std::string& text, bool skipPatterns = false);

    // findSkipPattern finds `character` from `start` on outside regions; the second form in terminated text, null if
    // there is none. Kept: only the first region that opens before a candidate is looked at.
    static size_t findSkipPattern(const std::string& text, char character, size_t start = 0);
    static const char* findSkipPattern(const char* text, char character);

    // splitQueryString takes a query apart, decoded. Every item counts, even an empty one; of two with one key the
    // last.
    static void splitQueryString(const std::string& text, Query& items, bool skipPatterns = false);

    // makeQueryString puts a query together, in the order of the keys.
    static std::string makeQueryString(const Query& items, bool skipPatterns = false);
};
