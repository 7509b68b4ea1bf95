#pragma once

#include "dynstring/ahead.h"
#include "dynstring/record.h"
#include "memmanager/pool.h"

#include <memmanager/dynstring.h>

#include <cstddef>

// A string pool is a pool of records whose cookie is a control block; the texts lie in up to four buffers:
//
//     buf[i]  |text\0|text\0|deleted\0|text\0|000000000000|      first[i] -> ... -> last[i]: the records in the order
//                                            ^ used[i]           of their texts, deleted ones included
//
// New texts go to the fill position of the current buffer. A released record stays in its list, marked deleted, until
// its buffer is compacted. Free space is zero at all times. The manager lock guards everything.
namespace memm::strings {

inline constexpr u32 kMaxBuffers = 4;

// Why a compaction runs; counted each for itself.
enum class Reason : u32 { balance, depleted, buffer_full };
inline constexpr u32 kReasons = 3;

struct TextPool {
    static constexpr u32 kOutside = 0x80000000U;           // in flags: some record's text waits in an outside block
    static constexpr u32 kRelocationFailed = 0x40000000U;  // in flags: a text found no room in any buffer

    const char *name;
    u32 poolid;
    u32 bufcnt;
    u32 curbuf;
    u32 bufsize;
    dynstr *spare;
    int *pcurcnt;
    u32 capacity;
    int delcnt;  // the record pool's count_base
    u32 delbytes;
    u32 usedbytes;
    u32 peakbytes;
    u32 flags;
    int gcrequest;  // the record pool's spare_flag
    u32 balance_limit;
    [[no_unique_address]] Trail trail;  // of the current buffer's list; takes its place in a compaction
    char *buf[kMaxBuffers];
    dynstr *first[kMaxBuffers];
    dynstr *last[kMaxBuffers];
    dynstr *firstdel[kMaxBuffers];
    u32 used[kMaxBuffers];
    u32 cnt[kMaxBuffers];
    u32 peak[kMaxBuffers];
    u32 bufdelcnt[kMaxBuffers];
    u32 bufdelbytes[kMaxBuffers];
    u32 gccnt;
    u32 gcreason[kMaxBuffers][kReasons];
    u32 gcmaxcnt;
    u32 gcmaxbytes;
    u32 gctotcnt;
    u32 gctotbytes;

    char *fill_position() const noexcept { return buf[curbuf] + used[curbuf]; }
    u32 room() const noexcept { return bufsize - used[curbuf]; }
};

static_assert(sizeof(void *) != 4 || sizeof(TextPool) == 272);

// "dynstr_pool", the pool of control blocks; invalid until it is there.
extern constinit PoolId control_pool;

// Any cookie: whether it is the address of a control block.
bool is_control_block(const void *cookie) noexcept;

// The control block of a string pool; null for every other pool, whatever its cookie is, and for one whose objects are
// too small for a record. The cookie that the pool was given at its creation is known to be one.
inline TextPool *text_pool_of(const PoolAid &aid) noexcept
{
    void *const cookie = load(aid.pool->options.cookie);
    if (cookie == nullptr || aid.pool->slot_size < slot_bytes(sizeof(dynstr))) {
        return nullptr;
    }
    const bool known =
        cookie == load(aid.control) && ObjectHeader::of_slot(slot_of(cookie)).pool() == load(control_pool);
    return known || is_control_block(cookie) ? static_cast<TextPool *>(cookie) : nullptr;
}

inline TextPool *text_pool(PoolId id) noexcept
{
    const PoolAid *const aid = registry.find_aid(id);
    return aid == nullptr ? nullptr : text_pool_of(*aid);
}

// The control block of the pool whose record this is; null for every other pointer. Deleted records have one too.
[[gnu::always_inline]] inline TextPool *owner_pool(const void *record) noexcept
{
    const PoolAid *const aid = owner_of(record);
    return aid != nullptr ? text_pool_of(*aid) : nullptr;
}

// As dynstr_isdynstring(): a record of a string pool, not deleted.
bool is_string(const void *record) noexcept;

// --- start and creation (pools.cpp) ---

Result start(int count) noexcept;

// --- hooks of the record pools (hooks.cpp) ---

void print_record(void *object);
int is_shown(void *object, int level);
int collect_for_allocation(void *cookie, int attempt, int slot_size);
void print_usage(void *cookie, int *live, int *peak, int *capacity, memm_printf_fn print);
int release_record(void *object);

// The text of any pointer, or what stands for it.
const char *text_of(const void *pointer) noexcept;

// --- compaction and check (compact.cpp, check.cpp) ---

void compact(Held, TextPool &pool, Reason reason) noexcept;

// The record's text becomes garbage. It is in a buffer and not deleted, as its word says.
inline void mark_deleted(TextPool &pool, dynstr &record, StringInfo info) noexcept
{
    const u32 buffer = info.buffer();
    set_info(record, info.with_deleted());
    pool.delbytes += info.size();
    pool.bufdelbytes[buffer] += info.size();
    add(pool.delcnt, 1);
    ++pool.bufdelcnt[buffer];
    dynstr *&lowest = pool.firstdel[buffer];
    if (lowest == nullptr || lowest->str > record.str) {
        lowest = &record;
    }
}

bool pool_is_sound(Held, PoolId id) noexcept;

// --- messages that several operations share ---

void trace_bad_pool(const char *function) noexcept;    // "invalid poolid passed", level 2
void trace_bad_string(const char *function) noexcept;  // "invalid dynstring passed", level 2
void trace_bad_size() noexcept;                        // "loc_setstrsize with invalid size", level 1

}  // namespace memm::strings
