#include "runtime/orv_error.h"

#include <apr_errno.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "foundation/strfmt.h"
#include "foundation/unicode.h"
#include "runtime/error_text.h"

// The texts reach logs and screens of other programs, which compare them: they change as little as the codes.
const ORVError::ORVErrorDesc::Description ORVError::ms_aErrors[] = {
    {NetworkError, 0, "Network Error"},
    {NetworkUnknown, 0, "Unknown Network Error"},
    {HostLookupFailed, 0, "Server or proxy hostname lookup failed"},
    {ServerAuthFailed, 0, "User authentication failed on server"},
    {SrpAuthFailed, 0, "SRP User authentication failed on server"},
    {PskAuthFailed, 0, "PSK authentication failed on server"},
    {ProxyAuthFailed, 0, "User authentication failed on proxy"},
    {ConnectFailed, 0, "Could not connect to server"},
    {ConnectionTimedOut, 0, "Connection timed out"},
    {PreconditionFailed, 0, "Precondition failed"},
    {MustRetry, 0, "Must retry request"},
    {Redirect, 0, "Redirect"},
    {ConnectionLost, 0, "Connection lost"},
    {NoNetworkResource, 0, "No Network Resource available"},
    {SslUpgradeFailed, 0, "SSL upgrade failed"},
    {TooManyRedirects, 0, "Too many redirects"},
    {SystemError, 1, "System Error"},
    {SystemUnknown, 1, "Unknown System Error"},
    {TcpSocketFailed, 1, "Cannot open TCP Socket"},
    {NoMemory, 1, "No Memory"},
    {NullPointer, 1, "Null pointer unexpected"},
    {DirectXError, 1, "DirectX error"},
    {OpenGLError, 1, "OpenGL error"},
    {WindowsError, 1, "Windows specific error"},
    {CairoError, 1, "Cairo error"},
    {TimedOut, 1, "Timed out"},
    {NotSupported, 1, "Not Supported"},
    {FileError, 2, "File Error"},
    {FileUnknown, 2, "Unknown File Error"},
    {HttpError, 2, "HTTP Error"},
    {FileNotFound, 2, "File not found"},
    {FileAccessDenied, 2, "File cannot be accessed"},
    {FileReadOnly, 2, "File is read only"},
    {FileExists, 2, "File Exist"},  // kept
    {FileContentBad, 2, "File content is incorrect"},
    {FileNameBad, 2, "Filename or path is incorrect"},
    {FileReadError, 2, "File read error"},
    {FileWriteError, 2, "File write error"},
    {FileRetry, 2, "Retry"},
    {FileNotSupported, 2, "Not Supported"},
    {FileAuthFailed, 2, "Authentication failed"},
    {MethodNotAllowed, 2, "Method not allowed"},
    {BadRequest, 2, "Bad request"},
    {InsufficientStorage, 2, "Insufficient Storage"},
    {InternalServerError, 2, "Internal Server Error"},
    {InputError, 3, "Input Error"},
    {InputUnknown, 3, "Unknown Input Error"},
    {EmptyInput, 3, "Empthy input string not allowed"},  // kept: log readers search for it
    {StringTooLong, 3, "String too long"},
    {StringNotValid, 3, "String not valid"},
    {InvalidState, 3, "The operation cannot be executed in the current state"},
    {CanceledByUser, 5, "Canceled by user"},
    {UnknownError, 6, "Unknown Network Error"},  // kept: the text of NetworkUnknown
    {0, 0, nullptr},
};

const ORVError::ORVErrorDesc ORVError::ms_oErrors(ms_aErrors);

namespace {

constexpr size_t SPARE_ROWS = 2;  // kept: two codes after the last have an empty text instead of that of code 0
constexpr size_t APR_TEXT_SIZE = 64;

// countRows returns the number of rows before the one that ends the table.
size_t countRows(const ORVError::ORVErrorDesc::Description* table) {
    size_t count = 0;
    while (table[count].text != nullptr)
        ++count;
    return count;
}

// codePointsOf returns UTF-8 text by code points, so that a name is never cut inside of one.
std::u32string codePointsOf(const std::string& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const int size = static_cast<int>(text.size());
    std::u32string codePoints(text.size(), 0);
    codePoints.resize(static_cast<size_t>(utf8ToUCS4N(bytes, size, codePoints.data(), false)));
    return codePoints;
}

// append adds `count` code points to `out` in UTF-8.
void append(std::string& out, const char32_t* codePoints, size_t count) {
    for (size_t i = 0; i < count; ++i)
        utf8Append(out, codePoints[i]);
}

// codeForAPRStatus returns the code of a status that has one of its own. On Linux an APR status of a failed system call
// is its errno value.
std::optional<ORVError::Errors> codeForAPRStatus(int status) {
    switch (status) {
    case EACCES:
        return ORVError::FileAccessDenied;
    case EEXIST:
        return ORVError::FileExists;
    case ENAMETOOLONG:
        return ORVError::StringTooLong;
    case ENOENT:
    case ENOTDIR:
        return ORVError::FileNotFound;
    case ENOMEM:
        return ORVError::NoMemory;
    case ENOTSOCK:
        return ORVError::TcpSocketFailed;
    case ECONNREFUSED:
        return ORVError::ConnectFailed;
    case EPROTO:
    case ECONNABORTED:
    case ECONNRESET:
        return ORVError::ConnectionLost;
    case APR_TIMEUP:
        return ORVError::TimedOut;
    default:
        return std::nullopt;
    }
}

}  // namespace

ORVError::ORVErrorDesc::ORVErrorDesc(const Description* table) : m_aRows(countRows(table) + SPARE_ROWS) {
    for (; table->text != nullptr; ++table)
        m_aRows.at(table->code) = {table->scope, table->text};
}

const ORVError::ORVErrorDesc::DescriptionStr& ORVError::ORVErrorDesc::row(int errorCode) const {
    const auto index = static_cast<size_t>(errorCode);  // a negative code becomes an index beyond every table
    return m_aRows[index < m_aRows.size() ? index : 0];
}

ORVError::ORVError(Errors errorCode) : std::runtime_error(toString(errorCode)), code(errorCode) {}

ORVError::ORVError(Errors errorCode, const std::string& detail)
    : std::runtime_error(toString(errorCode, detail)), code(errorCode) {}

const std::string& ORVError::toString(Errors errorCode) {
    return ms_oErrors.desc(static_cast<int>(errorCode));
}

std::string ORVError::toString(Errors errorCode, std::string detail) {
    if (detail.empty())
        return toString(errorCode);
    return toString(errorCode) + " : " + withoutLineBreaks(std::move(detail));
}

uint32_t ORVError::toScope(Errors errorCode) {
    return ms_oErrors.scope(static_cast<int>(errorCode));
}

std::string ORVError::truncateName(const std::string& name, int maxLength) {
    return truncateName(std::string(name), maxLength);
}

std::string ORVError::truncateName(std::string&& name, int maxLength) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(name.data());
    if (maxLength >= utf8NumCodePointsN(bytes, static_cast<int>(name.size())))
        return std::move(name);
    const std::u32string codePoints = codePointsOf(name);
    // Bytes that are not UTF-8 may count as more code points than they convert to.
    const size_t kept = std::min(static_cast<size_t>(std::max(maxLength, 0)) / 2, codePoints.size());
    std::string shortened;
    append(shortened, codePoints.data(), kept);
    shortened += "...";
    append(shortened, codePoints.data() + codePoints.size() - kept, kept);
    return shortened;
}

ORVError ORVError::convertAPRError(int status, const char* name) {
    const std::string subject = name == nullptr ? std::string() : truncateName(name, MAX_NAME_LENGTH);
    if (const std::optional<Errors> known = codeForAPRStatus(status))
        return ORVError(*known, subject);
    char text[APR_TEXT_SIZE];
    const std::string reason = apr_strerror(status, text, sizeof text);
    return ORVError(SystemUnknown, name == nullptr ? reason : reason + ": " + subject);
}

ORVError ORVError::convertPosixError(Errors errorCode, int errnum, const char* name) {
    const std::string reason = stringerror(errnum);
    return ORVError(errorCode, name == nullptr ? reason : truncateName(name, MAX_NAME_LENGTH) + ": " + reason);
}
