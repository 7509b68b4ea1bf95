#pragma once

#include "memmanager/pool.h"

#include <algorithm>
#include <cstring>
#include <optional>

// Taking and giving back slots. What every allocation and release goes through is inline; slots.cpp has the rest.
namespace memm {

enum class Reserve : bool { closed, open };  // whether an allocation may take spare slots

inline bool is_free(const unsigned char *slot) noexcept { return !ObjectHeader::of_slot(slot).in_use(); }

// The index of a large pool is in the caches as a rule, the slot is not.
[[gnu::always_inline]] inline bool is_free(const PoolAid &aid, const unsigned char *slot) noexcept
{
    return aid.index != nullptr ? !aid.index->is_used(aid.number_of(slot)) : is_free(slot);
}

inline void raise_highest(Pool &pool, int in_use) noexcept
{
    raise_to(pool.max_count, in_use);
    if (const int *base = load(pool.count_base); base != nullptr) {
        raise_to(pool.max_count_rel, in_use - *base);
    }
}

// What an object's slot, taken, does to the pool's words.
[[gnu::always_inline]] inline void note_taken(Pool &pool, unsigned char *slot) noexcept
{
    raise_highest(pool, add(pool.cur_count, 1));
    if (slot > pool.last_used) {
        store(pool.last_used, slot);
    }
}

// Up to PoolAid::kMostSmall bytes, a multiple of 4: blocks of known sizes, the last one laid against the end, need no
// call.
[[gnu::always_inline]] inline void zero_small(void *object, u32 bytes) noexcept
{
    auto *first = static_cast<unsigned char *>(object);
    unsigned char *const end = first + bytes;
    if (bytes > 64) {
        for (; end - first > 64; first += 64) {
            std::memset(first, 0, 64);
        }
        if (end - first <= 16) {
            std::memset(end - 16, 0, 16);
        } else {
            std::memset(end - 64, 0, 64);
        }
    } else if (bytes >= 16) {
        std::memset(first, 0, 16);
        std::memset(end - 16, 0, 16);
        if (bytes > 32) {
            std::memset(first + 16, 0, 16);
            std::memset(end - 32, 0, 16);
        }
    } else {
        std::memset(first, 0, 4);
        std::memset(first + std::size_t{bytes} / 8 * 4, 0, 4);
        std::memset(end - 4, 0, 4);
    }
}

// The lowest free slot of a pool.
struct Lowest {
    unsigned char *slot;
    u32 number;
    u32 steps;  // from first_free

    unsigned path() const noexcept { return steps == 0 ? MEMM_PATH_FIRST_FREE : MEMM_PATH_SCAN; }
};

// Of a pool with an index, whose first_free is an ordinary slot. Nothing where the index knows none, or where the
// guesses before the scan would find another. Whether it is first_free is as good as random, so no branch depends on
// it: one that is foreseen wrongly would hold up the memory accesses of the allocations to come.
[[gnu::always_inline]] inline std::optional<Lowest> lowest_of(const PoolAid &aid) noexcept
{
    const Pool &pool = *aid.pool;
    const u32 first = aid.number_of(pool.first_free);
    const u32 number = aid.index->lowest_free(first);
    if (number == SlotIndex::kNone) [[unlikely]] {
        return std::nullopt;
    }
    const u32 steps = number - first;
    unsigned char *const slot = pool.first_free + std::size_t{steps} * pool.slot_size;
    const bool is_second_guess_right = (steps != 0) & (pool.last_used < pool.last_normal);
    if (is_second_guess_right || slot > pool.last_normal) [[unlikely]] {
        return std::nullopt;
    }
    return Lowest{slot, number, steps};
}

// What is left when the slot is known, by which path, and no longer counts as free: all but the object's bytes.
[[gnu::always_inline]] inline void note_handed_out(const PoolAid &aid, Pool &pool, unsigned char *slot,
                                                   unsigned path) noexcept
{
    store(pool.first_free, slot + pool.slot_size);
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[path], 1);
    ObjectHeader{aid.id}.write_to(slot);
    note_taken(pool, slot);
}

[[gnu::always_inline]] inline void *hand_out(const PoolAid &aid, Pool &pool, unsigned char *slot,
                                             unsigned path) noexcept
{
    note_handed_out(aid, pool, slot, path);
    zero_small(object_in(slot), aid.small_bytes);
    return object_in(slot);
}

// A zeroed object where the first guess is right and nothing has to be called: most allocations. Null, and nothing has
// happened, elsewhere.
[[gnu::always_inline]] inline void *take_slot_at_once(Held, const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const slot = pool.first_free;
    if (aid.small_bytes == 0 || slot > pool.last_normal) [[unlikely]] {
        return nullptr;
    }
    const bool is_taken = aid.index != nullptr ? aid.index->set_at_once(aid.number_of(slot)) : is_free(slot);
    if (!is_taken) [[unlikely]] {
        return nullptr;
    }
    return hand_out(aid, pool, slot, MEMM_PATH_FIRST_FREE);
}

// The same for a pool whose guesses have been wrong of late: its index knows the slot as fast either way.
[[gnu::always_inline]] inline void *take_lowest_slot_at_once(Held, const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    if (aid.small_bytes == 0 || pool.first_free > pool.last_normal) [[unlikely]] {
        return nullptr;
    }
    const std::optional<Lowest> found = lowest_of(aid);
    if (!found || !aid.index->set_unforeseen(found->number)) [[unlikely]] {
        return nullptr;
    }
    aid.wrong_guesses = aid.wrong_guesses >> 1 | u32{found->steps != 0} << 31;
    add(pool.scan_steps, found->steps);
    return hand_out(aid, pool, found->slot, found->path());
}
void *take_lowest_slot(Held, const PoolAid &aid) noexcept;

// The same where pass_slot() has made sure that the first guess is right, and without a branch on whether that fills
// its word of the index: in a nearly full pool it often does. The caller begins the object.
[[gnu::always_inline]] inline void *take_foreseen_slot(Held, const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    unsigned char *const slot = pool.first_free;
    if (!aid.is_ordinary || slot > pool.last_normal || !is_free(aid, slot)) [[unlikely]] {
        return nullptr;
    }
    if (aid.index != nullptr && !aid.index->set_unforeseen(aid.number_of(slot))) [[unlikely]] {
        return nullptr;
    }
    note_handed_out(aid, pool, slot, MEMM_PATH_FIRST_FREE);
    return object_in(slot);
}

void *take_slot_elsewhere(const PoolAid &aid, Reserve reserve) noexcept;

// A zeroed object, or null; keeps the counters.
[[gnu::always_inline]] inline void *take_slot(Held held, const PoolAid &aid, Reserve reserve) noexcept
{
    void *const object = aid.wrong_guesses != 0 ? take_lowest_slot(held, aid) : take_slot_at_once(held, aid);
    return object != nullptr ? object : take_slot_elsewhere(aid, reserve);
}

bool pass_slot_elsewhere(const PoolAid &aid) noexcept;

// What taking a slot, spare or not, and giving it back at once would leave behind, without touching it: false when none
// is free. The pool has an object in use, so that last_used would end where it is.
[[gnu::always_inline]] inline bool pass_slot(Held, const PoolAid &aid) noexcept
{
    Pool &pool = *aid.pool;
    std::optional<Lowest> found;
    if (aid.index != nullptr && pool.first_free <= pool.last_normal) {
        found = lowest_of(aid);
    } else if (aid.is_ordinary && pool.first_free <= pool.last_normal && is_free(pool.first_free)) {
        found = Lowest{pool.first_free, 0, 0};
    }
    if (!found) [[unlikely]] {
        return pass_slot_elsewhere(aid);
    }
    store(pool.first_free, found->slot);
    // The next allocation takes it, and it may lie across two cache lines.
    __builtin_prefetch(found->slot, 1);
    __builtin_prefetch(found->slot + pool.slot_size - 1, 1);
    add(pool.scan_steps, found->steps);
    add(pool.alloc_count[MEMM_PATH_TOTAL], 1);
    add(pool.alloc_count[found->path()], 1);
    raise_highest(pool, load(pool.cur_count) + 1);
    add(pool.free_count, 1);
    return true;
}

// The end of a release to which the object's owner has agreed: the slot becomes free.
void finish_release(Held, const PoolAid &aid, unsigned char *slot) noexcept;

// The same for many objects of the pool, and in whatever order they come.
void finish_releases(Held, const PoolAid &aid, void *const *objects, u32 count) noexcept;

// The same in the pool's words, where nothing has to be searched for it; false, and nothing has happened, elsewhere.
// The index is still to be told.
[[gnu::always_inline]] inline bool return_slot(Held, const PoolAid &aid, unsigned char *slot) noexcept
{
    Pool &pool = *aid.pool;
    // Deliberate: when all slots are free again, last_used ends on the first one, not before it.
    const bool moves_last_used = slot == pool.last_used && slot > pool.slots;
    if (moves_last_used && is_free(aid, slot - pool.slot_size)) [[unlikely]] {
        return false;
    }
    add(pool.free_count, 1);
    add(pool.cur_count, -1);
    ObjectHeader{}.write_to(slot);
    store(pool.first_free, std::min(pool.first_free, slot));  // one is as likely as the other: no branch
    if (moves_last_used) {
        store(pool.last_used, slot - pool.slot_size);
    }
    return true;
}

[[gnu::always_inline]] inline bool finish_release_at_once(Held held, const PoolAid &aid, unsigned char *slot) noexcept
{
    if (!return_slot(held, aid, slot)) [[unlikely]] {
        return false;
    }
    if (aid.index != nullptr) {
        aid.index->clear(aid.number_of(slot));
    }
    return true;
}

}  // namespace memm
