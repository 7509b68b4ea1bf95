#pragma once

#include "base/bits.h"

namespace memm {

// Division by a number that is known long before, by two multiplications: exact for every 32-bit dividend and every
// divisor of 2 or more.
class Divisor {
    u64 reciprocal_ = 0;  // 2^64 / divisor, rounded up

public:
    constexpr Divisor() noexcept = default;
    constexpr explicit Divisor(u32 divisor) noexcept : reciprocal_(~u64{0} / divisor + 1) {}

    constexpr u32 quotient(u32 dividend) const noexcept
    {
        const u64 low = u64{dividend} * static_cast<u32>(reciprocal_);
        const u64 high = u64{dividend} * (reciprocal_ >> 32);
        return static_cast<u32>((high + (low >> 32)) >> 32);
    }

    constexpr bool divides(u32 dividend) const noexcept { return dividend * reciprocal_ < reciprocal_; }
};

}  // namespace memm
