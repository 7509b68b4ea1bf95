#include "dynstring/place.h"

#include "memmanager/slots.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm::strings {

namespace {

void trace_event(const char *kind, const char *text) noexcept
{
    if (is_traced(1)) {
        trc_def_printf("[DYNSTR] %s: %s\r\n", kind, text);
    }
}

}  // namespace

bool Rewrite::set_aside(StandBy kind) noexcept
{
    const PoolId records{pool_.poolid};
    if (is_in_buffer(record_) || kind == StandBy::has_a_slot) {
        before_ = static_cast<dynstr *>(allocate_without_gc(held_, records));
        if (before_ == nullptr) {
            return false;
        }
        *before_ = record_;
        if (is_in_buffer(record_)) {
            link_in_place_of(record_);
        }
    } else {
        if (!allocate_in_passing(held_, records)) {
            return false;
        }
        outside_before_ = record_;
        before_ = &outside_before_;
    }
    record_.str = nullptr;
    record_.prev = nullptr;
    record_.next = nullptr;
    set_info(record_, StringInfo{0});
    return true;
}

void Rewrite::link_in_place_of(dynstr &old) noexcept
{
    const u32 buffer = info_of(old).buffer();
    (old.prev == nullptr ? pool_.first[buffer] : old.prev->next) = before_;
    (old.next == nullptr ? pool_.last[buffer] : old.next->prev) = before_;
}

char *Rewrite::make_room(u64 size, u64 real) noexcept
{
    if (size > pool_.room() || size > kMaxTextSize) {
        return make_room_outside(size, real);
    }
    return record_.str = pool_.fill_position();
}

char *Rewrite::make_room_outside(u64 size, u64 real) noexcept
{
    if (size > kMaxTextSize) {
        fail_too_large();
        return nullptr;
    }
    void *block = nullptr;
    if (xm_getmem(static_cast<unsigned>(real), &block) != 0 || block == nullptr) {
        record_.str = nullptr;
        result_ = Result::no_memory;
        return nullptr;
    }
    set_literal(record_, true);
    pool_.flags |= TextPool::kOutside;
    return record_.str = static_cast<char *>(block);
}

void Rewrite::reopen() noexcept
{
    const u32 size = size_of(record_);
    pool_.used[pool_.curbuf] -= size;
    pool_.usedbytes -= size;
}

void Rewrite::wrote(u32 size, u32 real) noexcept
{
    real_size_ = real;
    set_size(record_, size);
}

void Rewrite::fail_too_large() noexcept
{
    trace_bad_size();
    set_size(record_, 0);
    result_ = Result::no_memory;
}

void Rewrite::leave_stand_by() noexcept { before_ = nullptr; }

// The text waits outside. Each buffer is compacted at most once; the first one that then has room takes it.
void Rewrite::relocate() noexcept
{
    char *const outside = record_.str;
    const u32 size = size_of(record_);
    bool placed = false;
    for (u32 attempt = 0; attempt < pool_.bufcnt && !placed; ++attempt) {
        compact(held_, pool_, Reason::buffer_full);
        if (pool_.room() >= size) {
            record_.str = pool_.fill_position();
            std::memcpy(record_.str, outside, real_size_);
            set_literal(record_, false);
            placed = true;
        }
    }
    if (xm_retmem(outside) != 0) {
        trace_event("ERROR", "loc_dynstr_updatepool failed to release dynamic memory");
    }
    pool_.flags &= ~TextPool::kOutside;
    if (!placed) {
        real_size_ = 0;
        set_size(record_, 0);
        pool_.flags |= TextPool::kRelocationFailed;
        result_ = Result::no_memory;
    }
}

void Rewrite::correct_size() noexcept
{
    if (size_of(record_) != real_size_) {
        trace_event("WARNING", "loc_dynstr_updatepool fixed wrong predicted size");
        set_size(record_, real_size_);
    }
}

void Rewrite::append_to_list() noexcept
{
    dynstr *&last = pool_.last[pool_.curbuf];
    if (last == &record_) {
        return;
    }
    record_.prev = last;
    (last == nullptr ? pool_.first[pool_.curbuf] : last->next) = &record_;
    last = &record_;
    ++pool_.cnt[pool_.curbuf];
}

void Rewrite::commit() noexcept
{
    const u32 size = size_of(record_);
    if (size == 0) {
        set_literal(record_, true);
        return;
    }
    const u32 buffer = pool_.curbuf;
    pool_.used[buffer] += size;
    pool_.usedbytes += size;
    raise_to(pool_.peakbytes, pool_.usedbytes - pool_.delbytes);
    raise_to(pool_.peak[buffer], pool_.used[buffer] - pool_.bufdelbytes[buffer]);
    append_to_list();
    set_info(record_, info_of(record_).with_buffer(buffer));
    if (pool_.cnt[buffer] > pool_.balance_limit) {
        compact(held_, pool_, Reason::balance);
    }
    if (load(pool_.gcrequest) != 0) {
        compact(held_, pool_, Reason::depleted);
    }
}

void Rewrite::drop_stand_by() noexcept
{
    if (before_ == nullptr || before_ == &outside_before_) {
        return;
    }
    if (is_in_buffer(*before_)) {
        mark_deleted(pool_, *before_);
    } else {
        finish_release(held_, registry.aid(PoolId{pool_.poolid}), slot_of(before_));
    }
}

Result Rewrite::finish() noexcept
{
    if ((pool_.flags & TextPool::kOutside) != 0) {
        relocate();
    }
    if (result_ == Result::ok) {
        correct_size();
    }
    commit();
    if (max_size_ != 0) {
        set_info(record_, info_of(record_).with_max_size(max_size_));
    }
    drop_stand_by();
    return result_;
}

}  // namespace memm::strings
