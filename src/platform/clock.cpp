#include <memmanager/platform.h>

#include <ctime>

// The monotonic clock: setting the time of day must not stretch or shrink what a stopwatch measures.
extern "C" [[gnu::weak]] void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds)
{
    if (seconds == nullptr || microseconds == nullptr) {
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    *seconds = static_cast<unsigned>(now.tv_sec);
    *microseconds = static_cast<unsigned>(now.tv_nsec) / 1000;
}
