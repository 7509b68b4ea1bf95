/** @file llist.h
 *  Singly linked lists of objects: a list is its first node, null is the empty list. A node is an object of a node
 *  pool, and owns one reference to the object that it holds.
 *
 *  - `plist` is the address of the caller's list variable; calls that take the list itself leave its first node.
 *  - An index counts from 0. A negative one counts from the end of the list: -1 is the last node.
 *  - A node that holds null ends the list for llist_getlength(), and with it for negative indices. All other walks pass
 *    it: the list A, (null), C has length 1, and index 2 is C.
 *  - A list has no other record than its nodes, and callers may link them themselves. So adding at the end walks the
 *    list: to build a long one, push and reverse, split or copy, or append whole lists (docs/containers.md).
 *  - Results of type unsigned: 0, 0x10002 when the node pool has no node left, 0x10003 for a null `plist`, a list that
 *    does not begin with a node, a position that does not exist, an object that is not found. A null or bad list yields
 *    null, 0 or -1 where there is another result. Nothing is changed then, unless a call says otherwise.
 *  - A call that makes nodes in a pool of smaller objects than a node, or in a pool of strings, data or descriptors,
 *    answers as if no node were left.
 *  - Every call takes the manager lock under its own name, unless its note says otherwise. `_nolock` calls are for
 *    tasks that hold it. Compare and match functions run under the lock, and must leave the list as it is.
 *
 *  docs/containers.md shows who holds an object before and after each call. The result codes are those of memmanager.h.
 */
#ifndef MEMMANAGER_LLIST_H
#define MEMMANAGER_LLIST_H

#include "memmanager.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A node. */
typedef struct llist {
    void *obj;
    struct llist *next;
} llist;
struct dynstr;

/** Orders two objects: more than 0 when `placed`, which is being placed, belongs behind `ordered`. Nothing else is
 *  looked at. */
typedef int (*llist_compare_fn)(void *placed, void *ordered);
/** Compares an object of a list with what is looked for: not 0 when it is found. */
typedef int (*llist_match_fn)(void *held, void *key);
/** Visits an object of a list: 0 ends the walk. */
typedef int (*llist_visit_fn)(void *obj, void *argument);

/** @name Node pools
 *  @{ */

/** Creates a pool of nodes. Takes the lock as "memm_initpool".
 *  @param name     as in memm_initpool()
 *  @param count    nodes
 *  @param objsize  bytes of a node: sizeof(llist), or more for members of the caller's behind it. 1 and more below that
 *                  count as sizeof(llist)
 *  @param options  as in memm_initpool(). release_cb is always the library's: it releases what follows a node, and what
 *                  it holds. So is print_cb where it is null. A release2_cb replaces the release
 *  @return the pool id, -1 as memm_initpool() */
int llist_initpool(const char *name, int count, int objsize, const memm_pooloptions *options);
/** @} */

/** @name Adding and releasing
 *  @{ */

/** Adds a node at the end, which takes over the caller's reference to the object.
 *  @return 0; 0x10002: the reference stays with the caller; 0x10003: the node was made and released again, and the
 *          object with it */
unsigned llist_addobject(llist **plist, void *obj, int poolid);
/** llist_addobject() for a caller that holds the lock. */
unsigned llist_addobject_nolock(llist **plist, void *obj, int poolid);
/** As llist_addobject(), with a reference of its own: the caller keeps its one, whatever the result is. An object that
 *  takes no further reference is 0x10002; null needs none. */
unsigned llist_addref(llist **plist, void *obj, int poolid);
/** llist_insert_at() of index 0, whose name is its lock tag. */
unsigned llist_pushobject(llist **plist, void *obj, int poolid);
/** llist_getandremove_at() of index 0. Takes the lock as "llist_cut_at". */
void *llist_popobject(llist **plist);
/** Releases the first node, and with it all that follow and what they hold; *plist becomes null. A node that is shared
 *  loses one holder. Constant stack, whatever the length.
 *  @return 0, also for an empty list; 0x10007 when an object or a node refused: those before it are released */
unsigned llist_free_plist(llist **plist);
/** @} */

/** @name Looking
 *  @{ */

/** @return the number of nodes before the first that holds null */
int llist_getlength(llist *list);
/** @return list when it is a node, else null */
llist *llist_get_first(llist *list);
/** @return the node behind this one; null at the end */
llist *llist_get_next(llist *node);
/** @return the node at the index, or null */
llist *llist_get_at(llist *list, int index);
/** llist_get_at() for a caller that holds the lock. */
llist *llist_get_at_nolock(llist *list, int index);
/** @return the object at the index, or null; the list keeps its reference */
void *llist_getobject_at(llist *list, int index);
/** @return the object of the node, or null; the node keeps its reference */
void *llist_getobject_this(llist *node);
/** Releases the object at the index and puts another one in its place, whose reference the list takes over.
 *  @return 0, also when the old object refuses its release; 0x10003 */
unsigned llist_setobject_at(llist *list, void *obj, int index);
/** @return the first object for which compare(object, key) is not 0; null when there is none, or no function */
void *llist_searchobject(llist *list, void *key, llist_match_fn compare);
/** @return the first node that holds the object, or null */
llist *llist_search_byobject(llist *list, void *obj);
/** @return the index of the first node that holds the object, or -1 */
int llist_getindex_byobject(llist *list, void *obj);
/** @return 1 when a node holds the object; 0 when none does, and for null. Takes the lock as "llist_searchobject" */
int llist_inlist(llist *list, void *obj);
/** @} */

/** @name Taking out
 *  The node at an index, or the first one that holds an object, leaves the list. Whatever becomes of it, its `next` is
 *  null then.
 *  @{ */

/** Releases the node, and the object with it. @return also 0x10007 when it is refused: the node is out of the list */
unsigned llist_delete_at(llist **plist, int index);
/** As llist_delete_at(). An empty list is 0x10003. */
unsigned llist_delete_byobject(llist **plist, void *obj);
/** Releases the node; its reference to the object is the caller's from now on. */
unsigned llist_remove_at(llist **plist, int index);
/** As llist_remove_at(). */
unsigned llist_remove_byobject(llist **plist, void *obj);
/** Releases nothing: the node is a list of its own now, which the caller has to know. */
unsigned llist_unlink_at(llist **plist, int index);
/** As llist_unlink_at(). */
unsigned llist_unlink_byobject(llist **plist, void *obj);
/** Releases the node. Takes the lock as "llist_cut_at".
 *  @return the object, whose reference is the caller's now, or null */
void *llist_getandremove_at(llist **plist, int index);
/** Takes the lock as "llist_cut_at". @return the node, a list of the caller's now, or null */
llist *llist_getandunlink_at(llist **plist, int index);
/** As llist_getandunlink_at(). Takes the lock as "llist_cut_byobject". */
llist *llist_getandunlink_byobject(llist **plist, void *obj);
/** @} */

/** @name Order and position
 *  @{ */

/** Sorts the list by relinking its nodes, in n log n compares and without memory but 8 KB of the stack (4 KB with 32
 *  bits). An object goes before those that it is not greater than: equal objects end up in the reverse of their order.
 *  A list of which llist_getlength() counts fewer than two nodes stays as it is; else all nodes are sorted. A null
 *  function is 0x10003. */
unsigned llist_sort(llist **plist, llist_compare_fn compare);
/** Adds an object to a sorted list: before the first one that it is not greater than. The list takes over the caller's
 *  reference. Compared are the first object, then every eleventh, then the ones from the last passed on.
 *  @return always 0, also when nothing was inserted: without a node, `plist` or function */
unsigned llist_insert_sorted(llist **plist, void *obj, int poolid, llist_compare_fn compare);
/** Reverses all nodes. */
unsigned llist_reverse(llist **plist);
/** Inserts an object before the node at the index; the list takes over the caller's reference. The length is the end;
 *  what is still negative after counting from the end is the front.
 *  @return 0; 0x10002: the reference stays with the caller; 0x10003: the new node, which holds the object, is lost */
unsigned llist_insert_at(llist **plist, void *obj, int index, int poolid);
/** Links a whole list in before the node at the index, as llist_insert_at(). The nodes are moved: `list` points into
 *  *plist afterwards. A null list changes nothing: 0. Lists that have nodes in common are 0x10003. */
unsigned llist_insert_list_at(llist **plist, llist *list, int index);
/** Links a whole list in at the end, as llist_insert_list_at(). A null list is 0x10003. Takes the lock as "llist_add".
 */
unsigned llist_addlist(llist **plist, llist *list);
/** Cuts the list off before the node at the index. Index 0 and minus the length take the whole list.
 *  @return the second part, a list of the caller's now; null when there is no such position */
llist *llist_split_at(llist **plist, int index);
/** Moves the first node that holds the object to the end of another list. @return 0; 0x10003: for a null `destination`
 *  the node is out of `source` all the same */
unsigned llist_move_byobject(llist **source, llist **destination, void *obj);
/** @} */

/** @name Copies, which share the objects
 *  @{ */

/** @return a new list with a reference of its own to every object, nodes that hold null included. What finds no node,
 *  or takes no further reference, is left out */
llist *llist_refalloc(llist *list, int poolid);
/** Adds a reference to each object of `list`, up to the first node that holds null, at the end of *plist. Takes the
 *  lock as "llist_refalloc". The lists may be one: then the nodes of before the call are copied.
 *  @return 0; 0x10002 without a node or a reference: then all of *plist is released, what was there before included,
 *          *plist is null, and the reference that was taken last is lost */
unsigned llist_clone(llist **plist, llist *list, int poolid);
/** @} */

/** @name Objects of one kind
 *  `type` is a pool id; 0xffffffff is every object, 0 none. Nodes that hold null are passed over.
 *  @{ */

/** @return the first such object, the second one when skip_first is not 0, or null */
void *llist_get_bytype(llist *list, unsigned type, int skip_first);
/** Calls callback(object, argument) for each object of the pool until it answers 0. 0xffffffff is no pool here, and a
 *  node that holds null ends the walk. The lock is taken for each node, as "llist_enumcb_bytype", and not held during
 *  the call: the callback may use every call, and change the list behind the next node.
 *  @return the number of calls that did not answer 0 */
int llist_enumcb_bytype(llist *list, unsigned type, llist_visit_fn callback, void *argument);
/** Walks over the objects, one with each call: begin with *index = 0. *index counts them, *cursor is the last one. It
 *  goes on behind the cursor's first node; where the cursor has left the list, with the object at position *index.
 *  @return *cursor; null at the end, for a null list, index or cursor */
void *llist_enum_bytype(llist *list, unsigned type, int *index, void **cursor);
/** llist_enum_bytype() for a caller that holds the lock. */
void *llist_enum_bytype_nolock(llist *list, unsigned type, int *index, void **cursor);
/** As llist_enum_bytype(), over all strings. */
struct dynstr *llist_enum_dynstr(llist *list, int *index, void **cursor);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
