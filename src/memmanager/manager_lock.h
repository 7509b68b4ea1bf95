#pragma once

#include "platform/default_lock.h"

#include <memmanager/platform.h>

namespace memm {

// Proof that the calling task holds the manager lock; empty, a register at most.
class Held {
    friend class ManagerLock;
    constexpr Held() noexcept = default;

public:
    static constexpr Held by_caller() noexcept { return {}; }  // for *_nolock functions and pool callbacks only
};

// Where start-up has found that the application left P and V alone, the lock behind them is entered directly. Otherwise
// it is entered as well, inside of the application's: it is what signal handlers look at.
class ManagerLock {
public:
    [[nodiscard]] explicit ManagerLock(const char *tag) noexcept { enter(tag); }
    ~ManagerLock() { leave(); }
    ManagerLock(const ManagerLock &) = delete;
    ManagerLock &operator=(const ManagerLock &) = delete;
    Held held() const noexcept { return {}; }

    static void enter(const char *tag) noexcept
    {
        if (default_lock.is_alone()) [[likely]] {
            default_lock.enter();
        } else {
            enter_both(tag);
        }
    }

    static void leave() noexcept
    {
        if (!default_lock.leave_unless_unusual()) [[unlikely]] {
            leave_at_length();
        }
    }

    // Start-up: find out whose lock it is. The answer never changes afterwards.
    static void recognise() noexcept;

private:
    static void enter_both(const char *tag) noexcept;
    static void leave_at_length() noexcept;
};

}  // namespace memm
