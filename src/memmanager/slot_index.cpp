#include "memmanager/slot_index.h"

#include <bit>
#include <new>

namespace memm {

namespace {

constexpr u32 words_for(u32 bits, unsigned per_word) noexcept
{
    return static_cast<u32>((u64{bits} + per_word - 1) / per_word);
}

}  // namespace

u32 SlotIndex::bytes_for(u32 slots) noexcept
{
    u32 total = 0;
    u32 words = slots;
    for (unsigned level = 0; level < kFullLevels || words > 1; ++level) {
        words = words_for(words, kBits);
        total += (level == 0 || level >= kFullLevels ? 1 : 2) * words;
    }
    return static_cast<u32>(sizeof(SlotIndex) + total * sizeof(Word));
}

SlotIndex *SlotIndex::make(void *block, u32 slots) noexcept
{
    auto *index = new (block) SlotIndex;
    auto *maps = reinterpret_cast<Word *>(index + 1);
    u32 bits = slots;
    while (index->levels_ < kFullLevels || bits > 1) {
        const unsigned level = index->levels_++;
        const u32 words = words_for(bits, kBits);
        index->words_[level] = words;
        index->any_[level] = maps;
        maps += words;
        if (level == 0) {
            index->full_[0] = index->any_[0];
        } else {
            index->any_[level][0] = bit(0);
        }
        if (level > 0 && level < kFullLevels) {
            index->full_[level] = maps;
            maps += words;
            if (bits % kBits != 0) {
                index->full_[level][words - 1] = kAll << bits % kBits;
            }
        }
        bits = words;
    }
    index->bits_ = index->full_[0];
    return index;
}

// Up to the first level that knows already: what is above knows, too.
void SlotIndex::set(u32 slot) noexcept
{
    u32 word = slot / kBits;
    for (unsigned level = 1; level < levels_ && (any_[level][word / kBits] & bit(word)) == 0; ++level) {
        any_[level][word / kBits] |= bit(word);
        word /= kBits;
    }
    set_in_full(slot);
}

// A search has met an empty word whose summary promises more.
void SlotIndex::unmark_empty(unsigned level, u32 word) noexcept
{
    if (level + 1 < levels_ && word != 0) {
        any_[level + 1][word / kBits] &= ~bit(word);
    }
}

// Up to the first level whose word has a bit from here on, then down to the lowest such slot; a branch that ends in
// nothing is corrected and left upwards again. Past the last word there is nothing to find.
u32 SlotIndex::next_used(u32 from) noexcept
{
    unsigned level = 0;
    u32 at = from;
    while (level < levels_ && at / kBits < words_[level]) {
        const u32 index = at / kBits;
        const Word word = any_[level][index];
        const Word rest = word >> at % kBits;
        if (rest == 0) {
            if (word == 0) {
                unmark_empty(level, index);
            }
            ++level;
            at = index + 1;
            continue;
        }
        at += static_cast<u32>(std::countr_zero(rest));
        if (level == 0) {
            return at;
        }
        --level;
        at *= kBits;
    }
    return kNone;
}

u32 SlotIndex::previous_used(u32 from) noexcept
{
    unsigned level = 0;
    u32 at = from;
    while (level < levels_) {
        const u32 index = at / kBits;
        const Word word = any_[level][index];
        const Word rest = word << (kBits - 1 - at % kBits);
        if (rest != 0) {
            at -= static_cast<u32>(std::countl_zero(rest));
            if (level == 0) {
                return at;
            }
            --level;
            at = at * kBits + (kBits - 1);
            continue;
        }
        if (word == 0) {
            unmark_empty(level, index);
        }
        if (index == 0) {
            return kNone;
        }
        ++level;
        at = index - 1;
    }
    return kNone;
}

}  // namespace memm
