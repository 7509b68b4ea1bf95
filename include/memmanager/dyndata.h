/** @file dyndata.h
 *  Buffers of bytes. A data pool has a number of small objects and one area in which the bytes of all of them lie
 * packed: a buffer that goes leaves no gap, for later bytes move down at once. docs/data-buffers.md shows more.
 *
 *  Calls that take the manager lock do it under their own names unless said otherwise; sizes and comparisons take none,
 *  so hold it with memm_lock() while other tasks change the pool. A call that gets null, a released object or an object
 *  of another kind of pool answers as said, and changes and reports nothing. The result codes are those of
 * memmanager.h.
 */
#ifndef MEMMANAGER_DYNDATA_H
#define MEMMANAGER_DYNDATA_H

#include "memmanager.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A data buffer. The members are the library's; docs/data-buffers.md explains `sizeinfo`. */
typedef struct dyndata {
    unsigned char *data;
    unsigned sizeinfo;
} dyndata;

/** @name Data pools
 *  @{ */

/** Makes "dyndata_pool", which has an object for each data pool. The process calls it once, after memm_init().
 *  @param count  data pools that the process can have
 *  @return 0; 0x10002 and err_printf() 0x10007 when it cannot be made or there is one: that stays in force
 *  @note   takes the lock as "memm_initpool" */
unsigned dyndata_init(int count);
/** Creates a data pool. Its memory is never given back.
 *  @param name     as in memm_initpool()
 *  @param count    buffers. Replacing the bytes of one takes a further object for the moment, appending to one that is
 *                  not the last of the area takes two: leave some free
 *  @param bufsize  bytes of the area, which is filled with zeros; 0 is allowed
 *  @return the pool id; -1 before dyndata_init(), without an object for the pool or memory for the area. When the
 * objects cannot be had or the name is taken, err_printf() gets 0x10007 besides, and what was had is kept */
int dyndata_initpool(const char *name, int count, unsigned bufsize);
/** @} */

/** @name Buffers
 *  @{ */

/** memm_calloc(): a buffer without bytes and without a maximum size. Takes the lock as "memm_calloc". */
dyndata *dyndata_calloc(unsigned poolid);
/** dyndata_calloc() with a maximum size as in dyndata_setmaxsize(). Any pool may be asked: where objects are smaller
 * than a buffer, and for descriptors, the limit is not written. Takes the lock as "memm_calloc". */
dyndata *dyndata_calloc_maxsize(unsigned poolid, unsigned maxsize);
/** dyndata_calloc_maxsize(). */
dyndata *dyndata_calloc_maxlen(unsigned poolid, unsigned maxsize);
/** A new buffer with all of these bytes; null bytes make it empty.
 *  @return the buffer, held by the caller: give it back with dyndata_free(). Null without an object or without room for
 *          all bytes, and with a level 1 trace for a pool of another kind */
dyndata *dyndata_fromdata(unsigned poolid, const void *bytes, unsigned length);
/** memm_refalloc(). Takes the lock as "memm_refalloc". */
dyndata *dyndata_refalloc(dyndata *d);
/** memm_free(): the last holder's call gives the bytes' room back. Later bytes of the area move down then.
 *  Takes the lock as "memm_free". */
int dyndata_free(dyndata *d);
/** @return 1 for a buffer that is not released, 0 for every other pointer
 *  @note   takes no lock */
int dyndata_isdyndata(const void *obj);
/** @} */

/** @name Bytes
 *  @{ */

/** Replaces the bytes; null takes them away and leaves the size as it was. The new ones may be made from the old ones:
 *  they are placed first, so both have to find room at a time.
 *  @return 0; 0x10002 when the maximum size or the area has no room for all: the buffer has what fitted then, or with
 * no room at all neither bytes nor a maximum size. 0x10002, and nothing is changed, when the pool has no free object.
 * 0x10003 for what is no buffer */
unsigned dyndata_setdata(dyndata *d, const void *bytes, unsigned length);
/** Appends the bytes, which may be the buffer's own. A maximum size does not count here, but for a buffer without
 * bytes: that is dyndata_setdata(). Appending to the last bytes of the area costs their copy only. Any other buffer
 * moves to the end first, for which there has to be room, and loses its maximum size.
 *  @return 0, also for null bytes, which change nothing; 0x10002, and nothing is changed, without room for all bytes or
 *          free objects; 0x10003 for what is no buffer */
unsigned dyndata_adddata(dyndata *d, const void *bytes, unsigned length);
/** @return the bytes, null when there are none. Valid until a buffer of the same pool is changed or released */
const unsigned char *dyndata_getdata(const dyndata *d);
/** @return the size in bytes; 0 for what is no buffer
 *  @note   takes no lock */
unsigned dyndata_getdatasize(const dyndata *d);
/** @return the maximum size, 0 for none; 0 for what is no buffer
 *  @note   takes no lock */
unsigned dyndata_getmaxsize(const dyndata *d);
/** Sets the maximum size; bytes that are there stay. 0 and more than 32766 are none. A buffer of more than 65535 bytes
 *  has none and gets none. @return 0, 0x10003
 *  @note   takes no lock */
unsigned dyndata_setmaxsize(dyndata *d, unsigned maxsize);
/** @return 1 when both have the same bytes, at least one; else 0
 *  @note   takes no lock */
int dyndata_isdyndata_equal(const dyndata *a, const dyndata *b);
/** @return 1 when the buffer has these bytes, at least one; else 0
 *  @note   takes no lock */
int dyndata_isdyndata_equal2(const dyndata *d, const void *bytes, unsigned length);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
