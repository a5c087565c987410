// protocol_errors.h: the errors of code that talks to servers, each with the URI concerned.
//
// `ORVError::throwFTPError`, `throwCurlError` and `throwHTTPError` turn libcurl's results and HTTP's statuses into
// errors. They throw an ORVAuthError where credentials are at fault, and never an ORVRedirectError.
#pragma once

#include <string>

#include "foundation/uri.h"
#include "runtime/orv_error.h"

// ORVAuthError is thrown when a server or proxy asks for credentials, or for other ones.
class ORVAuthError : public ORVError {
public:
    // ORVAuthError keeps copies. The meaning of `extra` is the thrower's.
    ORVAuthError(Errors errorCode, const URI& uri, const std::string& detail, const std::string& extra);

    // getURI returns the URI concerned, getExtra the thrower's text.
    const URI& getURI() const { return m_oURI; }
    const std::string& getExtra() const { return m_strExtra; }

private:
    URI m_oURI;
    std::string m_strExtra;
};

// ORVRedirectError is thrown when what was asked for is at another URI.
class ORVRedirectError : public ORVError {
public:
    // ORVRedirectError keeps copies. The meaning of `flag` is the thrower's.
    ORVRedirectError(Errors errorCode, const URI& from, const URI& to, bool flag, const std::string& detail);

    // getFrom returns the URI that was asked for, getTo the one that it leads to, and getFlag the thrower's flag.
    const URI& getFrom() const { return m_oFrom; }
    const URI& getTo() const { return m_oTo; }
    bool getFlag() const { return m_bFlag; }

private:
    URI m_oFrom;
    URI m_oTo;
    bool m_bFlag;
};
