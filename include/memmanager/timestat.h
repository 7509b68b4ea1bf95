/** @file timestat.h
 *  A stopwatch: microseconds between two readings of xtm_gettimestamp(). No call takes a lock.
 */
#ifndef MEMMANAGER_TIMESTAT_H
#define MEMMANAGER_TIMESTAT_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The caller's; microseconds are 0 to 999999. */
typedef struct timestat {
    unsigned start_seconds, start_microseconds, stop_seconds, stop_microseconds;
} timestat;

/** Reads the time into the start words. @return 0; 0x10003 for null */
int timestat_starttime(timestat *t);
/** Reads the time into the stop words. @return 0; 0x10003 for null */
int timestat_stoptime(timestat *t);
/** @return the microseconds from start to stop, modulo 2^32 (about 71 minutes). 0 for null, and with a trace when the
 *          stop lies before the start */
unsigned timestat_elapstime(timestat *t);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
