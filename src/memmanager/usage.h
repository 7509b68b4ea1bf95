#pragma once

#include "base/ids.h"

#include <cstdint>

// What reports say about how full something is.
namespace memm {

// Of numbers that callbacks may have made up: no overflow, and of nothing it is 0.
constexpr int percentage(std::int64_t part, std::int64_t whole) noexcept
{
    return whole == 0 ? 0 : static_cast<int>(part * 100 / whole);
}

// Callbacks of pools whose objects hold memory elsewhere add it to a report's totals, so these may be anything.
constexpr void add_to(int *total, int more) noexcept
{
    if (total != nullptr) {
        *total = static_cast<int>(static_cast<u32>(*total) + static_cast<u32>(more));
    }
}

}  // namespace memm
