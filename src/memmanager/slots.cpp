#include "memmanager/slots.h"

#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>

namespace memm {

namespace {

struct Found {
    unsigned char *slot;  // where the search stopped; beyond the limit when it found nothing
    unsigned path;
};

// The first free slot from first_free on, or the one past the limit. Counted is the distance, as if every slot between
// had been looked at.
Found scan(const PoolAid &aid, unsigned char *limit) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *slot = pool.first_free;
    u32 steps = 0;
    if (aid.index == nullptr) {
        for (; slot <= limit && !is_free(slot); slot += pool.slot_size) {
            ++steps;
        }
    } else {
        const u32 from = aid.number_of(slot);
        const u32 beyond = aid.number_of(limit) + 1;
        const u32 number = std::min(aid.index->lowest_free(from), beyond);
        aid.wrong_guesses = ~0U;
        slot = slot_at(pool, number);
        steps = number - from;
    }
    add(pool.scan_steps, steps);
    if (slot > limit) {
        return {slot, MEMM_PATH_OTHER};
    }
    store(pool.first_free, slot + pool.slot_size);
    return {slot, MEMM_PATH_SCAN};
}

// The second guess stays out of the spare slots whatever the limit is.
Found search_on(const PoolAid &aid, unsigned char *limit) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const next = pool.last_used + pool.slot_size;
    if (pool.last_used < pool.last_normal && is_free(aid, next)) {
        return {next, MEMM_PATH_LAST_USED};
    }
    return pool.first_free <= limit ? scan(aid, limit) : Found{pool.first_free, MEMM_PATH_OTHER};
}

// Two guesses, then the scan. A pool without slots has nothing to look at.
Found find_free(const PoolAid &aid, unsigned char *limit) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const first = pool.first_free;
    if (first == nullptr) [[unlikely]] {
        return {nullptr, MEMM_PATH_OTHER};
    }
    if (first <= limit && is_free(aid, first)) [[likely]] {
        store(pool.first_free, first + pool.slot_size);
        return {first, MEMM_PATH_FIRST_FREE};
    }
    return search_on(aid, limit);
}

void count(Pool &pool, const Found &found) noexcept
{
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[found.path], 1);
}

// The search stopped above the ordinary slots.
[[gnu::noinline]] void report_spare_use(const Pool &pool, const unsigned char *stopped, bool taken) noexcept
{
    if (int *flag = load(pool.spare_flag); taken && flag != nullptr) {
        store(*flag, 1);
    }
    const u32 distance = static_cast<u32>(stopped - pool.last_normal) / pool.slot_size;
    if (distance >= 10 && is_traced(1)) {
        trc_def_printf("Using spare buffer %i\r\n", static_cast<int>(distance));
    }
}

// A free slot becomes a zeroed object. The header is written apart from it, for others may be reading that. The table
// of descriptors is zero from the start, and read without the lock.
void *occupy(const PoolAid &aid, unsigned char *slot) noexcept
{
    void *const object = object_in(slot);
    const bool is_descriptor = aid.id == PoolId::descriptors;
    if (is_descriptor) {
        registry.enrol(*static_cast<Pool *>(object));
    }
    ObjectHeader{aid.id}.write_to(slot);
    if (aid.index != nullptr) {
        aid.index->set(aid.number_of(slot));
    }
    note_taken(*aid.pool, slot);
    return is_descriptor ? object : std::memset(object, 0, aid.pool->slot_size - kHeaderBytes);
}

}  // namespace

void *take_lowest_slot(Held held, const PoolAid &aid) noexcept { return take_lowest_slot_at_once(held, aid); }

void *take_slot_elsewhere(const PoolAid &aid, Reserve reserve) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const limit = reserve == Reserve::open ? pool.last_item : pool.last_normal;
    const Found found = find_free(aid, limit);
    const bool taken = found.slot <= limit && found.slot != nullptr;
    count(pool, found);
    void *const object = taken ? occupy(aid, found.slot) : nullptr;
    if (found.slot > pool.last_normal) [[unlikely]] {
        report_spare_use(pool, found.slot, taken);
    }
    return object;
}

// The slot's return would bring first_free back to it.
bool pass_slot_elsewhere(const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    const Found found = find_free(aid, pool.last_item);
    const bool taken = found.slot <= pool.last_item && found.slot != nullptr;
    count(pool, found);
    if (taken) {
        raise_highest(pool, load(pool.cur_count) + 1);
        if (found.path != MEMM_PATH_LAST_USED) {
            store(pool.first_free, found.slot);
        }
        add(pool.free_count, 1);
    }
    if (found.slot > pool.last_normal) [[unlikely]] {
        report_spare_use(pool, found.slot, taken);
    }
    return taken;
}

namespace {

// The highest slot in use at or below this one; the first slot when there is none.
unsigned char *highest_used_from(const PoolAid &aid, unsigned char *slot) noexcept
{
    const Pool &pool = *aid.pool;
    if (aid.index != nullptr) {
        const u32 number = aid.index->previous_used(aid.number_of(slot));
        return number == SlotIndex::kNone ? pool.slots : slot_at(pool, number);
    }
    while (slot > pool.slots && is_free(slot)) {
        slot -= pool.slot_size;
    }
    return slot;
}

}  // namespace

void finish_release(Held held, const PoolAid &aid, unsigned char *slot) noexcept
{
    if (!finish_release_at_once(held, aid, slot)) [[unlikely]] {
        void *const object = object_in(slot);
        finish_releases(held, aid, &object, 1);
    }
}

void finish_releases(Held, const PoolAid &aid, void *const *objects, u32 count) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *first_free = pool.first_free;
    for (u32 i = 0; i < count; ++i) {
        unsigned char *const slot = slot_of(objects[i]);
        ObjectHeader{}.write_to(slot);
        first_free = std::min(first_free, slot);
        if (aid.index != nullptr) {
            aid.index->clear_one_of_many(aid.number_of(slot));
        }
    }
    add(pool.free_count, count);
    add(pool.cur_count, -static_cast<int>(count));
    store(pool.first_free, first_free);
    if (is_free(aid, pool.last_used)) {
        store(pool.last_used, highest_used_from(aid, pool.last_used));
    }
}

unsigned char *next_in_use(const Pool &pool, unsigned char *from) noexcept
{
    if (!has_slots(pool) || from > pool.last_used) {
        return nullptr;
    }
    unsigned char *slot = from;
    if (PoolAid &aid = registry.aid(id_of(pool)); aid.index != nullptr) {
        const u32 number = aid.index->next_used(aid.number_of(from));
        slot = number == SlotIndex::kNone ? nullptr : slot_at(pool, number);
    } else {
        while (slot <= pool.last_used && is_free(slot)) {
            slot += pool.slot_size;
        }
    }
    return slot != nullptr && slot <= pool.last_used ? slot : nullptr;
}

}  // namespace memm
