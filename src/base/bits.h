#pragma once

#include <cstdint>

namespace memm {

using u32 = std::uint32_t;
using u64 = std::uint64_t;

// A field of a packed 32-bit word.
template <unsigned Shift, unsigned Width> struct Bits {
    static_assert(Width > 0 && Shift + Width <= 32);
    static constexpr u32 kMax = 0xffffffffU >> (32 - Width);
    static constexpr u32 get(u32 word) noexcept { return (word >> Shift) & kMax; }
    static constexpr u32 put(u32 word, u32 value) noexcept
    {
        return (word & ~(kMax << Shift)) | ((value & kMax) << Shift);
    }
};

constexpr u64 round_up(u64 value, u64 multiple) noexcept { return (value + multiple - 1) / multiple * multiple; }

}  // namespace memm
