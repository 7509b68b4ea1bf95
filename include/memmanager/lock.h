/** @file lock.h
 *  Locks that keep account of how often they were taken and how long their takers waited.
 *
 *  A lock is a record of the caller's around a mutex of the platform. Its holder may take it again. The first 50
 * records that a process initialises are listed by lock_print_allstats(), the manager's own ("MEMM", whose counters
 * stay 0) among them; later ones work, and are not listed. None of these calls takes the manager lock.
 */
#ifndef MEMMANAGER_LOCK_H
#define MEMMANAGER_LOCK_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** To be read, not written. Times are in microseconds and wrap at 2^32 (about 71 minutes). */
typedef struct LOCK {
    const char *name;    /**< the caller's pointer */
    unsigned mutex;      /**< handle of xmu_create() */
    int owner;           /**< -1; taking the lock does not write it */
    char owner_name[5];  /**< "----", likewise */
    unsigned lock_count; /**< times that the lock was taken */
    unsigned wait_count; /**< times that its taker had to wait */
    unsigned total_wait; /**< of all waits */
    unsigned max_wait;   /**< longest wait */
    int depth;           /**< holds of the present holder; 0: free */
} LOCK;

/** Makes a lock and lists it; a record that is initialised twice is listed twice.
 *  @param lock  stays the caller's and must live as long as the process
 *  @param name  not copied, must live as long; null counts as "-unknown-"
 *  @return 0; 0x10003 for a null lock; else the code of xmu_create(): then the record is listed but cannot be taken */
int lock_initlock(LOCK *lock, const char *name);
/** Takes the lock, waiting for it as long as it takes: every ten seconds of waiting are traced at level 2.
 *  @param lock     a lock of lock_initlock()
 *  @param ignored  has no meaning
 *  @param tag      names the caller in that trace; null counts as "-unknown-"
 *  @return the depth, 1 or more. Less than 1 without the lock: -1 for a null lock, and with a level 1 trace when the
 *          mutex answers an error (0 with the default output channel) */
int lock_lock(LOCK *lock, int ignored, const char *tag);
/** Gives one hold back. That the caller has one is not checked: without one the depth falls, below 0 in the end.
 *  @return the result of xmu_v(): 0, or its code when the caller does not hold the mutex; 0 for a null lock */
int lock_unlock(LOCK *lock);

/** Prints the lock's row of the table, and with `header` the two header lines before it, through dbg_printf(). Nothing
 *  for a null lock. */
void lock_print_stats(LOCK *lock, int header);
/** Prints the table of all listed locks and an empty line. docs/reports.md explains the columns. */
void lock_print_allstats(void);
/** Sets the counters and waits of all listed locks to 0; depths stay. */
void lock_clear_allstats(void);

/** Sets what the locks trace.
 *  @param filter  only locks whose names begin with it, in any case; its first 19 characters count. Null or "": all
 *  @param level   1 errors, 2 also long waits (the default), less than 1 nothing */
void lock_settrace(const char *filter, int level);
/** @return 1 when messages of this level are traced for a lock of this name, else 0; for a level below 0 the level that
 *          is set. A null name counts as "-unknown-" */
int lock_gettrace(const char *lockname, int level);
/** @return the trace level that is set */
int lock_gettracelevel(void);
/** @return the filter itself: 20 bytes, never null */
char *lock_getapplfilter(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
