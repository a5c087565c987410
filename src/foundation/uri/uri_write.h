// uri_write.h: writing text of known bounds, for the sources of `URI` only.
//
// A URI is made of many small pieces, and appending each to a string would cost far more than its bytes. So the writer
// first says how much room the text takes at most, and then writes the pieces in a row with nothing left to check. Each
// uriWrite function writes at `out` and returns the place after what it wrote; the uriRoom function of its name returns
// how many bytes it may touch.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/uri/uri_region.h"
#include "foundation/uri/uri_text.h"

// uriWithRoom returns what `use` returns for a place of `room` bytes, which is gone afterwards.
template <typename Use>
decltype(auto) uriWithRoom(size_t room, Use&& use) {
    constexpr size_t USUAL_ROOM = 4096;
    if (room > USUAL_ROOM)
        return use(std::make_unique_for_overwrite<char[]>(room).get());
    char place[USUAL_ROOM];
    return use(place);
}

// uriWritten returns the text that `write` writes into `room` bytes.
template <typename Write>
std::string uriWritten(size_t room, Write&& write) {
    return uriWithRoom(room, [&](char* place) {
        char* const end = write(place);
        assert(end <= place + room);
        return std::string(place, end);
    });
}

// uriAppendWritten appends the text that `write` writes into `room` bytes.
template <typename Write>
void uriAppendWritten(std::string& out, size_t room, Write&& write) {
    uriWithRoom(room, [&](char* place) {
        char* const end = write(place);
        assert(end <= place + room);
        out.append(place, end);
    });
}

inline char* uriWrite(char* out, char byte) {
    *out = byte;
    return out + 1;
}

inline char* uriWrite(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

// uriWriteEscaped writes a text with the bytes escaped that `escaping` says.
inline char* uriWriteEscaped(char* out, std::string_view text, const UriEscaping& escaping) {
    for (const char byte : text)
        out = escaping.write(out, byte);
    return out;
}

// uriWriteEscapedAround escapes outside regions only.
inline char* uriWriteEscapedAround(char* out, std::string_view text, const UriEscaping& escaping) {
    uriForEachPiece(
        text, [&](std::string_view piece) { out = uriWriteEscaped(out, piece, escaping); },
        [&](std::string_view region) { out = uriWrite(out, region); });
    return out;
}

inline char* uriWriteEscaped(char* out, std::string_view text, const UriEscaping& escaping, bool skipPatterns) {
    return skipPatterns ? uriWriteEscapedAround(out, text, escaping) : uriWriteEscaped(out, text, escaping);
}

inline size_t uriRoomEscaped(std::string_view text) {
    return UriEscaping::ROOM * text.size();
}

// uriWriteScheme writes the scheme and its colon, if there is one.
inline char* uriWriteScheme(char* out, const URI::Origin& origin) {
    return origin.scheme.empty() ? out : uriWrite(uriWrite(out, origin.scheme), ':');
}

// uriWriteHostPort writes `Origin::escapedHostPort`; the room is for scheme and colon as well.
char* uriWriteHostPort(char* out, const URI::Origin& origin);
size_t uriRoomOrigin(const URI::Origin& origin);

// uriWritePath writes a path with its segments escaped.
char* uriWritePath(char* out, const URI::Path& path, const UriEscaping& escaping, bool skipPatterns);
size_t uriRoomPath(const URI::Path& path);
