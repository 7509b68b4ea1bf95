/** @file dynstring.h
 *  Strings whose texts share a few large buffers.
 *
 *  A string is a small record of a string pool; it is an object of memmanager.h, shared with memm_refalloc() or
 *  dynstr_refalloc() and given back with memm_free(). The record never moves. Its text does: buffers are compacted when
 *  room is short, so a text's address is good until the next call that places a text in the same pool, by any task.
 *
 *  - Sizes count the terminating zero. A string without text has size 0. A text has at most 0x7ffffff bytes.
 *  - A string may have a maximum size, up to 2047: longer texts are cut to it, without an error. A text of more than
 *    65535 bytes makes its string lose the limit.
 *  - A text may be made from any other, of the same string too, given as a record or as an address.
 *  - A call that has to replace a text and finds no room answers 0x10002 and leaves the string empty; one that finds no
 *    spare record for its work answers 0x10002 and leaves the string as it was.
 *  - A pointer that is no string of a string pool, or one that was released, yields 0x10003, null or 0 and changes
 *    nothing; so does a null argument to which no other meaning is given.
 *  - Every call takes the manager lock under its own name, unless its note says otherwise. `_nolock` calls are for
 * tasks that hold it, which is also how a text is kept from moving while it is read.
 *
 *  docs/reports.md shows how string pools appear in reports. The result codes are those of memmanager.h.
 */
#ifndef MEMMANAGER_DYNSTRING_H
#define MEMMANAGER_DYNSTRING_H

#include "llist.h"
#include "memmanager.h"
#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A string. The members are the library's; docs/memory-layout.md explains `info`. */
typedef struct dynstr {
    char *str;
    unsigned info;
    struct dynstr *prev, *next;
} dynstr;

/** @name String pools
 *  @{ */

/** Makes "dynstr_pool", which has an object for each string pool. memm_init() calls it.
 *  @param count  string pools that the process can have
 *  @return 0; 0x10002 and err_printf() 0x10007 when it cannot be made or there is one: that stays in force */
unsigned dynstr_init(int count);
/** dynstr_initpool2() with two buffers, or with four for more than 10000 strings. */
int dynstr_initpool(const char *name, int count, unsigned bytes);
/** Creates a pool of strings. Takes the lock as "dynstr_initpool".
 *  @param name    as in memm_initpool()
 *  @param count   strings; the pool gets 5 more records as a reserve for the library's work, 20 more above 50 strings
 *  @param bytes   room for texts, shared evenly by the buffers. The longest text is what one buffer can take
 *  @param bufcnt  buffers, 1 to 4; more are reported and count as 4. More buffers make a compaction shorter
 *  @return the pool id, -1 as memm_initpool() and when a buffer could not be had: the pool's records are not strings
 *          then */
int dynstr_initpool2(const char *name, int count, unsigned bytes, int bufcnt);
/** Changes nothing; it is there for applications that call it. @return 0 */
int dynstr_pool_set_dellist_threshold(int poolid, ...);
/** Checks the lists and sizes of a string pool. Findings go to dbg_printf(), and with `verbose` all records.
 *  @return 1 when nothing is wrong, and for a pool without strings or of other objects; else 0
 *  @note   takes no lock: hold it while other tasks use the pool */
int dynstr_integrity_check(unsigned poolid, int verbose);
/** @} */

/** @name Strings
 *  @{ */

/** memm_calloc(): a string without text. Takes the lock as "memm_calloc". */
dynstr *dynstr_calloc(unsigned poolid);
/** dynstr_calloc() with a maximum size; more than 2047 and 0 are no limit. In a pool whose objects are smaller than a
 *  string the limit is not written. Takes the lock as "memm_calloc". */
dynstr *dynstr_calloc_maxsize(unsigned poolid, unsigned max);
/** dynstr_calloc_maxsize() of max + 1. */
dynstr *dynstr_calloc_maxlen(unsigned poolid, unsigned max);
/** memm_refalloc(). Takes the lock as "memm_refalloc". */
dynstr *dynstr_refalloc(dynstr *d);
/** @return 1 for a string that is not released, 0 for every other pointer
 *  @note   takes no lock */
int dynstr_isdynstring(const void *p);
/** @return the text, "" when there is none, never null. "*NOT_MEMMSTR*" for null and for what is no object of a pool
 * with a cookie, "*NOT_DYNSTR*" for an object of another module, "*DELETED_DYNSTR*" for a released string. Valid until
 * a text is placed in the same pool */
const char *dynstr_getstring(const dynstr *d);
/** As dynstr_getstring(), without taking the lock. */
const char *dynstr_getstring_nolock(const dynstr *d);
/** @return the length, 0 for null
 *  @note   takes no lock and checks nothing: d must be null or a string */
unsigned dynstr_strlen(const dynstr *d);
/** @return the maximum size, 0 for none; 0 and a level 1 trace for what is no string
 *  @note   takes no lock */
unsigned dynstr_getmaxsize(const dynstr *d);
/** Sets the maximum size; a text that is longer is cut. 0 and more than 2047 are no limit; a text of more than 65535
 *  bytes keeps none. @return 0, 0x10003 with a level 1 trace, 0x10002: then the limit is as it was */
unsigned dynstr_setmaxsize(dynstr *d, unsigned max);
/** @} */

/** @name Assignment
 *  @return 0, 0x10002 or 0x10003. @{ */

/** Takes over the whole text; null is 0x10003. */
unsigned dynstr_setstring(dynstr *d, const char *text);
/** dynstr_setstring() for a caller that holds the lock. */
unsigned dynstr_setstring_nolock(dynstr *d, const char *text);
/** Takes over the whole text of another string. */
unsigned dynstr_setdynstr(dynstr *d, const dynstr *source);
/** dynstr_setdynstr() for a caller that holds the lock. */
unsigned dynstr_setdynstr_nolock(dynstr *d, const dynstr *source);
/** "1", or "0" for 0. Takes the lock as "dynstr_setstring". */
unsigned dynstr_setbool(dynstr *d, int value);
/** Appends the whole text; null is 0x10003, "" changes nothing. Takes the lock as "dynstr_addstring_size". */
unsigned dynstr_addstring(dynstr *d, const char *text);
/** Appends the first n characters of the text, or all when it has fewer. Null, "" or n below 1 change nothing: 0. At
 * the end of the current buffer only these characters are written. */
unsigned dynstr_addstring_size(dynstr *d, const char *text, int n);
/** Takes over `length` characters from `offset` on; a negative length is all of the rest. What lies behind the end of
 * the text counts as absent; that it was asked for is a level 1 trace. A negative offset is 0x10003. */
unsigned dynstr_setsubstring(dynstr *d, const char *text, int offset, int length);
/** As dynstr_setsubstring(), whose name is its lock tag, from another string. */
unsigned dynstr_setsubdynstr(dynstr *d, const dynstr *source, int offset, int length);
/** Makes the string empty and takes its maximum size away. */
unsigned dynstr_reset(dynstr *d);
/** @} */

/** @name Constructors
 *  The result is a new string, held by the caller, or null: for a bad argument, without a record, without room for the
 *  text. A pool that is no string pool is a level 2 trace. The constructors from texts may use the pool's reserve. @{
 */

/** With the whole text. */
dynstr *dynstr_fromstring(unsigned poolid, const char *text);
/** dynstr_fromstring() for a caller that holds the lock. */
dynstr *dynstr_fromstring_nolock(unsigned poolid, const char *text);
/** With a part of the text, as dynstr_setsubstring(). */
dynstr *dynstr_fromsubstring(unsigned poolid, const char *text, int offset, int length);
/** A copy, in the source's pool. */
dynstr *dynstr_fromdynstr(const dynstr *source);
/** dynstr_fromdynstr() for a caller that holds the lock. */
dynstr *dynstr_fromdynstr_nolock(const dynstr *source);
/** A copy of a part, as dynstr_setsubstring(), in the source's pool. */
dynstr *dynstr_fromsubdynstr(const dynstr *source, int offset, int length);
/** dynstr_fromsubdynstr() for a caller that holds the lock. */
dynstr *dynstr_fromsubdynstr_nolock(const dynstr *source, int offset, int length);
/** The text itself, which is not copied: it must stay as it is for as long as the string has it. Giving the string
 *  another text leaves it untouched. */
dynstr *dynstr_fromliteral(unsigned poolid, const char *text);
/** @} */

/** @name Comparing and copying out
 *  What is no string has the texts of dynstr_getstring(). @{ */

/** @return as strcmp() */
int dynstr_strcmp(const dynstr *a, const dynstr *b);
/** @return as strcmp(); a null text counts as "" */
int dynstr_strcmp2(const dynstr *d, const char *text);
/** Copies the text, cut to n - 1 characters, and fills the rest of the n bytes with zeros: there is always a
 * terminator. n below 1 and a null destination copy nothing. @return destination */
char *dynstr_strncpy(char *destination, const dynstr *d, unsigned n);
/** @} */

/** @name Texts as values
 *  @return 0; 0x10003 for a null argument, for what is no string (level 2 trace) and for a text that does not parse;
 * the value is written on success only. Unless said otherwise a string without text is 0x10003. @{ */

/** A decimal number: blanks and a sign may lead, anything may follow; a minus wraps. Above the range: 4294967295. */
unsigned dynstr_getulong(const dynstr *d, unsigned *value);
/** A decimal number, as dynstr_getulong(), whose name is its lock tag. Out of range: the nearest limit. */
unsigned dynstr_getlong(const dynstr *d, int *value);
/** 0 when there is no text, or it begins with '0' or 'f'; else 1. Nothing else is looked at: "no" and "FALSE" are 1. */
unsigned dynstr_getbool(const dynstr *d, unsigned *value);
/** An IPv4 address, in all forms that inet_aton() takes, in network byte order. An empty text that has its zero, as
 *  dynstr_sprintf() makes it, is the address 0. */
unsigned dynstr_getipaddr(const dynstr *d, unsigned *address);
/** A MAC address: six bytes from 12 hexadecimal digits, or from 17 characters with anything between the pairs. */
unsigned dynstr_getmacaddr(const dynstr *d, unsigned char *mac);
/** Calendar seconds from "2024-02-29T12:34:56Z"; the Z may be missing, fields out of range carry into the next ones. 0
 *  from "0001-01-01T00:00:00Z", which is no date. The platform's calendar says from when the seconds count. */
unsigned dynstr_getutcdatetime(const dynstr *d, unsigned *seconds);
/** Bytes from hexadecimal digits; an odd one at the end is the upper half of a byte. Characters are not checked: others
 *  give some value. A string without text gives no bytes. Bytes of the buffer behind the text's are set to 0.
 *  @return also 0x10001 when the text has more bytes than `size`; the buffer is untouched then */
unsigned dynstr_gethexstring(const dynstr *d, unsigned char *buffer, int size);
/** @} */

/** @name Values as texts
 *  Results are as in Assignment, those of the constructors as in Constructors. The lock tag is "dynstr_sprintf",
 *  or "dynstr_fromprintf" in the constructors, unless said otherwise. @{ */

/** In decimal. */
unsigned dynstr_setulong(dynstr *d, unsigned value);
/** In decimal. */
unsigned dynstr_setlong(dynstr *d, int value);
/** "192.168.1.2", from an address in network byte order. */
unsigned dynstr_setipaddr(dynstr *d, unsigned address);
/** "00:11:22:aa:bb:cc", from six bytes. */
unsigned dynstr_setmacaddr(dynstr *d, const unsigned char *mac);
/** "2024-02-29T12:34:56Z"; for 0 "0001-01-01T00:00:00Z". */
unsigned dynstr_setutcdatetime(dynstr *d, unsigned seconds);
/** Two lower-case digits for each byte. A maximum size cuts whole bytes. No bytes give an empty string. Takes the lock
 *  under its own name. */
unsigned dynstr_sethexstring(dynstr *d, const unsigned char *bytes, int count);
/** In decimal. */
dynstr *dynstr_fromulong(unsigned poolid, unsigned value);
/** In decimal. */
dynstr *dynstr_fromlong(unsigned poolid, int value);
/** As dynstr_setipaddr(). */
dynstr *dynstr_fromipaddr(unsigned poolid, unsigned address);
/** As dynstr_setmacaddr(). */
dynstr *dynstr_frommacaddr(unsigned poolid, const unsigned char *mac);
/** @} */

/** @name Formatted text
 *  The formats are those of vsnprintf(), which sees them twice when the text does not fit into the current buffer. A
 * text ends at its first zero character. A null format is 0x10003 or null. @{ */

/** The string's own text may be among the arguments. @return 0, 0x10002 or 0x10003 */
unsigned dynstr_sprintf(dynstr *d, const char *format, ...) __attribute__((format(printf, 2, 3)));
/** A new string. */
dynstr *dynstr_fromprintf(unsigned poolid, const char *format, ...) __attribute__((format(printf, 2, 3)));
/** A new string. `arguments` may not be used again. */
dynstr *dynstr_fromvprintf(unsigned poolid, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
/** A new string, as dynstr_sethexstring(). */
dynstr *dynstr_hexstringfromdata(unsigned poolid, const unsigned char *bytes, int count);
/** @} */

/** @name Joining
 *  As in Constructors; all items of the list must be strings, also those that are left out. `separator` goes between
 *  items, null is none. No item makes a string without text.
 *  @{ */

/** The items of the list (see strlist.h), from the first to the last. */
dynstr *dynstr_fromstrlist(unsigned strpool, llist *list, const char *separator);
/** The items from index `first` on and before `last`, neither of which counts from the end. */
dynstr *dynstr_frompartialstrlist(unsigned strpool, llist *list, const char *separator, int first, int last);
/** As dynstr_fromstrlist(); inside items the escape character is put before each of its own kind and before each
 *  separator. A separator of several characters, and an escape character of 0, escape nothing. */
dynstr *dynstr_fromstrlist_escaped(unsigned strpool, llist *list, const char *separator, char escape);
/** @} */

/** @name Creation with caller information
 *  Each stores the result of the call in its name in *slot and tells memm_addToAllocateList() slot, file and line. A
 * null slot does nothing at all. @{ */
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
void _dynstr_ex_fromprintf(unsigned poolid, dynstr **slot, const char *format, const char *file, int line, ...)
    __attribute__((format(printf, 3, 6)));
void _dynstr_ex_fromvprintf(unsigned poolid, dynstr **slot, const char *format, va_list arguments, const char *file,
                            int line) __attribute__((format(printf, 3, 0)));
void _dynstr_ex_fromsubstring(unsigned poolid, dynstr **slot, const char *text, int offset, int length,
                              const char *file, int line);
void _dynstr_ex_hexstringfromdata(unsigned poolid, dynstr **slot, const unsigned char *bytes, int count,
                                  const char *file, int line);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
