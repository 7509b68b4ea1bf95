/** @file memmanager.h
 *  Pools of equal objects, whose memory is taken once and never given back.
 *
 *  A process calls memm_init() once, creates its pools, and from then on takes objects, shares them by reference and
 *  gives them back. An object is addressed by a plain pointer. The 32-bit word in front of it names its pool and counts
 *  its further holders; every call finds the pool by it, so that only creating an object needs a pool id.
 *
 *  Unless a call says otherwise:
 *  - It takes the process-wide manager lock under its own name as the tag, and gives it back before it returns.
 *    `_nolock` calls are for tasks that hold the lock: between memm_lock() and memm_unlock(), and inside pool
 * callbacks. The lock may be taken again by its holder.
 *  - Any pointer may be passed where an object is expected: null, unaligned, unmapped, released, of another library. It
 *    yields the failure that the call documents and harms nothing. A pointer outside of all pools costs a system call.
 *  - A pool id out of range, -1 included, yields the failure that the call documents. Before memm_init() no id is
 * valid.
 *
 *  | Result             | Value   | Meaning                                                                    |
 *  |--------------------|---------|----------------------------------------------------------------------------|
 *  | #MEMM_OK           | 0       | done                                                                       |
 *  | #MEMM_E_TOO_SMALL  | 0x10001 | the caller's buffer is too small; nothing was written                      |
 *  | #MEMM_E_NO_MEMORY  | 0x10002 | no slot, no further reference, no room for a text or for data              |
 *  | #MEMM_E_INVALID    | 0x10003 | bad argument, bad position, text that does not parse, not found            |
 *  | #MEMM_E_STARTED    | 0x10004 | memm_init() has run before                                                 |
 *  | #MEMM_E_SETUP      | 0x10007 | a release callback refused; in err_printf() also a set-up error            |
 *  | #MEMM_KEPT         | 0x10009 | a release callback's answer: it keeps the object                           |
 *  | -1                 |         | in the place of a pool id: none                                            |
 *  | any other          |         | the code of a platform operation, passed through                           |
 */
#ifndef MEMMANAGER_MEMMANAGER_H
#define MEMMANAGER_MEMMANAGER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** One machine word: 32 bits on a 32-bit target. */
typedef uintptr_t memm_word;

/** Result codes; -1 stands for an invalid pool id. */
enum {
    MEMM_OK = 0,
    MEMM_E_TOO_SMALL = 0x10001, /**< the destination is too small */
    MEMM_E_NO_MEMORY = 0x10002, /**< no slot, no reference, no room */
    MEMM_E_INVALID = 0x10003,   /**< bad argument, bad position, not found */
    MEMM_E_STARTED = 0x10004,   /**< the manager was started before */
    MEMM_E_SETUP = 0x10007,     /**< set-up error, or a release callback refused */
    MEMM_KEPT = 0x10009         /**< answer of a release callback that keeps the object */
};

/** A printf-style output function; its result is not looked at. */
typedef int (*memm_printf_fn)(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** @name Callbacks of a pool
 *  All run with the manager lock held, in whatever task made the call, and may use every call of the library. A report
 *  that a signal asked for may run them in a signal handler: stats_cb, print_cb and filter_cb must then do without
 *  malloc, stdio and locks of their own. @{ */

/** Prints the pool's own columns with `print`, behind its row in a report. `a`, `b` and `c` are the report's totals of
 *  bytes in use, highest and available, which the callback may add to; all three are null in the timing report. */
typedef void (*memm_stats_fn)(void *cookie, int *a, int *b, int *c, memm_printf_fn print);
/** Prints the object's contents through dbg_printf(), behind its identity and without a line end. */
typedef void (*memm_print_fn)(void *object);
/** The last holder lets go. 0: the slot is freed. #MEMM_KEPT: the callback has taken the object over, the slot stays in
 *  use and the release succeeds. Anything else refuses: the object stays as it was, with its last holder. */
typedef int (*memm_release_fn)(void *object);
/** As memm_release_fn, with the call that releases further objects under the lock. Any answer but 0 refuses. */
typedef int (*memm_release2_fn)(void *object, memm_release_fn release);
/** An allocation found no free slot; `attempt` counts from 0. Non-zero: slots may have become free, search again, which
 *  repeats without a bound. 0: give up. `slot_size` is in bytes, header included. */
typedef int (*memm_gc_fn)(void *cookie, int attempt, int slot_size);
/** 0 leaves the object out of a listing of this level; see memm_print_objects2(). */
typedef int (*memm_filter_fn)(void *object, int level);
/** @} */

/** How a pool differs from a plain one. memm_initpool() keeps a copy; a zero in any member is "none". */
typedef struct memm_pooloptions {
    memm_stats_fn stats_cb;
    memm_print_fn print_cb;
    memm_release_fn release_cb;   /**< not called when release2_cb is set */
    memm_release2_fn release2_cb; /**< its `release` is memm_free_nolock() */
    memm_gc_fn gc_cb;
    void *cookie;         /**< handed to stats_cb and gc_cb; never read through for other purposes */
    intptr_t spare_count; /**< slots at the end kept back from ordinary allocation; cut to 0..count */
    memm_filter_fn filter_cb;
} memm_pooloptions;

/** How the slot of an allocation was found; the order of the counters in the descriptor. */
enum { MEMM_PATH_TOTAL, MEMM_PATH_FIRST_FREE, MEMM_PATH_LAST_USED, MEMM_PATH_SCAN, MEMM_PATH_OTHER, MEMM_PATHS };

/** A pool's descriptor, itself an object of pool 0: to be read, not written, and under the lock when more than one
 *  member has to be right. docs/memory-layout.md shows it in memory. Sizes are in bytes, header included. */
typedef struct memm_pool {
    const char *name;     /**< the creator's pointer */
    unsigned char *slots; /**< the first slot's header; null: the pool has no slots */
    unsigned slot_size;
    int cur_count;     /**< objects in use */
    int max_count;     /**< highest cur_count */
    int slot_count;    /**< slots, spare ones included */
    int max_count_rel; /**< highest cur_count - *count_base, kept while that is set */
    int *count_base;   /**< see memm_get_currentcount_ptr(), as for spare_flag */
    int *spare_flag;
    unsigned char *first_free;  /**< every slot below is in use */
    unsigned char *last_used;   /**< no slot above is in use */
    unsigned char *last_item;   /**< the last slot */
    unsigned char *last_normal; /**< the last slot of ordinary allocation */
    unsigned refs;              /**< references beyond the first holders' */
    unsigned max_refs;          /**< highest refs; in pool 0: the most that one object of any pool had */
    unsigned free_count, free_time, free_time_max;                                        /**< releases; times stay 0 */
    unsigned alloc_count[MEMM_PATHS], alloc_time[MEMM_PATHS], alloc_time_max[MEMM_PATHS]; /**< times stay 0 */
    unsigned scan_steps; /**< occupied slots that searches have passed */
    unsigned flags;      /**< bit 31: an allocation has failed */
    memm_pooloptions options;
} memm_pool;

/** @name Start
 *  @{ */

/** Starts the manager: once per process, before any other thread uses the library. Makes the pool table, installs the
 *  handlers of SIGUSR1 and SIGUSR2 (docs/reports.md) and fork handlers, and makes "dynstr_pool". There is no shut-down.
 *  @param pool_count    pools that the process can have, 1 to 0x7fffff; two of them are the manager's own: the pool of
 *                       descriptors (id 0) and "dynstr_pool" (id 1)
 *  @param dynstr_param  string pools that the process can have; see dynstr_init()
 *  @return 0. 0x10004 when it has run before, whatever the arguments are now. 0x10003 for a bad pool_count. Else the
 * code of the step that failed: of xmu_create(), of xm_alloc(), 0x10002 without memory or when the strings could not be
 * started; after this last one the manager runs and dynstr_init() may be tried again
 *  @note   does not take the manager lock */
int memm_init(unsigned pool_count, int dynstr_param);
/** @} */

/** @name Pools
 *  Getters take no lock. @{ */

/** Creates a pool: one block from xm_alloc(), labelled with its name, for all its objects.
 *  @param name     not copied, must live as long as the process. Names are unique, but for the empty one
 *  @param count    slots, at least 1
 *  @param objsize  bytes of an object, at least 1. An object is aligned as a machine word is: on a 32-bit target to 4
 *                  bytes, so that members that need 8 do not belong into it
 *  @param options  copied; null for a plain pool
 *  @return the pool id, -1 for a bad argument, a name that is taken, when no descriptor is left (which is reported like
 *          any other depletion) or without memory; then a level 1 trace says which pool. Before memm_init() also
 *          err_printf() 0x10007. A pool whose memory could not be had uses up its descriptor */
int memm_initpool(const char *name, int count, int objsize, const memm_pooloptions *options);
/** memm_initpool() with print_cb and release_cb; either may be null. */
int memm_initpool2(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release_fn release_cb);
/** memm_initpool() with print_cb and release2_cb; either may be null. */
int memm_initpool3(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release2_fn release2_cb);

/** @return the pool's descriptor, valid for the life of the process; null for an id out of range */
memm_pool *memm_get_pool_nolock(unsigned poolid);
/** @return the name of the object's pool; "invalid poolid" for null and whatever names none */
const char *memm_get_poolname(const void *obj);
/** @return the pool's name; "invalid poolid" for an id out of range and for a pool without slots */
const char *memm_get_poolname2(unsigned poolid);
/** @return bits 0 to 22 of the object's header, otherwise unchecked: 8388607 for a released object and for memory that
 *          cannot be read; -1 for null */
int memm_get_poolid(const void *obj);
/** @return the cookie of the object's pool; null for null and whatever names no pool */
void *memm_getpoolcookie(const void *obj);
/** As memm_getpoolcookie(). */
void *memm_getpoolcookie_nolock(const void *obj);
/** @return the cookie of the pool; null for an id out of range */
void *memm_getpoolcookie_bypoolid(unsigned poolid);
/** Lets a module that keeps objects beyond their release have its pool counted without them.
 *  @param poolid      the pool
 *  @param count_base  reports subtract *count_base from the objects in use, and max_count_rel is kept; null: no longer
 *  @param spare_flag  set to 1 whenever a spare slot is handed out; null: no longer. Both stay the caller's and must
 *                     live as long as they are set
 *  @return the address of cur_count, valid for the life of the process; null for an id out of range */
int *memm_get_currentcount_ptr(unsigned poolid, int *count_base, int *spare_flag);
/** @} */

/** @name Objects
 *  @{ */

/** Takes a zeroed object from a pool. When no ordinary slot is free, gc_cb is asked, as often as it answers non-zero.
 *  @param poolid  an id from memm_initpool(); -1 and ids out of range yield null without a report
 *  @return the object, held once by the caller: memm_free() gives it back. Null when no slot is left: then 0x10002 goes
 *          to err_printf(), the pool is marked in reports and the process's dump file is rewritten (docs/reports.md) */
void *memm_calloc(unsigned poolid);
/** memm_calloc() for a caller that holds the lock. */
void *memm_calloc_nolock(unsigned poolid);
/** As memm_calloc_nolock(), for use while slots are being reclaimed: may take spare slots, and then sets the pool's
 *  *spare_flag to 1; never calls gc_cb. */
void *memm_calloc_nolock_nogc(unsigned poolid);
/** Adds a holder. Only the header is checked: it must name a pool.
 *  @return obj. Null for null, without a report; null and err_printf() 0x10002 when the header names no pool, or when
 *          the object has 254 further holders already. A refused reference must not be given back, and the object not
 * be shared again: the count of an object with 254 reads 255 afterwards, and one more refusal makes it 0 */
void *memm_refalloc(void *obj);
/** memm_refalloc() for a caller that holds the lock. */
void *memm_refalloc_nolock(void *obj);
/** Drops a holder. The last one runs the pool's release callback and frees the slot; its bytes are left as they are.
 *  @return 0, also when a callback keeps the object, for null, and for a pointer that is not the start of an object
 *          (level 1 trace; pool descriptors belong to these). 0x10007 when a callback refused: nothing has changed
 *  @note   a callback that releases its own object has it counted twice; a level 1 trace says so */
int memm_free(void *obj);
/** memm_free() for a caller that holds the lock. */
int memm_free_nolock(void *obj);
/** memm_free(*pobj); *pobj is left as it is. @return as memm_free(); 0 for null */
int memm_ex_free(void **pobj);
/** Does nothing: a place for tools that track allocations to stop at. The `_dynstr_ex_` calls pass the address of the
 *  caller's pointer, a file name and a line. */
void memm_addToAllocateList(void *slot, ...);
/** Does nothing, as memm_addToAllocateList(). */
void memm_removeFromAllocateList(void *slot);
/** @return 1 when bits 0 to 22 of the object's header are poolid, else 0; for null, 1 exactly when poolid is -1
 *  @note   takes no lock */
int memm_instanceof_no_ori(const void *obj, unsigned poolid);
/** @} */

/** @name Lookup
 *  Objects are met in the order of their slots. Callbacks run under the lock; they may allocate, and release the object
 *  that they are given. @{ */

/** @return 1 when the header in front of obj names a pool and lies among that pool's used slots, else 0. Released
 *          objects yield 0; whether obj is the start of an object is not checked
 *  @note   takes no lock */
int memm_isvalidobj(const void *obj);
/** As memm_isvalidobj(). */
int memm_isvalidobj_nolock(const void *obj);
/** @return the number of the object's slot, from 0; 0 also for null and whatever names no pool */
int memm_getindex(const void *obj);
/** @return the object in that slot; null when the slot is free or there is no such slot or pool
 *  @note   takes no lock */
void *memm_getobject_byindex(unsigned poolid, int index);
/** @return the first object for which match(obj, arg) is not 0; null when there is none, no such pool or no match */
void *memm_search(unsigned poolid, int arg, int (*match)(void *obj, int arg));
/** @return the pool's first object in use; null when there is none or no such pool */
void *memm_getfirst(unsigned poolid);
/** @return the next object in use of the same pool; null after the last one, and for a pointer that is not the start of
 *          an object in use: fetch the next one before you release this one */
void *memm_getnext(void *obj);
/** Calls visit(obj, arg) for each object until it answers 0.
 *  @return the number of objects visited; without a visit function 1 when there is any object, else 0; 0 for an id out
 *          of range */
int memm_enum_objects(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg);
/** memm_enum_objects() for a caller that holds the lock. */
int memm_enum_objects_nolock(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg);
/** Marks the objects in use of the selected pools (tag null: unmarks them) and prints a line per pool. Marked objects
 * can be told from those made later; see memm_print_objects2(). Prefixes are as in memm_print_stats(). */
void memm_tag_objects(const char *prefix, void *tag);
/** @} */

/** @name Reports
 *  docs/reports.md explains every column. `prefix` selects the pools whose names begin with it; null or "" selects all.
 *  @{ */

/** The usage of the pools, through dbg_printf(), and a check of all pools' slots, whose findings are traced. */
void memm_print_stats(const char *prefix);
/** As memm_print_stats(), through `print`; null prints nothing. Takes the lock as "memm_print_stats". */
void memm_print_stats2(const char *prefix, memm_printf_fn print);
/** memm_print_objects2() of level 0. */
void memm_print_objects(const char *prefix);
/** The pools and their objects, through dbg_printf(). Takes the lock as "memm_print_objects".
 *  @param prefix  selects the pools
 *  @param level   with the value 2 set only marked objects, without it only others; the whole number goes to filter_cb,
 *                 where string pools take the value 4 as "no deleted records". Dump files use 4 */
void memm_print_objects2(const char *prefix, int level);
/** Prints what an object is, and with `contents` what print_cb has to say, through dbg_printf() and without a line end.
 *  "0x0: null" for null, "?.?.?.0x...: invalid object" for what memm_isvalidobj() refuses. */
void memm_printobject(void *obj, int contents);
/** How often the selected pools' slots were found in which way, and how often given back, through dbg_printf(). Times
 *  are not measured and print as 0.000. */
void memm_print_timestats(const char *prefix);
/** Sets the numbers of memm_print_timestats() to 0 for all pools. Takes no lock: one in progress may count on. */
void memm_clear_timestats(void);
/** @} */

/** @name Trace and lock
 *  @{ */

/** Sets how much goes to trc_def_printf(): 1 failures, 2 also details (the default), less than 1 nothing. More than 2
 *  is stored as 2, less than 0 as it is. */
void memm_set_trace(int level);
/** @return 1 when messages of this level are traced, else 0; for -1 the level that is set */
int memm_get_trace(int level);
/** Takes the manager lock, which its holder may take again. tag names the caller to a P() that cares; null counts as
 *  "-unknown-". */
void memm_lock(const char *tag);
/** Gives one hold of the manager lock back. Changes nothing when the caller has none. */
void memm_unlock(void);
/** Changes nothing; it is there for applications that call it. */
void memm_set_fast_trelk_locking(void);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
