#pragma once

#include "support/file_calls.h"

#include <mutex>
#include <set>

// A platform that remembers what the library asked of it and fails on demand. Linking it replaces every platform
// operation but dbg_printf and those of calendar and tasks. Usable from several threads, and in a handler of a signal
// that a test raises itself.
//
// A listener looks at every test's end: P and V balanced, dbg_vprintf_cb as it was. The dump files of the process are
// removed then.
class Recorder {
public:
    // --- what came since it was last taken ---
    std::string take_debug() { return take(debug_); }
    std::string take_trace() { return take(trace_); }
    std::string take_errors() { return take(errors_); }            // "0x10002 2 memm memmanager: message\n" each
    std::string take_tags() { return take(tags_); }                // "dynstr_getstring " for each outermost P
    std::string take_allocations() { return take(allocations_); }  // "DYNSTR 1 500;" for each xm_alloc
    void forget() { take_debug(), take_trace(), take_errors(), take_tags(), take_allocations(); }

    // The n-th call from now on (1 is the next) fails, 0: none; fault() is taken for that.
    static void fail_nth(Op op, unsigned n, int code = 7)
    {
        fault = [=, number = 0U](Op asked) mutable { return asked == op && ++number == n ? code : 0; };
    }
    std::size_t outside_blocks() const { return outside_.size(); }  // from xm_getmem and not given back
    unsigned largest_block = ~0U;                                   // more is refused

    // Microseconds; each reading is a step later than the one before.
    std::atomic<unsigned long long> clock_us{1000000000}, clock_step_us{1};

    unsigned manager_lock_depth() const { return depth_; }  // holds by all tasks

    // --- what the operations note; guarded by the mutex ---
    void add(std::string &to, const std::string &more)
    {
        const std::lock_guard guard(mutex_);
        to += more;
    }
    std::mutex mutex_;
    std::string debug_, trace_, errors_, tags_, allocations_;
    std::set<void *> inside_, outside_;  // blocks of xm_alloc, for ever, and of xm_getmem
    std::atomic<unsigned> depth_{0};

private:
    std::string take(std::string &from)
    {
        const std::lock_guard guard(mutex_);
        return std::exchange(from, {});
    }
};

Recorder &recorder();

// What the reports on all pools say while they find something wrong, else empty.
std::string complaint();

// As sprintf.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);
