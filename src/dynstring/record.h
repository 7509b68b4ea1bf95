#pragma once

#include "base/bits.h"
#include "base/shared_word.h"

#include <memmanager/dynstring.h>

#include <cstddef>

// A string's record, and the word in it that packs everything but the pointers:
//
//     31       30       29    28..27  26....................................0
//     literal  deleted  1     buffer  size                                      long form
//     literal  deleted  0     buffer  26..16 maximum size   15..0 size          short form
//
// Sizes count the terminating zero; 0 is an empty string without text. A maximum of 0 is none; the long form has none.
// The buffer number means something only for a text that lies in a buffer: str set and not literal.
namespace memm::strings {

inline constexpr u32 kMaxTextSize = 0x7ffffff;
inline constexpr u32 kShortTextSize = 0xffff;
inline constexpr u32 kMaxSizeLimit = 2047;

class StringInfo {
    using Literal = Bits<31, 1>;
    using Deleted = Bits<30, 1>;
    using Long = Bits<29, 1>;
    using Buffer = Bits<27, 2>;
    using MaxSize = Bits<16, 11>;
    using ShortSize = Bits<0, 16>;
    using LongSize = Bits<0, 27>;

    static constexpr u32 kNotPlain = Literal::put(0, 1) | Deleted::put(0, 1) | Long::put(0, 1);
    static constexpr u32 kForm = kNotPlain | Buffer::put(0, 3);
    static constexpr u32 kPlace = Literal::put(0, 1) | Buffer::put(0, 3);

    u32 word_;

public:
    constexpr explicit StringInfo(u32 word) noexcept : word_(word) {}
    constexpr u32 word() const noexcept { return word_; }

    constexpr bool is_literal() const noexcept { return Literal::get(word_) != 0; }
    constexpr bool is_deleted() const noexcept { return Deleted::get(word_) != 0; }
    constexpr bool is_long() const noexcept { return Long::get(word_) != 0; }
    // Neither literal nor deleted, and in the short form.
    constexpr bool is_plain() const noexcept { return (word_ & kNotPlain) == 0; }
    constexpr u32 buffer() const noexcept { return Buffer::get(word_); }
    constexpr bool is_plain_in(u32 buffer) const noexcept { return (word_ & kForm) == Buffer::put(0, buffer); }
    // Of a text.
    constexpr bool lies_in(u32 buffer) const noexcept { return (word_ & kPlace) == Buffer::put(0, buffer); }
    // The same in the short form, and the size in that form.
    constexpr bool lies_short_in(u32 buffer) const noexcept
    {
        return (word_ & (kPlace | Long::put(0, 1))) == Buffer::put(0, buffer);
    }
    constexpr u32 short_size() const noexcept { return ShortSize::get(word_); }
    constexpr u32 size() const noexcept { return is_long() ? LongSize::get(word_) : ShortSize::get(word_); }
    constexpr u32 max_size() const noexcept { return is_long() ? 0 : MaxSize::get(word_); }

    constexpr StringInfo with_literal(bool on) const noexcept { return StringInfo{Literal::put(word_, on ? 1 : 0)}; }
    constexpr StringInfo with_deleted() const noexcept { return StringInfo{Deleted::put(word_, 1)}; }
    constexpr StringInfo with_buffer(u32 number) const noexcept { return StringInfo{Buffer::put(word_, number)}; }

    // Limits beyond the field leave the string unlimited; so does the long form.
    constexpr StringInfo with_max_size(u32 max) const noexcept
    {
        return is_long() ? *this : StringInfo{MaxSize::put(word_, max <= kMaxSizeLimit ? max : 0)};
    }

    // Deliberate: whatever passes through the long form loses its limit.
    constexpr StringInfo with_size(u32 size) const noexcept
    {
        if (size > kShortTextSize) {
            return StringInfo{LongSize::put(Long::put(word_, 1), size)};
        }
        const u32 kept = is_long() ? LongSize::put(word_, 0) : word_;
        return StringInfo{ShortSize::put(Long::put(kept, 0), size)};
    }

    // Of a plain one, which must stay short.
    constexpr StringInfo longer_by(u32 bytes) const noexcept { return StringInfo{word_ + bytes}; }
};

static_assert(sizeof(void *) != 4 || (sizeof(dynstr) == 16 && offsetof(dynstr, next) == 12));
static_assert(StringInfo{0}.with_max_size(2047).with_size(65536).with_size(3).max_size() == 0);

// Lengths and flags are also read without the lock.
inline StringInfo info_of(const dynstr &record) noexcept { return StringInfo{load(record.info)}; }

inline void set_info(dynstr &record, StringInfo info) noexcept { store(record.info, info.word()); }

inline u32 size_of(const dynstr &record) noexcept { return info_of(record).size(); }

inline u32 length_of(const dynstr &record) noexcept
{
    const u32 size = size_of(record);
    return size == 0 ? 0 : size - 1;
}

inline void set_size(dynstr &record, u32 size) noexcept
{
    if (size == 0) {
        record.str = nullptr;
    }
    set_info(record, info_of(record).with_size(size));
}

inline void set_literal(dynstr &record, bool on) noexcept { set_info(record, info_of(record).with_literal(on)); }

// Its text lies in a buffer, and it in that buffer's list.
inline bool is_in_buffer(const dynstr &record) noexcept
{
    return record.str != nullptr && !info_of(record).is_literal();
}

inline bool is_in_buffer(const dynstr &record, u32 buffer) noexcept
{
    return record.str != nullptr && info_of(record).lies_in(buffer);
}

}  // namespace memm::strings
