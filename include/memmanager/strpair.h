/** @file strpair.h
 *  Pairs of strings, and lists of them.
 */
#ifndef MEMMANAGER_STRPAIR_H
#define MEMMANAGER_STRPAIR_H

#include "strlist.h"

/** A list of exactly two strings. */
typedef strlist strpair;
/** A list whose objects are pairs. */
typedef llist strpairlist;

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

strpair *strpair_fromstrings(const char *first, const char *second, int poolid, int strpool);
strpair *strpair_fromstring(char *text, const char *delimiters, int poolid, int strpool);
strpair *strpair_clone(strpair *pair, int poolid, int strpool);
dynstr *strpair_getfirst(strpair *pair);
dynstr *strpair_getsecond(strpair *pair);
const char *strpair_getfirststring(strpair *pair);
const char *strpair_getsecondstring(strpair *pair);
unsigned strpair_setfirststring(strpair *pair, const char *text);
unsigned strpair_setsecondstring(strpair *pair, const char *text);
int strpairlist_getlength(strpairlist *list);
unsigned strpairlist_addstringpair(strpairlist **plist, strpair *pair, int poolid);
unsigned strpairlist_addstringpairlist(strpairlist **plist, strpairlist *list);
unsigned strpairlist_addstrings(strpairlist **plist, const char *first, const char *second, int poolid, int strpool);
unsigned strpairlist_delete_at(strpairlist **plist, int index);
unsigned strpairlist_setpair_at(strpairlist *list, strpair *pair, int index);
strpair *strpairlist_getpair_at(strpairlist *list, int index);
dynstr *strpairlist_getfirst_at(strpairlist *list, int index);
dynstr *strpairlist_getsecond_at(strpairlist *list, int index);
const char *strpairlist_getfirststring_at(strpairlist *list, int index);
const char *strpairlist_getsecondstring_at(strpairlist *list, int index);
unsigned strpairlist_setfirststring_at(strpairlist *list, const char *text, int index);
unsigned strpairlist_setsecondstring_at(strpairlist *list, const char *text, int index);
strpairlist *strpairlist_clone(strpairlist *list, int poolid);
dynstr *strpairlist_getsecond_byfirststring(strpairlist *list, const char *text);
const char *strpairlist_getsecondstring_byfirststring(strpairlist *list, const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
