#pragma once

#include "base/bits.h"

#include <bit>
#include <cstddef>
#include <cstdint>

// Which slots of a large pool are in use, one bit a slot, with summaries above so that the next free or used slot is
// found in a few steps however many slots lie between:
//
//     full[2]  any[2]      a bit for each word of the level below
//     full[1]  any[1]
//          bits            a bit for each slot: 1 = in use
//
// `full` is kept exactly and by the same steps whatever the slots are, for which slot is the lowest free one nobody can
// foresee, a branch predictor neither. `any` is kept lazily: a bit of it is clear only for an empty word; where a set
// bit turns out to be wrong, the search that notices corrects it, so a slot that comes and goes costs at most one such
// correction. The first word, where most pools live, always counts as not empty. Bits of `bits` beyond the last slot
// stay 0, so that the lowest free slot may be a number that no slot has; words beyond the last count as full.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u64 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes, for more than kWorthwhile slots: there is a summary. All slots are free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    // More than two levels: most of the slots are outside of the caches, and a wrong guess costs more than to look up
    // the lowest free one.
    bool is_large() const noexcept { return levels_ > kLower; }

    bool is_used(u32 slot) const noexcept { return (bits_[slot / kBits] & bit(slot)) != 0; }

    // Marks a slot as used where no lazy summary has to change for that; false, and nothing has happened, elsewhere.
    // A large index wants mark_above() next.
    bool mark_at_once(u32 slot) noexcept
    {
        if (bits_[slot / kBits] == 0 && slot >= kBits) [[unlikely]] {
            return false;
        }
        mark(slot);
        return true;
    }
    // In any case, and to the top.
    void mark_used(u32 slot) noexcept;
    void mark_above(u32 slot) noexcept
    {
        u32 at = slot / kBits / kBits;
        for (unsigned level = kLower; level < levels_; ++level, at /= kBits) {
            full_[level][at / kBits] |= Word{full_[level - 1][at] == kAll} << at % kBits;
        }
    }

    // Marks a slot as free. A large index wants clear_above() next.
    void clear(u32 slot) noexcept
    {
        bits_[slot / kBits] &= ~bit(slot);
        full_[1][slot / kBits / kBits] &= ~bit(slot / kBits);
    }
    void clear_above(u32 slot) noexcept
    {
        u32 at = slot / kBits / kBits;
        for (unsigned level = kLower; level < levels_; ++level, at /= kBits) {
            full_[level][at / kBits] &= ~bit(at);
        }
    }

    // kNone when all are in use.
    u32 lowest_free() const noexcept
    {
        unsigned level = levels_ - 1;
        if (*full_[level] == kAll) [[unlikely]] {
            return kNone;
        }
        auto at = static_cast<u32>(std::countr_one(*full_[level]));
        while (level-- > 0) {
            at = at * kBits + static_cast<u32>(std::countr_one(full_[level][at]));
        }
        return at;
    }

    u32 next_used(u32 from) noexcept;      // at or above `from`
    u32 previous_used(u32 from) noexcept;  // at or below `from`

private:
    using Word = std::uintptr_t;
    static constexpr unsigned kBits = sizeof(Word) * 8;
    static constexpr unsigned kLower = 2;  // levels that every index has
    static constexpr unsigned kMaxLevels = kBits == 64 ? 6 : 7;
    static constexpr Word kAll = ~Word{0};

    // Level 0 has its bits under all three names.
    Word *bits_ = nullptr;
    unsigned levels_ = 0;
    Word *full_[kMaxLevels] = {};
    Word *any_[kMaxLevels] = {};
    u32 words_[kMaxLevels] = {};

    static Word bit(u32 number) noexcept { return Word{1} << number % kBits; }

    void mark(u32 slot) noexcept
    {
        const Word now = bits_[slot / kBits] | bit(slot);
        bits_[slot / kBits] = now;
        full_[1][slot / kBits / kBits] |= Word{now == kAll} << slot / kBits % kBits;
    }
    void unmark_empty(unsigned level, u32 word) noexcept;
};

}  // namespace memm
