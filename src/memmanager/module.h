#pragma once

#include "base/ids.h"
#include "base/result.h"
#include "memmanager/manager_lock.h"

#include <span>

namespace memm {

// What the floors above answer when the manager asks. The table is constant and stands on the roof.
struct Module {
    Result (*start)(int parameter) noexcept;            // the last act of memm_init
    bool (*pool_is_sound)(Held, PoolId pool) noexcept;  // asked for every pool; true for pools of other modules
};

std::span<const Module> modules() noexcept;

}  // namespace memm
