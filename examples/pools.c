/* Objects of a pool: taken, shared, looked up, listed, given back. The allocation that finds the pool empty is reported
 * on standard error, and in /tmp/memm_dump_<process id>. */
#include <memmanager/memmanager.h>
#include <memmanager/platform.h>

struct session {
    int number;
    char user[16];
};

static void print_session(void *object)
{
    const struct session *session = object;
    dbg_printf(" - session %d of %s", session->number, session->user);
}

static int has_number(void *object, int number) { return ((struct session *)object)->number == number; }

int main(void)
{
    memm_init(8, 4);
    unsigned pool = (unsigned)memm_initpool2("sessions", 3, sizeof(struct session), print_session, 0);

    struct session *session;
    for (int number = 1; (session = memm_calloc(pool)) != 0; ++number) { /* 3 are to be had */
        session->number = number;
        session->user[0] = (char)('a' + number);
    }
    session = memm_search(pool, 2, has_number);
    memm_refalloc(session); /* a second holder ... */
    memm_free(session);     /* ... lets go: the session is still there */
    memm_print_objects("sessions");

    memm_free(session);                           /* its last holder lets go */
    int is_reused = memm_calloc(pool) == session; /* the next one gets its slot */
    memm_print_stats("sessions");
    return is_reused ? 0 : 1;
}
