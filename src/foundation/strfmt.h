// strfmt.h: printf-formatted text as std::string, and errno values as text.
//
// The result is built in a malloc buffer that grows until the text fits, so its length has no limit. When memory is
// exhausted the result is the empty string: these functions serve log records and must not add a failure to the one
// being reported. Pure functions, usable from any thread.
#pragma once

#include <cstdarg>
#include <string>

// strfmt formats its arguments as printf does and returns the text.
[[gnu::format(printf, 1, 2)]] std::string strfmt(const char* format, ...);

// strvfmt is strfmt with an argument list. Only copies of the list are consumed.
[[gnu::format(printf, 1, 0)]] std::string strvfmt(const char* format, va_list arguments);

// stringerror returns the text of the errno value `errnum` as GNU strerror_r words it, cut at 255 bytes.
std::string stringerror(int errnum);
