#ifndef MEMMANAGER_MEMMANAGER_H
#define MEMMANAGER_MEMMANAGER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* one machine word: 32 bits on a 32-bit target */
typedef uintptr_t memm_word;

/* result codes; -1 stands for an invalid pool id */
enum {
    MEMM_OK = 0,
    MEMM_E_TOO_SMALL = 0x10001, /* the destination is too small */
    MEMM_E_NO_MEMORY = 0x10002, /* no slot, no reference, no room */
    MEMM_E_INVALID = 0x10003,   /* bad argument, bad position, not found */
    MEMM_E_STARTED = 0x10004,   /* the manager was started before */
    MEMM_E_SETUP = 0x10007,     /* set-up error, or a release callback refused */
    MEMM_KEPT = 0x10009         /* answer of a release callback that keeps the object */
};

typedef int (*memm_printf_fn)(const char *format, ...);
typedef void (*memm_stats_fn)(void *cookie, int *a, int *b, int *c, memm_printf_fn print);
typedef void (*memm_print_fn)(void *object);
typedef int (*memm_release_fn)(void *object);
typedef int (*memm_release2_fn)(void *object, memm_release_fn release);
typedef int (*memm_gc_fn)(void *cookie, int attempt, int slot_size);
typedef int (*memm_filter_fn)(void *object, int level);

/* the eight words of the pool options */
typedef struct memm_pooloptions {
    memm_stats_fn stats_cb;
    memm_print_fn print_cb;
    memm_release_fn release_cb;
    memm_release2_fn release2_cb;
    memm_gc_fn gc_cb;
    void *cookie;
    intptr_t spare_count;
    memm_filter_fn filter_cb;
} memm_pooloptions;

enum { MEMM_PATH_TOTAL, MEMM_PATH_FIRST_FREE, MEMM_PATH_LAST_USED, MEMM_PATH_SCAN, MEMM_PATH_OTHER, MEMM_PATHS };

/* the pool descriptor behind its header word */
typedef struct memm_pool {
    const char *name;
    unsigned char *slots;
    unsigned slot_size;
    int cur_count;
    int max_count;
    int slot_count;
    int max_count_rel;
    int *count_base;
    int *spare_flag;
    unsigned char *first_free, *last_used, *last_item, *last_normal;
    unsigned refs, max_refs;
    unsigned free_count, free_time, free_time_max;
    unsigned alloc_count[MEMM_PATHS], alloc_time[MEMM_PATHS], alloc_time_max[MEMM_PATHS];
    unsigned scan_steps;
    unsigned flags;
    memm_pooloptions options;
} memm_pool;

int memm_init(unsigned pool_count, int dynstr_param);
int memm_initpool(const char *name, int count, int objsize, const memm_pooloptions *options);
int memm_initpool2(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release_fn release_cb);
int memm_initpool3(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release2_fn release2_cb);

memm_pool *memm_get_pool_nolock(unsigned poolid);
const char *memm_get_poolname(const void *obj);
const char *memm_get_poolname2(unsigned poolid);
int memm_get_poolid(const void *obj);
void *memm_getpoolcookie(const void *obj);
void *memm_getpoolcookie_nolock(const void *obj);
void *memm_getpoolcookie_bypoolid(unsigned poolid);
int *memm_get_currentcount_ptr(unsigned poolid, int *count_base, int *spare_flag);

void *memm_calloc(unsigned poolid);
void *memm_calloc_nolock(unsigned poolid);
void *memm_calloc_nolock_nogc(unsigned poolid);
void *memm_refalloc(void *obj);
void *memm_refalloc_nolock(void *obj);
int memm_free(void *obj);
int memm_free_nolock(void *obj);
int memm_ex_free(void **pobj);
void memm_addToAllocateList(void *slot, ...);
void memm_removeFromAllocateList(void *slot);
int memm_instanceof_no_ori(const void *obj, unsigned poolid);

int memm_isvalidobj(const void *obj);
int memm_isvalidobj_nolock(const void *obj);
int memm_getindex(const void *obj);
void *memm_getobject_byindex(unsigned poolid, int index);
void *memm_search(unsigned poolid, int arg, int (*match)(void *obj, int arg));
void *memm_getfirst(unsigned poolid);
void *memm_getnext(void *obj);
int memm_enum_objects(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg);
int memm_enum_objects_nolock(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg);
void memm_tag_objects(const char *prefix, void *tag);

void memm_print_stats(const char *prefix);
void memm_print_stats2(const char *prefix, memm_printf_fn print);
void memm_print_objects(const char *prefix);
void memm_print_objects2(const char *prefix, int level);
void memm_printobject(void *obj, int contents);
void memm_print_timestats(const char *prefix);
void memm_clear_timestats(void);

void memm_set_trace(int level);
int memm_get_trace(int level);
void memm_lock(const char *tag);
void memm_unlock(void);
void memm_set_fast_trelk_locking(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
