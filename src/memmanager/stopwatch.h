#pragma once

#include "base/bits.h"

#include <memmanager/platform.h>
#include <memmanager/timestat.h>

// An interval by the platform's clock, as two readings.
namespace memm {

inline void start(timestat &watch) noexcept { xtm_gettimestamp(&watch.start_seconds, &watch.start_microseconds); }

inline void stop(timestat &watch) noexcept { xtm_gettimestamp(&watch.stop_seconds, &watch.stop_microseconds); }

// Wraps after 71 minutes. A stop before the start is traced, whatever the trace level, and counts as no time.
u32 elapsed_us(const timestat &watch) noexcept;

}  // namespace memm
