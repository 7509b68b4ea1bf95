#include "dynstring/text_pool.h"

#include "memmanager/slots.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <cstring>

namespace memm::strings {

namespace {

// Both results differ only for a text that was written behind the library's back.
bool ends_where_size_says(const dynstr &record) noexcept
{
    const u32 size = size_of(record);
    return size != 0 && std::memchr(record.str, 0, size) == record.str + size - 1;
}

// Sixteen at a time; a byte of the sum counts up to 255 zeros.
u32 count_zeros(const char *from, const char *end) noexcept
{
    using Bytes [[gnu::vector_size(16)]] = unsigned char;
    constexpr unsigned kVectors = 4;
    constexpr std::ptrdiff_t kBlock = kVectors * sizeof(Bytes);
    constexpr unsigned kMostBlocks = 255 / kVectors;
    u32 zeros = 0;
    while (end - from >= kBlock) {
        Bytes sum{};
        for (unsigned left = kMostBlocks; left > 0 && end - from >= kBlock; --left, from += kBlock) {
            Bytes bytes[kVectors];
            std::memcpy(bytes, from, sizeof bytes);
            sum -= reinterpret_cast<Bytes>(bytes[0] == 0) + reinterpret_cast<Bytes>(bytes[1] == 0) +
                   (reinterpret_cast<Bytes>(bytes[2] == 0) + reinterpret_cast<Bytes>(bytes[3] == 0));
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

void trace_corrected(const char *text, u32 from, u32 to) noexcept
{
    if (is_traced(1)) {
        trc_def_printf(text, static_cast<int>(from), static_cast<int>(to));
    }
}

// A pass along the list of one buffer, from its first deleted record on:
//
//     old:  |live|del|live|live|del|del|live|        a run is the live texts between two deleted ones: its records get
//     new:  |live|live|live|live|                    their new place while it is walked, its bytes move when it ends
class Compaction {
    Held held_;
    TextPool &pool_;
    const PoolAid &records_;
    const u32 buffer_;
    dynstr *previous_;  // the last record that stays
    u32 shift_ = 0;     // bytes of the deleted texts passed
    char *run_ = nullptr;
    char *run_target_ = nullptr;
    u32 run_length_ = 0;
    char *end_;  // of the texts that are in their place
    u32 freed_records_ = 0;
    bool after_deleted_ = false;

    struct Seen {
        dynstr *record = nullptr;
        StringInfo info{0};
    };
    static constexpr u32 kAtOnce = 64;
    Seen seen_[kAtOnce];
    u32 seen_count_ = 0;
    const dynstr *ahead_ = nullptr;  // where the next stretch will begin, or further on

    void check(const dynstr &record) const noexcept
    {
        const dynstr *const next = record.next;
        if (next != nullptr && next->str < record.str) {
            trace_finding("[DYNSTR] loc_dynstr_gc dynstr->str sort error.\r\n");
        }
        if (info_of(record).buffer() != buffer_) {
            trace_finding("[DYNSTR] loc_dynstr_gc curr_dynstr has wrong buffernr.\r\n");
        }
        if (next != nullptr && info_of(*next).buffer() != buffer_) {
            trace_finding("[DYNSTR] loc_dynstr_gc next_dynstr has wrong buffernr.\r\n");
        }
        if (!ends_where_size_says(record)) {
            trace_finding("[DYNSTR] loc_dynstr_gc strlen+1 != dynstr_size.\r\n");
        }
    }

    // The records from this one on about which check() has nothing to say, seen at one go: their texts lie side by
    // side, and as many zeros as texts are there, one at each end. None when this one is to be checked by itself.
    void see_sound(dynstr *record) noexcept
    {
        const char *const start = record->str;
        const char *end = start;
        u32 count = 0;
        for (; record != nullptr && count < kAtOnce; record = record->next, ++count) {
            const StringInfo info = info_of(*record);
            const u32 size = info.size();
            if (record->str != end || info.buffer() != buffer_ || size == 0 || end[size - 1] != '\0') {
                break;
            }
            seen_[count] = {record, info};
            end += size;
        }
        ahead_ = record;
        if (count != 0 && count_zeros(start, end) != count) {
            count = 0;
        }
        seen_count_ = count == 0 || record == nullptr ? count : count - 1;  // the last one's neighbour is unknown
    }

    void move_run() noexcept
    {
        if (run_ != nullptr) {
            std::memmove(run_target_, run_, run_length_);
            end_ = run_target_ + run_length_;
            run_ = nullptr;
        }
    }

    void close_run_before(const dynstr &record) noexcept
    {
        if (run_ != nullptr && static_cast<u32>(record.str - run_) != run_length_) {
            trace_finding("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong stringsize.\r\n");
            run_length_ = static_cast<u32>(record.str - run_);
        }
        move_run();
    }

    // Somebody added a reference after the last release: the record lives on without a text, and the last release
    // frees it.
    void give_back(dynstr &record) noexcept
    {
        unsigned char *const slot = slot_of(&record);
        --pool_.cnt[buffer_];
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

    void pass_deleted(dynstr &record, u32 size) noexcept
    {
        close_run_before(record);
        shift_ += size;
        after_deleted_ = true;
        give_back(record);
    }

    void begin_run(dynstr &record) noexcept
    {
        (previous_ == nullptr ? pool_.first[buffer_] : previous_->next) = &record;
        record.prev = previous_;
        run_ = record.str;
        run_target_ = record.str - shift_;
        run_length_ = 0;
        after_deleted_ = false;
    }

    void pass(dynstr &record, StringInfo info) noexcept
    {
        const u32 size = info.size();
        if (info.is_deleted()) {
            pass_deleted(record, size);
            return;
        }
        if (after_deleted_) {
            begin_run(record);
        }
        run_length_ += size;
        record.str -= shift_;
        previous_ = &record;
    }

    // The list is scattered in memory: what the next stretch will look at is on its way while this one is worked on.
    void fetch_ahead() noexcept
    {
        if (ahead_ != nullptr) {
            ahead_ = ahead_->next;
            __builtin_prefetch(ahead_);
        }
    }

    // Passes a stretch; answers the record after it.
    dynstr *pass_stretch(dynstr &first) noexcept
    {
        see_sound(&first);
        if (seen_count_ == 0) {
            check(first);
            seen_[seen_count_++] = {&first, info_of(first)};
        }
        dynstr *const next = seen_[seen_count_ - 1].record->next;
        for (u32 i = 0; i < seen_count_; ++i) {
            fetch_ahead();
            pass(*seen_[i].record, seen_[i].info);
        }
        return next;
    }

    void finish_list() noexcept
    {
        if (!after_deleted_) {
            move_run();
            return;
        }
        pool_.last[buffer_] = previous_;
        if (previous_ != nullptr) {
            previous_->next = nullptr;
        }
    }

    void settle_accounts() noexcept
    {
        char *const used_end = pool_.buf[buffer_] + pool_.used[buffer_];
        const auto freed = static_cast<u32>(used_end - end_);
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
            record = pass_stretch(*record);
        }
        finish_list();
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
