// error_text.h: what the texts of errors have in common; for the sources of orv_error.h and protocol_errors.h only.
#pragma once

#include <string>

// MAX_NAME_LENGTH is the greatest number of code points of a name that an error's text holds unshortened.
constexpr int MAX_NAME_LENGTH = 100;

// withoutLineBreaks returns `text` without the line breaks at its end: an error is one line of a log.
inline std::string withoutLineBreaks(std::string text) {
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
}
