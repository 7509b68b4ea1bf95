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
// full[1] is kept exactly. The other summaries are kept lazily: a bit of `full` is set only for a full word, a bit of
// `any` is clear only for an empty one; where the other value turns out to be wrong, the search that notices corrects
// it. Each change of a slot costs at most one such correction, so a slot that comes and goes touches two words. The
// first word, where most pools live, always counts as not empty. Bits beyond the last slot stay 0; a search for a free
// slot may therefore answer a number that no slot has.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u64 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes, for more than kWorthwhile slots: there is a summary. All slots are free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    // Marks a slot as used or free where no lazy summary has to change for that; false, and nothing has happened,
    // elsewhere.
    bool set_at_once(u32 slot) noexcept
    {
        Word &word = bits_[slot / kBits];
        if (word == 0 && slot >= kBits) [[unlikely]] {
            return false;
        }
        const Word now = word | bit(slot);
        word = now;
        full_[slot / kBits / kBits] |= Word{now == kAll} << slot / kBits % kBits;
        return true;
    }
    bool clear_at_once(u32 slot) noexcept
    {
        Word &summary = full_[slot / kBits / kBits];
        if (summary == kAll) [[unlikely]] {
            return false;
        }
        summary &= ~bit(slot / kBits);
        bits_[slot / kBits] &= ~bit(slot);
        return true;
    }

    void set(u32 slot) noexcept;
    void clear(u32 slot) noexcept;

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

    Word *bits_ = nullptr;  // level_[0].full
    Word *full_ = nullptr;  // level_[1].full
    unsigned levels_ = 0;
    Level level_[kMaxLevels] = {};

    static Word bit(u32 number) noexcept { return Word{1} << number % kBits; }
    static bool is_marked(const Word *map, u32 number) noexcept { return (map[number / kBits] & bit(number)) != 0; }

    void set_summary(unsigned level, Word *Level::*map, u32 word, bool value) noexcept;
    u32 next(u32 from, Word *Level::*map, Word flip) noexcept;
};

}  // namespace memm
