#pragma once

#include "support/faults.h"
#include "support/rounds.h"

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

// A platform that remembers what the library asked of it and fails on demand. Linking it replaces every platform
// operation but the calendar's. Usable from several threads, and in a handler of a signal that a test raises itself.
//
// A listener looks at every test's end: P and V balanced, dbg_vprintf_cb as it was, and no trace or error left that the
// test has not taken. The dump files of the process are removed then.
enum class Fault { refused };

class Recorder {
public:
    struct Allocation {
        std::string label;
        int option;
        unsigned size;
        bool operator==(const Allocation &) const = default;
    };

    // --- what came since it was last taken ---
    std::string take_debug() { return take(debug_); }
    std::string take_trace() { return take(trace_); }
    std::string take_errors() { return take(errors_); }           // "0x10002 2 memm memmanager: message\n" each
    std::vector<std::string> take_tags() { return take(tags_); }  // of the outermost P calls
    std::vector<Allocation> take_allocations() { return take(allocations_); }  // all xm_alloc calls
    void forget();                                                             // all of the above

    void allow_reports() { reports_allowed_ = true; }  // traces and errors need not be taken in this test

    // The n-th call from now on (1 is the next) fails, and the `repeated - 1` calls after it; fault() is taken for
    // that.
    static void fail_nth(Op op, unsigned n, unsigned code = 7, Fault how = Fault::refused, unsigned repeated = 1);
    static void fail_never() { fault = nullptr; }
    unsigned calls(Op op) { return calls_[static_cast<std::size_t>(op)]; }  // all in this process
    std::size_t outside_blocks() const { return outside_.size(); }          // from xm_getmem and not given back
    unsigned largest_block = ~0U;                                           // more is refused

    // --- clock: each reading is this much later than the one before; it starts at 1000 s with 1 us ---
    void set_clock(unsigned seconds, unsigned microseconds, unsigned step_us = 0);

    unsigned manager_lock_depth() const { return depth_; }  // holds by all tasks

    // --- what the operations note; guarded by the mutex ---
    std::mutex mutex_;
    std::string debug_, trace_, errors_;
    std::vector<std::string> tags_;
    std::vector<Allocation> allocations_;
    std::vector<void *> blocks_;  // of xm_alloc, for ever
    std::set<void *> outside_;
    std::atomic<unsigned> calls_[16]{};
    unsigned long long now_us_ = 1000000000, step_us_ = 1;
    std::atomic<unsigned> depth_{0};
    std::atomic<bool> stray_release_{false};
    bool reports_allowed_ = false;

private:
    template <typename T> T take(T &from)
    {
        const std::lock_guard guard(mutex_);
        return std::exchange(from, {});
    }
};

Recorder &recorder();

// As sprintf.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);
