/** @file strlist.h
 *  Lists of strings.
 */
#ifndef MEMMANAGER_STRLIST_H
#define MEMMANAGER_STRLIST_H

#include "dynstring.h"
#include "llist.h"

/** A list whose objects are strings. */
typedef llist strlist;

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

strlist *strlist_refalloc(strlist *list, int poolid);
int strlist_getlength(strlist *list);
unsigned strlist_adddynstr(strlist **plist, dynstr *string, int poolid);
unsigned strlist_addref(strlist **plist, dynstr *string, int poolid);
unsigned strlist_delete_at(strlist **plist, int index);
unsigned strlist_remove_at(strlist **plist, int index);
unsigned strlist_remove_byobject(strlist **plist, dynstr *string);
dynstr *strlist_todynstr(strlist *list, const char *separator, int strpool);
dynstr *strlist_partialtodynstr(strlist *list, const char *separator, int strpool, int first, int last);
dynstr *strlist_enum_dynstr(strlist *list, int *index, void **cursor);
unsigned strlist_addstring(strlist **plist, const char *text, int poolid, int strpool);
unsigned strlist_addstring_nolock(strlist **plist, const char *text, int poolid, int strpool);
unsigned strlist_addulong(strlist **plist, unsigned value, int poolid, int strpool);
dynstr *strlist_getdynstr_at(strlist *list, int index);
const char *strlist_getstring_at(strlist *list, int index);
unsigned strlist_getulong_at(strlist *list, unsigned *value, int index);
unsigned strlist_setstring_at(strlist *list, const char *text, int index);
strlist *strlist_fromstring(const char *text, const char *separator, int poolid, int strpool);
strlist *strlist_fromstring_escaped(char *text, char separator, char escape, int poolid, int strpool);
strlist *strlist_fromdynstr(dynstr *string, const char *separator, int poolid);
strlist *strlist_fromstringarr(const char *const *array, int poolid, int strpool);
strlist *strlist_clone(strlist *list, int poolid, int strpool);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
