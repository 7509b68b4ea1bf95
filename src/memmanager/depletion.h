#pragma once

#include "memmanager/pool.h"

namespace memm {

// Everything that happens when an allocation has found no slot: flag, message, check of all pools, dump file.
void report_depletion(Held, Pool &pool) noexcept;

}  // namespace memm
