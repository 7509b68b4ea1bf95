#include "memmanager/trace.h"

#include "base/shared_word.h"

#include <memmanager/memmanager.h>
#include <algorithm>

namespace memm {

namespace {

constexpr int kMostVerbose = 2;

constinit int trace_level = kMostVerbose;

}  // namespace

bool is_traced(int level) noexcept { return load(trace_level) >= level; }

}  // namespace memm

using namespace memm;

extern "C" {

// Larger requests are cut to the most verbose level; negative ones switch everything off.
void memm_set_trace(int level) { store(trace_level, std::min(level, kMostVerbose)); }

int memm_get_trace(int level)
{
    constexpr int kAskForLevel = -1;
    return level == kAskForLevel ? load(trace_level) : is_traced(level);
}
}
