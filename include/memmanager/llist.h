/** @file llist.h
 *  Singly linked lists of objects: a list is its first node, null is the empty list. The nodes are objects of pools,
 * and each holds one reference to its object.
 */
#ifndef MEMMANAGER_LLIST_H
#define MEMMANAGER_LLIST_H

#include "memmanager.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A node. */
typedef struct llist {
    void *obj;
    struct llist *next;
} llist;
struct dynstr;

/** Orders two objects: more than 0 when `placed`, which is being placed, belongs behind `ordered`. */
typedef int (*llist_compare_fn)(void *placed, void *ordered);
/** Compares an object of a list with what is looked for. */
typedef int (*llist_match_fn)(void *held, void *key);
/** Visits an object of a list. */
typedef int (*llist_visit_fn)(void *obj, void *argument);

#ifdef __cplusplus
}
#endif

#endif
