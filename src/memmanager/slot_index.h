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
// full[1] is kept exactly. The other summaries are kept lazily: a bit of `full` is set only for a full word, a bit of
// `any` is clear only for an empty one; where the other value turns out to be wrong, the search that notices corrects
// it. So a slot that comes and goes touches three words, and without a branch that depends on which slot it is: in a
// large pool nobody can foresee that, and a wrong guess holds up all memory accesses that come after it. The first
// word, where most pools live, always counts as not empty. Bits of `bits` beyond the last slot stay 0, so that the
// lowest free slot may be a number that no slot has; words beyond the last count as full.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u64 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes. All slots are free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    bool is_used(u32 slot) const noexcept { return (bits_[slot / kBits] & bit(slot)) != 0; }

    // Marks a slot as used or free where no more than three words have to change for that; false, and nothing has
    // happened, elsewhere.
    bool set_at_once(u32 slot) noexcept
    {
        Word &word = bits_[slot / kBits];
        if (word == 0 && slot >= kBits) [[unlikely]] {
            return false;
        }
        const Word now = word | bit(slot);
        word = now;
        full_[1][slot / kBits / kBits] |= Word{now == kAll} << slot / kBits % kBits;
        return true;
    }
    bool clear_at_once(u32 slot) noexcept
    {
        const u32 word = slot / kBits;
        const u32 group = word / kBits;
        Word &groups = full_[2][group / kBits];
        if (groups == kAll) [[unlikely]] {
            return false;
        }
        groups &= ~bit(group);
        full_[1][group] &= ~bit(word);
        bits_[word] &= ~bit(slot);
        return true;
    }

    void set(u32 slot) noexcept;
    void clear(u32 slot) noexcept;

    // The lowest free slot, none being free below `from`: where a word of full[1] knows both; kNone elsewhere.
    u32 lowest_free_near(u32 from) const noexcept
    {
        const u32 group = from / kBits / kBits;
        const Word words = full_[1][group];
        if (words == kAll) [[unlikely]] {
            return kNone;
        }
        const u32 word = group * kBits + static_cast<u32>(std::countr_one(words));
        return word * kBits + static_cast<u32>(std::countr_one(bits_[word]));
    }
    u32 lowest_free() noexcept;            // kNone when all are in use
    u32 next_used(u32 from) noexcept;      // at or above `from`
    u32 previous_used(u32 from) noexcept;  // at or below `from`

private:
    using Word = std::uintptr_t;
    static constexpr unsigned kBits = sizeof(Word) * 8;
    static constexpr unsigned kMinLevels = 3;
    static constexpr unsigned kMaxLevels = kBits == 64 ? 6 : 7;
    static constexpr Word kAll = ~Word{0};

    // Level 0 has its bits under all three names.
    Word *bits_ = nullptr;
    unsigned levels_ = 0;
    Word *full_[kMaxLevels] = {};
    Word *any_[kMaxLevels] = {};
    u32 words_[kMaxLevels] = {};

    static Word bit(u32 number) noexcept { return Word{1} << number % kBits; }

    void unmark_empty(unsigned level, u32 word) noexcept;
};

}  // namespace memm
