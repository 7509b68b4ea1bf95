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

#endif
