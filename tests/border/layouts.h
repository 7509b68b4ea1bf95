/* The sizes of the records of the public headers, as applications were compiled against them: on a 32-bit target
 * exactly the documented words; on a 64-bit target the words that hold pointers widen. */
#include <memmanager/dyndata.h>
#include <memmanager/dynstring.h>
#include <memmanager/lock.h>
#include <memmanager/timestat.h>

#define SIZE(type, on_32, on_64)                                                                                       \
    typedef char size_of_##type[sizeof(type) == (sizeof(void *) == 4 ? (on_32) : (on_64)) ? 1 : -1]

SIZE(memm_word, 4, 8);
SIZE(memm_pooloptions, 32, 64);
SIZE(memm_pool, 172, 240);
SIZE(dynstr, 16, 32);
SIZE(llist, 8, 16);
SIZE(dyndata, 8, 16);
SIZE(timestat, 16, 16);
SIZE(LOCK, 40, 48);
