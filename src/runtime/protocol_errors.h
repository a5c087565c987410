// protocol_errors.h: the errors of code that talks to servers: those that carry the URI concerned.
//
// The converters of libcurl's results and HTTP's statuses into errors, `ORVError::throwFTPError`, `throwCurlError` and
// `throwHTTPError`, are declared with `ORVError`; they throw these two classes among others.
#pragma once

#include <string>

#include "foundation/uri.h"
#include "runtime/orv_error.h"

// ORVAuthError tells that a server or proxy wants (other) credentials.
class ORVAuthError : public ORVError {
public:
    // ORVAuthError keeps copies. What `extra` means is the thrower's business.
    ORVAuthError(Errors errorCode, const URI& uri, const std::string& detail, const std::string& extra);

    // getURI returns the URI concerned, getExtra the thrower's text.
    const URI& getURI() const { return m_oURI; }
    const std::string& getExtra() const { return m_strExtra; }

private:
    URI m_oURI;
    std::string m_strExtra;
};

// ORVRedirectError tells that what was asked for is elsewhere.
class ORVRedirectError : public ORVError {
public:
    // ORVRedirectError keeps copies. What `flag` means is the thrower's business.
    ORVRedirectError(Errors errorCode, const URI& from, const URI& to, bool flag, const std::string& detail);

    // getFrom returns the URI that was asked for, getTo the one that it leads to, getFlag the thrower's flag.
    const URI& getFrom() const { return m_oFrom; }
    const URI& getTo() const { return m_oTo; }
    bool getFlag() const { return m_bFlag; }

private:
    URI m_oFrom;
    URI m_oTo;
    bool m_bFlag;
};
