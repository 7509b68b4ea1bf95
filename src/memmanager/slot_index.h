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
// `full` is kept exactly. `any` is kept lazily: a bit is clear only for an empty word; where a set one turns out to be
// wrong, the search that notices corrects it. In a large pool nobody can foresee which slot comes or goes next, and a
// branch that is foreseen wrongly holds up all memory accesses that come after it: so there are ways without. The first
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

    // Marks a free slot as used where only full words have to be noted above; false, and nothing has happened,
    // elsewhere.
    bool set_at_once(u32 slot) noexcept
    {
        if (is_first_in_word(slot)) [[unlikely]] {
            return false;
        }
        Word &word = bits_[slot / kBits];
        word |= bit(slot);
        if (word == kAll) [[unlikely]] {
            note_full(1, slot / kBits);
        }
        return true;
    }
    // The same without a branch that depends on which words are full, but for the highest.
    bool set_unforeseen(u32 slot) noexcept
    {
        if (is_first_in_word(slot)) [[unlikely]] {
            return false;
        }
        const u32 word = slot / kBits;
        const u32 group = word / kBits;
        bits_[word] |= bit(slot);
        full_[1][group] |= Word{bits_[word] == kAll} << word % kBits;
        Word &groups = full_[2][group / kBits];
        groups |= Word{full_[1][group] == kAll} << group % kBits;
        if (groups == kAll) [[unlikely]] {
            note_full(3, group / kBits);
        }
        return true;
    }
    void clear(u32 slot) noexcept
    {
        const u32 word = slot / kBits;
        const u32 group = word / kBits;
        Word &groups = full_[2][group / kBits];
        if (groups == kAll) [[unlikely]] {
            note_not_full(3, group / kBits);
        }
        groups &= ~bit(group);
        full_[1][group] &= ~bit(word);
        bits_[word] &= ~bit(slot);
    }

    void set(u32 slot) noexcept;

    // kNone when all are in use.
    u32 lowest_free() const noexcept
    {
        u32 at = 0;
        for (unsigned level = levels_; level-- > 0;) {
            const Word word = full_[level][at];
            if (word == kAll) [[unlikely]] {
                return kNone;
            }
            at = at * kBits + static_cast<u32>(std::countr_one(word));
        }
        return at;
    }
    // The same, none being free below `from`, where a word of full[1] knows both; kNone elsewhere.
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

    bool is_first_in_word(u32 slot) const noexcept { return bits_[slot / kBits] == 0 && slot >= kBits; }
    static Word bit(u32 number) noexcept { return Word{1} << number % kBits; }

    // From this level up, about the word below.
    [[gnu::always_inline]] void note_full(unsigned level, u32 word) noexcept
    {
        for (bool is_full = true; is_full && level < levels_; ++level) {
            Word &words = full_[level][word / kBits];
            words |= bit(word);
            is_full = words == kAll;
            word /= kBits;
        }
    }
    [[gnu::always_inline]] void note_not_full(unsigned level, u32 word) noexcept
    {
        for (; level < levels_; ++level) {
            full_[level][word / kBits] &= ~bit(word);
            word /= kBits;
        }
    }
    void unmark_empty(unsigned level, u32 word) noexcept;
};

}  // namespace memm
