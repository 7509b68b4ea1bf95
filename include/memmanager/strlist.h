/** @file strlist.h
 *  Lists of strings: lists as in llist.h, whose objects are strings as in dynstring.h.
 *
 *  A call that makes something takes two pool ids: `poolid`, the pool of the nodes, and `strpool`, the pool of the
 *  strings. Indices, results and lock tags are as in llist.h; a null text is a text that cannot be made.
 *  docs/containers.md shows who holds a string before and after each call.
 */
#ifndef MEMMANAGER_STRLIST_H
#define MEMMANAGER_STRLIST_H

#include "dynstring.h"
#include "llist.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A list whose objects are strings. */
typedef llist strlist;

/** @name Calls of llist.h and dynstring.h under another name
 *  The lock tags are theirs, but for the last one's.
 *  @{ */

/** llist_refalloc(): a new list of the same strings. */
strlist *strlist_refalloc(strlist *list, int poolid);
/** llist_getlength() */
int strlist_getlength(strlist *list);
/** llist_addobject() */
unsigned strlist_adddynstr(strlist **plist, dynstr *string, int poolid);
/** llist_addref() */
unsigned strlist_addref(strlist **plist, dynstr *string, int poolid);
/** llist_delete_at() */
unsigned strlist_delete_at(strlist **plist, int index);
/** llist_remove_at() */
unsigned strlist_remove_at(strlist **plist, int index);
/** llist_remove_byobject() */
unsigned strlist_remove_byobject(strlist **plist, dynstr *string);
/** dynstr_fromstrlist() */
dynstr *strlist_todynstr(strlist *list, const char *separator, int strpool);
/** dynstr_frompartialstrlist() */
dynstr *strlist_partialtodynstr(strlist *list, const char *separator, int strpool, int first, int last);
/** llist_enum_dynstr() */
dynstr *strlist_enum_dynstr(strlist *list, int *index, void **cursor);
/** @} */

/** @name Items
 *  @{ */

/** Adds a new string at the end. @return 0, 0x10002 also when the string could not be made, 0x10003; nothing is left
 *  behind then */
unsigned strlist_addstring(strlist **plist, const char *text, int poolid, int strpool);
/** strlist_addstring() for a caller that holds the lock. */
unsigned strlist_addstring_nolock(strlist **plist, const char *text, int poolid, int strpool);
/** As strlist_addstring(), of a number in decimal. Takes the lock as "dynstr_fromprintf", then as "llist_addobject". */
unsigned strlist_addulong(strlist **plist, unsigned value, int poolid, int strpool);
/** @return the string at the index, which the list keeps; null also for what is no string. Takes the lock as
 *          "llist_getobject_at" */
dynstr *strlist_getdynstr_at(strlist *list, int index);
/** @return the text at the index, "" when there is no string, never null. Valid as that of dynstr_getstring() */
const char *strlist_getstring_at(strlist *list, int index);
/** dynstr_getulong() of the string at the index. Takes the lock as "llist_getobject_at", then as "dynstr_getulong".
 *  @return also 0x10003 when there is no string */
unsigned strlist_getulong_at(strlist *list, unsigned *value, int index);
/** dynstr_setstring_nolock() of the string at the index. Takes the lock as "llist_get_at" to find it, but not to change
 *  it: hold it when other tasks use the string pool. @return also 0x10003 when there is no string */
unsigned strlist_setstring_at(strlist *list, const char *text, int index);
/** @} */

/** @name Splitting
 *  The result is a new list of new strings; null when there is no item, for a null argument and an empty separator. An
 *  item for which no record or no node is left is left out. One whose text finds no room is an empty item in
 *  strlist_fromstring_escaped() and before a separator in strlist_fromstring(); elsewhere it is left out.
 *  @{ */

/** Splits at every separator: "a,,b" is "a", "" and "b"; "a," is "a" and ""; "" is one empty item.
 *  @note   an item of 2047 characters or more that a separator follows holds all of the rest of the text; the split
 *  goes on behind the separator all the same
 *  @param text       of the caller's, not of a string in `strpool`, whose text moves meanwhile: see
 * strlist_fromdynstr()
 *  @param separator  one character or more
 *  @param poolid     where the nodes come from
 *  @param strpool    where the strings come from */
strlist *strlist_fromstring(const char *text, const char *separator, int poolid, int strpool);
/** Splits at every separator that has no escape character before it, and takes the escape characters out; the text is
 *  changed. Nothing ends the text where it has become shorter: after escapes the last item keeps the characters that
 *  stood there, and more items may follow: "a\,b,c" is "a,b" and "cc". "" is the empty list. An escape character at the
 *  end of the text counts for nothing. */
strlist *strlist_fromstring_escaped(char *text, char separator, char escape, int poolid, int strpool);
/** Splits the text of a string, as strlist_fromstring() but for its note, into strings of the same pool. */
strlist *strlist_fromdynstr(dynstr *string, const char *separator, int poolid);
/** @param array    texts; null ends it
 *  @param poolid   where the nodes come from
 *  @param strpool  where the strings come from */
strlist *strlist_fromstringarr(const char *const *array, int poolid, int strpool);
/** @return a list of new strings with the texts of the items, up to the first node that holds null; what is no string
 *          becomes an empty item. Takes the lock as "strlist_fromstringarr" */
strlist *strlist_clone(strlist *list, int poolid, int strpool);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
