#pragma once

#include "dynstring/text_pool.h"

// Putting a text into a record. The old text stays where it is, held by a stand-by record that takes the record's place
// in the list of its buffer, until the new text stands: so every text may be made from the old one. (A record without a
// text in a buffer has no place to keep: then the stand-by record is only booked, its slot not touched.)
//
//     Rewrite rewrite(held, pool, record);
//     if (!rewrite.set_aside()) return Result::no_memory;      // nothing has changed
//     if (char *room = rewrite.make_room(size, size)) ...      // write there, then rewrite.wrote(...)
//     return rewrite.finish();
//
// A new text goes to the fill position of the current buffer. Where that lacks room it waits in a block from outside
// while the buffers are compacted in turn, until one can take it.
namespace memm::strings {

// That many bytes behind the fill position belong to a text from now on.
inline void fill(TextPool &pool, u32 buffer, u32 bytes) noexcept
{
    pool.used[buffer] += bytes;
    pool.usedbytes += bytes;
    raise_to(pool.peakbytes, pool.usedbytes - pool.delbytes);
    raise_to(pool.peak[buffer], pool.used[buffer] - pool.bufdelbytes[buffer]);
}

// Before another text is placed.
inline bool wants_compaction(const TextPool &pool) noexcept
{
    return pool.cnt[pool.curbuf] > pool.balance_limit || load(pool.gcrequest) != 0;
}

// The text that ends at the fill position, its size in the record's word to be, belongs to the current buffer from now
// on.
inline void commit(Held held, TextPool &pool, dynstr &record, StringInfo info) noexcept
{
    const u32 buffer = pool.curbuf;
    fill(pool, buffer, info.size());
    if (dynstr *&last = pool.last[buffer]; last != &record) {
        record.prev = last;
        (last == nullptr ? pool.first[buffer] : last->next) = &record;
        last = &record;
        ++pool.cnt[buffer];
        pool.trail.append(record);
    }
    set_info(record, info.with_buffer(buffer));
    if (pool.cnt[buffer] > pool.balance_limit) [[unlikely]] {
        compact(held, pool, Reason::balance);
    }
    if (load(pool.gcrequest) != 0) [[unlikely]] {
        compact(held, pool, Reason::depleted);
    }
}

class Rewrite {
    Held held_;
    TextPool &pool_;
    dynstr &record_;
    dynstr outside_before_{};  // the stand-by of a record whose text is in no buffer
    dynstr *before_ = nullptr;
    u32 max_size_;
    StringInfo info_;  // what the record's word will be; written once
    u32 real_size_ = 0;
    Result result_ = Result::ok;

    PoolId records() const noexcept { return PoolId{pool_.poolid}; }

    bool set_aside_with_slot() noexcept;
    void relocate() noexcept;
    void correct_size() noexcept;
    void drop_slot() noexcept;

    // An empty record has no text and counts as a literal.
    void stay_empty() noexcept
    {
        record_.str = nullptr;
        set_info(record_, info_.with_literal(true));
    }

public:
    Rewrite(Held held, TextPool &pool, dynstr &record) noexcept
        : held_(held), pool_(pool), record_(record), max_size_(info_of(record).max_size()), info_(info_of(record))
    {
    }

    u32 max_size() const noexcept { return max_size_; }
    // The stand-by record: the text, size and limit that the record had.
    const dynstr &before() const noexcept { return *before_; }

    // Empties the record; false when there is no stand-by record. Some callers may have to leave that one behind.
    enum class StandBy : unsigned char { may_be_booked, has_a_slot };
    [[nodiscard]] bool set_aside(StandBy kind = StandBy::may_be_booked) noexcept
    {
        if (is_in_buffer(record_) || kind == StandBy::has_a_slot) {
            if (!set_aside_with_slot()) {
                return false;
            }
        } else {
            if (!allocate_in_passing(held_, records())) [[unlikely]] {
                return false;
            }
            outside_before_ = record_;
            before_ = &outside_before_;
        }
        record_.str = nullptr;
        record_.prev = nullptr;
        record_.next = nullptr;
        info_ = StringInfo{0};
        return true;
    }

    // Room for a text of that many bytes, its zero included: in the current buffer when it has `size` bytes left, else
    // `real` bytes outside. Null, and finish() will answer no_memory, when there is none or no record can hold the
    // size.
    [[nodiscard]] char *make_room(u64 size, u64 real) noexcept
    {
        if (size > pool_.room() || size > kMaxTextSize) [[unlikely]] {
            return make_room_outside(size, real);
        }
        return record_.str = pool_.fill_position();
    }

    // A block outside, where the size is known to find no room in the current buffer.
    [[nodiscard]] char *make_room_outside(u64 size, u64 real) noexcept;

    // The text stands in the room: `size` as it was asked for, `real` as it is (with its zero; 0 when nothing stands).
    void wrote(u32 size, u32 real) noexcept
    {
        real_size_ = real;
        info_ = info_.with_size(size);
    }

    // There is no such text; the record ends up empty. After this the old text is lost.
    void fail_too_large() noexcept;

    // Deliberate: an append that finds no block outside leaves the old text with the stand-by record for good.
    void leave_stand_by() noexcept { before_ = nullptr; }

    Result finish() noexcept
    {
        if ((pool_.flags & TextPool::kOutside) != 0) [[unlikely]] {
            relocate();
        }
        if (result_ == Result::ok && info_.size() != real_size_) [[unlikely]] {
            correct_size();
        }
        if (max_size_ != 0) {
            info_ = info_.with_max_size(max_size_);
        }
        if (info_.size() != 0) {
            commit(held_, pool_, record_, info_);
        } else {
            stay_empty();
        }
        if (before_ != nullptr && before_ != &outside_before_) {
            drop_slot();
        }
        return result_;
    }
};

}  // namespace memm::strings
