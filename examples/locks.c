/* A lock that says how long it was waited for, and a stopwatch. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <memmanager/lock.h>
#include <memmanager/timestat.h>
#include <pthread.h>
#include <stdio.h>
#include <time.h>

static LOCK table;

static void *wait_for_table(void *unused)
{
    lock_lock(&table, 0, "wait_for_table");
    lock_unlock(&table);
    return unused;
}

int main(void)
{
    lock_initlock(&table, "table");
    lock_lock(&table, 0, "main");
    printf("held %d times\n", lock_lock(&table, 0, "main")); /* its holder may take it again */

    pthread_t waiter;
    timestat held;
    timestat_starttime(&held);
    pthread_create(&waiter, NULL, wait_for_table, NULL);
    nanosleep(&(struct timespec){.tv_nsec = 20000000}, NULL);
    lock_unlock(&table);
    lock_unlock(&table); /* now it is free */
    timestat_stoptime(&held);
    pthread_join(waiter, NULL);
    printf("held for %u us\n", timestat_elapstime(&held));
    fflush(stdout); /* what follows does not go through stdio */
    lock_print_allstats();
    return 0;
}
