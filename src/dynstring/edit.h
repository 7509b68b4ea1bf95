#pragma once

#include "dynstring/text_pool.h"

#include <cstring>

namespace memm::strings {

// What a new text is made from. None is "no such text", which is not the same as an empty one: a record that holds no
// text gives nothing, an empty text of a record may be copied.
struct Source {
    enum class Kind : unsigned char { none, nothing, text };
    Kind kind;
    const char *text;
    std::size_t length;
};

// An empty text from outside gives nothing, null not even that.
inline Source text_given(const char *text) noexcept
{
    if (text == nullptr) {
        return {Source::Kind::none, nullptr, 0};
    }
    const std::size_t length = std::strlen(text);
    return {length == 0 ? Source::Kind::nothing : Source::Kind::text, text, length};
}

Source whole_text(const dynstr &record) noexcept;      // of a record that is known to be one
Source text_of_record(const dynstr *source) noexcept;  // no record of a string pool: none

// The control block of a record that may be changed; null for every other pointer, deleted records included.
inline TextPool *changeable(const dynstr *record) noexcept
{
    TextPool *const pool = owner_pool(record);
    return pool != nullptr && !info_of(*record).is_deleted() ? pool : nullptr;
}

// The first `length` bytes (all the rest, when negative) of the source from `offset` on.
Result assign(Held, TextPool &pool, dynstr &record, const Source &source, int offset, int length) noexcept;
Result assign(Held, dynstr *record, const Source &source, int offset, int length) noexcept;  // when it may be changed

}  // namespace memm::strings
