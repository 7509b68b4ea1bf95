#pragma once

#include "base/bits.h"
#include "base/ids.h"
#include "base/shared_word.h"

#include <cstdint>
#include <type_traits>

// The word in front of every object:
//
//     31........24  23   22....................0
//     extra refs    tag  pool id                      all bits set: the slot is free (no pool id reaches 0x7fffff)
namespace memm {

class ObjectHeader {
    using Pool = Bits<0, 23>;
    using Tag = Bits<23, 1>;
    using ExtraRefs = Bits<24, 8>;
    static constexpr u32 kFree = 0xffffffffU;

    u32 word_ = kFree;

public:
    static constexpr u32 kMaxExtraRefs = ExtraRefs::kMax;

    constexpr ObjectHeader() noexcept = default;
    constexpr explicit ObjectHeader(u32 word) noexcept : word_(word) {}
    constexpr explicit ObjectHeader(PoolId pool) noexcept : word_(to_index(pool)) {}

    constexpr u32 word() const noexcept { return word_; }
    constexpr bool in_use() const noexcept { return word_ != kFree; }
    constexpr PoolId pool() const noexcept { return PoolId{Pool::get(word_)}; }
    constexpr bool is_tagged() const noexcept { return Tag::get(word_) != 0; }
    constexpr u32 extra_refs() const noexcept { return ExtraRefs::get(word_); }
    // Of an object of this pool with one holder and no tag: as a new one has it.
    constexpr bool is_sole(PoolId pool) const noexcept { return word_ == to_index(pool); }

    // A count beyond the field wraps to its low bits.
    constexpr ObjectHeader with_extra_refs(u32 count) const noexcept
    {
        return ObjectHeader{ExtraRefs::put(word_, count)};
    }
    constexpr ObjectHeader with_tag(bool tagged) const noexcept
    {
        return ObjectHeader{Tag::put(word_, tagged ? 1 : 0)};
    }

    // Of a slot, by the address of its header. Getters read it without the lock.
    static ObjectHeader of_slot(const unsigned char *slot) noexcept
    {
        return ObjectHeader{load(*reinterpret_cast<const u32 *>(slot))};
    }
    void write_to(unsigned char *slot) const noexcept { store(*reinterpret_cast<u32 *>(slot), word_); }
};

static_assert(sizeof(ObjectHeader) == 4 && std::is_trivially_copyable_v<ObjectHeader>);

inline constexpr unsigned kHeaderBytes = sizeof(ObjectHeader);

// Of any pointer that a caller passes, so the address is worked out as a number.
inline unsigned char *slot_of(void *object) noexcept
{
    return reinterpret_cast<unsigned char *>(reinterpret_cast<std::uintptr_t>(object) - kHeaderBytes);
}

inline void *object_in(unsigned char *slot) noexcept { return slot + kHeaderBytes; }

}  // namespace memm
