#include "memmanager/manager_lock.h"

#include "base/text.h"

extern "C" {
void memm_default_P(const char *tag);
void memm_default_V(void);
}

namespace memm {

namespace {

// Two names may stand for one function only as far as the linker knows; a compiler takes them for two and would decide
// the comparison by itself.
template <typename Function> bool is_same(Function *one, Function *other) noexcept
{
    Function *volatile left = one;
    return left == other;
}

}  // namespace

// The application's lock may be any: a report in a handler must not call its P while P or V is under way in the same
// task.
void ManagerLock::enter_both(const char *tag) noexcept
{
    const BusyTask busy;
    P(known(tag));
    default_lock.enter();
}

void ManagerLock::leave_at_length() noexcept
{
    if (default_lock.is_alone()) {
        default_lock.leave_at_length();
        return;
    }
    default_lock.answer_before_leaving();
    const BusyTask busy;
    default_lock.leave();
    V();
}

// A task that holds the lock now took it through P: its V must find as many holds as P left. Where that is so, or the
// names cannot be told to be the library's own, the way through P and V stays, which is only longer.
void ManagerLock::recognise() noexcept
{
    if (is_same(P, memm_default_P) && is_same(V, memm_default_V) && !default_lock.is_mine()) {
        default_lock.stand_alone();
    }
}

}  // namespace memm
