#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

// A recursive lock that may be taken and released inside a signal handler at any instruction of the thread that it
// interrupted.
//
//     word_            the owner's identity, 0 when it is free; bit 0 is set when a waiter may sleep.
//     extra_           holds beyond the first. Written by the owner alone, 0 whenever the lock is free.
//     falling_asleep_  a waiter was on its way to sleep since this was last looked at.
//
// One word decides who owns the lock and one store or exchange changes that, so a handler finds it free or owned, never
// in between: extra_ is already right at the instant in which the word changes hands. A handler that nests leaves
// extra_ as it found it.
namespace memm {

// What a thread keeps of its own.
struct TaskState {
    std::atomic<unsigned> busy{0};  // work on pools that is under way without the manager lock (see default_lock.h)
};

extern constinit thread_local TaskState task_state [[gnu::tls_model("initial-exec")]];

// True while no other thread can exist: then plain loads and stores do what locked operations do otherwise.
inline bool process_has_one_thread() noexcept
{
#if __has_include(<sys/single_threaded.h>)
    return __libc_single_threaded != 0;
#else
    return false;
#endif
}

class FutexLock {
    static constexpr std::uintptr_t kNobody = 0;
    static constexpr std::uintptr_t kWaiters = 1;

    std::atomic<std::uintptr_t> word_{kNobody};
    std::atomic<std::uint32_t> extra_{0};
    std::atomic<bool> falling_asleep_{false};

    // Where the thread's own data begins: unlike a kernel thread id it costs one load and survives fork.
    static std::uintptr_t me() noexcept { return reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer()); }
    static bool owned_by(std::uintptr_t word, std::uintptr_t task) noexcept { return (word & ~kWaiters) == task; }

    // Only when the lock was just seen to be free. A mark stays.
    bool claim(std::uintptr_t task) noexcept
    {
        if (process_has_one_thread()) [[likely]] {
            word_.store(task, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            return true;
        }
        std::uintptr_t free = kNobody;
        while (
            !word_.compare_exchange_strong(free, task | free, std::memory_order_acquire, std::memory_order_relaxed)) {
            if (!owned_by(free, kNobody)) {
                return false;
            }
        }
        return true;
    }

    // The first step up and the last one down store a constant: a processor that foresees them need not wait for the
    // value that the step before has stored.
    void nest() noexcept
    {
        if (const std::uint32_t extra = extra_.load(std::memory_order_relaxed); extra == 0) [[likely]] {
            extra_.store(1, std::memory_order_relaxed);
        } else {
            extra_.store(extra + 1, std::memory_order_relaxed);
        }
    }

    bool wait_and_take(const timespec *deadline) noexcept;
    void let_go_and_wake() noexcept;

public:
    bool is_free() const noexcept { return owned_by(word_.load(std::memory_order_seq_cst), kNobody); }
    bool is_mine() const noexcept { return owned_by(word_.load(std::memory_order_relaxed), me()); }
    bool is_nested() const noexcept { return extra_.load(std::memory_order_relaxed) != 0; }
    // The caller's, and no waiter sleeps.
    bool is_mine_unwaited() const noexcept { return word_.load(std::memory_order_relaxed) == me(); }

    void take() noexcept
    {
        const std::uintptr_t task = me();
        const std::uintptr_t seen = word_.load(std::memory_order_relaxed);
        if (seen == kNobody) [[likely]] {
            if (claim(task)) [[likely]] {
                return;
            }
        } else if (owned_by(seen, task)) {
            nest();
            return;
        }
        wait_and_take(nullptr);
    }

    // Takes a free lock that no waiter has marked.
    bool take_free() noexcept { return word_.load(std::memory_order_relaxed) == kNobody && claim(me()); }

    bool try_take() noexcept
    {
        const std::uintptr_t task = me();
        const std::uintptr_t seen = word_.load(std::memory_order_relaxed);
        if (owned_by(seen, task)) {
            nest();
            return true;
        }
        return owned_by(seen, kNobody) && claim(task);
    }

    // Waits by the monotonic clock; false when the time ran out.
    bool take_for(int milliseconds) noexcept;

    // Drops one hold; false, and nothing happens, when the caller has none.
    bool release() noexcept
    {
        if (!is_mine()) {
            return false;
        }
        release_mine();
        return true;
    }

    // For a caller that is known to hold it.
    void release_mine() noexcept
    {
        if (!unnest() && !let_go_unwaited()) [[unlikely]] {
            let_go_and_wake();
        }
    }

    // Drops one of several holds that the caller has; false, and nothing happens, when it has one.
    bool unnest() noexcept
    {
        const std::uint32_t extra = extra_.load(std::memory_order_relaxed);
        if (extra == 0) [[likely]] {
            return false;
        }
        if (extra == 1) [[likely]] {
            extra_.store(0, std::memory_order_relaxed);
        } else {
            extra_.store(extra - 1, std::memory_order_relaxed);
        }
        return true;
    }

    // Lets go of the one hold that the caller has, unless a waiter has to be woken. Sequentially consistent, so that
    // whoever notes something and then finds the lock owned is seen by the owner's next look at the notes.
    bool let_go_unwaited() noexcept
    {
        if (process_has_one_thread()) [[likely]] {
            std::atomic_signal_fence(std::memory_order_seq_cst);
            word_.store(kNobody, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            return true;
        }
        std::uintptr_t task = me();
        return word_.compare_exchange_strong(task, kNobody, std::memory_order_seq_cst, std::memory_order_relaxed);
    }
};

}  // namespace memm
