#pragma once

#include "memmanager/manager_lock.h"

namespace memm {

// Files that explain the process from outside, named after its id; docs/reports.md says when each is written. A file
// that cannot be written never hurts the caller. Usable in a signal handler: no stdio, no malloc.

void dump_usage(Held) noexcept;     // SIGUSR1: statistics of all pools
void dump_on_order(Held) noexcept;  // SIGUSR2: what /etc/config/memm_dump_pools asks for
void dump_depletion(Held, const char *pool_name, const char *reason) noexcept;

// A dump is being written: by the holder of the lock.
bool is_dumping(Held) noexcept;

}  // namespace memm
