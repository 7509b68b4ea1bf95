#pragma once

#include "platform/futex_lock.h"

#include <atomic>

// The process-wide manager lock that P and V reach unless the application brings its own, and the notes that signal
// handlers leave for whoever holds it. It stands apart from P and V, so that it is in the library in any case: where
// the application has replaced them, the manager takes this lock too, inside of theirs, and it is then what tells a
// handler that the pools are in somebody's hands.
namespace memm {

class DefaultLock {
    FutexLock lock_;
    std::atomic<unsigned> notes_{0};
    std::atomic<void (*)()> deliver_{nullptr};

    std::atomic<bool> inside_another_{false};

    void settle_notes() noexcept;

public:
    void enter() noexcept { lock_.take(); }

    // Before the last hold goes, what was noted meanwhile is done under it; afterwards the notes are looked at again,
    // for one may have come between that look and the release.
    void leave() noexcept
    {
        if (notes_.load(std::memory_order_relaxed) != 0) [[unlikely]] {
            settle_notes();
        }
        if (lock_.release() && notes_.load(std::memory_order_seq_cst) != 0) [[unlikely]] {
            do_noted();
        }
    }

    bool is_mine() const noexcept { return lock_.is_mine(); }
    bool is_free() const noexcept { return lock_.is_free(); }

    // --- notes: one bit a kind ---

    // Who answers the notes. With `inside_another` lock that the application put in the place of P and V, whoever needs
    // both takes that one first; then the notes are answered without this lock held, and the answer takes both.
    void answer_notes_by(void (*deliver)(), bool inside_another) noexcept
    {
        inside_another_.store(inside_another, std::memory_order_relaxed);
        deliver_.store(deliver, std::memory_order_release);
    }

    // From a signal handler; then either do_noted() finds the lock free or its holder finds the note.
    void note(unsigned bit) noexcept
    {
        notes_.fetch_or(bit, std::memory_order_seq_cst);
        std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    bool take_note(unsigned bit) noexcept { return (notes_.fetch_and(~bit, std::memory_order_seq_cst) & bit) != 0; }
    void drop_notes() noexcept { notes_.store(0, std::memory_order_relaxed); }
    bool has_notes() const noexcept { return notes_.load(std::memory_order_seq_cst) != 0; }

    // Answers the notes now unless somebody holds the lock, the caller included. Does not wait for this lock.
    void do_noted() noexcept;
};

extern constinit DefaultLock default_lock;

// Work on pools without the manager lock: the calling task's own signal handlers must leave the pools alone meanwhile.
class BusyTask {
public:
    BusyTask() noexcept { change(1); }
    ~BusyTask()
    {
        change(-1U);
        if (!is_busy() && default_lock.has_notes()) [[unlikely]] {
            default_lock.do_noted();
        }
    }
    BusyTask(const BusyTask &) = delete;
    BusyTask &operator=(const BusyTask &) = delete;

    static bool is_busy() noexcept { return task_state.busy.load(std::memory_order_relaxed) != 0; }

private:
    static void change(unsigned step) noexcept
    {
        std::atomic<unsigned> &busy = task_state.busy;
        busy.store(busy.load(std::memory_order_relaxed) + step, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
};

}  // namespace memm
