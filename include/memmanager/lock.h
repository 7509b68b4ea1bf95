#ifndef MEMMANAGER_LOCK_H
#define MEMMANAGER_LOCK_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct LOCK {
    const char *name;
    unsigned mutex;
    int owner;
    char owner_name[5];
    unsigned lock_count, wait_count, total_wait, max_wait;
    int depth;
} LOCK;
int lock_initlock(LOCK *lock, const char *name);
int lock_lock(LOCK *lock, int ignored, const char *tag);
int lock_unlock(LOCK *lock);
void lock_print_stats(LOCK *lock, int header);
void lock_print_allstats(void);
void lock_clear_allstats(void);
void lock_settrace(const char *filter, int level);
int lock_gettrace(const char *lockname, int level);
int lock_gettracelevel(void);
char *lock_getapplfilter(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
