#include "dynstring/edit.h"

#include "dynstring/place.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace memm::strings {

// The owner of a literal may have shortened it meanwhile.
Source whole_text(const dynstr &record) noexcept
{
    if (record.str == nullptr) {
        return {Source::Kind::nothing, nullptr, 0};
    }
    const std::size_t length = length_of(record);
    return {Source::Kind::text, record.str, info_of(record).is_literal() ? strnlen(record.str, length) : length};
}

Source text_of_record(const dynstr *source) noexcept
{
    return owner_pool(source) == nullptr ? Source{Source::Kind::none, nullptr, 0} : whole_text(*source);
}

namespace {

// Reading stops at the end of the source. What was asked for beyond it still counts when room is judged, and shows as a
// wrong prediction afterwards.
void put(Rewrite &rewrite, const Source &source, std::size_t offset, u64 requested) noexcept
{
    const u64 limit = rewrite.max_size() != 0 ? rewrite.max_size() : requested + 1;
    const u64 size = std::min(requested + 1, limit);
    const u64 real = std::min<u64>(size, source.length - offset + 1);
    if (char *const room = rewrite.make_room(size, real); room != nullptr) {
        const auto count = static_cast<std::size_t>(real) - 1;
        std::memcpy(room, source.text + offset, count);
        room[count] = '\0';
        rewrite.wrote(static_cast<u32>(size), static_cast<u32>(real));
    }
}

}  // namespace

Result assign(Held held, dynstr *record, const Source &source, int offset, int length) noexcept
{
    TextPool *const pool = changeable(record);
    return pool == nullptr ? Result::invalid : assign(held, *pool, *record, source, offset, length);
}

Result assign(Held held, TextPool &pool, dynstr &record, const Source &source, int offset, int length) noexcept
{
    if (source.kind == Source::Kind::none || offset < 0) {
        return Result::invalid;
    }
    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside()) {
        return Result::no_memory;
    }
    const auto start = static_cast<std::size_t>(offset);
    if (source.kind == Source::Kind::text && start <= source.length) {
        const u64 requested = length < 0 ? source.length - start : static_cast<u64>(length);
        if (requested >= 1) {
            put(rewrite, source, start, requested);
        }
    }
    return rewrite.finish();
}

namespace {

// One append: what is added to what, and how much of it counts.
struct Addition {
    u32 old_length;
    u64 added;     // bytes that count, with a terminating zero
    u64 new_size;  // so counted
    u32 copied;    // bytes of the text itself
};

// Of a text of this length, said to be of so many bytes: of more than it has, maybe. Beyond INT_MAX both are too much
// in any case.
Addition measure(const dynstr &record, u64 text_length, u64 claimed) noexcept
{
    text_length = std::min<u64>(text_length, INT_MAX);
    claimed = std::min<u64>(claimed, INT_MAX);
    const u32 length = is_in_buffer(record) ? size_of(record) - 1 : static_cast<u32>(whole_text(record).length);
    const u64 max = info_of(record).max_size();
    u64 added = claimed + 1;
    u64 new_size = length + added;
    if (max != 0 && new_size > max) {
        added -= new_size - max;
        new_size = max;
    }
    return {length, added, new_size, static_cast<u32>(std::min(text_length, added - 1))};
}

// The address alone does not tell: the end of a full buffer may be the start of the next one.
bool ends_current_buffer(const TextPool &pool, const dynstr &record) noexcept
{
    return is_in_buffer(record, pool.curbuf) && record.str + size_of(record) == pool.fill_position();
}

void write_behind(char *text, const Addition &addition, const char *source) noexcept
{
    std::memmove(text + addition.old_length, source, addition.copied);
    text[addition.old_length + addition.copied] = '\0';
}

// The text stays where it is and takes the bytes behind it, so the appended ones are all that is written.
Result extend(Held held, TextPool &pool, dynstr &record, const Addition &addition, const char *text, u32 size) noexcept
{
    const StringInfo old = info_of(record);
    write_behind(record.str, addition, text);
    pool.used[pool.curbuf] -= old.size();
    pool.usedbytes -= old.size();
    commit(held, pool, record, old.with_size(size).with_max_size(old.max_size()));
    return Result::ok;
}

// Most appends: a short text without a limit that ends at the fill position takes that many bytes more. The zero behind
// them is there already. False, and nothing has happened, elsewhere.
[[gnu::always_inline]] inline bool extend_at_once(TextPool &pool, dynstr &record, const char *text, u64 length) noexcept
{
    const StringInfo info = info_of(record);
    const u32 size = info.size();
    const u32 buffer = pool.curbuf;
    if (!info.is_plain_in(buffer) || info.max_size() != 0 || record.str + size != pool.fill_position() || size == 0 ||
        length > std::min(pool.room(), kShortTextSize - size) || wants_compaction(pool)) [[unlikely]] {
        return false;
    }
    fill(pool, buffer, static_cast<u32>(length));
    set_info(record, info.longer_by(static_cast<u32>(length)));
    std::memmove(record.str + size - 1, text, static_cast<std::size_t>(length));
    return true;
}

[[gnu::noinline]] Result append_at_length(Held held, TextPool &pool, dynstr &record, const char *text, u64 text_length,
                                          u64 claimed) noexcept
{
    const Addition addition = measure(record, text_length, claimed);
    const u64 real = u64{addition.old_length} + addition.copied + 1;
    const bool extends = ends_current_buffer(pool, record);
    const bool fits = (extends ? addition.added - 1 : addition.new_size) <= pool.room() && real <= kMaxTextSize;
    if (extends && fits) {
        return extend(held, pool, record, addition, text, static_cast<u32>(real));
    }

    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside(fits ? Rewrite::StandBy::may_be_booked : Rewrite::StandBy::has_a_slot)) {
        return Result::no_memory;
    }
    if (real > kMaxTextSize) {
        rewrite.fail_too_large();
        return rewrite.finish();
    }
    char *const room = fits ? rewrite.make_room(real, real) : rewrite.make_room_outside(real, real);
    if (room == nullptr) {
        rewrite.leave_stand_by();
        return rewrite.finish();
    }
    const dynstr &before = rewrite.before();
    if (addition.old_length != 0) {
        std::memcpy(room, before.str, addition.old_length);
    }
    write_behind(room, addition, text);
    rewrite.wrote(static_cast<u32>(real), static_cast<u32>(real));
    return rewrite.finish();
}

// The record was looked at before the lock was taken: another task may have released it meanwhile.
[[gnu::always_inline]] inline Result append(Held held, TextPool &pool, dynstr &record, const char *text,
                                            u64 text_length, u64 claimed) noexcept
{
    if (ObjectHeader::of_slot(slot_of(&record)).pool() != PoolId{pool.poolid}) [[unlikely]] {
        return Result::invalid;
    }
    if (text_length == claimed && extend_at_once(pool, record, text, claimed)) [[likely]] {
        return Result::ok;
    }
    return info_of(record).is_deleted() ? Result::invalid
                                        : append_at_length(held, pool, record, text, text_length, claimed);
}

// The text is measured under the lock, for it may be the record's own.
template <typename Append>
[[gnu::always_inline]] inline Result add_text(dynstr *d, const char *text, Append append_measured) noexcept
{
    TextPool *const pool = changeable(d);
    if (pool == nullptr) {
        return Result::invalid;
    }
    if (text == nullptr || *text == '\0') {
        return Result::ok;
    }
    const ManagerLock lock("dynstr_addstring_size");
    return append_measured(lock.held(), *pool);
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

// Called more than the others: in one piece.
[[gnu::flatten]] unsigned dynstr_setstring(dynstr *d, const char *text)
{
    const ManagerLock lock("dynstr_setstring");
    return to_c(assign(lock.held(), d, text_given(text), 0, -1));
}

unsigned dynstr_setstring_nolock(dynstr *d, const char *text)
{
    const BusyTask busy;
    return to_c(assign(Held::by_caller(), d, text_given(text), 0, -1));
}

unsigned dynstr_setdynstr(dynstr *d, const dynstr *source)
{
    const ManagerLock lock("dynstr_setdynstr");
    return to_c(assign(lock.held(), d, text_of_record(source), 0, -1));
}

unsigned dynstr_setdynstr_nolock(dynstr *d, const dynstr *source)
{
    const BusyTask busy;
    return to_c(assign(Held::by_caller(), d, text_of_record(source), 0, -1));
}

unsigned dynstr_setbool(dynstr *d, int value) { return dynstr_setstring(d, value != 0 ? "1" : "0"); }

unsigned dynstr_setsubstring(dynstr *d, const char *text, int offset, int length)
{
    if (offset < 0) {
        return to_c(Result::invalid);
    }
    if (!is_string(d)) {
        trace_bad_string("dynstr_setsubstring");
        return to_c(Result::invalid);
    }
    const ManagerLock lock("dynstr_setsubstring");
    return to_c(assign(lock.held(), d, text_given(text), offset, length));
}

// Deliberate: the tag is that of its sibling.
unsigned dynstr_setsubdynstr(dynstr *d, const dynstr *source, int offset, int length)
{
    if (offset < 0) {
        return to_c(Result::invalid);
    }
    if (!is_string(d) || !is_string(source)) {
        trace_bad_string("dynstr_setsubdynstr");
        return to_c(Result::invalid);
    }
    const ManagerLock lock("dynstr_setsubstring");
    return to_c(assign(lock.held(), d, text_of_record(source), offset, length));
}

unsigned dynstr_addstring(dynstr *d, const char *text)
{
    if (text == nullptr) {
        return to_c(Result::invalid);
    }
    return to_c(add_text(d, text, [d, text](Held held, TextPool &pool) {
        const u64 length = std::strlen(text);
        return append(held, pool, *d, text, length, length);
    }));
}

unsigned dynstr_addstring_size(dynstr *d, const char *text, int n)
{
    return to_c(add_text(d, n < 1 ? "" : text, [d, text, n](Held held, TextPool &pool) {
        const auto claimed = static_cast<std::size_t>(n);
        return append(held, pool, *d, text, strnlen(text, claimed), claimed);
    }));
}
}
