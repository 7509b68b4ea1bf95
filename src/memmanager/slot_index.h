#pragma once

#include "base/bits.h"

#include <cstddef>
#include <cstdint>

// Which slots of a large pool are in use, one bit a slot, with summaries above so that the next free or used slot is
// found in a few steps however many slots lie between:
//
//     full[2]  any[2]      a bit for each word below: all its bits are set / one of its bits is set
//     full[1]  any[1]
//          bits            a bit for each slot: 1 = in use
//
// Bits beyond the last slot stay 0; a search for a free slot may therefore answer a number that no slot has.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u64 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes; all slots free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    void set(u32 slot) noexcept { change(slot, true); }
    void clear(u32 slot) noexcept { change(slot, false); }

    u32 next_free(u32 from) const noexcept;      // at or above `from`
    u32 next_used(u32 from) const noexcept;      // at or above `from`
    u32 previous_used(u32 from) const noexcept;  // at or below `from`

private:
    using Word = std::uintptr_t;
    static constexpr unsigned kBits = sizeof(Word) * 8;
    static constexpr unsigned kMaxLevels = kBits == 64 ? 6 : 7;
    static constexpr Word kAll = ~Word{0};

    struct Level {
        Word *full;  // the lowest level has one array under both names
        Word *any;
        u32 words;
    };

    unsigned levels_ = 0;
    Level level_[kMaxLevels] = {};

    void change(u32 slot, bool used) noexcept;
    u32 next(u32 from, Word *Level::*map, Word flip) const noexcept;
};

}  // namespace memm
