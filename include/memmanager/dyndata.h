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

#endif
