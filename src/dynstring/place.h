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

class Rewrite {
    Held held_;
    TextPool &pool_;
    dynstr &record_;
    dynstr outside_before_{};  // the stand-by of a record whose text is in no buffer
    dynstr *before_ = nullptr;
    u32 max_size_;
    u32 real_size_ = 0;
    Result result_ = Result::ok;

    void link_in_place_of(dynstr &old) noexcept;
    void relocate() noexcept;
    void correct_size() noexcept;
    void commit() noexcept;
    void append_to_list() noexcept;
    void drop_stand_by() noexcept;

public:
    Rewrite(Held held, TextPool &pool, dynstr &record) noexcept
        : held_(held), pool_(pool), record_(record), max_size_(info_of(record).max_size())
    {
    }

    u32 max_size() const noexcept { return max_size_; }
    // The stand-by record: the text, size and limit that the record had.
    const dynstr &before() const noexcept { return *before_; }

    // Empties the record; false when there is no stand-by record. Some callers may have to leave that one behind.
    enum class StandBy : unsigned char { may_be_booked, has_a_slot };
    [[nodiscard]] bool set_aside(StandBy kind = StandBy::may_be_booked) noexcept;

    // Room for a text of that many bytes, its zero included: in the current buffer when it has `size` bytes left, else
    // `real` bytes outside. Null, and finish() will answer no_memory, when there is none or no record can hold the
    // size.
    [[nodiscard]] char *make_room(u64 size, u64 real) noexcept;

    // A block outside, where the size is known to find no room in the current buffer.
    [[nodiscard]] char *make_room_outside(u64 size, u64 real) noexcept;

    // Takes back the text at the end of the current buffer, to write it anew from there on.
    void reopen() noexcept;

    // The text stands in the room: `size` as it was asked for, `real` as it is (with its zero; 0 when nothing stands).
    void wrote(u32 size, u32 real) noexcept;

    // There is no such text; the record ends up empty. After this the old text is lost.
    void fail_too_large() noexcept;

    // Deliberate: an append that finds no block outside leaves the old text with the stand-by record for good.
    void leave_stand_by() noexcept;

    Result finish() noexcept;
};

}  // namespace memm::strings
