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
    index->bits_ = maps;
    index->level_[index->levels_++] = {maps, maps, words};
    maps += words;
    while (words > 1) {
        words = words_for(words, kBits);
        index->level_[index->levels_++] = {maps, maps + words, words};
        maps[words] = bit(0);  // of `any`
        maps += std::size_t{2} * words;
    }
    index->full_ = index->level_[1].full;
    return index;
}

// Up to the first level that knows already: what is above knows, too.
void SlotIndex::set(u32 slot) noexcept
{
    if (set_at_once(slot)) {
        return;
    }
    for (u32 level = 1, word = slot / kBits; level < levels_ && !is_marked(level_[level].any, word); ++level) {
        level_[level].any[word / kBits] |= bit(word);
        word /= kBits;
    }
    bits_[slot / kBits] = bit(slot);
}

void SlotIndex::clear(u32 slot) noexcept
{
    if (clear_at_once(slot)) {
        return;
    }
    for (u32 level = 1, word = slot / kBits; level < levels_ && is_marked(level_[level].full, word); ++level) {
        level_[level].full[word / kBits] &= ~bit(word);
        word /= kBits;
    }
    bits_[slot / kBits] &= ~bit(slot);
}

// A search has met a word whose summary may promise too much.
void SlotIndex::set_summary(unsigned level, Word *Level::*map, u32 word, bool value) noexcept
{
    if (level < levels_ && (value || word != 0)) {
        Word &summary = (level_[level].*map)[word / kBits];
        summary = value ? summary | bit(word) : summary & ~bit(word);
    }
}

// Up to the first level whose word has a bit (after the flip) from here on, then down to the lowest such slot; a branch
// that ends in nothing is corrected and left upwards again. Past the last word there is nothing to find; the bits that
// `full` has beyond its words read as "not full".
u32 SlotIndex::next(u32 from, Word *Level::*map, Word flip) noexcept
{
    unsigned level = 0;
    u32 at = from;
    while (level < levels_ && at / kBits < level_[level].words) {
        const u32 index = at / kBits;
        const Word word = (level_[level].*map)[index] ^ flip;
        const Word rest = word >> at % kBits;
        if (rest == 0) {
            if (word == 0) {
                set_summary(level + 1, map, index, flip != 0);
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
        if (at >= level_[level].words) {
            return kNone;
        }
        at *= kBits;
    }
    return kNone;
}

// Two looks find it as a rule.
u32 SlotIndex::next_free(u32 from) noexcept
{
    if (const Word free = ~bits_[from / kBits] >> from % kBits; free != 0) {
        return from + static_cast<u32>(std::countr_zero(free));
    }
    const u32 word = from / kBits + 1;
    if (word % kBits != 0) {
        if (const Word not_full = ~full_[word / kBits] >> word % kBits; not_full != 0) {
            const u32 found = word + static_cast<u32>(std::countr_zero(not_full));
            return found < level_[0].words ? found * kBits + static_cast<u32>(std::countr_one(bits_[found])) : kNone;
        }
    }
    return next(word * kBits, &Level::full, kAll);
}

u32 SlotIndex::next_used(u32 from) noexcept { return next(from, &Level::any, 0); }

u32 SlotIndex::previous_used(u32 from) noexcept
{
    unsigned level = 0;
    u32 at = from;
    while (level < levels_) {
        const u32 index = at / kBits;
        const Word word = level_[level].any[index];
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
            set_summary(level + 1, &Level::any, index, false);
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
