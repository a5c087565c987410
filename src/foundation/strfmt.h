// strfmt.h: printf-formatted text as std::string, and errno values as text.
//
// strfmt and strvfmt build the text in a malloc buffer that grows until it fits. They return the empty string when
// memory is exhausted, and for a text that vsnprintf cannot make (longer than an int, or with a bad wide character):
// they serve log records and must not add a failure to the one being reported. Pure functions, usable from any thread.
#pragma once

#include <cstdarg>
#include <string>

// strfmt formats its arguments as printf does and returns the text.
[[gnu::format(printf, 1, 2)]] std::string strfmt(const char* format, ...);

// strvfmt is strfmt with an argument list. Only copies of the list are consumed.
[[gnu::format(printf, 1, 0)]] std::string strvfmt(const char* format, va_list arguments);

// stringerror returns the text of the errno value `errnum` as GNU strerror_r words it, cut at 255 bytes.
std::string stringerror(int errnum);
