#pragma once

#include "support/rounds.h"

#include <atomic>
#include <deque>
#include <functional>
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
enum class Op { alloc, getmem, retmem, create };

enum class Fault {
    refused,     // answers the code
    null_block,  // xm_alloc and xm_getmem: success without a block
    misaligned   // xm_alloc: success with a block that lies 4 bytes off
};

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
    std::vector<std::string> take_tags() { return take(tags_); }  // of the outermost P calls; the first 10000
    std::vector<Allocation> take_allocations() { return take(allocations_); }   // all xm_alloc calls
    std::vector<std::string> take_mutex_calls() { return take(mutex_calls_); }  // "create(name,1)" "p(1,0)" "v"
    void forget();                                                              // all of the above

    void allow_reports() { reports_allowed_ = true; }  // traces and errors need not be taken in this test

    // --- faults ---
    // The n-th call from now on (1 is the next) fails, and the `repeated - 1` calls after it.
    void fail_nth(Op op, unsigned n, unsigned code = 7, Fault fault = Fault::refused, unsigned repeated = 1);
    void fail_never();
    unsigned calls(Op op) { return plan(op).calls; }  // all in this process
    unsigned outside_blocks() const;                  // from xm_getmem and not given back

    // --- xmu_p: the next calls answer these; one that answers 0 takes the mutex first, others do not touch it ---
    void script_xmu_p(std::vector<unsigned> results);

    // --- clock: each reading is this much later than the one before; it starts at 1000 s with 1 us ---
    void set_clock(unsigned seconds, unsigned microseconds, unsigned step_us = 0);

    std::function<void()> on_report;                        // called by err_printf and trc_def_printf first
    std::atomic<int> print_result{0};                       // what dbg_printf and trc_def_printf answer
    unsigned manager_lock_depth() const { return depth_; }  // holds by all tasks

    // --- what the operations note, and how they are to behave; guarded by the mutex ---
    struct Plan {
        std::atomic<unsigned> calls{0};
        unsigned first = 0, beyond = 0;  // failing calls, by number
        unsigned code = 0;
        Fault fault = Fault::refused;

        bool next_fails()  // counts a call
        {
            const unsigned number = ++calls;
            return number >= first && number < beyond;
        }
    };

    mutable std::mutex mutex_;
    std::string debug_, trace_, errors_;
    std::vector<std::string> tags_, mutex_calls_;
    std::vector<Allocation> allocations_;
    std::vector<void *> blocks_;  // of xm_alloc, for ever
    std::set<void *> outside_;
    Plan plans_[4];
    Plan &plan(Op op) { return plans_[static_cast<std::size_t>(op)]; }
    std::deque<unsigned> xmu_p_results_;
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
