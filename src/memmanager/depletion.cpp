#include "memmanager/depletion.h"

#include "base/format.h"
#include "memmanager/dump.h"
#include "memmanager/report.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

// An application's output channel may allocate too, and find the same pool empty: its own message still goes out, what
// that message would lead to in turn is only flagged. Guarded by the manager lock.
constinit unsigned depth = 0;
constexpr unsigned kDeepest = 2;

void report(Held held, const Pool &pool) noexcept
{
    char message[100];
    format_to(message, sizeof message, "memm_calloc() failed for pool '%s' (%s)", load(pool.name), "pool depleted");
    err_printf(MEMM_E_NO_MEMORY, 2, "memm", "memmanager", __LINE__, message);
    if (is_traced(1)) {
        trc_def_printf("%s", message);
    }
    if (depth > 1) {
        return;
    }
    check_slots(held, message, sizeof message);
    if (!is_dumping(held)) {
        dump_depletion(held, load(pool.name), message);
    }
}

}  // namespace

void report_depletion(Held held, Pool &pool) noexcept
{
    store(pool.flags, load(pool.flags) | kDepleted);
    if (depth < kDeepest) {
        ++depth;
        report(held, pool);
        --depth;
    }
}

}  // namespace memm
