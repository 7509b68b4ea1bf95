#include "dynstring/text_pool.h"

#include "base/wide.h"
#include "memmanager/slots.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm::strings {

namespace {

void trace_finding(const char *text) noexcept
{
    if (is_traced(1)) {
        trc_def_printf("%s", text);
    }
}

// Both results differ only for a text that was written behind the library's back.
void check_end(const char *text, u32 size) noexcept
{
    if (size == 0 || std::memchr(text, 0, size) != text + size - 1) {
        trace_finding("[DYNSTR] loc_dynstr_gc strlen+1 != dynstr_size.\r\n");
    }
}

void trace_corrected(const char *text, u32 from, u32 to) noexcept
{
    if (is_traced(1)) {
        trc_def_printf(text, static_cast<int>(from), static_cast<int>(to));
    }
}

// A pass along the list of one buffer, from its first deleted record on:
//
//     old:  |live|del|live|live|del|del|live|        a run is the live texts between two deleted ones; its records get
//     new:  |live|live|live|live|                    their new place as they are met, its bytes a stretch at a time
class Compaction {
    Held held_;
    TextPool &pool_;
    const PoolAid &records_;
    const u32 buffer_;
    dynstr *previous_;  // the last record that stays
    Trail trail_;
    u32 shift_ = 0;            // bytes of the deleted texts passed
    char *run_end_ = nullptr;  // where the run's next text ought to lie; null behind a deleted text
    char *end_;                // of the texts that are in their place
    u32 freed_records_ = 0;

    // A stretch of records whose texts lie side by side, as far as it has been passed. Nobody else knows its address,
    // so that it lives in registers; what is left to do at its end waits in the arrays.
    struct Stretch {
        char *text;        // the next one
        char *run;         // its first text in this stretch; null behind a deleted one
        dynstr *previous;  // as it is behind the last run that has ended
        Trail trail;
        std::size_t shift;
        Move *move;
        void **released;
        std::size_t count = 0;

        u32 shift_bytes() const noexcept { return static_cast<u32>(shift); }
    };
    static constexpr u32 kStretch = 64;
    u32 sizes_[kStretch];
    Move moves_[kStretch / 2 + 1];  // runs: the one that goes on, then those with a deleted text before them
    void *released_[kStretch];

    const char *used_end() const noexcept { return pool_.buf[buffer_] + pool_.used[buffer_]; }

    void check(const dynstr &record) const noexcept
    {
        const dynstr *const next = record.next;
        if (next != nullptr && next->str < record.str) {
            trace_finding("[DYNSTR] loc_dynstr_gc dynstr->str sort error.\r\n");
        }
        if (!is_in_buffer(record, buffer_)) {
            trace_finding("[DYNSTR] loc_dynstr_gc curr_dynstr has wrong buffernr.\r\n");
        }
        if (next != nullptr && !is_in_buffer(*next, buffer_)) {
            trace_finding("[DYNSTR] loc_dynstr_gc next_dynstr has wrong buffernr.\r\n");
        }
        check_end(record.str, size_of(record));
    }

    void put_in_place(const Move *moves, u32 count) noexcept
    {
        if (count > 0) {
            move_down(moves, count, used_end());
            end_ = moves[count - 1].new_end();
        }
    }
    void put_in_place(const Move &move) noexcept { put_in_place(&move, 1); }

    void link(dynstr *previous, dynstr &record) noexcept
    {
        (previous == nullptr ? pool_.first[buffer_] : previous->next) = &record;
        record.prev = previous;
    }

    // Somebody added a reference after the last release: the record lives on without a text, and the last release
    // frees it.
    static bool has_further_holders(dynstr &record) noexcept
    {
        return ObjectHeader::of_slot(slot_of(&record)).extra_refs() != 0;
    }

    void give_back(dynstr &record) noexcept
    {
        ++freed_records_;
        if (has_further_holders(record)) {
            set_size(record, 0);
            static_cast<void>(release(held_, &record));
        } else {
            finish_release(held_, records_, slot_of(&record));
        }
    }

    void end_run_at(const char *text) noexcept
    {
        if (run_end_ != nullptr && run_end_ != text) {
            trace_finding("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong stringsize.\r\n");
            if (run_end_ < text) {
                put_in_place({run_end_, static_cast<u32>(text - run_end_), shift_});
            }
        }
        run_end_ = nullptr;
    }

    // A record that is checked for itself. Its neighbour is left as it is.
    void pass_checked(dynstr &record) noexcept
    {
        check(record);
        const u32 size = size_of(record);
        if (info_of(record).is_deleted()) {
            end_run_at(record.str);
            shift_ += size;
            give_back(record);
            return;
        }
        if (run_end_ == nullptr) {
            link(previous_, record);
            run_end_ = record.str;
        }
        put_in_place({run_end_, size, shift_});
        run_end_ += size;
        record.str -= shift_;
        previous_ = &record;
        trail_.append(record);
    }

    // If there is one; `behind` it stands a deleted record, or one that is yet to be passed.
    static void end_run(Stretch &stretch, const dynstr &behind) noexcept
    {
        if (stretch.run != nullptr) {
            *stretch.move++ = {stretch.run, static_cast<u32>(stretch.text - stretch.run), stretch.shift_bytes()};
            stretch.previous = behind.prev;
        }
    }

    void pass_deleted(Stretch &stretch, dynstr &record, u32 size) noexcept
    {
        end_run(stretch, record);
        stretch.run = nullptr;
        stretch.shift += size;
        *stretch.released++ = &record;
    }

    void pass_live(Stretch &stretch, dynstr &record) noexcept
    {
        if (stretch.run == nullptr) {
            link(stretch.previous, record);
            stretch.run = stretch.text;
        }
        record.str = stretch.text - stretch.shift;
        stretch.trail.append(record);
    }

    // Passes the records from this one on about which check() has nothing to say: their texts, none of them long, lie
    // side by side, a zero at the end of each, and no other there; that is told when they are passed. Answers the first
    // one that it leaves, which is the last of the list at the latest.
    dynstr *pass_sound(dynstr *record) noexcept
    {
        char *const start = record->str;
        const u32 buffer = buffer_;
        StringInfo next_info = info_of(*record);
        if (start == nullptr || !next_info.lies_short_in(buffer) || (run_end_ != nullptr && run_end_ != start)) {
            return record;
        }
        Stretch stretch{.text = start,
                        .run = run_end_,
                        .previous = previous_,
                        .trail = trail_,
                        .shift = shift_,
                        .move = moves_,
                        .released = released_};
        while (stretch.count < kStretch) {
            const StringInfo info = next_info;
            const u32 size = info.short_size();
            char *const end = stretch.text + size;
            if (size == 0 || end[-1] != '\0') {
                break;
            }
            dynstr *const next = record->next;
            if (next == nullptr) {
                break;
            }
            Ahead::fetch(*record);
            next_info = info_of(*next);
            if (next->str != end || !next_info.lies_short_in(buffer)) {
                break;
            }
            if (!info.is_deleted()) {
                pass_live(stretch, *record);
            } else if (!has_further_holders(*record)) {
                pass_deleted(stretch, *record, size);
            } else {
                break;
            }
            sizes_[stretch.count++] = size;
            stretch.text = end;
            record = next;
        }
        if (is_traced(1) && (!has_vectors() || count_zeros(start, stretch.text) != stretch.count)) {
            check_ends(start, static_cast<u32>(stretch.count));
        }
        end_run(stretch, *record);
        end_stretch(stretch);
        return record;
    }

    void check_ends(const char *text, u32 count) const noexcept
    {
        for (u32 i = 0; i < count; text += sizes_[i++]) {
            check_end(text, sizes_[i]);
        }
    }

    void end_stretch(Stretch stretch) noexcept
    {
        run_end_ = stretch.run == nullptr ? nullptr : stretch.text;
        previous_ = stretch.previous;
        trail_ = stretch.trail;
        if (trail_.record() == nullptr) {
            trail_.begin(previous_);
        }
        shift_ = stretch.shift_bytes();
        put_in_place(moves_, static_cast<u32>(stretch.move - moves_));
        const auto released = static_cast<u32>(stretch.released - released_);
        freed_records_ += released;
        finish_releases(held_, records_, released_, released);
    }

    void end_list() noexcept
    {
        if (run_end_ == nullptr) {
            pool_.last[buffer_] = previous_;
            if (previous_ != nullptr) {
                previous_->next = nullptr;
            }
        }
    }

    void settle_accounts() noexcept
    {
        const auto freed = static_cast<u32>(used_end() - end_);
        if (freed != pool_.bufdelbytes[buffer_]) {
            trace_corrected("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong total gc'd bytes (%d->%d).\r\n",
                            pool_.bufdelbytes[buffer_], freed);
        }
        if (freed_records_ != pool_.bufdelcnt[buffer_]) {
            trace_corrected("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong total gc'd dynstr (%d->%d).\r\n",
                            pool_.bufdelcnt[buffer_], freed_records_);
        }
        pool_.bufdelbytes[buffer_] = 0;
        pool_.bufdelcnt[buffer_] = 0;
        pool_.cnt[buffer_] -= freed_records_;
        std::memset(end_, 0, freed);
        pool_.used[buffer_] -= freed;
        pool_.usedbytes -= freed;
        pool_.delbytes -= freed;
        add(pool_.delcnt, -static_cast<int>(freed_records_));
        raise_to(pool_.gcmaxcnt, freed_records_);
        raise_to(pool_.gcmaxbytes, freed);
        pool_.gctotcnt += freed_records_;
        pool_.gctotbytes += freed;
    }

public:
    Compaction(Held held, TextPool &pool, u32 buffer, dynstr &lowest_deleted) noexcept
        : held_(held), pool_(pool), records_(registry.aid(PoolId{pool.poolid})), buffer_(buffer),
          previous_(lowest_deleted.prev), end_(lowest_deleted.str)
    {
        if (pool.first[buffer] == &lowest_deleted) {
            pool.first[buffer] = nullptr;
        }
    }

    void run(dynstr *record) noexcept
    {
        while (record != nullptr) {
            dynstr *const left = pass_sound(record);
            if (left == record) {
                record = record->next;
                pass_checked(*left);
            } else {
                record = left;
            }
        }
        end_list();
        settle_accounts();
    }
};

}  // namespace

// The buffers take turns; the compacted one becomes the current one.
void compact(Held held, TextPool &pool, Reason reason) noexcept
{
    const u32 buffer = (pool.curbuf + 1) % pool.bufcnt;
    pool.trail = {};
    if (dynstr *const lowest = pool.firstdel[buffer]; lowest != nullptr) {
        Compaction(held, pool, buffer, *lowest).run(lowest);
    }
    ++pool.gcreason[pool.curbuf][static_cast<u32>(reason)];
    pool.curbuf = buffer;
    ++pool.gccnt;
    store(pool.gcrequest, 0);
    pool.firstdel[buffer] = nullptr;
    pool.trail.begin(pool.last[buffer]);
}

}  // namespace memm::strings
