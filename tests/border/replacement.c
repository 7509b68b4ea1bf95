/* An application with platform operations of its own. The script that compiles it passes the list of all operations as
 * OPERATIONS(X) and for each of them REPLACE_<name> as 0 or 1. After a few calls into the library every operation that
 * was replaced must have been entered here. platform.h is left out: a replacement counts and answers 0, whatever its
 * parameters are; all are integers and pointers, of which those that matter arrive as words. */
#include <memmanager/dynstring.h>
#include <memmanager/lock.h>
#include <memmanager/timestat.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if REPLACE_vemo_t_ident || REPLACE_xt_getname /* only a timeout makes the library ask for those */
#undef REPLACE_xmu_p
#define REPLACE_xmu_p 1
#endif
#define OPERATION(operation) {#operation, REPLACE_##operation, 0},
#define NUMBER(operation) number_of_##operation,

#pragma GCC visibility push(default)
enum { OPERATIONS(NUMBER) OPERATION_COUNT };
static struct {
    const char *name;
    int is_replaced, entered;
} operations[] = {OPERATIONS(OPERATION)};

static unsigned answer(int operation, uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d)
{
    static int waits;
    ++operations[operation].entered;
    if (operation == number_of_xm_alloc)
        *(void **)d = calloc(1, (unsigned)c);
    else if (operation == number_of_xm_getmem)
        *(void **)b = malloc((unsigned)a);
    else if (operation == number_of_xmu_p) /* a try fails, the wait after it comes to its end once */
        return (int)b == 1 || waits++ == 0 ? 6 : 0;
    else if (operation == number_of_xtm_time_date_struct)
        memset((void *)a, 0, 10 * sizeof(int));
    return 0;
}

#define JOIN(a, b) a##b
#define DEFINE(state, operation) JOIN(DEFINE_, state)(operation)
#define REPLACEMENT(operation) DEFINE(REPLACE_##operation, operation)
#define DEFINE_0(operation)
#define DEFINE_1(operation)                                                                                            \
    unsigned operation(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d);                                            \
    unsigned operation(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d)                                             \
    {                                                                                                                  \
        return answer(number_of_##operation, a, b, c, d);                                                              \
    }
#if REPLACE_dbg_vprintf_cb /* the one that is a variable */
#undef REPLACE_dbg_vprintf_cb
#define REPLACE_dbg_vprintf_cb 0
static int sink(const char *format) { return (void)format, (int)answer(number_of_dbg_vprintf_cb, 0, 0, 0, 0); }
int (*dbg_vprintf_cb)(const char *format) = sink;
#endif
OPERATIONS(REPLACEMENT)

int main(void)
{
    LOCK lock;
    timestat watch;
    unsigned seconds = 1;
    memm_initpool("early", 1, 4, NULL); /* err_printf */
    memm_init(8, 8);
    memm_init(8, 8); /* trc_def_printf */
    memm_lock("application");
    memm_unlock();
    lock_initlock(&lock, "application");
    lock_lock(&lock, 0, "application");
    lock_unlock(&lock);
    lock_print_allstats();
    timestat_starttime(&watch);
    dynstr *date = dynstr_calloc((unsigned)dynstr_initpool("strings", 8, 64));
    dynstr_setutcdatetime(date, seconds);
    dynstr_getutcdatetime(date, &seconds);
    dynstr_sprintf(date, "%0100d", 0); /* more than the buffer holds: an outside block */
    int failures = 0;
    operations[number_of_dbg_vprintf_cb].is_replaced &= !operations[number_of_dbg_printf].is_replaced;
    for (int i = 0; i < OPERATION_COUNT; ++i)
        if (operations[i].is_replaced && operations[i].entered == 0)
            failures += printf("the library did not call the application's %s\n", operations[i].name) > 0;
    return failures;
}
