#pragma once

#include "base/bits.h"

namespace memm {

// The index of a pool's descriptor in the pool table.
enum class PoolId : u32 {
    descriptors = 0,  // the pool whose objects are the descriptors
    none = 0x7fffff,  // what the header of a free slot, or of memory that cannot be read, names
    invalid = 0xffffffff,
};

constexpr u32 to_index(PoolId id) noexcept { return static_cast<u32>(id); }

}  // namespace memm
