#ifndef MEMMANAGER_PLATFORM_H
#define MEMMANAGER_PLATFORM_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* memory: 0 = success, anything else is a failure code */
unsigned xm_alloc(const char *label, int option, unsigned size, void **block);
unsigned xm_getmem(unsigned size, void **block);
unsigned xm_retmem(void *block);

/* mutexes; mode 1, timeout 0: try; mode 0: wait at most timeout ms; 6 = timed out */
unsigned xmu_create(const char *name, int option, unsigned *handle);
unsigned xmu_p(unsigned handle, int mode, int timeout);
unsigned xmu_v(unsigned handle);

/* the process-wide manager lock: recursive */
void P(const char *tag);
void V(void);

/* tasks */
unsigned vemo_t_ident(int, int, int *id);
unsigned xt_getname(int id, char *name);

/* time */
void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds);
typedef struct xtm_date {
    int seconds, minutes, hours, day, month, years, weekday, yearday, daylightsaving, timezone;
} xtm_date;
unsigned xtm_time_date_struct(xtm_date *record, unsigned seconds, int, int);
unsigned xtm_time_date_struct_to_seconds(unsigned *seconds, xtm_date *record);
unsigned xtm_gettimezone(int *timezone);
unsigned xtm_getdaylightsaving(int *flag);

/* output channels */
extern int (*dbg_vprintf_cb)(const char *format, va_list arguments);
int dbg_printf(const char *format, ...);
int trc_def_printf(const char *format, ...);
int err_printf(unsigned code, int severity, const char *module, const char *file, int line, const char *message);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
