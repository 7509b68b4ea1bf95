#include "base/format.h"
#include "memmanager/pool.h"
#include "memmanager/report.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

void trace_finding(const char *text, const Pool &pool) noexcept
{
    if (is_traced(2)) {
        trc_def_printf(text, pool.name);
    }
}

// The number of the first slot whose header names another pool; slot_count when there is none. What is wrong with the
// marks that the search keeps is traced on the way: once for every slot that shows it, the first finding for every
// slot.
u32 check_pool(const Pool &pool, PoolId id) noexcept
{
    const auto slots = static_cast<u32>(pool.slot_count);
    const bool ends_too_late = pool.last_item < pool.last_used;
    const unsigned char *const first_free = pool.first_free;
    const unsigned char *const last_used = pool.last_used;
    const unsigned char *slot = pool.slots;
    for (u32 number = 0; number < slots; ++number, slot += pool.slot_size) {
        const ObjectHeader header = ObjectHeader::of_slot(slot);
        if (header.in_use() && header.pool() != id) [[unlikely]] {
            return number;
        }
        if (ends_too_late) [[unlikely]] {
            trace_finding("[MEMM] pool '%s' has last_used > last_item\r\n", pool);
        }
        if (header.in_use() ? slot > last_used : slot < first_free) [[unlikely]] {
            trace_finding(header.in_use() ? "[MEMM] pool '%s' has item in use > ppool>last_use\r\n"
                                          : "[MEMM] pool '%s' has free item < ppool->first_free\r\n",
                          pool);
        }
    }
    return slots;
}

}  // namespace

bool check_slots(Held, char *finding, std::size_t size) noexcept
{
    for (u32 id = 0; id < registry.count(); ++id) {
        const Pool &pool = registry.at(id);
        if (!has_slots(pool)) {
            continue;
        }
        const u32 number = check_pool(pool, PoolId{id});
        if (number == static_cast<u32>(pool.slot_count)) {
            continue;
        }
        format_to(finding, size, "invalid poolid: %d.%s.%d.0x%08lx", static_cast<int>(id), pool.name,
                  static_cast<int>(number), reinterpret_cast<unsigned long>(slot_at(pool, number)));
        if (is_traced(1)) {
            trc_def_printf("[MEMM] integrity check failed: %s\r\n", finding);
        }
        return false;
    }
    return true;
}

}  // namespace memm
