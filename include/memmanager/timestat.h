#ifndef MEMMANAGER_TIMESTAT_H
#define MEMMANAGER_TIMESTAT_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct timestat {
    unsigned start_seconds, start_microseconds, stop_seconds, stop_microseconds;
} timestat;
int timestat_starttime(timestat *t);
int timestat_stoptime(timestat *t);
unsigned timestat_elapstime(timestat *t);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
