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

// The stand-by record takes the record's place in the list of its buffer.
bool Rewrite::set_aside_with_slot() noexcept
{
    before_ = static_cast<dynstr *>(allocate_without_gc(held_, records()));
    if (before_ == nullptr) {
        return false;
    }
    *before_ = record_;
    if (is_in_buffer(record_)) {
        pool_.trail.replace(record_, *before_);
        const u32 buffer = info_of(record_).buffer();
        (record_.prev == nullptr ? pool_.first[buffer] : record_.prev->next) = before_;
        (record_.next == nullptr ? pool_.last[buffer] : record_.next->prev) = before_;
    }
    return true;
}

char *Rewrite::make_room_outside(u64 size, u64 real) noexcept
{
    if (size > kMaxTextSize) {
        fail_too_large();
        return nullptr;
    }
    void *block = nullptr;
    if (xm_getmem(static_cast<unsigned>(real), &block) != 0 || block == nullptr) {
        result_ = Result::no_memory;
        return nullptr;
    }
    pool_.flags |= TextPool::kOutside;
    return record_.str = static_cast<char *>(block);
}

void Rewrite::fail_too_large() noexcept
{
    trace_bad_size();
    info_ = info_.with_size(0);
    result_ = Result::no_memory;
}

// The text waits outside. Each buffer is compacted at most once; the first one that then has room takes it.
void Rewrite::relocate() noexcept
{
    char *const outside = record_.str;
    const u32 size = info_.size();
    bool placed = false;
    for (u32 attempt = 0; attempt < pool_.bufcnt && !placed; ++attempt) {
        compact(held_, pool_, Reason::buffer_full);
        if (pool_.room() >= size) {
            record_.str = pool_.fill_position();
            std::memcpy(record_.str, outside, real_size_);
            placed = true;
        }
    }
    if (xm_retmem(outside) != 0) {
        trace_event("ERROR", "loc_dynstr_updatepool failed to release dynamic memory");
    }
    pool_.flags &= ~TextPool::kOutside;
    if (!placed) {
        info_ = info_.with_size(0);
        pool_.flags |= TextPool::kRelocationFailed;
        result_ = Result::no_memory;
    }
}

void Rewrite::correct_size() noexcept
{
    trace_event("WARNING", "loc_dynstr_updatepool fixed wrong predicted size");
    info_ = info_.with_size(real_size_);
}

void Rewrite::drop_slot() noexcept
{
    if (is_in_buffer(*before_)) {
        mark_deleted(pool_, *before_, info_of(*before_));
    } else {
        finish_release(held_, registry.aid(records()), slot_of(before_));
    }
}

}  // namespace memm::strings
