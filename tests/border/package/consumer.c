/* The smallest application: takes an object from a pool, shares it, gives both holds back. */
#include <memmanager/memmanager.h>

int main(void)
{
    if (memm_init(8, 8) != MEMM_OK) {
        return 1;
    }
    int pool = memm_initpool("objects", 4, sizeof(int), 0);
    int *object = memm_calloc((unsigned)pool);
    if (object == 0 || *object != 0 || memm_refalloc(object) != object) {
        return 2;
    }
    memm_free(object);
    memm_free(object);
    return memm_getfirst((unsigned)pool) == 0 ? 0 : 3;
}
