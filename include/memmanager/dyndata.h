/** @file dyndata.h
 *  Buffers of bytes.
 */
#ifndef MEMMANAGER_DYNDATA_H
#define MEMMANAGER_DYNDATA_H

#include "memmanager.h"

/** An object of a data pool: the bytes lie in the pool's area. */
typedef struct dyndata {
    unsigned char *data;
    unsigned sizeinfo;
} dyndata;

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

unsigned dyndata_init(int count);
int dyndata_initpool(const char *name, int count, unsigned bufsize);
int dyndata_isdyndata(const void *obj);
unsigned dyndata_getmaxsize(const dyndata *d);
unsigned dyndata_setmaxsize(dyndata *d, unsigned maxsize);
unsigned dyndata_getdatasize(const dyndata *d);
const unsigned char *dyndata_getdata(const dyndata *d);
int dyndata_isdyndata_equal(const dyndata *a, const dyndata *b);
int dyndata_isdyndata_equal2(const dyndata *d, const void *bytes, unsigned length);
dyndata *dyndata_calloc(unsigned poolid);
dyndata *dyndata_calloc_maxsize(unsigned poolid, unsigned maxsize);
dyndata *dyndata_calloc_maxlen(unsigned poolid, unsigned maxsize);
dyndata *dyndata_refalloc(dyndata *d);
int dyndata_free(dyndata *d);
unsigned dyndata_setdata(dyndata *d, const void *bytes, unsigned length);
dyndata *dyndata_fromdata(unsigned poolid, const void *bytes, unsigned length);
unsigned dyndata_adddata(dyndata *d, const void *bytes, unsigned length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
