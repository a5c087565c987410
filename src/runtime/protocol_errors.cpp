#include "runtime/protocol_errors.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "runtime/error_text.h"

namespace {

// Row lists the results or statuses that become one error.
struct Row {
    ORVError::Errors code;
    std::initializer_list<int> results;
};

// FTP_ROWS and CURL_ROWS have libcurl's results by number. The numbers never change, so no header of libcurl is needed.
constexpr Row FTP_ROWS[] = {
    {ORVError::HostLookupFailed, {5, 6, 15}},
    {ORVError::ConnectFailed, {7, 10, 35, 59}},
    {ORVError::FileAuthFailed, {9, 25}},
    {ORVError::ConnectionTimedOut, {12, 28}},
    {ORVError::PreconditionFailed, {18, 19, 23, 26}},
    {ORVError::SslUpgradeFailed, {64}},
    {ORVError::ServerAuthFailed, {67}},
    {ORVError::FileNotFound, {78}},
};

constexpr Row CURL_ROWS[] = {
    {ORVError::StringNotValid, {1, 3, 43, 48, 54}},
    {ORVError::InvalidState, {2, 93}},
    {ORVError::NotSupported, {4, 41, 53, 63}},
    {ORVError::HostLookupFailed, {5, 6}},
    {ORVError::ConnectFailed, {7, 35}},
    {ORVError::PreconditionFailed, {8, 16, 18, 23, 26, 34, 42, 52, 55, 56, 61, 75, 76, 88, 92}},
    {ORVError::FileAuthFailed, {9, 25}},
    {ORVError::NoMemory, {27}},
    {ORVError::ConnectionTimedOut, {28}},
    {ORVError::FileNotSupported, {33, 36}},
    {ORVError::TooManyRedirects, {47}},
    {ORVError::SslUpgradeFailed, {58, 59, 60, 64, 77, 82, 83, 90, 91}},
    {ORVError::MustRetry, {65, 81}},
    {ORVError::ServerAuthFailed, {67}},
    {ORVError::InsufficientStorage, {70}},
    {ORVError::FileExists, {73}},
    {ORVError::FileNotFound, {78}},
    {ORVError::ConnectionLost, {80}},
};

// 405 is not here, as its meaning depends on the verb.
constexpr Row HTTP_ROWS[] = {
    {ORVError::FileNotFound, {404, 410}},   {ORVError::BadRequest, {400}},
    {ORVError::MethodNotAllowed, {403}},    {ORVError::FileAuthFailed, {401}},
    {ORVError::ProxyAuthFailed, {407}},     {ORVError::FileExists, {412}},
    {ORVError::FileNotSupported, {501}},    {ORVError::InternalServerError, {500}},
    {ORVError::InsufficientStorage, {507}}, {ORVError::FileRetry, {408, 409, 421, 429, 502, 503, 504}},
};

// codeOf returns the code of the row that lists `result`.
template <size_t N>
ORVError::Errors codeOf(int result, const Row (&rows)[N], ORVError::Errors otherwise) {
    for (const Row& row : rows)
        if (std::find(row.results.begin(), row.results.end(), result) != row.results.end())
            return row.code;
    return otherwise;
}

// httpCode returns the code of an HTTP status. A server refuses MKCOL with 405 where something exists already.
ORVError::Errors httpCode(int status, const char* verb) {
    if (status == 405)
        return std::strcmp(verb, "MKCOL") == 0 ? ORVError::FileExists : ORVError::FileNotSupported;
    return codeOf(status, HTTP_ROWS, ORVError::HttpError);
}

// isAboutCredentials returns whether other credentials may help; whoever asks for them must know for which URI.
bool isAboutCredentials(ORVError::Errors code) {
    return code == ORVError::FileAuthFailed || code == ORVError::ServerAuthFailed || code == ORVError::ProxyAuthFailed;
}

[[noreturn]] void throwError(ORVError::Errors code, const URI& uri, const std::string& detail,
                             const std::string& extra) {
    if (isAboutCredentials(code))
        throw ORVAuthError(code, uri, detail, extra);
    throw ORVError(code, detail);
}

// requestText returns the start of a detail: what was asked of which URI.
std::string requestText(const char* protocol, const char* verb, const URI& uri) {
    return std::string(protocol) + " " + verb + " " + ORVError::truncateName(uri.toUserString(false), MAX_NAME_LENGTH) +
           " -> ";
}

// reasonText returns the end of a detail.
std::string reasonText(const char* detail) {
    return detail == nullptr || *detail == '\0' ? "failed" : withoutLineBreaks(detail);
}

}  // namespace

ORVAuthError::ORVAuthError(Errors errorCode, const URI& uri, const std::string& detail, const std::string& extra)
    : ORVError(errorCode, detail), m_oURI(uri), m_strExtra(extra) {}

ORVRedirectError::ORVRedirectError(Errors errorCode, const URI& from, const URI& to, bool flag,
                                   const std::string& detail)
    : ORVError(errorCode, detail), m_oFrom(from), m_oTo(to), m_bFlag(flag) {}

void ORVError::throwFTPError(int result, const char* verb, const URI& uri, const char* detail) {
    throwError(codeOf(result, FTP_ROWS, NetworkUnknown), uri, requestText("FTP", verb, uri) + reasonText(detail), "");
}

void ORVError::throwCurlError(int result, const char* verb, const URI& uri, const char* detail) {
    throwError(codeOf(result, CURL_ROWS, NetworkUnknown), uri, requestText("HTTP", verb, uri) + reasonText(detail), "");
}

void ORVError::throwHTTPError(int status, const char* verb, const URI& uri, const std::string& extra,
                              const std::string& reason) {
    const std::string answer = std::to_string(status) + (reason.empty() ? "" : " " + reason);
    throwError(httpCode(status, verb), uri, requestText("HTTP", verb, uri) + answer, extra);
}
