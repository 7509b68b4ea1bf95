#include "memmanager/pool.h"

#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <cstring>

namespace memm {

namespace {

struct Found {
    unsigned char *slot;  // where the search stopped; beyond the limit when it found nothing
    unsigned path;
};

bool is_free(const unsigned char *slot) noexcept { return !ObjectHeader::of_slot(slot).in_use(); }

// The first free slot from first_free on, or the one past the limit. Counted is the distance, as if every slot between
// had been looked at.
Found scan(Pool &pool, const PoolAid &aid, unsigned char *limit) noexcept
{
    unsigned char *const from = pool.first_free;
    unsigned char *const beyond = limit + pool.slot_size;
    unsigned char *slot = from;
    if (aid.index == nullptr) {
        while (slot <= limit && !is_free(slot)) {
            slot += pool.slot_size;
        }
    } else {
        const u32 number = aid.index->next_free(aid.number_of(pool, from));
        slot = number > aid.number_of(pool, limit) ? beyond : slot_at(pool, number);
    }
    add(pool.scan_steps, static_cast<u32>(slot - from) / pool.slot_size);
    if (slot > limit) {
        return {slot, MEMM_PATH_OTHER};
    }
    store(pool.first_free, slot + pool.slot_size);
    return {slot, MEMM_PATH_SCAN};
}

// Two guesses, then the scan. The second guess stays out of the spare slots whatever the limit is.
Found find_free(Pool &pool, const PoolAid &aid, unsigned char *limit) noexcept
{
    unsigned char *const first = pool.first_free;
    if (first <= limit && is_free(first)) [[likely]] {
        store(pool.first_free, first + pool.slot_size);
        return {first, MEMM_PATH_FIRST_FREE};
    }
    unsigned char *const next = pool.last_used + pool.slot_size;
    if (pool.last_used < pool.last_normal && is_free(next)) {
        return {next, MEMM_PATH_LAST_USED};
    }
    return first <= limit ? scan(pool, aid, limit) : Found{first, MEMM_PATH_OTHER};
}

void report_spare_use(const Pool &pool, const unsigned char *stopped) noexcept
{
    const u32 distance = static_cast<u32>(stopped - pool.last_normal) / pool.slot_size;
    if (distance >= 10 && is_traced(1)) {
        trc_def_printf("Using spare buffer %i\r\n", static_cast<int>(distance));
    }
}

void *occupy(Pool &pool, PoolId id, const PoolAid &aid, unsigned char *slot) noexcept
{
    if (id != PoolId::descriptors) {  // the pool table is zero from the start, and others read it without the lock
        std::memset(slot + kHeaderBytes, 0, pool.slot_size - kHeaderBytes);
    }
    ObjectHeader{id}.write_to(slot);
    if (aid.index != nullptr) {
        aid.index->set(aid.number_of(pool, slot));
    }
    const int now = add(pool.cur_count, 1);
    raise_to(pool.max_count, now);
    if (const int *base = load(pool.count_base); base != nullptr) {
        raise_to(pool.max_count_rel, now - *base);
    }
    if (slot > pool.last_used) {
        store(pool.last_used, slot);
    }
    return object_in(slot);
}

}  // namespace

void *take_slot(Held, PoolId id, Reserve reserve) noexcept
{
    Pool &pool = registry.at(to_index(id));
    const PoolAid &aid = registry.aid(id);
    unsigned char *const limit = reserve == Reserve::open ? pool.last_item : pool.last_normal;
    Found found{nullptr, MEMM_PATH_OTHER};
    bool taken = false;
    if (has_slots(pool)) [[likely]] {
        found = find_free(pool, aid, limit);
        taken = found.slot <= limit;
        if (found.slot > pool.last_normal) [[unlikely]] {
            report_spare_use(pool, found.slot);
            if (int *flag = load(pool.spare_flag); taken && flag != nullptr) {
                store(*flag, 1);
            }
        }
    }
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[found.path], 1);
    return taken ? occupy(pool, id, aid, found.slot) : nullptr;
}

void return_slot(Held, Pool &pool, unsigned char *slot) noexcept
{
    const PoolAid &aid = registry.aid(id_of(pool));
    add(pool.cur_count, -1);
    ObjectHeader{}.write_to(slot);
    if (aid.index != nullptr) {
        aid.index->clear(aid.number_of(pool, slot));
    }
    if (slot < pool.first_free) {
        store(pool.first_free, slot);
    }
    if (slot != pool.last_used || slot == pool.slots) {
        return;
    }
    unsigned char *used = slot;
    if (aid.index != nullptr) {
        const u32 number = aid.index->previous_used(aid.number_of(pool, slot));
        used = number == SlotIndex::kNone ? pool.slots : slot_at(pool, number);
    } else {
        while (used > pool.slots && is_free(used)) {
            used -= pool.slot_size;
        }
    }
    store(pool.last_used, used);
}

unsigned char *next_in_use(const Pool &pool, unsigned char *from) noexcept
{
    if (!has_slots(pool) || from > pool.last_used) {
        return nullptr;
    }
    unsigned char *slot = from;
    if (const PoolAid &aid = registry.aid(id_of(pool)); aid.index != nullptr) {
        const u32 number = aid.index->next_used(aid.number_of(pool, from));
        slot = number == SlotIndex::kNone ? nullptr : slot_at(pool, number);
    } else {
        while (slot <= pool.last_used && is_free(slot)) {
            slot += pool.slot_size;
        }
    }
    return slot != nullptr && slot <= pool.last_used ? slot : nullptr;
}

}  // namespace memm
