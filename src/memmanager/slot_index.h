#pragma once

#include "base/bits.h"

#include <cstddef>
#include <cstdint>

// Which slots of a large pool are in use, one bit a slot, with summaries above so that the next free or used slot is
// found in a few steps however many slots lie between:
//
//     full[2]  any[2]      a bit for each word of the level below
//     full[1]  any[1]
//          bits            a bit for each slot: 1 = in use
//
// Summaries are kept lazily. A bit of `full` is set only for a full word, a bit of `any` is clear only for an empty
// one; where the other value turns out to be wrong, the search that notices corrects it. Each change of a slot costs at
// most one such correction, so a slot that comes and goes touches one word. Bits beyond the last slot stay 0; a search
// for a free slot may therefore answer a number that no slot has.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u64 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes; all slots free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    void set(u32 slot) noexcept
    {
        Word &word = bits_[slot / kBits];
        if (word == 0) [[unlikely]] {
            mark_not_empty(slot / kBits);
        }
        word |= Word{1} << slot % kBits;
    }

    void clear(u32 slot) noexcept
    {
        Word &word = bits_[slot / kBits];
        if (word == kAll) [[unlikely]] {
            mark_not_full(slot / kBits);
        }
        word &= ~(Word{1} << slot % kBits);
    }

    u32 next_free(u32 from) noexcept;      // at or above `from`
    u32 next_used(u32 from) noexcept;      // at or above `from`
    u32 previous_used(u32 from) noexcept;  // at or below `from`

private:
    using Word = std::uintptr_t;
    static constexpr unsigned kBits = sizeof(Word) * 8;
    static constexpr unsigned kMaxLevels = kBits == 64 ? 6 : 7;
    static constexpr Word kAll = ~Word{0};

    struct Level {
        Word *full;  // the lowest level has its bits under both names
        Word *any;
        u32 words;
    };

    Word *bits_ = nullptr;
    unsigned levels_ = 0;
    Level level_[kMaxLevels] = {};

    void mark_not_empty(u32 word) noexcept;
    void mark_not_full(u32 word) noexcept;
    void set_summary(unsigned level, Word *Level::*map, u32 word, bool value) noexcept;
    u32 next(u32 from, Word *Level::*map, Word flip) noexcept;
};

}  // namespace memm
