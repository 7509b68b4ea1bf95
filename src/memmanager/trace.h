#pragma once

namespace memm {

// True when a diagnostic of this level is to be traced: 1 failures, 2 details.
bool is_traced(int level) noexcept;

}  // namespace memm
