#pragma once

#include "dynstring/edit.h"
#include "dynstring/place.h"
#include "memmanager/depletion.h"
#include "memmanager/slots.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace memm::strings {

// A new record of the pool, or null. Gives it back when `fill(record)` fails, and answers null then.
template <typename Fill> [[gnu::always_inline]] inline dynstr *create_with(Held held, void *record, Fill fill) noexcept
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

// A record of a string pool by allocate(), with what is most often all of that in the caller.
[[gnu::always_inline]] inline dynstr *allocate_record(Held held, PoolId pool) noexcept
{
    void *const object = take_slot_at_once(held, registry.aid(pool));
    return static_cast<dynstr *>(object != nullptr ? object : allocate(held, pool));
}

// The part of the source that a new record is to hold, when that is a short text with room in the current buffer; else
// nothing.
inline std::string_view short_part(const TextPool &pool, const Source &source, int offset, int length) noexcept
{
    const auto start = static_cast<std::size_t>(offset);
    const std::size_t rest = source.length - start;
    const std::size_t taken = length < 0 ? rest : static_cast<std::size_t>(length);
    return source.kind == Source::Kind::text && start <= source.length && taken <= rest &&
                   taken < std::min(pool.room(), kShortTextSize)
               ? std::string_view(source.text + start, taken)
               : std::string_view{};
}

// The zero behind the text is there already, for free space is zero.
[[gnu::always_inline]] inline void place_short(Held held, TextPool &pool, dynstr &record,
                                               std::string_view text) noexcept
{
    record.str = pool.fill_position();
    std::memcpy(record.str, text.data(), text.size());
    commit(held, pool, record, StringInfo{0}.with_size(static_cast<u32>(text.size() + 1)));
}

// assign() for a record that is new and has no limit. Nothing has to be set aside, so the stand-by record is only
// booked.
[[gnu::always_inline]] inline Result assign_short(Held held, TextPool &pool, dynstr &record,
                                                  std::string_view text) noexcept
{
    if (const PoolAid &aid = registry.aid(PoolId{pool.poolid}); !pass_slot(held, aid)) {
        report_depletion(held, *aid.pool);
        return Result::no_memory;
    }
    place_short(held, pool, record, text);
    return Result::ok;
}

[[gnu::always_inline]] inline Result assign_first(Held held, TextPool &pool, dynstr &record, const Source &source,
                                                  int offset, int length) noexcept
{
    const std::string_view part = short_part(pool, source, offset, length);
    return part.empty() ? assign(held, pool, record, source, offset, length) : assign_short(held, pool, record, part);
}

dynstr *create_at_length(Held, TextPool &pool, Source source, int offset, int length) noexcept;

// A new string made of a text, or null. The record may come from the pool's reserve.
inline dynstr *create(Held held, TextPool &pool, const Source &source, int offset, int length) noexcept
{
    const std::string_view part = short_part(pool, source, offset, length);
    void *const object = part.empty() ? nullptr : take_foreseen_slot(held, registry.aid(PoolId{pool.poolid}));
    if (object == nullptr) {
        return create_at_length(held, pool, source, offset, length);
    }
    *static_cast<dynstr *>(object) = {};
    return create_with(held, object, [&](dynstr &record) { return assign_short(held, pool, record, part); });
}

// As dynstr_fromstring_nolock() and dynstr_fromsubdynstr_nolock(), messages included.
dynstr *create_from_text(Held, PoolId id, const char *text) noexcept;
dynstr *copy_part(Held, const dynstr *source, int offset, int length) noexcept;

}  // namespace memm::strings
