#include "memmanager/stopwatch.h"

#include "base/result.h"

namespace memm {

namespace {

bool stops_before_start(const timestat &watch) noexcept
{
    return watch.stop_seconds < watch.start_seconds ||
           (watch.stop_seconds == watch.start_seconds && watch.stop_microseconds < watch.start_microseconds);
}

}  // namespace

u32 elapsed_us(const timestat &watch) noexcept
{
    if (stops_before_start(watch)) {
        trc_def_printf(
            "[MEMM] Elapsed time error: starttime(%lu,%lu) > stoptime(%lu,%lu)\r\n",
            static_cast<unsigned long>(watch.start_seconds), static_cast<unsigned long>(watch.start_microseconds),
            static_cast<unsigned long>(watch.stop_seconds), static_cast<unsigned long>(watch.stop_microseconds));
        return 0;
    }
    // Unsigned: the microseconds borrow from the seconds by themselves.
    return (watch.stop_seconds - watch.start_seconds) * 1000000 + (watch.stop_microseconds - watch.start_microseconds);
}

}  // namespace memm

using namespace memm;

extern "C" {

int timestat_starttime(timestat *t)
{
    if (t == nullptr) {
        return to_int(Result::invalid);
    }
    start(*t);
    return to_int(Result::ok);
}

int timestat_stoptime(timestat *t)
{
    if (t == nullptr) {
        return to_int(Result::invalid);
    }
    stop(*t);
    return to_int(Result::ok);
}

unsigned timestat_elapstime(timestat *t) { return t == nullptr ? 0 : elapsed_us(*t); }
}
