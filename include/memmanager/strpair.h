/** @file strpair.h
 *  Pairs of strings, and lists of them.
 *
 *  A pair is a list of two strings as in strlist.h: a key and its value, say. A pair list is a list as in llist.h whose
 *  objects are pairs: each of its nodes owns one reference to the first node of a pair. Releasing a pair releases its
 *  strings. Indices, results and lock tags are as in llist.h, pool ids as in strlist.h.
 */
#ifndef MEMMANAGER_STRPAIR_H
#define MEMMANAGER_STRPAIR_H

#include "strlist.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A list of exactly two strings. */
typedef strlist strpair;
/** A list whose objects are pairs. */
typedef llist strpairlist;

/** @name Pairs
 *  @{ */

/** @return a new pair; null when neither string could be made, and a list of one when the other could not. Takes the
 *          lock as "strpair_fromstring" */
strpair *strpair_fromstrings(const char *first, const char *second, int poolid, int strpool);
/** Splits a text at the first delimiter behind what is no delimiter: "name=value" is "name" and "value", "a=b=c" is "a"
 *  and "b=c", "key" is "key" and "", "=x" is "x" and "".
 *  @param text        is written to meanwhile. Afterwards it is as before, but that the delimiter at which it was split
 *                     has become the first one of `delimiters`
 *  @param delimiters  characters
 *  @param poolid      where the nodes come from
 *  @param strpool     where the strings come from
 *  @return as strpair_fromstrings(); null also for a null argument and when the text has nothing but delimiters */
strpair *strpair_fromstring(char *text, const char *delimiters, int poolid, int strpool);
/** strlist_clone(): a new pair with new strings. */
strpair *strpair_clone(strpair *pair, int poolid, int strpool);
/** llist_getobject_at() of index 0. */
dynstr *strpair_getfirst(strpair *pair);
/** llist_getobject_at() of index 1. */
dynstr *strpair_getsecond(strpair *pair);
/** strlist_getstring_at() of index 0: never null. */
const char *strpair_getfirststring(strpair *pair);
/** strlist_getstring_at() of index 1: never null. */
const char *strpair_getsecondstring(strpair *pair);
/** strlist_setstring_at() of index 0, with its note on the lock. */
unsigned strpair_setfirststring(strpair *pair, const char *text);
/** strlist_setstring_at() of index 1, with its note on the lock. */
unsigned strpair_setsecondstring(strpair *pair, const char *text);
/** @} */

/** @name Pair lists
 *  @{ */

/** llist_getlength() */
int strpairlist_getlength(strpairlist *list);
/** llist_addobject(): the list takes over the caller's reference to the pair. */
unsigned strpairlist_addstringpair(strpairlist **plist, strpair *pair, int poolid);
/** llist_addlist(): links the nodes of another pair list in at the end. */
unsigned strpairlist_addstringpairlist(strpairlist **plist, strpairlist *list);
/** Adds a new pair, made as by strpair_fromstrings(), at the end. Takes the lock as "strpairlist_add".
 *  @return 0, 0x10002 also when no string could be made, 0x10003; nothing is left behind then */
unsigned strpairlist_addstrings(strpairlist **plist, const char *first, const char *second, int poolid, int strpool);
/** llist_delete_at(): the pair is released. */
unsigned strpairlist_delete_at(strpairlist **plist, int index);
/** llist_setobject_at(): the pair at the index is released, the list takes over the caller's reference to the new one.
 */
unsigned strpairlist_setpair_at(strpairlist *list, strpair *pair, int index);
/** llist_getobject_at(): the list keeps its reference. */
strpair *strpairlist_getpair_at(strpairlist *list, int index);
/** @return the first string of the pair at the index, or null */
dynstr *strpairlist_getfirst_at(strpairlist *list, int index);
/** @return the second string of the pair at the index, or null */
dynstr *strpairlist_getsecond_at(strpairlist *list, int index);
/** @return the first text of the pair at the index, "" when there is none. Valid as that of dynstr_getstring() */
const char *strpairlist_getfirststring_at(strpairlist *list, int index);
/** @return the second text of the pair at the index, "" when there is none. Valid as that of dynstr_getstring() */
const char *strpairlist_getsecondstring_at(strpairlist *list, int index);
/** dynstr_setstring() of the first string of the pair at the index. Takes the lock as "strpairlist_setfirst_at".
 *  @return also 0x10003 when there is none */
unsigned strpairlist_setfirststring_at(strpairlist *list, const char *text, int index);
/** dynstr_setstring() of the second string of the pair at the index. Takes the lock as "strpairlist_setsecond_at".
 *  @return also 0x10003 when there is none */
unsigned strpairlist_setsecondstring_at(strpairlist *list, const char *text, int index);
/** A list of the very same pairs, without references of its own: one of the two lists has to be taken apart without
 *  releasing the pairs.
 *  @return the list; null when it is empty, and without a node: the pairs that had been copied are released then */
strpairlist *strpairlist_clone(strpairlist *list, int poolid);
/** Compares by bytes. The walk holds no lock, which is taken for each text, as "strlist_getstring_at", and for the
 *  result, as "llist_getobject_at": hold it when other tasks change the list.
 *  @return the second string of the first pair whose first text this is, or null */
dynstr *strpairlist_getsecond_byfirststring(strpairlist *list, const char *text);
/** dynstr_getstring() of strpairlist_getsecond_byfirststring(): "*NOT_MEMMSTR*" when there is none, never null. */
const char *strpairlist_getsecondstring_byfirststring(strpairlist *list, const char *text);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
