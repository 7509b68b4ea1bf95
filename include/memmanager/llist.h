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

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int llist_initpool(const char *name, int count, int objsize, const memm_pooloptions *options);
unsigned llist_addobject(llist **plist, void *obj, int poolid);
unsigned llist_addobject_nolock(llist **plist, void *obj, int poolid);
unsigned llist_addref(llist **plist, void *obj, int poolid);
unsigned llist_pushobject(llist **plist, void *obj, int poolid);
void *llist_popobject(llist **plist);
int llist_getlength(llist *list);
unsigned llist_free_plist(llist **plist);
llist *llist_get_first(llist *list);
llist *llist_get_next(llist *node);
llist *llist_get_at(llist *list, int index);
llist *llist_get_at_nolock(llist *list, int index);
void *llist_getobject_at(llist *list, int index);
void *llist_getobject_this(llist *node);
unsigned llist_setobject_at(llist *list, void *obj, int index);
void *llist_searchobject(llist *list, void *key, llist_match_fn compare);
llist *llist_search_byobject(llist *list, void *obj);
int llist_getindex_byobject(llist *list, void *obj);
int llist_inlist(llist *list, void *obj);
unsigned llist_delete_at(llist **plist, int index);
unsigned llist_delete_byobject(llist **plist, void *obj);
unsigned llist_remove_at(llist **plist, int index);
unsigned llist_remove_byobject(llist **plist, void *obj);
unsigned llist_unlink_at(llist **plist, int index);
unsigned llist_unlink_byobject(llist **plist, void *obj);
void *llist_getandremove_at(llist **plist, int index);
llist *llist_getandunlink_at(llist **plist, int index);
llist *llist_getandunlink_byobject(llist **plist, void *obj);
unsigned llist_sort(llist **plist, llist_compare_fn compare);
unsigned llist_insert_sorted(llist **plist, void *obj, int poolid, llist_compare_fn compare);
unsigned llist_reverse(llist **plist);
unsigned llist_insert_at(llist **plist, void *obj, int index, int poolid);
unsigned llist_insert_list_at(llist **plist, llist *list, int index);
unsigned llist_addlist(llist **plist, llist *list);
llist *llist_split_at(llist **plist, int index);
llist *llist_refalloc(llist *list, int poolid);
unsigned llist_clone(llist **plist, llist *list, int poolid);
unsigned llist_move_byobject(llist **source, llist **destination, void *obj);
void *llist_get_bytype(llist *list, unsigned type, int skip_first);
int llist_enumcb_bytype(llist *list, unsigned type, llist_visit_fn callback, void *argument);
void *llist_enum_bytype(llist *list, unsigned type, int *index, void **cursor);
void *llist_enum_bytype_nolock(llist *list, unsigned type, int *index, void **cursor);
struct dynstr *llist_enum_dynstr(llist *list, int *index, void **cursor);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
