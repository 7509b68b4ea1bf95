/* An application with platform operations of its own. The script that compiles it passes the list of all operations as
 * OPERATIONS(X) and for each of them REPLACE_<name> as 0 or 1. After a few calls into the library every operation that
 * was replaced must have been entered here. platform.h is left out: where nothing else matters, a replacement counts
 * and answers 0, whatever its parameters are. */
#include <memmanager/dynstring.h>
#include <memmanager/lock.h>
#include <memmanager/timestat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define NAME(operation) #operation,
#define STATE(operation) REPLACE_##operation,
#define NUMBER(operation) number_of_##operation,
#define ENTERED(operation) ++entered[number_of_##operation]

#pragma GCC visibility push(default)
enum { OPERATIONS(NUMBER) OPERATION_COUNT };
static const char *const names[] = {OPERATIONS(NAME)};
static const int replaced[] = {OPERATIONS(STATE)};
static int entered[OPERATION_COUNT];

#define JOIN(a, b) a##b
#define WHEN(is_replaced) JOIN(WHEN_, is_replaced)
#define WHEN_0(...)
#define WHEN_1(...) __VA_ARGS__
#define REPLACE(operation, parameters, ...)                                                                            \
    WHEN(REPLACE_##operation)                                                                                          \
    (unsigned operation parameters; unsigned operation parameters {                                                    \
        ENTERED(operation);                                                                                            \
        __VA_ARGS__;                                                                                                   \
        return 0;                                                                                                      \
    })

REPLACE(xm_alloc, (const char *label, int option, unsigned size, void **block), (void)label, (void)option,
        *block = calloc(1, size))
REPLACE(xm_getmem, (unsigned size, void **block), *block = malloc(size))
REPLACE(xm_retmem, (void *block), free(block))
REPLACE(xmu_create, (const char *name, int option, unsigned *handle), (void)name, (void)option, *handle = 0)
REPLACE(xmu_v, (unsigned handle), (void)handle)
REPLACE(P, (const char *tag), (void)tag)
REPLACE(V, (void), (void)0)
REPLACE(vemo_t_ident, (int a, int b, int *id), (void)a, (void)b, *id = 1)
REPLACE(xt_getname, (int id, char *name), (void)id, memcpy(name, "MAIN", 4))
REPLACE(xtm_gettimestamp, (unsigned *seconds, unsigned *microseconds), *seconds = *microseconds = 0)
REPLACE(xtm_time_date_struct, (int *record, unsigned seconds, int a, int b), (void)seconds, (void)a, (void)b,
        memset(record, 0, 10 * sizeof *record))
REPLACE(xtm_time_date_struct_to_seconds, (unsigned *seconds, int *record), (void)record, *seconds = 0)
REPLACE(xtm_gettimezone, (int *timezone), *timezone = 0)
REPLACE(xtm_getdaylightsaving, (int *flag), *flag = 0)
REPLACE(trc_def_printf, (const char *format, ...), (void)format)
REPLACE(err_printf, (unsigned code, int severity, const char *module), (void)code, (void)severity, (void)module)
#if REPLACE_xmu_p || REPLACE_vemo_t_ident || REPLACE_xt_getname /* only a timeout makes the library ask for those */
unsigned xmu_p(unsigned handle, int mode, int timeout);
unsigned xmu_p(unsigned handle, int mode, int timeout)
{
    static int timeouts;
    (void)handle, (void)timeout, ENTERED(xmu_p);
    return mode == 1 || timeouts++ == 0 ? 6 : 0;
}
#endif
extern int (*dbg_vprintf_cb)(const char *format, va_list arguments);
WHEN(REPLACE_dbg_vprintf_cb)
(static int sink(const char *format, va_list arguments) {
    return (void)format, (void)arguments, ENTERED(dbg_vprintf_cb), 0;
} int (*dbg_vprintf_cb)(const char *format, va_list arguments) = sink;)
    REPLACE(dbg_printf, (const char *format, ...), va_list arguments; va_start(arguments, format);
            dbg_vprintf_cb(format, arguments); va_end(arguments))

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
    for (int i = 0; i < OPERATION_COUNT; ++i) {
        if (replaced[i] && entered[i] == 0) {
            fprintf(stderr, "the library did not call the application's %s\n", names[i]);
            ++failures;
        }
    }
    return failures;
}
