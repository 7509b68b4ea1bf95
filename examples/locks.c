/* A lock that says how long it was waited for, and a stopwatch. */
#include <memmanager/lock.h>
#include <memmanager/timestat.h>
#include <stdio.h>
#include <threads.h>

static LOCK table;

static int wait_for_table(void *unused)
{
    lock_lock(&table, 0, "wait_for_table");
    lock_unlock(&table);
    (void)unused;
    return 0;
}

int main(void)
{
    lock_initlock(&table, "table");
    lock_lock(&table, 0, "main");
    printf("held %d times\n", lock_lock(&table, 0, "main")); /* its holder may take it again */

    thrd_t waiter;
    timestat held;
    timestat_starttime(&held);
    thrd_create(&waiter, wait_for_table, NULL);
    thrd_sleep(&(struct timespec){.tv_nsec = 20000000}, NULL);
    lock_unlock(&table);
    lock_unlock(&table); /* now it is free */
    timestat_stoptime(&held);
    thrd_join(waiter, NULL);
    printf("held for %u us\n", timestat_elapstime(&held));
    fflush(stdout); /* what follows does not go through stdio */
    lock_print_allstats();
    return 0;
}
