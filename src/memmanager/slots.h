#pragma once

#include "memmanager/pool.h"

#include <cstring>

// Taking and giving back slots. What every allocation and release goes through is inline; slots.cpp has the rest.
namespace memm {

enum class Reserve : bool { closed, open };  // whether an allocation may take spare slots

inline bool is_free(const unsigned char *slot) noexcept { return !ObjectHeader::of_slot(slot).in_use(); }

inline void raise_highest(Pool &pool, int in_use) noexcept
{
    raise_to(pool.max_count, in_use);
    if (const int *base = load(pool.count_base); base != nullptr) {
        raise_to(pool.max_count_rel, in_use - *base);
    }
}

// A free slot becomes a zeroed object. Not for descriptors.
[[gnu::always_inline]] inline void *occupy(const PoolAid &aid, unsigned char *slot) noexcept
{
    Pool &pool = *aid.pool;
    ObjectHeader{aid.id}.write_to(slot);
    if (aid.index != nullptr) {
        aid.index->set(aid.number_of(slot));
    }
    raise_highest(pool, add(pool.cur_count, 1));
    if (slot > pool.last_used) {
        store(pool.last_used, slot);
    }
    // The header is left alone, for others may be reading it.
    return std::memset(object_in(slot), 0, pool.slot_size - kHeaderBytes);
}

void *take_slot_elsewhere(const PoolAid &aid, Reserve reserve) noexcept;

// A zeroed object, or null; keeps the counters.
[[gnu::always_inline]] inline void *take_slot(Held, const PoolAid &aid, Reserve reserve) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const slot = pool.first_free;
    if (!aid.is_ordinary || slot > pool.last_normal || !is_free(slot)) [[unlikely]] {
        return take_slot_elsewhere(aid, reserve);
    }
    store(pool.first_free, slot + pool.slot_size);
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[MEMM_PATH_FIRST_FREE], 1);
    return occupy(aid, slot);
}

bool pass_slot_elsewhere(const PoolAid &aid) noexcept;

// What taking a slot, spare or not, and giving it back at once would leave behind, without touching it: false when none
// is free. The pool has an object in use, so that last_used would end where it is.
inline bool pass_slot(Held, const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    if (!aid.is_ordinary || pool.first_free > pool.last_normal || !is_free(pool.first_free)) [[unlikely]] {
        return pass_slot_elsewhere(aid);
    }
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[MEMM_PATH_FIRST_FREE], 1);
    raise_highest(pool, load(pool.cur_count) + 1);
    add(pool.free_count, 1);
    return true;
}

// The highest slot in use below a freed one; the first slot when there is none.
unsigned char *highest_used_below(const PoolAid &aid, unsigned char *slot) noexcept;

// A slot in use becomes free.
[[gnu::always_inline]] inline void return_slot(Held, const PoolAid &aid, unsigned char *slot) noexcept
{
    Pool &pool = *aid.pool;
    add(pool.cur_count, -1);
    ObjectHeader{}.write_to(slot);
    if (aid.index != nullptr) {
        aid.index->clear(aid.number_of(slot));
    }
    if (slot < pool.first_free) {
        store(pool.first_free, slot);
    }
    // Deliberate: when all slots are free again, this ends on the first one, not before it.
    if (slot == pool.last_used && slot > pool.slots) {
        store(pool.last_used, highest_used_below(aid, slot));
    }
}

// The end of a release to which the object's owner has agreed.
inline void finish_release(Held held, const PoolAid &aid, unsigned char *slot) noexcept
{
    return_slot(held, aid, slot);
    add(aid.pool->free_count, 1);
}

}  // namespace memm
