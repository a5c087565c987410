// uri_path_model.h: how paths are read and their dot segments removed, as the rules are told: one piece after the
// other.
#pragma once

#include <cstddef>
#include <string>

#include "foundation/uri.h"

inline constexpr size_t NO_POSITION = std::string::npos;

// ParsedPath is what parseFromURI did: `end` is no position after a null.
struct ParsedPath {
    URI::Path path;
    size_t end = NO_POSITION;
};

// removeDotsSlowly walks over the segments and erases from the list.
inline URI::Path removeDotsSlowly(URI::Path path, bool rooted) {
    URI::Path::Segments& segments = path.segments;
    bool bRemoved = false;
    for (size_t i = 0; i < segments.size();) {
        const auto here = segments.begin() + static_cast<long>(i);
        bRemoved = true;
        if (segments[i] == ".")
            segments.erase(here);
        else if (segments[i] == ".." && i == 0 && rooted)
            segments.erase(here);
        else if (segments[i] == ".." && i > 0 && (rooted || segments[i - 1] != "..")) {
            segments.erase(here - 1, here + 1);
            --i;
        } else {
            bRemoved = false;
            ++i;
        }
    }
    path.trailingSlash = path.trailingSlash || bRemoved || (rooted && segments.empty());
    path.absolute = path.absolute || rooted;
    return path;
}

inline URI::Path fileNameSlowly(const std::string& name) {
    URI::Path path;
    if (name.empty())
        return path;
    for (size_t begin = 0, end = 0; end != NO_POSITION; begin = end + 1) {
        end = name.find('/', begin);
        const std::string piece = name.substr(begin, end == NO_POSITION ? end : end - begin);
        if (!piece.empty())
            path.segments.push_back(piece);
        else if (path.segments.empty())
            path.absolute = true;
    }
    path.trailingSlash = name.back() == '/' && !path.segments.empty();
    return removeDotsSlowly(path, false);
}

// decodePart decodes text outside regions; false at a bad escape.
inline bool decodePart(const std::string& text, std::string& out) {
    const auto digit = [](char c) {
        return std::string("0123456789abcdef").find(static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c));
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (text.size() - i < 3 || digit(text[i + 1]) == NO_POSITION || digit(text[i + 2]) == NO_POSITION)
            return false;
        out += static_cast<char>(digit(text[i + 1]) * 16 + digit(text[i + 2]));
        i += 2;
    }
    return true;
}

// parseSlowly takes regions from the left, each up to the next closing. Outside them a slash separates, and a question
// mark or a number sign ends the path.
inline ParsedPath parseSlowly(const std::string& text, bool skipPatterns) {
    ParsedPath parsed;
    std::string pending;
    URI::Path::Segments stretches(1);
    bool bValid = true;
    const auto decodePending = [&] {
        bValid = decodePart(pending, stretches.back()) && bValid;
        pending.clear();
    };
    size_t i = 0;
    while (i < text.size() && text[i] != '?' && text[i] != '#') {
        const size_t close = skipPatterns && text.compare(i, 2, "[[") == 0 ? text.find("]]", i + 2) : std::string::npos;
        if (close != NO_POSITION) {
            decodePending();
            stretches.back() += text.substr(i, close + 2 - i);
            i = close + 2;
        } else if (text[i] == '/') {
            decodePending();
            stretches.emplace_back();
            ++i;
        } else
            pending += text[i++];
    }
    decodePending();
    if (!bValid)
        return parsed;
    parsed.end = i;
    parsed.path.absolute = i > 0 && text[0] == '/';
    parsed.path.trailingSlash = i > 0 && text[i - 1] == '/';
    if (parsed.path.absolute)
        stretches.erase(stretches.begin());
    if (parsed.path.trailingSlash || i == 0)
        stretches.pop_back();
    parsed.path.segments = stretches;
    return parsed;
}
