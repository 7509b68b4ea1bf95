#ifndef MEMMANAGER_DYNSTRING_H
#define MEMMANAGER_DYNSTRING_H

#include "llist.h"
#include "memmanager.h"
#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct dynstr {
    char *str;
    unsigned info;
    struct dynstr *prev, *next;
} dynstr;

/* string pools */
unsigned dynstr_init(int count);
int dynstr_initpool(const char *name, int count, unsigned bytes);
int dynstr_initpool2(const char *name, int count, unsigned bytes, int bufcnt);
int dynstr_pool_set_dellist_threshold(int poolid, ...);
int dynstr_integrity_check(unsigned poolid, int verbose);

/* records and texts */
dynstr *dynstr_calloc(unsigned poolid);
dynstr *dynstr_calloc_maxsize(unsigned poolid, unsigned max);
dynstr *dynstr_calloc_maxlen(unsigned poolid, unsigned max);
dynstr *dynstr_refalloc(dynstr *d);
int dynstr_isdynstring(const void *p);
const char *dynstr_getstring(const dynstr *d);
const char *dynstr_getstring_nolock(const dynstr *d);
unsigned dynstr_strlen(const dynstr *d);
unsigned dynstr_getmaxsize(const dynstr *d);
unsigned dynstr_setmaxsize(dynstr *d, unsigned max);

/* assignment and append */
unsigned dynstr_setstring(dynstr *d, const char *text);
unsigned dynstr_setstring_nolock(dynstr *d, const char *text);
unsigned dynstr_setdynstr(dynstr *d, const dynstr *source);
unsigned dynstr_setdynstr_nolock(dynstr *d, const dynstr *source);
unsigned dynstr_setbool(dynstr *d, int value);
unsigned dynstr_addstring(dynstr *d, const char *text);
unsigned dynstr_addstring_size(dynstr *d, const char *text, int n);
unsigned dynstr_setsubstring(dynstr *d, const char *text, int offset, int length);
unsigned dynstr_setsubdynstr(dynstr *d, const dynstr *source, int offset, int length);
unsigned dynstr_reset(dynstr *d);

/* constructors */
dynstr *dynstr_fromstring(unsigned poolid, const char *text);
dynstr *dynstr_fromstring_nolock(unsigned poolid, const char *text);
dynstr *dynstr_fromsubstring(unsigned poolid, const char *text, int offset, int length);
dynstr *dynstr_fromdynstr(const dynstr *source);
dynstr *dynstr_fromdynstr_nolock(const dynstr *source);
dynstr *dynstr_fromsubdynstr(const dynstr *source, int offset, int length);
dynstr *dynstr_fromsubdynstr_nolock(const dynstr *source, int offset, int length);
dynstr *dynstr_fromliteral(unsigned poolid, const char *text);

/* comparison and copy-out */
int dynstr_strcmp(const dynstr *a, const dynstr *b);
int dynstr_strcmp2(const dynstr *d, const char *text);
char *dynstr_strncpy(char *destination, const dynstr *d, unsigned n);

/* value conversions */
unsigned dynstr_getulong(const dynstr *d, unsigned *value);
unsigned dynstr_getlong(const dynstr *d, int *value);
unsigned dynstr_getbool(const dynstr *d, unsigned *value);
unsigned dynstr_getipaddr(const dynstr *d, unsigned *address);
unsigned dynstr_getmacaddr(const dynstr *d, unsigned char *mac);
unsigned dynstr_getutcdatetime(const dynstr *d, unsigned *seconds);
unsigned dynstr_gethexstring(const dynstr *d, unsigned char *buffer, int size);
unsigned dynstr_setulong(dynstr *d, unsigned value);
unsigned dynstr_setlong(dynstr *d, int value);
unsigned dynstr_setipaddr(dynstr *d, unsigned address);
unsigned dynstr_setmacaddr(dynstr *d, const unsigned char *mac);
unsigned dynstr_setutcdatetime(dynstr *d, unsigned seconds);
unsigned dynstr_sethexstring(dynstr *d, const unsigned char *bytes, int count);
dynstr *dynstr_fromulong(unsigned poolid, unsigned value);
dynstr *dynstr_fromlong(unsigned poolid, int value);
dynstr *dynstr_fromipaddr(unsigned poolid, unsigned address);
dynstr *dynstr_frommacaddr(unsigned poolid, const unsigned char *mac);

/* formatted output */
unsigned dynstr_sprintf(dynstr *d, const char *format, ...);
dynstr *dynstr_fromprintf(unsigned poolid, const char *format, ...);
dynstr *dynstr_fromvprintf(unsigned poolid, const char *format, va_list arguments);
dynstr *dynstr_hexstringfromdata(unsigned poolid, const unsigned char *bytes, int count);

/* joining a string list */
dynstr *dynstr_fromstrlist(unsigned strpool, llist *list, const char *separator);
dynstr *dynstr_frompartialstrlist(unsigned strpool, llist *list, const char *separator, int first, int last);
dynstr *dynstr_fromstrlist_escaped(unsigned strpool, llist *list, const char *separator, char escape);

/* creation with caller information: file and line are the two caller-information words */
void _dynstr_ex_calloc(unsigned poolid, dynstr **slot, const char *file, int line);
void _dynstr_ex_calloc_maxsize(unsigned poolid, dynstr **slot, unsigned max, const char *file, int line);
void _dynstr_ex_calloc_maxlen(unsigned poolid, dynstr **slot, unsigned max, const char *file, int line);
void _dynstr_ex_refalloc(dynstr *d, dynstr **slot, const char *file, int line);
void _dynstr_ex_fromstring(unsigned poolid, dynstr **slot, const char *text, const char *file, int line);
void _dynstr_ex_fromliteral(unsigned poolid, dynstr **slot, const char *text, const char *file, int line);
void _dynstr_ex_fromulong(unsigned poolid, dynstr **slot, unsigned value, const char *file, int line);
void _dynstr_ex_fromlong(unsigned poolid, dynstr **slot, int value, const char *file, int line);
void _dynstr_ex_fromstrlist(unsigned strpool, dynstr **slot, llist *list, const char *separator, const char *file,
                            int line);
void _dynstr_ex_fromstrlist_escaped(unsigned strpool, dynstr **slot, llist *list, const char *separator, char escape,
                                    const char *file, int line);
void _dynstr_ex_frompartialstrlist(unsigned strpool, dynstr **slot, llist *list, const char *separator, int first,
                                   int last, const char *file, int line);
void _dynstr_ex_fromipaddr(unsigned poolid, dynstr **slot, unsigned address, const char *file, int line);
void _dynstr_ex_frommacaddr(unsigned poolid, dynstr **slot, const unsigned char *mac, const char *file, int line);
void _dynstr_ex_fromprintf(unsigned poolid, dynstr **slot, const char *format, const char *file, int line, ...);
void _dynstr_ex_fromvprintf(unsigned poolid, dynstr **slot, const char *format, va_list arguments, const char *file,
                            int line);
void _dynstr_ex_fromsubstring(unsigned poolid, dynstr **slot, const char *text, int offset, int length,
                              const char *file, int line);
void _dynstr_ex_hexstringfromdata(unsigned poolid, dynstr **slot, const unsigned char *bytes, int count,
                                  const char *file, int line);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
