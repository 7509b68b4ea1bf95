#pragma once

#include "memmanager/manager_lock.h"

#include <memmanager/memmanager.h>
#include <cstddef>

namespace memm {

// The dumps' level: deleted records are left out.
inline constexpr int kDumpLevel = 4;

// Reports; `prefix` selects pools by name, see is_selected().
void print_statistics(Held, const char *prefix, memm_printf_fn print) noexcept;  // report_stats.cpp
void print_objects(Held, const char *prefix, int level) noexcept;  // report_objects.cpp, through dbg_printf

// Checks the slots of every pool and traces what it finds. A header with a wrong pool id ends the check: then the
// result is false and `finding` says where.
bool check_slots(Held, char *finding, std::size_t size) noexcept;  // integrity.cpp

}  // namespace memm
