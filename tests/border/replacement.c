/* An application with platform operations of its own. The script that compiles it passes the list of all operations as
 * OPERATIONS(X) and for each of them REPLACE_<name> as 0 or 1. After a few calls into the library every operation that
 * was replaced must have been entered here, and none of the others. */
#include <memmanager/dynstring.h>
#include <memmanager/lock.h>
#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <memmanager/timestat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define NAME(operation) #operation,
#define STATE(operation) REPLACE_##operation,
#define NUMBER(operation) number_of_##operation,
#define ENTERED(operation) ++entered[number_of_##operation]

enum { OPERATIONS(NUMBER) OPERATION_COUNT };
static const char *const names[] = {OPERATIONS(NAME)};
static const int replaced[] = {OPERATIONS(STATE)};
static int entered[OPERATION_COUNT];

/* Only a timeout makes the library ask for task and name; this application's mutex has one. */
#define SCRIPT_xmu_p (REPLACE_xmu_p || REPLACE_vemo_t_ident || REPLACE_xt_getname)

#if REPLACE_xm_alloc
unsigned xm_alloc(const char *label, int option, unsigned size, void **block)
{
    (void)label, (void)option, ENTERED(xm_alloc);
    return (*block = calloc(1, size)) == NULL;
}
#endif
#if REPLACE_xm_getmem
unsigned xm_getmem(unsigned size, void **block) { return ENTERED(xm_getmem), (*block = malloc(size)) == NULL; }
#endif
#if REPLACE_xm_retmem
unsigned xm_retmem(void *block) { return ENTERED(xm_retmem), free(block), 0; }
#endif
#if REPLACE_xmu_create
unsigned xmu_create(const char *name, int option, unsigned *handle)
{
    return (void)name, (void)option, ENTERED(xmu_create), *handle = 0, 0;
}
#endif
#if SCRIPT_xmu_p
unsigned xmu_p(unsigned handle, int mode, int timeout)
{
    static int timeouts;
    (void)handle, (void)timeout, ENTERED(xmu_p);
    return mode == 1 || timeouts++ == 0 ? 6 : 0;
}
#endif
#if REPLACE_xmu_v
unsigned xmu_v(unsigned handle) { return (void)handle, ENTERED(xmu_v), 0; }
#endif
#if REPLACE_P
void P(const char *tag) { (void)tag, ENTERED(P); }
#endif
#if REPLACE_V
void V(void) { ENTERED(V); }
#endif
#if REPLACE_vemo_t_ident
unsigned vemo_t_ident(int a, int b, int *id) { return (void)a, (void)b, ENTERED(vemo_t_ident), *id = 1, 0; }
#endif
#if REPLACE_xt_getname
unsigned xt_getname(int id, char *name) { return (void)id, ENTERED(xt_getname), memcpy(name, "MAIN", 4), 0; }
#endif
#if REPLACE_xtm_gettimestamp
void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds)
{
    ENTERED(xtm_gettimestamp), *seconds = *microseconds = 0;
}
#endif
#if REPLACE_xtm_time_date_struct
unsigned xtm_time_date_struct(xtm_date *record, unsigned seconds, int a, int b)
{
    (void)seconds, (void)a, (void)b, ENTERED(xtm_time_date_struct);
    return memset(record, 0, sizeof *record), 0;
}
#endif
#if REPLACE_xtm_time_date_struct_to_seconds
unsigned xtm_time_date_struct_to_seconds(unsigned *seconds, xtm_date *record)
{
    return (void)record, ENTERED(xtm_time_date_struct_to_seconds), *seconds = 0, 0;
}
#endif
#if REPLACE_xtm_gettimezone
unsigned xtm_gettimezone(int *timezone) { return ENTERED(xtm_gettimezone), *timezone = 0, 0; }
#endif
#if REPLACE_xtm_getdaylightsaving
unsigned xtm_getdaylightsaving(int *flag) { return ENTERED(xtm_getdaylightsaving), *flag = 0, 0; }
#endif
#if REPLACE_dbg_vprintf_cb
static int sink(const char *format, va_list arguments)
{
    return (void)format, (void)arguments, ENTERED(dbg_vprintf_cb), 0;
}
int (*dbg_vprintf_cb)(const char *format, va_list arguments) = sink;
#endif
#if REPLACE_dbg_printf
int dbg_printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    ENTERED(dbg_printf), dbg_vprintf_cb(format, arguments);
    va_end(arguments);
    return 0;
}
#endif
#if REPLACE_trc_def_printf
int trc_def_printf(const char *format, ...) { return (void)format, ENTERED(trc_def_printf), 0; }
#endif
#if REPLACE_err_printf
int err_printf(unsigned code, int severity, const char *module, const char *file, int line, const char *message)
{
    return (void)code, (void)severity, (void)module, (void)file, (void)line, (void)message, ENTERED(err_printf), 0;
}
#endif

static void reach_every_operation(void)
{
    LOCK lock;
    timestat watch;
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
    unsigned seconds = 1;
    const unsigned pool = (unsigned)dynstr_initpool("strings", 8, 64);
    dynstr *date = dynstr_calloc(pool);
    dynstr_setutcdatetime(date, seconds);
    dynstr_getutcdatetime(date, &seconds);
    dynstr_sprintf(date, "%0100d", 0); /* more than the buffer holds: an outside block */
}

int main(void)
{
    int failures = 0;
    reach_every_operation();
    for (int i = 0; i < OPERATION_COUNT; ++i) {
        if (replaced[i] && entered[i] == 0) {
            fprintf(stderr, "the library did not call the application's %s\n", names[i]);
            ++failures;
        }
    }
    return failures;
}
