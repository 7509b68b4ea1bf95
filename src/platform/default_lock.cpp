#include "platform/default_lock.h"

namespace memm {

constinit DefaultLock default_lock;

// Each round takes the notes it finds; one that comes during a round is found by the next. The caller holds the lock;
// where that hold is not the last one, a later leave() will do this.
void DefaultLock::settle_notes() noexcept
{
    void (*const deliver)() = deliver_.load(std::memory_order_acquire);
    if (deliver == nullptr || lock_.is_nested() || BusyTask::is_busy()) {
        return;
    }
    while (has_notes()) {
        deliver();
    }
}

void DefaultLock::do_noted() noexcept
{
    void (*const deliver)() = deliver_.load(std::memory_order_acquire);
    if (deliver == nullptr || BusyTask::is_busy()) {
        return;
    }
    while (has_notes() && lock_.is_free()) {
        if (!is_alone()) {
            deliver();
        } else if (lock_.try_take()) {
            settle_notes();
            lock_.release_mine();
        }
    }
}

// A caller without a hold has left already, but for what was noted meanwhile, or never was inside.
void DefaultLock::leave_at_length() noexcept
{
    if (lock_.is_mine()) {
        if (has_notes()) {
            settle_notes();
        }
        lock_.release_mine();
    }
    if (has_notes()) {
        do_noted();
    }
}

}  // namespace memm
