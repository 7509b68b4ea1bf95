#pragma once

#include <memmanager/memmanager.h>

namespace memm {

// The fixed type lets a code of the platform pass through unchanged.
enum class [[nodiscard]] Result : unsigned{
    ok = MEMM_OK,
    too_small = MEMM_E_TOO_SMALL,
    no_memory = MEMM_E_NO_MEMORY,
    invalid = MEMM_E_INVALID,
    started = MEMM_E_STARTED,
    setup = MEMM_E_SETUP,
    kept = MEMM_KEPT,
};

constexpr unsigned to_c(Result result) noexcept { return static_cast<unsigned>(result); }

constexpr int to_int(Result result) noexcept { return static_cast<int>(result); }

}  // namespace memm
