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
    // Everything that keeps leave() from its short way: the notes, and whether this lock stands inside another.
    static constexpr unsigned kInsideAnother = 0x80000000U;
    std::atomic<unsigned> unusual_{kInsideAnother};
    std::atomic<void (*)()> deliver_{nullptr};

    bool is_usual() const noexcept { return unusual_.load(std::memory_order_relaxed) == 0; }
    bool let_go_and_look() noexcept { return lock_.let_go_unwaited() && unusual_.load(std::memory_order_seq_cst) == 0; }
    void settle_notes() noexcept;

public:
    void enter() noexcept { lock_.take(); }

    // Before the last hold goes, what was noted meanwhile is done under it; afterwards the notes are looked at again,
    // for one may have come between that look and the release. Nothing happens when the caller has no hold.
    void leave() noexcept
    {
        if (!leave_unless_unusual()) [[unlikely]] {
            leave_at_length();
        }
    }

    // The short way of leave(); false where something is left to do or another lock stands around this one.
    bool leave_unless_unusual() noexcept
    {
        if (!is_usual() || !lock_.is_mine_unwaited()) [[unlikely]] {
            return false;
        }
        return lock_.unnest() || let_go_and_look();
    }

    // For work of a few instructions that calls nothing. enter_at_once() takes the lock when it is free and no other
    // stands around it. leave_at_once() gives up that one hold; false where something is left to do, which
    // leave_at_length() then does.
    bool enter_at_once() noexcept { return is_alone() && lock_.take_free(); }
    bool leave_at_once() noexcept { return is_usual() && let_go_and_look(); }
    void leave_at_length() noexcept;

    bool is_mine() const noexcept { return lock_.is_mine(); }
    bool is_free() const noexcept { return lock_.is_free(); }

    // --- notes: one bit a kind ---

    // From a signal handler; then either do_noted() finds the lock free or its holder finds the note.
    void note(unsigned bit) noexcept { unusual_.fetch_or(bit, std::memory_order_seq_cst); }
    bool take_note(unsigned bit) noexcept { return (unusual_.fetch_and(~bit, std::memory_order_seq_cst) & bit) != 0; }
    void drop_notes() noexcept { unusual_.fetch_and(kInsideAnother, std::memory_order_relaxed); }
    bool has_notes() const noexcept { return (unusual_.load(std::memory_order_seq_cst) & ~kInsideAnother) != 0; }

    // What leave() begins with, for a caller whose next steps may not be interrupted by an answer.
    void answer_before_leaving() noexcept
    {
        if (has_notes() && lock_.is_mine()) {
            settle_notes();
        }
    }

    // Answers the notes now unless somebody holds the lock, the caller included. Does not wait for this lock.
    void do_noted() noexcept;

    // Who answers the notes.
    void answer_notes_by(void (*deliver)()) noexcept { deliver_.store(deliver, std::memory_order_release); }

    // --- the application's own lock ---

    // P and V lead to this lock and to nothing else. Until that is known, whoever needs it goes through them first;
    // then the notes are answered without this lock held, and the answer takes both.
    bool is_alone() const noexcept { return (unusual_.load(std::memory_order_relaxed) & kInsideAnother) == 0; }
    void stand_alone() noexcept { unusual_.fetch_and(~kInsideAnother, std::memory_order_relaxed); }
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
