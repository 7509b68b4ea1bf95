#pragma once

#include "base/ids.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "memmanager/divisor.h"
#include "memmanager/header.h"
#include "memmanager/manager_lock.h"
#include "memmanager/slot_index.h"

#include <memmanager/memmanager.h>

#include <cstddef>
#include <cstdint>

// A pool is one array of equal slots, each a header word and an object; its descriptor is an object of pool 0, whose
// slot array is the pool table:
//
//     slots        first_free          last_used        last_normal       last_item
//     |used|used|...|free|used|....|used|free|free|......|free|spare|......|spare|
//
// Every slot below first_free is in use, none above last_used is. Slots above last_normal are kept back from ordinary
// allocation. A pool whose slot array could not be had keeps its descriptor; all its pointers are null.
//
// The manager lock guards everything here. What getters read without it (see shared_word.h) is written once, or is a
// number that is right before and after.
namespace memm {

using Pool = memm_pool;

// In bytes, header included: objects are aligned as a machine word is.
constexpr u64 slot_bytes(u64 object_size) noexcept { return round_up(object_size + kHeaderBytes, sizeof(memm_word)); }

// A slot array begins with a header, and the object behind it is aligned: on a 64-bit target the array begins four
// bytes into its block.
inline constexpr unsigned kBlockLead = sizeof(memm_word) - kHeaderBytes;

inline constexpr u32 kDescriptorBytes = static_cast<u32>(slot_bytes(sizeof(Pool)));

static_assert(sizeof(void *) != 4 ||
              (sizeof(Pool) == 172 && sizeof(memm_pooloptions) == 32 && kDescriptorBytes == 176));
static_assert(sizeof(void *) != 4 || offsetof(Pool, options) == 140);

inline constexpr u32 kDepleted = 0x80000000U;  // in Pool::flags

// What the manager keeps of a pool beside the public descriptor: a cache line that says whether an address is an object
// of the pool, and which.
struct PoolAid {
    static constexpr u32 kMostSmall = 512;

    constexpr PoolAid() noexcept = default;
    constexpr explicit PoolAid(Pool *of) noexcept : pool(of) {}

    Pool *pool = nullptr;
    std::uintptr_t first = 0;  // address of the first header
    u32 span = 0;              // bytes from there to just behind the start of the last header; 0 without slots
    PoolId id = PoolId::invalid;
    Divisor slot_size;
    u32 small_bytes = 0;            // what to zero in a new object when that is little; 0: ask for it the long way
    bool is_ordinary = false;       // has slots, and is not the pool of the descriptors
    mutable u32 wrong_guesses = 0;  // a bit for each of the last allocations that first_free was wrong for
    SlotIndex *index = nullptr;     // null: search slot by slot
    void *control = nullptr;  // the cookie that a floor above gave the pool, and may read through; null for others'

    // Before the pool is placed in the order by address, and never again: readers may come without the lock.
    void set_slots(const unsigned char *slots, u32 bytes_per_slot, u32 count) noexcept
    {
        first = reinterpret_cast<std::uintptr_t>(slots);
        span = bytes_per_slot * (count - 1) + 1;
        slot_size = Divisor{bytes_per_slot};
    }

    // The address lies between the pool's first and its last header.
    bool holds(std::uintptr_t address) const noexcept { return address - first < span; }

    // Of addresses that it holds: the slot's number, which is none where no slot begins, and whether one does.
    u32 number_of(std::uintptr_t address) const noexcept
    {
        return slot_size.quotient(static_cast<u32>(address - first));
    }
    u32 number_of(const unsigned char *slot) const noexcept
    {
        return number_of(reinterpret_cast<std::uintptr_t>(slot));
    }
    bool is_number(u32 number) const noexcept { return slot_size.is_exact(number); }
    bool is_slot(std::uintptr_t address) const noexcept { return is_number(number_of(address)); }
};

class Registry {
    // Stands in for the table until there is one: a descriptor of nothing, so that no id is valid.
    static constinit unsigned char no_table_[kBlockLead + kDescriptorBytes];
    static constinit Pool no_pool_;
    static constinit PoolAid no_aid_;

    unsigned char *table_ = no_table_ + kBlockLead;
    PoolAid *aids_ = nullptr;
    u32 *by_address_ = nullptr;  // ids of the pools that have slots, in the order of their slot arrays
    u32 placed_ = 0;
    // Most pointers that come in belong to the pool of the one before, or to the one before that: a list's nodes and
    // objects take turns.
    mutable PoolAid *hits_[2] = {&no_aid_, &no_aid_};

    PoolAid *search(std::uintptr_t address) const noexcept;

public:
    static constexpr u32 kMaxPools = 0x7fffff;

    bool has_table() const noexcept { return load(table_) != no_table_ + kBlockLead; }

    // Takes over the table and what stands beside it: `aids` and `by_address` have room for all its pools.
    void adopt(unsigned char *table, PoolAid *aids, u32 *by_address) noexcept;

    // Ids below this number are valid: descriptors are taken in rising order and never given back.
    u32 count() const noexcept { return static_cast<u32>(load(at(0).max_count)); }

    Pool &at(u32 id) const noexcept
    {
        return *reinterpret_cast<Pool *>(load(table_) + std::size_t{id} * kDescriptorBytes + kHeaderBytes);
    }
    Pool *find(PoolId id) const noexcept { return to_index(id) < count() ? &at(to_index(id)) : nullptr; }
    PoolAid *find_aid(PoolId id) const noexcept { return to_index(id) < count() ? &aids_[to_index(id)] : nullptr; }

    PoolAid &aid(PoolId id) const noexcept { return aids_[to_index(id)]; }
    PoolId id_of(const Pool &pool) const noexcept
    {
        const auto distance = reinterpret_cast<const unsigned char *>(&pool) - kHeaderBytes - table_;
        return PoolId{static_cast<u32>(distance) / kDescriptorBytes};
    }

    // A descriptor is taken: from now on its pool has an aid.
    void enrol(Pool &pool) const noexcept;

    // Enters a pool that has its slots into the order by address.
    void place(Held, PoolId id) noexcept;

    // The pool in whose slot array this address lies, between its first and its last header; null elsewhere.
    PoolAid *around(std::uintptr_t address) const noexcept
    {
        PoolAid *const hit = recent_around(address);
        return hit != nullptr ? hit : search(address);
    }

    // The same, if it is one of those found last.
    PoolAid *recent_around(std::uintptr_t address) const noexcept
    {
        PoolAid *hit = load_published(hits_[0]);
        if (!hit->holds(address)) [[unlikely]] {
            hit = load_published(hits_[1]);
            hit = hit->holds(address) ? hit : nullptr;
        }
        return hit;
    }
};

extern constinit Registry registry;

inline PoolId id_of(const Pool &pool) noexcept { return registry.id_of(pool); }

// The slot array may be walked and its name read.
inline bool has_slots(const Pool &pool) noexcept { return load_acquired(pool.slots) != nullptr; }

// The header in front of any pointer. What cannot be read is like the header of a free slot.
ObjectHeader header_of(const void *object) noexcept;

// The pool in which this is an object in use: the pointer lies in the pool's slot array, just behind a header that says
// so. Null for every other pointer.
inline PoolAid *owner_of(const void *object) noexcept
{
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(object) - kHeaderBytes;
    PoolAid *const aid = registry.around(address);
    const auto *slot = reinterpret_cast<const unsigned char *>(address);
    return aid != nullptr && aid->is_slot(address) && ObjectHeader::of_slot(slot).pool() == aid->id ? aid : nullptr;
}

// The pool that an object's header names; null for null and for ids out of range.
Pool *pool_named_by(const void *object) noexcept;

// The address lies between the pool's first slot and its highest used one.
inline bool is_among_used(const Pool &pool, const unsigned char *slot) noexcept
{
    return slot >= load(pool.slots) && slot <= load(pool.last_used);
}

inline unsigned char *slot_at(const Pool &pool, u32 number) noexcept
{
    return pool.slots + std::size_t{number} * pool.slot_size;
}

// --- creation (registry.cpp) ---

void make_slots_free(unsigned char *slots, u32 slot_size, u32 count) noexcept;

PoolId create_pool(Held, const char *name, int count, int object_size, const memm_pooloptions *options) noexcept;

// --- walks (slots.cpp; taking and giving back: slots.h) ---

// The first slot in use at or above `from`, up to last_used as it is now; null when there is none.
unsigned char *next_in_use(const Pool &pool, unsigned char *from) noexcept;

inline unsigned char *first_in_use(const Pool &pool) noexcept { return next_in_use(pool, load(pool.slots)); }

inline unsigned char *in_use_after(const Pool &pool, unsigned char *slot) noexcept
{
    return next_in_use(pool, slot + pool.slot_size);
}

// --- objects (objects.cpp) ---

void *allocate(Held, PoolId id) noexcept;             // ordinary: asks gc_cb when no slot is free
bool allocate_in_passing(Held, PoolId id) noexcept;   // as pass_slot(); false is a depletion
void *allocate_without_gc(Held, PoolId id) noexcept;  // may take spare slots
void *add_reference(Held, void *object) noexcept;     // the object, or null
Result release(Held, void *object) noexcept;

// --- selection by name, for every report ---

// Pools without a name are never selected; a null or empty prefix selects all others.
bool is_selected(const Pool &pool, const char *prefix) noexcept;

}  // namespace memm
