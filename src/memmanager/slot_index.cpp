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

u64 SlotIndex::bytes_for(u32 slots) noexcept
{
    u32 words = words_for(slots, kBits);
    u64 total = words;
    while (words > 1) {
        words = words_for(words, kBits);
        total += u64{2} * words;
    }
    return sizeof(SlotIndex) + total * sizeof(Word);
}

SlotIndex *SlotIndex::make(void *block, u32 slots) noexcept
{
    auto *index = new (block) SlotIndex;
    auto *maps = reinterpret_cast<Word *>(index + 1);
    u32 words = words_for(slots, kBits);
    index->level_[index->levels_++] = {maps, maps, words};
    maps += words;
    while (words > 1) {
        words = words_for(words, kBits);
        index->level_[index->levels_++] = {maps, maps + words, words};
        maps += std::size_t{2} * words;
    }
    return index;
}

// A bit of a summary says on which side of an edge the word below it is: empty or not for `any`, full or not for
// `full`. Most changes of a word do not cross the edge, and then the levels above stay as they are.
void SlotIndex::change(u32 slot, bool used) noexcept
{
    const auto write = [used](Word &word, u32 bit) {
        const Word mask = Word{1} << bit % kBits;
        const Word before = word;
        word = used ? before | mask : before & ~mask;
        return before;
    };
    const auto crossed = [](Word before, Word after, Word edge) { return (before == edge) != (after == edge); };

    Word &lowest = level_[0].any[slot / kBits];
    const Word before = write(lowest, slot);
    const auto carry_up = [&](Word *Level::*map, Word edge) {
        u32 bit = slot;
        bool crossing = crossed(before, lowest, edge);
        for (unsigned level = 1; crossing && level < levels_; ++level) {
            bit /= kBits;
            Word &word = (level_[level].*map)[bit / kBits];
            const Word was = write(word, bit);
            crossing = crossed(was, word, edge);
        }
    };
    carry_up(&Level::any, 0);
    carry_up(&Level::full, kAll);
}

// Up to the first level whose word has a set bit (after the flip) from here on, then down to the lowest such slot. Past
// the last word there is nothing to find; the bits that a summary has beyond its words read as "not full".
u32 SlotIndex::next(u32 from, Word *Level::*map, Word flip) const noexcept
{
    unsigned level = 0;
    u32 at = from;
    for (;; ++level, at = at / kBits + 1) {
        if (level == levels_ || at / kBits >= level_[level].words) {
            return kNone;
        }
        const Word word = ((level_[level].*map)[at / kBits] ^ flip) >> at % kBits;
        if (word != 0) {
            at += static_cast<u32>(std::countr_zero(word));
            break;
        }
    }
    while (level-- > 0) {
        if (at >= level_[level].words) {
            return kNone;
        }
        at = at * kBits + static_cast<u32>(std::countr_zero((level_[level].*map)[at] ^ flip));
    }
    return at;
}

u32 SlotIndex::next_free(u32 from) const noexcept { return next(from, &Level::full, kAll); }

u32 SlotIndex::next_used(u32 from) const noexcept { return next(from, &Level::any, 0); }

u32 SlotIndex::previous_used(u32 from) const noexcept
{
    unsigned level = 0;
    u32 at = from;
    for (;; ++level, at = at / kBits - 1) {
        if (level == levels_) {
            return kNone;
        }
        const Word word = level_[level].any[at / kBits] << (kBits - 1 - at % kBits);
        if (word != 0) {
            at -= static_cast<u32>(std::countl_zero(word));
            break;
        }
        if (at < kBits) {
            return kNone;
        }
    }
    while (level-- > 0) {
        at = at * kBits + (kBits - 1 - static_cast<u32>(std::countl_zero(level_[level].any[at])));
    }
    return at;
}

}  // namespace memm
