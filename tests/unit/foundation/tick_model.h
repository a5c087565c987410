// tick_model.h: tick conversions in 128 bits, magnitude and sign apart. Saturating and wrapping are steps of their own.
#pragma once

#include <cstdint>
#include <limits>

#include "unit/foundation/int128.h"

// wrapped brings a number of any size to 64 bits as two's complement does.
inline int64_t wrapped(Int128 number) {
    return static_cast<int64_t>(static_cast<uint64_t>(number));
}

inline UInt128 magnitude(Int128 number) {
    return number < 0 ? static_cast<UInt128>(0) - static_cast<UInt128>(number) : static_cast<UInt128>(number);
}

inline int64_t saturated(UInt128 quotient, bool negative) {
    if (quotient > static_cast<UInt128>(std::numeric_limits<int64_t>::max())) {
        return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return negative ? -static_cast<int64_t>(quotient) : static_cast<int64_t>(quotient);
}

// modelWide saturates.
inline int64_t modelWide(Int128 product, Int128 divisor) {
    return saturated(magnitude(product) / magnitude(divisor), (product < 0) != (divisor < 0));
}

// modelFraction wraps the magnitude of the product at 128 bits.
inline int64_t modelFraction(long ticks, long numerator, long denominator) {
    const UInt128 product = magnitude(ticks) * magnitude(numerator) * 1000000000u;
    return saturated(product / magnitude(denominator), ((ticks < 0) != (numerator < 0)) != (denominator < 0));
}

// modelDirect is plain 64-bit arithmetic whose product and quotient wrap.
inline int64_t modelDirect(Int128 product, long divisor) {
    return wrapped(static_cast<Int128>(wrapped(product)) / divisor);
}
