#pragma once

#include "dynstring/edit.h"
#include "dynstring/place.h"

#include <algorithm>
#include <cstring>

namespace memm::strings {

// A new record of the pool, or null. Gives it back when `fill(record)` fails, and answers null then.
template <typename Fill> dynstr *create_with(Held held, void *record, Fill fill) noexcept
{
    if (record == nullptr) {
        return nullptr;
    }
    if (fill(*static_cast<dynstr *>(record)) != Result::ok) {
        static_cast<void>(release(held, record));
        return nullptr;
    }
    return static_cast<dynstr *>(record);
}

// assign() for a record that is new and has no limit. Nothing has to be set aside, so the stand-by record is only
// booked; and the zero behind the text is there already, for free space is zero.
inline Result assign_first(Held held, TextPool &pool, dynstr &record, const Source &source, int offset,
                           int length) noexcept
{
    const auto start = static_cast<std::size_t>(offset);
    const std::size_t rest = source.length - start;
    const std::size_t taken = length < 0 ? rest : static_cast<std::size_t>(length);
    if (source.kind != Source::Kind::text || start > source.length || taken > rest || taken == 0 ||
        taken >= std::min(pool.room(), kShortTextSize)) {
        return assign(held, pool, record, source, offset, length);
    }
    if (!allocate_in_passing(held, PoolId{pool.poolid})) {
        return Result::no_memory;
    }
    record.str = pool.fill_position();
    std::memcpy(record.str, source.text + start, taken);
    commit(held, pool, record, StringInfo{0}.with_size(static_cast<u32>(taken + 1)));
    return Result::ok;
}

// A new string made of a text, or null. The record may come from the pool's reserve.
dynstr *create(Held, TextPool &pool, const Source &source, int offset, int length) noexcept;

// As dynstr_fromstring_nolock() and dynstr_fromsubdynstr_nolock(), messages included.
dynstr *create_from_text(Held, PoolId id, const char *text) noexcept;
dynstr *copy_part(Held, const dynstr *source, int offset, int length) noexcept;

}  // namespace memm::strings
