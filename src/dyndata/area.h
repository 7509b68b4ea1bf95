#pragma once

#include "base/result.h"
#include "memmanager/pool.h"

#include <memmanager/dyndata.h>

#include <algorithm>
#include <cstddef>

// A data pool is a pool of small objects whose cookie is a record of one area, in which the bytes of all of them lie
// packed; the rest of the area is zero at all times:
//
//     buffer  |run of C|run of A|run of D|000000000000|   curr: the bytes in use, max: the most there ever were
//
// A run that goes leaves no gap: later bytes move down at once, and the pointers of their objects with them. The
// manager lock guards everything; sizes and comparisons are also read without it, and may then be those of different
// moments, but never of bytes outside of the area.
namespace memm::data {

// The packed size of a buffer:
//
//     31  30..16            15..0
//     0   maximum size      size        small form; a maximum of 0 is none
//     1   30..0: size                   large form, which has none
class SizeInfo {
    using Large = Bits<31, 1>;
    using LargeSize = Bits<0, 31>;
    using MaxSize = Bits<16, 15>;
    using SmallSize = Bits<0, 16>;

    u32 word_;

public:
    static constexpr u32 kMaxSize = LargeSize::kMax;

    constexpr explicit SizeInfo(u32 word) noexcept : word_(word) {}
    constexpr u32 word() const noexcept { return word_; }

    constexpr bool is_large() const noexcept { return Large::get(word_) != 0; }
    constexpr u32 size() const noexcept { return is_large() ? LargeSize::get(word_) : SmallSize::get(word_); }
    constexpr u32 max_size() const noexcept { return is_large() ? 0 : MaxSize::get(word_); }

    // Deliberate: whatever passes through the large form loses its limit.
    constexpr SizeInfo with_size(u32 size) const noexcept
    {
        if (size > SmallSize::kMax) {
            return SizeInfo{LargeSize::put(Large::put(0, 1), size)};
        }
        return SizeInfo{SmallSize::put(is_large() ? 0 : word_, size)};
    }

    // Deliberate: a limit that the field cannot hold is none, and so is its highest value.
    constexpr SizeInfo with_max_size(u32 max) const noexcept
    {
        return is_large() ? *this : SizeInfo{MaxSize::put(word_, max < MaxSize::kMax ? max : 0)};
    }
};

struct Area {
    const char *name;
    unsigned char *buffer;
    u32 bufsize;
    u32 curr;
    u32 max;
    u32 poolid;

    unsigned char *tail() const noexcept { return buffer + load(curr); }
    u32 room() const noexcept { return bufsize - curr; }
};

static_assert(sizeof(void *) != 4 || (sizeof(Area) == 24 && sizeof(dyndata) == 8));

inline SizeInfo info_of(const dyndata &object) noexcept { return SizeInfo{load(object.sizeinfo)}; }

inline void set_info(dyndata &object, SizeInfo info) noexcept { store(object.sizeinfo, info.word()); }

// The bytes of an object; null and 0 when it has none.
struct Run {
    unsigned char *from;
    u32 size;
};

// What a stray write left in an object's words leads at most to other bytes in use.
inline Run run_of(const Area &area, const dyndata &object) noexcept
{
    unsigned char *const from = load(object.data);
    const unsigned char *const tail = area.tail();
    if (from == nullptr || from < area.buffer || from >= tail) {
        return {nullptr, 0};
    }
    return {from, std::min(info_of(object).size(), static_cast<u32>(tail - from))};
}

// "dyndata_pool", the pool of the areas' records; invalid until it is there.
extern constinit PoolId record_pool;

// The record that is the pool's cookie; null when it is anything else.
Area *area_of(const PoolAid &aid) noexcept;

// The record of the pool whose object this is; null for every other pointer.
[[gnu::always_inline]] inline Area *owner_area(const void *object) noexcept
{
    const PoolAid *const aid = owner_of(object);
    if (aid == nullptr) {
        return nullptr;
    }
    // A cookie of ours may be read, but it may have been taken away or released since.
    void *const record = load(aid->control);
    if (record != nullptr && record == load(aid->pool->options.cookie) &&
        ObjectHeader::of_slot(slot_of(record)).pool() == load(record_pool)) [[likely]] {
        return static_cast<Area *>(record);
    }
    return area_of(*aid);
}

// "obj isn't a dyndata element", at level 1.
void trace_foreign(const char *function) noexcept;

// --- hooks of the data pools (buffers.cpp, pools.cpp) ---

int release_buffer(void *object);
void print_buffer(void *object);

}  // namespace memm::data
