/* Strings: made, changed in place, limited, read as values, compared. */
#include <memmanager/dynstring.h>
#include <memmanager/platform.h>

int main(void)
{
    memm_init(8, 4);
    unsigned pool = (unsigned)dynstr_initpool("names", 100, 4096);

    dynstr *name = dynstr_fromstring(pool, "eth");
    dynstr_addstring(name, "0");
    dynstr_sprintf(name, "%s.%d", dynstr_getstring(name), 100); /* from its own text */
    dbg_printf("%s has %u characters\n", dynstr_getstring(name), dynstr_strlen(name));

    dynstr *label = dynstr_calloc_maxlen(pool, 4); /* longer texts are cut to 4 characters */
    dynstr_setdynstr(label, name);
    dbg_printf("%s %s %s\n", dynstr_getstring(label),
               dynstr_strcmp(label, name) < 0 ? "<" : ">=", dynstr_getstring(name));

    unsigned vlan = 0;
    dynstr *number = dynstr_fromsubdynstr(name, 5, -1);
    if (dynstr_getulong(number, &vlan) == MEMM_OK) {
        dbg_printf("number %u\n", vlan + 1);
    }
    unsigned char mac[6] = {2, 0, 0, 0xab, 0xcd, 0xef};
    dynstr *address = dynstr_frommacaddr(pool, mac);
    memm_print_objects("names");
    for (dynstr **string = (dynstr *[]){name, label, number, address, 0}; *string != 0; ++string) {
        memm_free(*string);
    }
    memm_print_stats("names"); /* the records wait for the next compaction, and do not count any more */
    return vlan == 100 ? 0 : 1;
}
