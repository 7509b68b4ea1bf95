#include "dynstring/text_pool.h"

#include "memmanager/slots.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm::strings {

namespace {

using Bytes [[gnu::vector_size(16)]] = unsigned char;

// Subtracts 255, which is adding 1, where a byte is zero.
void add_zeros(Bytes &sum, const char *from) noexcept
{
    Bytes bytes;
    std::memcpy(&bytes, from, sizeof bytes);
    sum -= reinterpret_cast<Bytes>(bytes == 0);
}

// Sixteen at a time; a byte of the sum counts up to 255 zeros.
u32 count_zeros(const char *from, const char *end) noexcept
{
    constexpr std::ptrdiff_t kMost = 252;
    constexpr std::ptrdiff_t kVector = sizeof(Bytes);
    u32 zeros = 0;
    while (end - from >= kVector) {
        Bytes sum{};
        std::ptrdiff_t vectors = std::min((end - from) / kVector, kMost);
        for (; vectors >= 4; vectors -= 4, from += 4 * kVector) {
            add_zeros(sum, from);
            add_zeros(sum, from + kVector);
            add_zeros(sum, from + 2 * kVector);
            add_zeros(sum, from + 3 * kVector);
        }
        for (; vectors > 0; --vectors, from += kVector) {
            add_zeros(sum, from);
        }
        for (unsigned i = 0; i < sizeof sum; ++i) {
            zeros += sum[i];
        }
    }
    for (; from < end; ++from) {
        zeros += *from == '\0' ? 1 : 0;
    }
    return zeros;
}

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
    dynstr *previous_;     // the last record that stays
    u32 shift_ = 0;        // bytes of the deleted texts passed
    char *run_ = nullptr;  // null behind a deleted text
    u32 run_length_ = 0;
    u32 moved_ = 0;  // bytes of the run that are in their place, or are going to be at the end of the stretch
    char *end_;      // of the texts that are in their place
    u32 freed_records_ = 0;

    // A stretch: the records that were passed last, and what is left to do for them.
    static constexpr u32 kStretch = 64;
    struct Move {
        char *from;
        u32 length;
        u32 down;
    };
    u32 sizes_[kStretch];
    Move moves_[kStretch + 1];
    u32 move_count_ = 0;

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

    void note_move() noexcept
    {
        if (run_length_ > moved_) {
            moves_[move_count_++] = {run_ + moved_, run_length_ - moved_, shift_};
            moved_ = run_length_;
        }
    }

    // Most runs are short: copied in blocks, they need no call. What is copied too much ends where the run did before.
    void move(const Move &move) noexcept
    {
        constexpr std::ptrdiff_t kBlock = 32;
        const char *from = move.from;
        const char *const from_end = from + move.length;
        char *to = move.from - move.down;
        end_ = to + move.length;
        if (move.down >= kBlock && move.length <= 8 * kBlock && used_end() - from_end >= kBlock) [[likely]] {
            for (; from < from_end; from += kBlock, to += kBlock) {
                std::memcpy(to, from, kBlock);
            }
        } else {
            std::memmove(to, from, move.length);
        }
    }

    // Somebody added a reference after the last release: the record lives on without a text, and the last release
    // frees it.
    void give_back(dynstr &record) noexcept
    {
        unsigned char *const slot = slot_of(&record);
        ++freed_records_;
        if (ObjectHeader::of_slot(slot).extra_refs() == 0) {
            if (!finish_release_at_once(held_, records_, slot)) {
                finish_release(held_, records_, slot);
            }
        } else {
            set_size(record, 0);
            static_cast<void>(release(held_, &record));
        }
    }

    bool ends_run_before(const char *text) const noexcept
    {
        return run_ == nullptr || static_cast<u32>(text - run_) == run_length_;
    }

    void pass(dynstr &record, StringInfo info) noexcept
    {
        if (info.is_deleted()) {
            note_move();
            run_ = nullptr;
            shift_ += info.size();
            give_back(record);
            return;
        }
        if (run_ == nullptr) {
            (previous_ == nullptr ? pool_.first[buffer_] : previous_->next) = &record;
            record.prev = previous_;
            run_ = record.str;
            run_length_ = 0;
            moved_ = 0;
        }
        run_length_ += info.size();
        record.str -= shift_;
        previous_ = &record;
    }

    // A record that is checked for itself. Its neighbour is left as it is.
    void pass_checked(dynstr &record) noexcept
    {
        check(record);
        const StringInfo info = info_of(record);
        if (info.is_deleted() && !ends_run_before(record.str)) {
            trace_finding("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong stringsize.\r\n");
            run_length_ = static_cast<u32>(record.str - run_);
        }
        pass(record, info);
    }

    bool is_next_at(const dynstr *next, const char *text) const noexcept
    {
        return next == nullptr || (next->str == text && info_of(*next).lies_in(buffer_));
    }

    // Passes the records from this one on about which check() has nothing to say: their texts lie side by side, a zero
    // at the end of each, and no other there; that is told when they are passed. Answers the first one that it leaves.
    dynstr *pass_sound(dynstr *record) noexcept
    {
        const char *const start = record->str;
        const char *end = start;
        u32 count = 0;
        if (!is_in_buffer(*record, buffer_)) {
            return record;
        }
        while (record != nullptr && count < kStretch) {
            dynstr *const next = record->next;
            const StringInfo info = info_of(*record);
            const u32 size = info.size();
            if (size == 0 || end[size - 1] != '\0' || !is_next_at(next, end + size) ||
                (info.is_deleted() && !ends_run_before(end))) {
                break;
            }
            end += size;
            sizes_[count++] = size;
            pass(*record, info);
            record = next;
        }
        if (is_traced(1) && count_zeros(start, end) != count) {
            check_ends(start, count);
        }
        return record;
    }

    void check_ends(const char *text, u32 count) const noexcept
    {
        for (u32 i = 0; i < count; text += sizes_[i++]) {
            check_end(text, sizes_[i]);
        }
    }

    void end_stretch() noexcept
    {
        if (run_ != nullptr) {
            note_move();
        }
        for (u32 i = 0; i < move_count_; ++i) {
            move(moves_[i]);
        }
        move_count_ = 0;
    }

    void end_list() noexcept
    {
        if (run_ == nullptr) {
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
            end_stretch();
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
    if (dynstr *const lowest = pool.firstdel[buffer]; lowest != nullptr) {
        Compaction(held, pool, buffer, *lowest).run(lowest);
    }
    ++pool.gcreason[pool.curbuf][static_cast<u32>(reason)];
    pool.curbuf = buffer;
    ++pool.gccnt;
    store(pool.gcrequest, 0);
    pool.firstdel[buffer] = nullptr;
}

}  // namespace memm::strings
