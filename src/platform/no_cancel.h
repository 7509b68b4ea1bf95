#pragma once

#include <pthread.h>

namespace memm {

// While it lives, system calls are no cancellation points for the calling thread: a thread that is cancelled inside the
// library would keep what it holds there.
class NoCancel {
    int before_ = PTHREAD_CANCEL_ENABLE;

public:
    NoCancel() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancel() { pthread_setcancelstate(before_, nullptr); }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;
};

}  // namespace memm
