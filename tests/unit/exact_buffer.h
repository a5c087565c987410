// exact_buffer.h: a text in a heap block of exactly its size, so that the address sanitizer sees a read of one unit too
// many.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

template <class Unit>
class ExactBuffer {
public:
    // ExactBuffer copies `text`; with `terminate` a zero unit follows and belongs to the block.
    explicit ExactBuffer(std::basic_string_view<Unit> text, bool terminate = false)
        : m_nSize(text.size()), m_pUnits(std::make_unique<Unit[]>(text.size() + (terminate ? 1 : 0))) {
        std::copy(text.begin(), text.end(), m_pUnits.get());
    }

    const Unit* data() const { return m_pUnits.get(); }

    // size is the number of units without the terminator.
    size_t size() const { return m_nSize; }

private:
    size_t m_nSize;
    std::unique_ptr<Unit[]> m_pUnits;
};
