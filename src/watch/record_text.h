// record_text.h: text from outside as records show it.
#pragma once

#include <string>

// recordText returns `text` with each control byte written as "\x0a" or the like, so that a record stays one line and
// nothing in a name or a path can pass for a record or steer a terminal.
std::string recordText(const std::string& text);
