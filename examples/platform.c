/* A device without a heap: pools live in a part of memory that the linker script could place, blocks for a moment in
 * another, and time comes from a tick. What the application defines here replaces the library's own. */
#include <memmanager/dynstring.h>
#include <memmanager/platform.h>
#include <string.h>

enum { POOL_WORDS = 8192, MOMENTS = 2, MOMENT_BYTES = 512, NO_ROOM = 12 };

/* --- pool memory: handed out for good, and booked by its label --- */

static memm_word pool_memory[POOL_WORDS];
static unsigned words_taken;

static struct {
    char label[24];
    unsigned bytes;
} account[16];

static void book(const char *label, unsigned bytes)
{
    unsigned i = 0;
    while (i < 15 && account[i].bytes != 0 && strncmp(account[i].label, label, sizeof account[i].label - 1) != 0) {
        ++i;
    }
    for (unsigned at = 0; at < sizeof account[i].label - 1 && label[at] != 0; ++at) {
        account[i].label[at] = label[at];
    }
    account[i].bytes += bytes;
}

unsigned xm_alloc(const char *label, int option, unsigned size, void **block)
{
    const unsigned words = size / sizeof(memm_word) + 1;
    (void)option;
    if (words > POOL_WORDS - words_taken) {
        return NO_ROOM; /* the call that wanted a pool fails, and nothing else */
    }
    *block = pool_memory + words_taken;
    words_taken += words;
    book(label, size);
    return 0;
}

/* --- blocks for a moment: asked for with the manager lock held, so that nothing here needs one --- */

static memm_word moments[MOMENTS][MOMENT_BYTES / sizeof(memm_word)];
static int is_taken[MOMENTS];

unsigned xm_getmem(unsigned size, void **block)
{
    for (int i = 0; i < MOMENTS; ++i) {
        if (!is_taken[i] && size <= MOMENT_BYTES) {
            is_taken[i] = 1;
            *block = moments[i];
            return 0;
        }
    }
    return NO_ROOM;
}

unsigned xm_retmem(void *block)
{
    for (int i = 0; i < MOMENTS; ++i) {
        if (block == moments[i]) {
            is_taken[i] = 0;
            return 0;
        }
    }
    return NO_ROOM;
}

/* --- time --- */

void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds)
{
    static unsigned ticks; /* of a millisecond; here they pass by being read */
    *seconds = ticks / 1000;
    *microseconds = ticks++ % 1000 * 1000;
}

int main(void)
{
    memm_init(8, 4);
    const unsigned pool = (unsigned)dynstr_initpool2("names", 20, 600, 1);
    dynstr *name = 0;
    for (int i = 0; i < 100;
         ++i) { /* the buffer is compacted now and then; meanwhile a text waits in a moment's block */
        memm_free(name);
        name = dynstr_fromprintf(pool, "device %d, %050d", i, i);
    }
    dbg_printf("%.10s\r\n", dynstr_getstring(name));
    for (int i = 0; i < 16 && account[i].bytes != 0; ++i) {
        dbg_printf("%-24s%6u bytes\r\n", account[i].label, account[i].bytes);
    }
    dbg_printf("of %u words %u are left\r\n", (unsigned)POOL_WORDS, POOL_WORDS - words_taken);
    const int too_many = memm_initpool("too many", 1000, 1000, 0);
    memm_print_stats("names");
    return name != 0 && too_many == -1 && !is_taken[0] && !is_taken[1] ? 0 : 1;
}
