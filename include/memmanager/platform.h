/** @file platform.h
 *  What the library needs of the platform. The library brings a POSIX default of every operation; an application
 *  replaces one, or all, by defining a function of that name. docs/porting.md says what a replacement must keep to, and
 *  what keeps it from being found.
 *
 *  Operations that share state are replaced together: P and V; the xmu_ calls; xm_getmem and xm_retmem; dbg_printf and
 *  dbg_vprintf_cb; the four calendar calls.
 */
#ifndef MEMMANAGER_PLATFORM_H
#define MEMMANAGER_PLATFORM_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** @name Memory
 *  0 is success, anything else a failure code, which is passed through where a call returns one. @{ */

/** A block for good: it is never given back.
 *  @param label   whose it is: a pool's name, or "MEMM", "DYNSTR", "DYNDATA"
 *  @param option  always 1
 *  @param size    bytes; the default gives a block for 0, too
 *  @param block   receives it, aligned as a machine word at least. Null counts as a failure. The default's blocks are
 *                 zeroed and 16-aligned */
unsigned xm_alloc(const char *label, int option, unsigned size, void **block);
/** A block for the time being; a string's text waits in one while buffers are compacted. Need not be zeroed. */
unsigned xm_getmem(unsigned size, void **block);
/** Gives a block of xm_getmem() back. */
unsigned xm_retmem(void *block);
/** @} */

/** @name Mutexes
 *  What the locks of lock.h stand on. @{ */

/** Makes a mutex; with option 1, which is always asked for, its holder may take it again.
 *  @return 0 and the handle, which is never 0 in the default; else a failure code */
unsigned xmu_create(const char *name, int option, unsigned *handle);
/** Takes a mutex. mode 1 with timeout 0: without waiting; mode 0: waits at most timeout milliseconds, by a clock that
 *  nobody sets. @return 0 when taken, 6 when not taken in time, else a failure code: a bad handle is one */
unsigned xmu_p(unsigned handle, int mode, int timeout);
/** Gives one hold back. @return 0; a failure code for a bad handle and for a caller that does not hold the mutex */
unsigned xmu_v(unsigned handle);
/** @} */

/** @name The manager lock
 *  One for the process. Its holder may take it again, 255 times at least, and a signal handler may take it whatever its
 *  thread was doing. @{ */

/** Waits until the calling task holds the lock. tag names the caller: the library's function, or "SIGUSR1", "SIGUSR2",
 *  "fork". */
void P(const char *tag);
/** Gives one hold back. By a task that has none it changes nothing. */
void V(void);
/** @} */

/** @name Tasks
 *  @{ */

/** Stores the calling task's number. The first two arguments are 0. @return 0 */
unsigned vemo_t_ident(int, int, int *id);
/** Writes the task's name: four characters, padded with blanks, no terminator. The buffer that the library passes has
 * 32 bytes. @return 0, or a failure code and nothing written */
unsigned xt_getname(int id, char *name);
/** @} */

/** @name Time
 *  @{ */

/** The present time, for intervals: microseconds are 0 to 999999. The default is the monotonic clock. */
void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds);

/** Broken-down time. */
typedef struct xtm_date {
    int seconds, minutes, hours;
    int day;            /**< 1 to 31 */
    int month;          /**< 0 to 11 */
    int years;          /**< since 1900 */
    int weekday;        /**< 0: Sunday */
    int yearday;        /**< 0: the first of January */
    int daylightsaving; /**< 0 in UTC */
    int timezone;       /**< 0 in UTC */
} xtm_date;

/** Breaks calendar seconds down. The last two arguments are 0 and 1. The default counts from 1970-01-01T00:00:00Z in
 * UTC.
 *  @return 0, or a failure code for a null record */
unsigned xtm_time_date_struct(xtm_date *record, unsigned seconds, int, int);
/** The reverse. weekday and yearday need not be filled; fields out of their ranges carry into the next ones. In the
 *  default the result is the lower 32 bits. @return 0, or a failure code for a null argument */
unsigned xtm_time_date_struct_to_seconds(unsigned *seconds, xtm_date *record);
/** Stores what belongs into xtm_date's timezone. @return 0, or a failure code for a null argument */
unsigned xtm_gettimezone(int *timezone);
/** Stores what belongs into xtm_date's daylightsaving. @return 0, or a failure code for a null argument */
unsigned xtm_getdaylightsaving(int *flag);
/** @} */

/** @name Output channels
 *  Printing calls answer 0. Reports that a signal asks for are written in its handler: what prints there must do
 * without malloc, stdio and locks. The defaults do, and make one write of each call. @{ */

/** Where dbg_printf() sends its text; standard output by default. The library points it at a dump file while it writes
 *  one and puts the old value back; other threads' output goes to the old one meanwhile. */
extern int (*dbg_vprintf_cb)(const char *format, va_list arguments) __attribute__((format(printf, 1, 0)));
/** Reports. */
int dbg_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
/** Diagnostics; standard error by default. memm_set_trace() and lock_settrace() say how much comes. */
int trc_def_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
/** Errors; standard error by default. severity is always 2, module "memm", "MEMM", "DYNSTR" or "DYNDATA", file
 *  "memmanager", "dynstring" or "dyndata". */
int err_printf(unsigned code, int severity, const char *module, const char *file, int line, const char *message);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
