/* Data buffers: frames as they come in, collected, compared, cut, released. */
#include <memmanager/dyndata.h>
#include <memmanager/platform.h>

int main(void)
{
    memm_init(8, 4);
    if (dyndata_init(1) != MEMM_OK) { /* data pools are started by those who use them */
        return 1;
    }
    unsigned pool = (unsigned)dyndata_initpool("frames", 10, 4096); /* 10 buffers, 4096 bytes for all of them */

    const unsigned char header[] = {0x7e, 0, 3}, payload[] = {0x41, 0x42, 0x43}, trailer = 0x7e;
    dyndata *frame = dyndata_fromdata(pool, header, sizeof header);
    dyndata_adddata(frame, payload, sizeof payload);
    dyndata_adddata(frame, &trailer, 1);

    dyndata *copy = dyndata_fromdata(pool, dyndata_getdata(frame), dyndata_getdatasize(frame));
    dbg_printf("%u bytes, %s\n", dyndata_getdatasize(copy),
               dyndata_isdyndata_equal(frame, copy) ? "copied" : "garbled");

    dyndata *start = dyndata_calloc_maxsize(pool, 4); /* takes 4 bytes and says that there were more */
    if (dyndata_setdata(start, payload, sizeof payload) == MEMM_OK &&
        dyndata_setdata(start, dyndata_getdata(frame), dyndata_getdatasize(frame)) == MEMM_E_NO_MEMORY) {
        dbg_printf("the first %u bytes\n", dyndata_getdatasize(start));
    }
    dyndata_free(frame); /* the bytes of the others move down: addresses from dyndata_getdata() are stale now */
    memm_print_objects("frames");
    int left = dyndata_isdyndata_equal2(copy, header, sizeof header); /* no: it is longer */
    dyndata_free(copy);
    dyndata_free(start);
    memm_print_stats("frames");
    return left;
}
