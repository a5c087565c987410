#include "foundation/strfmt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr size_t FIRST_SIZE = 512;
constexpr size_t ERROR_TEXT_SIZE = 256;

// FormatBuffer is a malloc buffer that grows by realloc; a null buffer means that memory is exhausted.
class FormatBuffer {
public:
    FormatBuffer() : m_pText(static_cast<char*>(malloc(FIRST_SIZE))), m_nSize(FIRST_SIZE) {}
    FormatBuffer(const FormatBuffer&) = delete;
    FormatBuffer& operator=(const FormatBuffer&) = delete;
    ~FormatBuffer() { free(m_pText); }

    bool isAllocated() const { return m_pText != nullptr; }
    char* text() { return m_pText; }
    size_t size() const { return m_nSize; }
    bool holds(int length) const { return length >= 0 && static_cast<size_t>(length) < m_nSize; }

    // growFor makes room for a text of `length` bytes, or doubles the buffer when the length isn't known (negative).
    bool growFor(int length) {
        const size_t size = length < 0 ? m_nSize * 2 : static_cast<size_t>(length) + 1;
        char* grown = static_cast<char*>(realloc(m_pText, size));
        if (grown == nullptr)
            return false;
        m_pText = grown;
        m_nSize = size;
        return true;
    }

private:
    char* m_pText;
    size_t m_nSize;
};

// copyOf returns the text as a string, empty when memory is exhausted.
std::string copyOf(const char* text, size_t length) {
    try {
        return std::string(text, length);
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

}  // namespace

std::string strvfmt(const char* format, va_list arguments) {
    FormatBuffer buffer;
    if (!buffer.isAllocated())
        return std::string();
    for (;;) {
        va_list attempt;
        va_copy(attempt, arguments);
        const int length = vsnprintf(buffer.text(), buffer.size(), format, attempt);
        va_end(attempt);
        if (buffer.holds(length))
            return copyOf(buffer.text(), static_cast<size_t>(length));
        if (!buffer.growFor(length))
            return std::string();
    }
}

std::string strfmt(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = strvfmt(format, arguments);
    va_end(arguments);
    return text;
}

std::string stringerror(int errnum) {
    char buffer[ERROR_TEXT_SIZE];
    return strerror_r(errnum, buffer, sizeof buffer);
}
