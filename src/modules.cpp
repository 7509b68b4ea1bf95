#include "dynstring/text_pool.h"
#include "memmanager/module.h"

namespace memm {

// The roof: the only file that knows every floor.
static constexpr Module kModules[] = {{.start = strings::start, .pool_is_sound = strings::pool_is_sound}};

std::span<const Module> modules() noexcept { return kModules; }

}  // namespace memm
