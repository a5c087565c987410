// orv_error.h: the one exception type of the system's own code, with a code from a closed table.
//
// Each code has a text and a scope, the kind of thing that failed. Converters turn the status codes of the C library
// and of APR into this vocabulary and return the error by value, for the caller to throw. The table is filled before
// `main` and read-only afterwards: any thread may make and inspect errors.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class URI;

// ORVError is a runtime error with a code. Its text is composed when it is made.
class ORVError : public std::runtime_error {
public:
    // Errors are the codes, by scope. The values are fixed, as other programs know them.
    enum Errors : uint32_t {
        // scope 0: network
        NetworkError,
        NetworkUnknown,
        HostLookupFailed,
        ServerAuthFailed,
        SrpAuthFailed,
        PskAuthFailed,
        ProxyAuthFailed,
        ConnectFailed,
        ConnectionTimedOut,
        PreconditionFailed,
        MustRetry,
        Redirect,
        ConnectionLost,
        NoNetworkResource,
        SslUpgradeFailed,
        TooManyRedirects,
        // scope 1: system
        SystemError,
        SystemUnknown,
        TcpSocketFailed,
        NoMemory,
        NullPointer,
        DirectXError,
        OpenGLError,
        WindowsError,
        CairoError,
        TimedOut,
        NotSupported,
        // scope 2: files
        FileError,
        FileUnknown,
        HttpError,
        FileNotFound,
        FileAccessDenied,
        FileReadOnly,
        FileExists,
        FileContentBad,
        FileNameBad,
        FileReadError,
        FileWriteError,
        FileRetry,
        FileNotSupported,
        FileAuthFailed,
        MethodNotAllowed,
        BadRequest,
        InsufficientStorage,
        InternalServerError,
        // scope 3: input
        InputError,
        InputUnknown,
        EmptyInput,
        StringTooLong,
        StringNotValid,
        InvalidState,
        // scope 5: the user
        CanceledByUser,
        // scope 6: anything else
        UnknownError
    };

    // ORVErrorDesc looks texts and scopes up by code.
    class ORVErrorDesc {
    public:
        // Description is one row of a table as it is written down. A row with a null text ends the table.
        struct Description {
            uint32_t code;
            uint32_t scope;
            const char* text;
        };

        // ORVErrorDesc copies a table of n rows with the codes 0 to n - 1, in any order.
        explicit ORVErrorDesc(const Description* table);

        // desc and scope return text and scope of `errorCode`. The two codes after the last have an empty text and
        // scope 0; any other code outside the table counts as code 0.
        const std::string& desc(int errorCode) const { return row(errorCode).text; }
        uint32_t scope(int errorCode) const { return row(errorCode).scope; }

    private:
        struct DescriptionStr {
            uint32_t scope = 0;
            std::string text;
        };

        const DescriptionStr& row(int errorCode) const;

        std::vector<DescriptionStr> m_aRows;
    };

    // ORVError makes an error with the text `toString(errorCode)`, or `toString(errorCode, detail)`.
    explicit ORVError(Errors errorCode);
    ORVError(Errors errorCode, const std::string& detail);

    // getCode returns the code.
    Errors getCode() const { return code; }

    // toString returns the text of a code. A `detail` that isn't empty follows after " : ", without the line breaks at
    // its end.
    static const std::string& toString(Errors errorCode);
    static std::string toString(Errors errorCode, std::string detail);

    // toScope returns the scope of a code.
    static uint32_t toScope(Errors errorCode);

    // truncateName shortens a UTF-8 name of more than `maxLength` code points to its first and last `maxLength` / 2 and
    // "..." between them. Kept: the limit does not count the "...", so the result may be three code points longer.
    static std::string truncateName(const std::string& name, int maxLength);
    static std::string truncateName(std::string&& name, int maxLength);

    // convertAPRError returns the error for an APR status, which may be an errno value. `name` is what the failed call
    // was about, or null.
    static ORVError convertAPRError(int status, const char* name);

    // convertPosixError returns an error with `errorCode`; its detail is `name`, unless that is null, and the text of
    // `errnum`. Kept: the name comes first here, and last where `convertAPRError` has no code for the status.
    static ORVError convertPosixError(Errors errorCode, int errnum, const char* name);

    // throwFTPError and throwCurlError throw the error for a result code of libcurl, of an FTP transfer or any other:
    // an ORVAuthError where credentials are at fault, else an ORVError. The detail is made of `verb`, the shortened URI
    // in the form for people, and `detail`, or "failed" if that is null or empty.
    [[noreturn]] static void throwFTPError(int result, const char* verb, const URI& uri, const char* detail);
    [[noreturn]] static void throwCurlError(int result, const char* verb, const URI& uri, const char* detail);

    // throwHTTPError throws the error for an HTTP status: an ORVAuthError with `extra` for 401 and 407, else an
    // ORVError. The detail is made of `verb`, the URI, the status and `reason`.
    [[noreturn]] static void throwHTTPError(int status, const char* verb, const URI& uri, const std::string& extra,
                                            const std::string& reason);

    // ms_aErrors is the table of all errors, and ms_oErrors looks them up.
    static const ORVErrorDesc::Description ms_aErrors[];
    static const ORVErrorDesc ms_oErrors;

private:
    Errors code;
};
