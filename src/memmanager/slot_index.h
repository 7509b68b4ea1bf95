#pragma once

#include "base/bits.h"

#include <bit>
#include <cstddef>
#include <cstdint>

// Which slots of a large pool are in use, one bit a slot, with summaries above so that the next free or used slot is
// found in a few steps however many slots lie between:
//
//              any[3]      ... as many levels as it takes
//     full[2]  any[2]      a bit for each word of the level below
//     full[1]  any[1]
//          bits            a bit for each slot: 1 = in use
//
// `full` is kept exactly, and its words are looked through from where the search begins: one stands for 262,144 slots
// (32,768 with words of 32 bits). `any` is kept lazily: a bit is clear only for an empty word; where a set one turns
// out to be wrong, the search that notices corrects it. In a large pool nobody can foresee which slot comes or goes
// next, and whatever an allocation or a release does stands between a program's memory accesses: so there are short
// ways without branches. The first word, where most pools live, always counts as not empty. Bits of `bits` beyond the
// last slot stay 0, so that the lowest free slot may be a number that no slot has; words beyond the last count as full.
namespace memm {

class SlotIndex {
public:
    static constexpr u32 kNone = 0xffffffffU;

    // Small pools are searched slot by slot as fast.
    static constexpr u32 kWorthwhile = 256;

    static u32 bytes_for(u32 slots) noexcept;
    // In a block of bytes_for() zero bytes. All slots are free.
    static SlotIndex *make(void *block, u32 slots) noexcept;

    bool is_used(u32 slot) const noexcept { return (bits_[slot / kBits] & bit(slot)) != 0; }

    void set(u32 slot) noexcept;
    void clear(u32 slot) noexcept
    {
        const u32 at = slot / kBits;
        const u32 group = at / kBits;
        bits_[at] &= all_but(slot);
        full_[1][group] &= all_but(at);
        full_[2][group / kBits] &= all_but(group);
    }

    // The same where many are cleared one after the other: each would wait for what the one before wrote to the few
    // words above, most of which are as they should be.
    void clear_one_of_many(u32 slot) noexcept
    {
        const u32 at = slot / kBits;
        if (bits_[at] == kAll) {
            clear(slot);
        } else {
            bits_[at] &= all_but(slot);
        }
    }

    // Marks a slot as used if it is free and nothing has to be noted above its word; false, and nothing has happened,
    // elsewhere.
    bool set_at_once(u32 slot) noexcept
    {
        Word &word = bits_[slot / kBits];
        const Word changed = word | bit(slot);
        if (changed == word || changed == kAll || is_empty_word(word, slot)) [[unlikely]] {
            return false;
        }
        word = changed;
        return true;
    }
    // The same for a free slot where only full words have to be noted, and without a branch that depends on which are.
    bool set_unforeseen(u32 slot) noexcept
    {
        if (is_empty_word(bits_[slot / kBits], slot)) [[unlikely]] {
            return false;
        }
        set_in_full(slot);
        return true;
    }

    // None is free below `from`. kNone when all are in use.
    u32 lowest_free(u32 from) const noexcept
    {
        u32 groups = from / kBits / kBits / kBits;
        for (; full_[2][groups] == kAll; ++groups) {
            if (groups + 1 == words_[2]) {
                return kNone;
            }
        }
        const u32 group = groups * kBits + lowest_clear(full_[2][groups]);
        const u32 word = group * kBits + lowest_clear(full_[1][group]);
        return word * kBits + lowest_clear(bits_[word]);
    }
    u32 next_used(u32 from) noexcept;      // at or above `from`
    u32 previous_used(u32 from) noexcept;  // at or below `from`

private:
    using Word = std::uintptr_t;
    static constexpr unsigned kBits = sizeof(Word) * 8;
    static constexpr unsigned kFullLevels = 3;
    static constexpr unsigned kMaxLevels = kBits == 64 ? 6 : 7;
    static constexpr Word kAll = ~Word{0};

    // Level 0 has its bits under all three names.
    Word *bits_ = nullptr;
    unsigned levels_ = 0;
    Word *full_[kFullLevels] = {};
    Word *any_[kMaxLevels] = {};
    u32 words_[kMaxLevels] = {};

    static Word bit(u32 number) noexcept { return Word{1} << number % kBits; }
    static Word all_but(u32 number) noexcept { return std::rotl(~Word{1}, static_cast<int>(number % kBits)); }
    // Of a word that is not full.
    static u32 lowest_clear(Word word) noexcept { return static_cast<u32>(__builtin_ctzl(~word)); }
    static bool is_empty_word(Word word, u32 slot) noexcept { return word == 0 && slot >= kBits; }

    void set_in_full(u32 slot) noexcept
    {
        const u32 at = slot / kBits;
        const u32 group = at / kBits;
        bits_[at] |= bit(slot);
        full_[1][group] |= Word{bits_[at] == kAll} << at % kBits;
        full_[2][group / kBits] |= Word{full_[1][group] == kAll} << group % kBits;
    }
    void unmark_empty(unsigned level, u32 word) noexcept;
};

}  // namespace memm
