#include "memmanager/manager_lock.h"

extern "C" {
void memm_default_P(const char *tag);
void memm_default_V(void);
}

namespace memm {

// A task that holds the lock now took it through P: its V must find as many holds as P left.
bool ManagerLock::recognise() noexcept
{
    const bool direct = &P == &memm_default_P && &V == &memm_default_V && !default_lock.is_mine();
    direct_.store(direct, std::memory_order_relaxed);
    return direct;
}

}  // namespace memm
