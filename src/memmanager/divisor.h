#pragma once

#include "base/bits.h"

#include <bit>

namespace memm {

// Exact division by a number that is known long before: one multiplication by the inverse of its odd part, one rotation
// that takes out its power of two. A dividend that is no multiple gives a quotient above every possible one.
class Divisor {
    u32 inverse_ = 0;
    u32 highest_ = 0;
    int shift_ = 0;

    // Each step doubles the bits that are right; an odd number is its own inverse in the lowest three.
    static constexpr u32 inverse_of(u32 odd) noexcept
    {
        u32 inverse = odd;
        for (int right = 3; right < 32; right *= 2) {
            inverse *= 2 - odd * inverse;
        }
        return inverse;
    }

public:
    constexpr Divisor() noexcept = default;
    constexpr explicit Divisor(u32 divisor) noexcept
        : inverse_(inverse_of(divisor >> std::countr_zero(divisor))), highest_(~0U / divisor),
          shift_(std::countr_zero(divisor))
    {
    }

    // Of a multiple; is_exact() tells whether it was one.
    constexpr u32 quotient(u32 dividend) const noexcept { return std::rotr(dividend * inverse_, shift_); }
    constexpr bool is_exact(u32 quotient) const noexcept { return quotient <= highest_; }

    constexpr bool divides(u32 dividend) const noexcept { return is_exact(quotient(dividend)); }
};

static_assert(Divisor{24}.quotient(24 * 7) == 7 && !Divisor{24}.divides(25) && Divisor{24}.divides(0));
static_assert(Divisor{20}.quotient(20 * 214748364U) == 214748364U && !Divisor{20}.divides(10));

}  // namespace memm
