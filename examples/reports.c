/* What a process can say of itself: an application's own lines in the reports, what they leave out, where they go, and
 * the file that a signal makes. */
#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <signal.h>
#include <stdlib.h>

enum { IDLE, BUSY, BROKEN };

struct worker {
    int state;
    char *buffer; /* of outside memory */
    unsigned bytes;
};

static int outside_bytes, most_outside_bytes;

static struct worker *start(unsigned pool, int state, unsigned bytes)
{
    struct worker *worker = memm_calloc(pool);
    if (worker != 0) {
        worker->state = state;
        worker->buffer = malloc(bytes);
        worker->bytes = worker->buffer != 0 ? bytes : 0;
        outside_bytes += (int)worker->bytes;
        most_outside_bytes = outside_bytes > most_outside_bytes ? outside_bytes : most_outside_bytes;
    }
    return worker;
}

/* The pool asks before a worker's slot becomes free. */
static int stop(void *object)
{
    struct worker *worker = object;
    outside_bytes -= (int)worker->bytes;
    free(worker->buffer);
    return MEMM_OK;
}

/* Behind each object in a listing. */
static void show(void *object)
{
    static const char *const names[] = {"idle", "busy", "broken"};
    const struct worker *worker = object;
    dbg_printf(" - %s, %u bytes", names[worker->state], worker->bytes);
}

/* At the lowest level a listing names only what is out of order. */
static int is_listed(void *object, int level) { return level > 0 || ((struct worker *)object)->state == BROKEN; }

/* Behind the pool's row; what is added counts in the totals. */
static void count_outside(void *cookie, int *current, int *most, int *available, memm_printf_fn print)
{
    (void)cookie;
    if (current != 0) {
        *current += outside_bytes;
        *most += most_outside_bytes;
        *available += most_outside_bytes;
    }
    print("\r\n - outside bytes %d, at most %d", outside_bytes, most_outside_bytes);
}

int main(void)
{
    static const memm_pooloptions options = {
        .stats_cb = count_outside, .print_cb = show, .release_cb = stop, .filter_cb = is_listed};
    memm_init(8, 4);
    const unsigned pool = (unsigned)memm_initpool("workers", 4, sizeof(struct worker), &options);
    struct worker *first = start(pool, BUSY, 4000);
    start(pool, BROKEN, 100);
    start(pool, IDLE, 1);
    memm_print_stats("workers");
    memm_free(first);
    memm_print_objects2("workers", 0);
    memm_print_objects2("workers", 1);
    return raise(SIGUSR1); /* all of this, of all pools, in /var/tmp/memm_<process id> */
}
