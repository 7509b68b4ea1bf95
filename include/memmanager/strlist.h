/** @file strlist.h
 *  Lists of strings.
 */
#ifndef MEMMANAGER_STRLIST_H
#define MEMMANAGER_STRLIST_H

#include "dynstring.h"
#include "llist.h"

/** A list whose objects are strings. */
typedef llist strlist;

#endif
