#pragma once

#include <cstdint>

namespace memm {

// Of numbers that callbacks may have made up: no overflow, and of nothing it is 0.
constexpr int percentage(int part, int whole) noexcept
{
    return whole == 0 ? 0 : static_cast<int>(std::int64_t{part} * 100 / whole);
}

}  // namespace memm
