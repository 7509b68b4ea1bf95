/* The records of the public headers, as applications were compiled against them. On a 32-bit target each has exactly
 * the documented words; on a 64-bit target the words that hold pointers widen. */
#include <stddef.h>

#include <memmanager/dyndata.h>
#include <memmanager/dynstring.h>
#include <memmanager/llist.h>
#include <memmanager/lock.h>
#include <memmanager/memmanager.h>
#include <memmanager/timestat.h>

#ifdef __cplusplus
#define SAME(a, b) static_assert((a) == (b), #a)
#else
#define SAME(a, b) _Static_assert((a) == (b), #a)
#endif
#define ON_BOTH(a, on_32, on_64) SAME(a, sizeof(void *) == 4 ? (on_32) : (on_64))

ON_BOTH(sizeof(memm_word), 4, 8);
ON_BOTH(sizeof(memm_pooloptions), 32, 64);
ON_BOTH(offsetof(memm_pooloptions, spare_count), 24, 48);
ON_BOTH(offsetof(memm_pooloptions, filter_cb), 28, 56);

ON_BOTH(sizeof(memm_pool), 172, 240);
ON_BOTH(offsetof(memm_pool, slots), 4, 8);
ON_BOTH(offsetof(memm_pool, cur_count), 12, 20);
ON_BOTH(offsetof(memm_pool, count_base), 28, 40);
ON_BOTH(offsetof(memm_pool, first_free), 36, 56);
ON_BOTH(offsetof(memm_pool, refs), 52, 88);
ON_BOTH(offsetof(memm_pool, alloc_count), 72, 108);
ON_BOTH(offsetof(memm_pool, flags), 136, 172);
ON_BOTH(offsetof(memm_pool, options), 140, 176);

ON_BOTH(sizeof(dynstr), 16, 32);
ON_BOTH(offsetof(dynstr, info), 4, 8);
ON_BOTH(offsetof(dynstr, prev), 8, 16);
ON_BOTH(sizeof(llist), 8, 16);
ON_BOTH(sizeof(dyndata), 8, 16);
ON_BOTH(offsetof(dyndata, sizeinfo), 4, 8);

SAME(sizeof(timestat), 16);
ON_BOTH(sizeof(LOCK), 40, 48);
ON_BOTH(offsetof(LOCK, owner_name), 12, 16);
ON_BOTH(offsetof(LOCK, lock_count), 20, 24);
