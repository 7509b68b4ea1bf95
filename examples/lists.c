/* Lists of shared objects, lists of strings, pairs. */
#include <memmanager/platform.h>
#include <memmanager/strpair.h>

static int by_text(void *placed, void *ordered) { return dynstr_strcmp(placed, ordered); }

int main(void)
{
    memm_init(8, 4);
    int nodes = llist_initpool("nodes", 100, sizeof(llist), 0);
    int strings = dynstr_initpool("strings", 100, 4096);

    strlist *options = strlist_fromstring("rw,noatime,data=ordered,errors=remount-ro", ",", nodes, strings);
    llist_sort(&options, by_text);
    dynstr *line = strlist_todynstr(options, ", ", strings);
    dbg_printf("%d options: %s\n", strlist_getlength(options), dynstr_getstring(line));

    strlist *chosen = 0; /* shares two strings with the first list */
    strlist_addref(&chosen, strlist_getdynstr_at(options, 0), nodes);
    strlist_addref(&chosen, strlist_getdynstr_at(options, -1), nodes);
    llist_free_plist(&options); /* what is shared stays */

    strpairlist *values = 0;
    int index = 0;
    void *cursor = 0;
    for (dynstr *option; (option = strlist_enum_dynstr(chosen, &index, &cursor)) != 0;) {
        char text[40];
        strpair *pair = strpair_fromstring(dynstr_strncpy(text, option, sizeof text), "=", nodes, strings);
        strpairlist_addstringpair(&values, pair, nodes); /* the list owns the pair now */
    }
    dbg_printf("data is %s, rw \"%s\"\n", strpairlist_getsecondstring_byfirststring(values, "data"),
               strpairlist_getsecondstring_byfirststring(values, "rw"));

    memm_free(line);
    llist_free_plist(&chosen);
    llist_free_plist(&values);
    memm_print_stats("nodes");
    return memm_get_pool_nolock((unsigned)nodes)->cur_count;
}
