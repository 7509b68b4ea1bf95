#pragma once

#include "base/bits.h"

#include <cstddef>
#include <string_view>

namespace memm::strings {

// A number as it stands in a text. Magnitudes beyond 32 bits are not told apart.
struct Number {
    u64 magnitude = 0;
    bool negative = false;

    // As a C library converts it whose long has 32 bits: what is too large becomes the limit, a minus sign before an
    // unsigned number wraps.
    constexpr u32 as_unsigned() const noexcept
    {
        return magnitude > 0xffffffffU ? 0xffffffffU : static_cast<u32>(negative ? 0U - magnitude : magnitude);
    }
    constexpr int as_signed() const noexcept
    {
        if (negative) {
            return magnitude >= 0x80000000U ? -0x7fffffff - 1 : -static_cast<int>(magnitude);
        }
        return magnitude > 0x7fffffffU ? 0x7fffffff : static_cast<int>(magnitude);
    }
};

// Walks along a text as sscanf does, one conversion a call; the locale plays no part. After a call that answers false,
// there is nothing more to convert.
class Scanner {
    const char *at_;
    const char *const end_;

    static constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

    // No digit of any base: 16.
    static constexpr unsigned digit(char c) noexcept
    {
        const unsigned lower = static_cast<unsigned char>(c) | 0x20U;
        if (c >= '0' && c <= '9') {
            return static_cast<unsigned>(c - '0');
        }
        return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 16;
    }

    constexpr bool number(unsigned base, std::size_t width, Number &number) noexcept
    {
        while (at_ != end_ && is_space(*at_)) {
            ++at_;
        }
        const char *const stop = static_cast<std::size_t>(end_ - at_) > width ? at_ + width : end_;
        number = {};
        if (at_ != stop && (*at_ == '-' || *at_ == '+')) {
            number.negative = *at_++ == '-';
        }
        const char *const digits = at_;
        if (base == 16 && stop - at_ >= 2 && at_[0] == '0' && (at_[1] == 'x' || at_[1] == 'X')) {
            at_ += 2;  // the prefix alone is a 0
        }
        for (; at_ != stop && digit(*at_) < base; ++at_) {
            if (number.magnitude <= 0xffffffffU) {
                number.magnitude = number.magnitude * base + digit(*at_);
            }
        }
        return at_ != digits;
    }

public:
    constexpr explicit Scanner(std::string_view text) noexcept : at_(text.data()), end_(text.data() + text.size()) {}

    // "%ld" and "%lu"; with a width "%02d"
    constexpr bool decimal(Number &result) noexcept { return number(10, ~std::size_t{0}, result); }
    constexpr bool decimal(std::size_t width, Number &result) noexcept { return number(10, width, result); }

    // "%02x"
    constexpr bool hexadecimal(std::size_t width, Number &result) noexcept { return number(16, width, result); }

    // "%c"
    constexpr bool any() noexcept { return at_ != end_ && (++at_, true); }

    constexpr bool literal(char c) noexcept { return at_ != end_ && *at_ == c && (++at_, true); }
};

}  // namespace memm::strings
