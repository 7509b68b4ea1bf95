#include "platform/futex_lock.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace memm {

constinit thread_local TaskState task_state;

namespace {

// The kernel compares 32 bits: on a 64-bit target the half that holds the waiter bit. Two owners whose halves are equal
// cannot be mistaken for each other in a way that matters: both carry the bit, so both wake a sleeper when they let go.
std::uint32_t *futex_half(std::atomic<std::uintptr_t> &word) noexcept
{
    auto *halves = reinterpret_cast<std::uint32_t *>(&word);
    return std::endian::native == std::endian::big ? halves + (sizeof word / sizeof *halves - 1) : halves;
}

// futex is not a cancellation point.
long futex(std::atomic<std::uintptr_t> &word, int operation, std::uint32_t value, const void *timeout,
           long call = SYS_futex) noexcept
{
    return syscall(call, futex_half(word), operation | FUTEX_PRIVATE_FLAG, value, timeout, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

// Sleeps while the word reads `value`, until the deadline at most; false when that has passed.
bool wait_while(std::atomic<std::uintptr_t> &word, std::uint32_t value, const timespec *deadline) noexcept
{
#if defined(SYS_futex_time64)
    // timespec counts in 64 bits here. Kernels before 5.1 know only the call that takes two longs.
    if (deadline != nullptr) {
        if (futex(word, FUTEX_WAIT_BITSET, value, deadline, SYS_futex_time64) == 0) {
            return true;
        }
        if (errno != ENOSYS) {
            return errno != ETIMEDOUT;
        }
        const long old_deadline[] = {static_cast<long>(deadline->tv_sec), static_cast<long>(deadline->tv_nsec)};
        return futex(word, FUTEX_WAIT_BITSET, value, old_deadline) == 0 || errno != ETIMEDOUT;
    }
#endif
    return futex(word, FUTEX_WAIT_BITSET, value, deadline) == 0 || errno != ETIMEDOUT;
}

}  // namespace

// A waiter marks the word before it sleeps and takes the lock with the mark set, since others may still sleep: at worst
// one wake-up too many. A deadline is absolute, which is what the bitset form of the wait means.
bool FutexLock::wait_and_take(const timespec *deadline) noexcept
{
    const int saved_errno = errno;
    const std::uintptr_t task = me();
    bool taken = false;
    for (bool in_time = true; !taken && in_time;) {
        std::uintptr_t seen = word_.load(std::memory_order_relaxed);
        if (owned_by(seen, kNobody)) {
            taken = word_.compare_exchange_weak(seen, task | kWaiters, std::memory_order_acquire,
                                                std::memory_order_relaxed);
        } else if ((seen & kWaiters) != 0 ||
                   word_.compare_exchange_weak(seen, seen | kWaiters, std::memory_order_relaxed)) {
            falling_asleep_.store(true, std::memory_order_relaxed);
            in_time = wait_while(word_, static_cast<std::uint32_t>(seen | kWaiters), deadline);
        }
    }
    errno = saved_errno;
    return taken;
}

// A hold is mostly shorter than a waiter's way into the kernel: there is nobody to wake yet, and the waiter finds that
// the word has changed. Left at that, threads that want the lock all the time would spend it on calls that miss each
// other. So the mark comes back once, and a waiter that finds the lock taken again does sleep.
void FutexLock::let_go_and_wake() noexcept
{
    const int saved_errno = errno;
    word_.store(kNobody, std::memory_order_seq_cst);
    if (futex(word_, FUTEX_WAKE, 1, nullptr) == 0 && falling_asleep_.exchange(false, std::memory_order_relaxed)) {
        word_.fetch_or(kWaiters, std::memory_order_relaxed);
    }
    errno = saved_errno;
}

bool FutexLock::take_for(int milliseconds) noexcept
{
    if (try_take()) {
        return true;
    }
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    milliseconds = std::max(milliseconds, 0);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += milliseconds % 1000 * 1'000'000L;
    if (deadline.tv_nsec >= 1'000'000'000L) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= 1'000'000'000L;
    }
    return wait_and_take(&deadline);
}

}  // namespace memm
